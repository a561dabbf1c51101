#include "orxweb/clipread.h"

#include <algorithm>
#include <cstring>

#include "orxweb/clipsource.h"
#include "orxweb/clipsurvey.h"

namespace orx {

constexpr uint32_t kReadAhead = 256U << 10;

namespace {
struct Filling {
    const ClipLayout *pLayout = nullptr;
    const Codec *pVideo = nullptr;  // null without pictures
    size_t nPiece = 0;
    uint32_t nUnits = 0;  // of sound so far, those that are left out as well
    uint32_t nTaken = 0;
    std::string pictures;
    std::string sound;
};
}  // namespace

static int IsDropped(const Filling *p)
{
    auto isBefore = [](const ClipDrop &a, const ClipDrop &b) {
        return a.nPiece != b.nPiece ? a.nPiece < b.nPiece : a.nUnit < b.nUnit;
    };
    return std::binary_search(p->pLayout->drops.begin(), p->pLayout->drops.end(),
                              ClipDrop{static_cast<uint32_t>(p->nPiece), p->nUnits}, isBefore);
}

static void TakeUnits(Filling *p, const ClipPiece &piece, const ClipRecord &record)
{
    ByteReader in{record.pData, record.nBytes};
    uint32_t nUnit = 0, nSkip = record.nPos == piece.nSoundAt ? piece.nSkip : 0;
    while (const uint8_t *pUnit = p->nTaken < piece.nUnits ? ClipNextUnit(&in, &nUnit) : nullptr) {
        if (nSkip > 0) {
            nSkip--;
            continue;
        }
        if (!IsDropped(p)) {
            p->sound.append(reinterpret_cast<const char *>(pUnit), nUnit);
            p->nTaken++;
        }
        p->nUnits++;
    }
}

// The sound's units, whose records lie before, among and behind those of the pictures.
static void FillUnits(const ClipReader *pReader, const ClipPiece &piece, Filling *p)
{
    ClipSource source = ClipSourceFrom(pReader->fd, piece.nSoundAt, p->pLayout->nEnd, kReadAhead);
    ClipRecord record;
    while (p->nTaken < piece.nUnits && p->sound.size() <= piece.nBytes && ClipSourceNext(&source, &record))
        if (record.head.chMedia == 'a')
            TakeUnits(p, piece, record);
}

static void FillPictures(const ClipReader *pReader, const ClipPiece &piece, Filling *p)
{
    int bLast = p->nPiece + 1 == p->pLayout->pieces.size();
    uint64_t nEnd = bLast ? p->pLayout->nEnd : p->pLayout->pieces[p->nPiece + 1].nPos;
    ClipSource source = ClipSourceFrom(pReader->fd, piece.nPos, nEnd, kReadAhead);
    ClipRecord record;
    while (p->pictures.size() <= piece.nBytes && ClipSourceNext(&source, &record))
        if (record.head.chMedia == 'v')
            ClipPictureAppend(p->pVideo, p->pLayout->bSetsInside, record.pData, record.nBytes, &p->pictures);
}

// Has the piece in memory. Returns 1, or 0 when the recording does not give it any more.
static int Fill(ClipReader *pReader, size_t nPiece)
{
    const ClipLayout *pLayout = pReader->pLayout;
    const ClipPiece &piece = pLayout->pieces[nPiece];
    Filling filling;
    filling.pLayout = pLayout;
    filling.nPiece = nPiece;
    if (!pLayout->video.empty())
        filling.pVideo = CodecByName(MEDIA_VIDEO_OTHER, pLayout->video.c_str(), CODEC_WIDE_RECORDING);
    pReader->nPiece = SIZE_MAX;
    if (!ClipFilePiece(pLayout, nPiece, &pReader->bytes, &filling.sound))
        return 0;
    if (piece.nUnits > 0)
        FillUnits(pReader, piece, &filling);
    if (filling.pVideo)
        FillPictures(pReader, piece, &filling);
    pReader->bytes += filling.sound;
    pReader->bytes += filling.pictures;
    if (pReader->bytes.size() != piece.nBytes)
        return 0;
    pReader->nPiece = nPiece;
    return 1;
}

// The next bytes at nOffset, which is below the size; null when they cannot be read.
static const char *Bytes(ClipReader *pReader, uint64_t nOffset, uint64_t *pnBytes)
{
    const ClipLayout *pLayout = pReader->pLayout;
    if (nOffset < pLayout->head.size()) {
        *pnBytes = pLayout->head.size() - nOffset;
        return pLayout->head.data() + nOffset;
    }
    auto isBefore = [](uint64_t n, const ClipPiece &f) { return n < f.nAt; };
    auto next = std::upper_bound(pLayout->pieces.begin(), pLayout->pieces.end(), nOffset, isBefore);
    auto nPiece = static_cast<size_t>(next - pLayout->pieces.begin()) - 1;
    if (nPiece != pReader->nPiece && !Fill(pReader, nPiece))
        return nullptr;
    uint64_t nInto = nOffset - pLayout->pieces[nPiece].nAt;
    *pnBytes = pReader->bytes.size() - nInto;
    return pReader->bytes.data() + nInto;
}

ssize_t ClipReaderRead(ClipReader *pReader, uint64_t nOffset, char *pOut, size_t nSize)
{
    uint64_t nAll = ClipLayoutSize(pReader->pLayout);
    size_t nDone = 0;
    while (nDone < nSize && nOffset + nDone < nAll) {
        uint64_t nBytes = 0;
        const char *p = Bytes(pReader, nOffset + nDone, &nBytes);
        if (!p)
            return nDone > 0 ? static_cast<ssize_t>(nDone) : -1;
        auto nPart = static_cast<size_t>(std::min<uint64_t>(nBytes, nSize - nDone));
        memcpy(pOut + nDone, p, nPart);
        nDone += nPart;
    }
    return static_cast<ssize_t>(nDone);
}

}  // namespace orx
