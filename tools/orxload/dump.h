// The packets that orxpush has sent, from the file that it writes meanwhile: found by payload type and
// sequence number. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace orx {

struct PacketDump {
    int fd = -1;                     // owned
    const uint8_t *pData = nullptr;  // mapped, owned
    size_t nMapped = 0;
    size_t nIndexed = 0;                              // bytes whose packets are in the index
    std::unique_ptr<std::vector<size_t>> index[128];  // by payload type: sequence number to offset + 1
    PacketDump() = default;
    ~PacketDump();
    PacketDump(const PacketDump &) = delete;
    PacketDump &operator=(const PacketDump &) = delete;
};

// Opens the file, which may still grow. Returns 1 or 0.
int PacketDumpOpen(PacketDump *pDump, const char *szPath);
// Whether exactly these bytes were sent as the last packet of that type and sequence number. Looks at what
// the file has got meanwhile when they are not known yet.
int PacketDumpHolds(PacketDump *pDump, const uint8_t *pPacket, size_t nBytes);

}  // namespace orx
