#include "orxweb/clipsource.h"

#include <algorithm>
#include <cstring>

#include "base/bytes.h"
#include "orxweb/clipbytes.h"
#include "orxzmf/jpegimage.h"
#include "record/recordwalk.h"

namespace orx {

int ClipDescriptionRead(int fd, ClipDescription *pOut)
{
    uint8_t bytes[kZmfHeadBytes] = {};
    ZMFileHeader head;
    if (ReadAt(fd, 0, bytes, kZmfFixedHeadBytes) != kZmfFixedHeadBytes ||
        !ZMFileHeaderDecode(bytes, kZmfFixedHeadBytes, &head))
        return 0;
    size_t nHead = std::min<size_t>(head.nHeadSize, sizeof(bytes));
    if (ReadAt(fd, 0, bytes, nHead) != nHead || !ZMFileHeaderDecode(bytes, nHead, &head))
        return 0;
    pOut->sdp.assign(head.nSdpSize, '\0');
    if (ReadAt(fd, uint64_t{head.nHeadSize} + head.nIdxSize, pOut->sdp.data(), head.nSdpSize) !=
        head.nSdpSize)
        return 0;
    pOut->nDataPos = ZMFileDataOffset(&head);
    SdpScanCodecs(pOut->sdp.c_str(), &pOut->codecs);
    return 1;
}

ClipSource ClipSourceFrom(int fd, uint64_t nPos, uint64_t nEnd, uint32_t nAhead)
{
    ClipSource source;
    source.fd = fd;
    source.nNext = source.nBufferPos = nPos;
    source.nEnd = nEnd;
    source.nAhead = nAhead;
    return source;
}

// Has nBytes from the next record on in the buffer. Returns them, or null when there are not so many.
static const uint8_t *Have(ClipSource *pSource, uint32_t nBytes)
{
    std::vector<uint8_t> &buffer = pSource->buffer;
    if (nBytes > pSource->nEnd - pSource->nNext)
        return nullptr;
    uint64_t nSkip = pSource->nNext - pSource->nBufferPos;
    if (nSkip <= buffer.size() && nBytes <= buffer.size() - nSkip)
        return buffer.data() + nSkip;
    size_t nKept = nSkip < buffer.size() ? buffer.size() - static_cast<size_t>(nSkip) : 0;
    if (nKept > 0)
        memmove(buffer.data(), buffer.data() + nSkip, nKept);
    pSource->nBufferPos = pSource->nNext;
    uint64_t nLeft = pSource->nEnd - pSource->nNext;
    buffer.resize(static_cast<size_t>(std::min<uint64_t>(nLeft, std::max(nBytes, pSource->nAhead))));
    nKept = std::min(nKept, buffer.size());
    buffer.resize(nKept +
                  ReadAt(pSource->fd, pSource->nNext + nKept, buffer.data() + nKept, buffer.size() - nKept));
    return nBytes <= buffer.size() ? buffer.data() : nullptr;
}

int ClipSourceNext(ClipSource *pSource, ClipRecord *pOut)
{
    const uint8_t *p = pSource->nNext < pSource->nEnd ? Have(pSource, kZmfRecordHeadBytes) : nullptr;
    if (!p)
        return 0;
    ZMFRecordHeadDecode(p, &pOut->head);
    if (pOut->head.nLength < kZmfRecordHeadBytes)
        return 0;
    p = Have(pSource, pOut->head.nLength);
    if (!p)
        return 0;
    pOut->nPos = pSource->nNext;
    pOut->pData = p + kZmfRecordHeadBytes;
    pOut->nBytes = pOut->head.nLength - kZmfRecordHeadBytes;
    pSource->nNext += pOut->head.nLength;
    return 1;
}

static int AppendUnits(const NalForm *pForm, int bSets, ByteReader in, std::string *pOut)
{
    uint32_t nUnit = 0;
    while (const uint8_t *pUnit = NalNext(&in, &nUnit)) {
        if (!bSets && IsNalSet(pForm->pfnKind(NalType(pForm, *pUnit))))
            continue;
        ClipPut(pOut, 4, nUnit);
        pOut->append(reinterpret_cast<const char *>(pUnit), nUnit);
    }
    return in.nLeft == 0;
}

int ClipPictureAppend(const Codec *pCodec, int bSets, const uint8_t *pData, uint32_t nBytes,
                      std::string *pOut)
{
    if (pCodec->nForm == FORM_JPEG) {
        std::string image;
        if (!JpegImageRebuild(pData, nBytes, &image))
            return 0;
        *pOut += image;
        return 1;
    }
    size_t nBefore = pOut->size();
    if (AppendUnits(pCodec->pNal, bSets, ByteReader{pData, nBytes}, pOut) && pOut->size() > nBefore)
        return 1;
    pOut->resize(nBefore);
    return 0;
}

}  // namespace orx
