#include "orxload/dump.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/bytes.h"
#include "client/rtppacket.h"

namespace orx {

constexpr size_t kSequences = 65536;

static void Unmap(PacketDump *pDump)
{
    if (pDump->pData)
        munmap(const_cast<uint8_t *>(pDump->pData), pDump->nMapped);
    pDump->pData = nullptr;
    pDump->nMapped = 0;
}

PacketDump::~PacketDump()
{
    Unmap(this);
    if (fd >= 0)
        close(fd);
}

int PacketDumpOpen(PacketDump *pDump, const char *szPath)
{
    pDump->fd = open(szPath, O_RDONLY | O_CLOEXEC);
    return pDump->fd >= 0;
}

// Maps the file as far as it reaches now. Returns 1 when there is more than before.
static int MapMore(PacketDump *pDump)
{
    struct stat info;
    if (fstat(pDump->fd, &info) != 0 || static_cast<size_t>(info.st_size) <= pDump->nMapped)
        return 0;
    Unmap(pDump);
    auto nBytes = static_cast<size_t>(info.st_size);
    void *p = mmap(nullptr, nBytes, PROT_READ, MAP_SHARED, pDump->fd, 0);
    if (p == MAP_FAILED)
        return 0;
    pDump->pData = static_cast<const uint8_t *>(p);
    pDump->nMapped = nBytes;
    return 1;
}

static void IndexMore(PacketDump *pDump)
{
    while (pDump->nMapped - pDump->nIndexed >= kFrameHeadBytes) {
        const uint8_t *pFrame = pDump->pData + pDump->nIndexed;
        size_t nFrame = kFrameHeadBytes + GetBe(pFrame + 2, 2);
        if (pDump->nMapped - pDump->nIndexed < nFrame)
            return;
        if (nFrame >= kFrameHeadBytes + kRtpHeadBytes) {
            auto &slot = pDump->index[pFrame[kFrameHeadBytes + 1] & 0x7F];
            if (!slot)
                slot = std::make_unique<std::vector<size_t>>(kSequences);
            (*slot)[GetBe(pFrame + kFrameHeadBytes + 2, 2)] = pDump->nIndexed + 1;
        }
        pDump->nIndexed += nFrame;
    }
}

static int Matches(const PacketDump *pDump, const uint8_t *pPacket, size_t nBytes)
{
    const auto &slot = pDump->index[pPacket[1] & 0x7F];
    size_t nAt = slot ? (*slot)[GetBe(pPacket + 2, 2)] : 0;
    if (!nAt)
        return 0;
    const uint8_t *pFrame = pDump->pData + nAt - 1;
    return GetBe(pFrame + 2, 2) == nBytes && memcmp(pFrame + kFrameHeadBytes, pPacket, nBytes) == 0;
}

int PacketDumpHolds(PacketDump *pDump, const uint8_t *pPacket, size_t nBytes)
{
    if (nBytes < kRtpHeadBytes)
        return 0;
    if (Matches(pDump, pPacket, nBytes))
        return 1;
    if (!MapMore(pDump))
        return 0;
    IndexMore(pDump);
    return Matches(pDump, pPacket, nBytes);
}

}  // namespace orx
