#include "orxweb/clipfile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "base/bytes.h"
#include "base/fdguard.h"
#include "orxweb/clipbytes.h"
#include "record/recordwalk.h"

namespace orx {

// The file: a head of kHeadBytes; heads of fragments and sound, in any order; the tables.
constexpr size_t kHeadBytes = 56;  // magic, origin, place and size of the tables, and two checksums
constexpr size_t kHeadChecked = kHeadBytes - 4;
constexpr size_t kPieceBytes = 5 * 8 + 5 * 4;
constexpr size_t kDropBytes = 8;
constexpr uint64_t kMostTables = 256U << 20;
constexpr uint32_t kMostPiece = 64U << 20;  // bytes of its head, or of its sound
constexpr char kEnding[] = ".clip";
constexpr char kUnfinished[] = ".part";

// As in IEEE 802.3.
static uint32_t Check(uint32_t nSum, const void *pData, size_t nBytes)
{
    static const auto table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; i++) {
            t[i] = i;
            for (int k = 0; k < 8; k++)
                t[i] = t[i] & 1 ? 0xEDB88320U ^ t[i] >> 1 : t[i] >> 1;
        }
        return t;
    }();
    const auto *p = static_cast<const uint8_t *>(pData);
    nSum = ~nSum;
    for (size_t i = 0; i < nBytes; i++)
        nSum = table[(nSum ^ p[i]) & 0xFF] ^ nSum >> 8;
    return ~nSum;
}

static uint64_t ReadBe8(ByteReader *pIn)
{
    uint64_t nHigh = ReadBe(pIn, 4);
    return nHigh << 32 | ReadBe(pIn, 4);
}

void ClipLayoutFree(ClipLayout *pLayout)
{
    if (pLayout->fd >= 0)
        close(pLayout->fd);
    pLayout->fd = -1;
}

uint64_t ClipLayoutSize(const ClipLayout *pLayout)
{
    if (pLayout->pieces.empty())
        return pLayout->head.size();
    return pLayout->pieces.back().nAt + pLayout->pieces.back().nBytes;
}

// --- Writing ---

int ClipFileBegin(ClipFileOut *pOut, const std::string &path)
{
    pOut->path = path;
    std::string part = path + kUnfinished;
    unlink(part.c_str());
    int fd = open(part.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    pOut->pFile = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (fd >= 0 && !pOut->pFile)
        close(fd);
    if (!pOut->pFile)
        return 0;
    const char head[kHeadBytes] = {};
    ClipFilePut(pOut, head, sizeof(head));
    return 1;
}

uint64_t ClipFilePut(ClipFileOut *pOut, const void *pData, size_t nBytes)
{
    uint64_t nAt = pOut->nBytes;
    pOut->bFailed |= nBytes > 0 && fwrite(pData, 1, nBytes, pOut->pFile) != nBytes;
    pOut->nBytes += nBytes;
    return nAt;
}

int ClipFilePutHead(ClipFileOut *pOut, const std::string &head, ClipPiece *pPiece)
{
    std::string sound(pPiece->nSound, '\0');
    if (!sound.empty() && (fflush(pOut->pFile) != 0 || ReadAt(fileno(pOut->pFile), pPiece->nSoundAt,
                                                              sound.data(), sound.size()) != sound.size()))
        pOut->bFailed = 1;
    pPiece->nHead = static_cast<uint32_t>(head.size());
    pPiece->nHeadAt = ClipFilePut(pOut, head.data(), head.size());
    pPiece->nCheck = Check(Check(0, head.data(), head.size()), sound.data(), sound.size());
    return !pOut->bFailed;
}

static void PutText(std::string *pOut, const std::string &text)
{
    ClipPut(pOut, 4, text.size());
    *pOut += text;
}

static std::string Tables(const ClipLayout *pLayout)
{
    std::string out;
    for (const std::string *pText : {&pLayout->tag, &pLayout->head, &pLayout->codecs, &pLayout->video})
        PutText(&out, *pText);
    ClipPut(&out, 1, pLayout->bSetsInside);
    ClipPut(&out, 8, pLayout->nEnd);
    ClipPut(&out, 4, pLayout->pieces.size());
    for (const ClipPiece &f : pLayout->pieces) {
        for (uint64_t n : {f.nAt, f.nBytes, f.nPos, f.nHeadAt, f.nSoundAt})
            ClipPut(&out, 8, n);
        for (uint32_t n : {f.nHead, f.nSound, f.nSkip, f.nUnits, f.nCheck})
            ClipPut(&out, 4, n);
    }
    ClipPut(&out, 4, pLayout->drops.size());
    for (const ClipDrop &drop : pLayout->drops) {
        ClipPut(&out, 4, drop.nPiece);
        ClipPut(&out, 4, drop.nUnit);
    }
    return out;
}

static std::string Head(const ClipOrigin &origin, uint64_t nTablesAt, const std::string &tables)
{
    std::string head(kClipForm, 8);
    ClipPut(&head, 8, origin.nBytes);
    ClipPut(&head, 8, static_cast<uint64_t>(origin.nSeconds));
    ClipPut(&head, 4, origin.nNanos);
    ClipPut(&head, 8, nTablesAt);
    ClipPut(&head, 8, tables.size());
    ClipPut(&head, 8, Check(0, tables.data(), tables.size()));
    ClipPut(&head, 4, Check(0, head.data(), head.size()));
    return head;
}

// Lets go of the stream. Returns whether all of it is on the disk.
static int Close(ClipFileOut *pOut)
{
    int bGood = !pOut->bFailed && fflush(pOut->pFile) == 0 && fdatasync(fileno(pOut->pFile)) == 0;
    bGood &= fclose(pOut->pFile) == 0;
    pOut->pFile = nullptr;
    return bGood;
}

int ClipFileEnd(ClipFileOut *pOut, const ClipLayout *pLayout)
{
    std::string tables = Tables(pLayout), part = pOut->path + kUnfinished;
    uint64_t nTablesAt = ClipFilePut(pOut, tables.data(), tables.size());
    std::string head = Head(pLayout->origin, nTablesAt, tables);
    pOut->bFailed |= fseeko(pOut->pFile, 0, SEEK_SET) != 0;
    ClipFilePut(pOut, head.data(), head.size());
    if (Close(pOut) && rename(part.c_str(), pOut->path.c_str()) == 0)
        return 1;
    unlink(part.c_str());
    return 0;
}

void ClipFileDrop(ClipFileOut *pOut)
{
    if (!pOut->pFile)
        return;
    fclose(pOut->pFile);
    pOut->pFile = nullptr;
    unlink((pOut->path + kUnfinished).c_str());
}

// --- Reading ---

namespace {
struct FileHead {
    ClipOrigin origin;
    uint64_t nTablesAt = 0;
    uint64_t nTables = 0;
    uint32_t nTablesCheck = 0;
};
}  // namespace

// Results of ClipFileRead. The file ends with its tables.
static int ReadHead(int fd, FileHead *pOut)
{
    struct stat info {};
    char bytes[kHeadBytes];
    if (ReadAt(fd, 0, bytes, sizeof(bytes)) != sizeof(bytes) || memcmp(bytes, kClipForm, 8) != 0 ||
        GetBe(bytes + kHeadChecked, 4) != Check(0, bytes, kHeadChecked) || fstat(fd, &info) != 0)
        return 0;
    ByteReader in{reinterpret_cast<const uint8_t *>(bytes) + 8, kHeadBytes - 8};
    pOut->origin.nBytes = ReadBe8(&in);
    pOut->origin.nSeconds = static_cast<int64_t>(ReadBe8(&in));
    pOut->origin.nNanos = ReadBe(&in, 4);
    pOut->nTablesAt = ReadBe8(&in);
    pOut->nTables = ReadBe8(&in);
    pOut->nTablesCheck = static_cast<uint32_t>(ReadBe8(&in));
    return pOut->nTables <= kMostTables &&
           pOut->nTablesAt + pOut->nTables == static_cast<uint64_t>(info.st_size);
}

static std::string ReadText(ByteReader *pIn)
{
    uint32_t nBytes = ReadBe(pIn, 4);
    const uint8_t *p = ReadBytes(pIn, nBytes);
    return p ? std::string(reinterpret_cast<const char *>(p), nBytes) : "";
}

static int ReadPieces(ByteReader *pIn, ClipLayout *pOut)
{
    uint32_t nPieces = ReadBe(pIn, 4);
    if (nPieces > pIn->nLeft / kPieceBytes)
        return 0;
    pOut->pieces.resize(nPieces);
    uint64_t nAt = pOut->head.size();
    for (ClipPiece &f : pOut->pieces) {
        for (uint64_t *p : {&f.nAt, &f.nBytes, &f.nPos, &f.nHeadAt, &f.nSoundAt})
            *p = ReadBe8(pIn);
        for (uint32_t *p : {&f.nHead, &f.nSound, &f.nSkip, &f.nUnits, &f.nCheck})
            *p = ReadBe(pIn, 4);
        if (f.nAt != nAt || f.nHead > kMostPiece || f.nSound > kMostPiece ||
            f.nBytes < uint64_t{f.nHead} + f.nSound)
            return 0;
        nAt += f.nBytes;
    }
    return 1;
}

static int ReadTables(const std::string &tables, ClipLayout *pOut)
{
    ByteReader in{reinterpret_cast<const uint8_t *>(tables.data()), tables.size()};
    for (std::string *pText : {&pOut->tag, &pOut->head, &pOut->codecs, &pOut->video})
        *pText = ReadText(&in);
    pOut->bSetsInside = static_cast<uint8_t>(ReadBe(&in, 1));
    pOut->nEnd = ReadBe8(&in);
    if (!ReadPieces(&in, pOut))
        return 0;
    uint32_t nDrops = ReadBe(&in, 4);
    if (nDrops > in.nLeft / kDropBytes)
        return 0;
    pOut->drops.resize(nDrops);
    for (ClipDrop &drop : pOut->drops) {
        drop.nPiece = ReadBe(&in, 4);
        drop.nUnit = ReadBe(&in, 4);
    }
    return !in.bFailed && in.nLeft == 0;
}

int ClipFileRead(const std::string &path, ClipLayout *pOut)
{
    FdGuard fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)};
    if (fd.fd < 0)
        return 0;
    FileHead head;
    std::string tables;
    int bGood = ReadHead(fd.fd, &head);
    if (bGood) {
        tables.resize(static_cast<size_t>(head.nTables));
        bGood = ReadAt(fd.fd, head.nTablesAt, tables.data(), tables.size()) == tables.size() &&
                Check(0, tables.data(), tables.size()) == head.nTablesCheck && ReadTables(tables, pOut);
    }
    if (!bGood) {
        unlink(path.c_str());
        return 0;
    }
    pOut->origin = head.origin;
    pOut->fd = fd.Release();
    return 1;
}

int ClipFileOrigin(const std::string &path, ClipOrigin *pOut)
{
    FdGuard fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)};
    FileHead head;
    if (fd.fd < 0 || !ReadHead(fd.fd, &head))
        return 0;
    *pOut = head.origin;
    return 1;
}

int ClipFilePiece(const ClipLayout *pLayout, size_t nPiece, std::string *pHead, std::string *pSound)
{
    const ClipPiece &f = pLayout->pieces[nPiece];
    pHead->resize(f.nHead);
    pSound->resize(f.nSound);
    return ReadAt(pLayout->fd, f.nHeadAt, pHead->data(), f.nHead) == f.nHead &&
           ReadAt(pLayout->fd, f.nSoundAt, pSound->data(), f.nSound) == f.nSound &&
           Check(Check(0, pHead->data(), f.nHead), pSound->data(), f.nSound) == f.nCheck;
}

// --- The directory ---

void ClipFileTouch(const std::string &path)
{
    utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
}

namespace {
struct Kept {
    std::string path;
    timespec used{};
    uint64_t nBytes = 0;
};
}  // namespace

static std::vector<Kept> List(const std::string &directory, const std::string &ending)
{
    std::vector<Kept> kept;
    DIR *pDir = opendir(directory.c_str());
    while (const dirent *pEntry = pDir ? readdir(pDir) : nullptr) {
        std::string name = pEntry->d_name, path = directory;
        path.append("/").append(name);
        struct stat info {};
        if (name.ends_with(ending) && lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode))
            kept.push_back({path, info.st_mtim, static_cast<uint64_t>(info.st_size)});
    }
    if (pDir)
        closedir(pDir);
    return kept;
}

void ClipFilesClean(const std::string &directory)
{
    for (const Kept &file : List(directory, std::string(kEnding) + kUnfinished))
        unlink(file.path.c_str());
}

void ClipFilesTrim(const std::string &directory, uint64_t nMost, const std::string &keep)
{
    std::vector<Kept> kept = List(directory, kEnding);
    auto isOlder = [](const Kept &a, const Kept &b) {
        return a.used.tv_sec != b.used.tv_sec ? a.used.tv_sec < b.used.tv_sec
                                              : a.used.tv_nsec < b.used.tv_nsec;
    };
    std::sort(kept.begin(), kept.end(), isOlder);
    uint64_t nBytes = 0;
    for (const Kept &file : kept)
        nBytes += file.nBytes;
    for (const Kept &file : kept) {
        if (nBytes <= nMost)
            return;
        if (file.path != keep && unlink(file.path.c_str()) == 0)
            nBytes -= file.nBytes;
    }
}

}  // namespace orx
