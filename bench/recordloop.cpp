// recordloop: what recording costs. Hands the packets of an 8 Mbit/s program (25 pictures a second in packets
// of 1400 bytes, G.711 between them) to a recording writer as fast as it takes them, and then writes the same
// bytes with a plain loop. Prints the processor time of both for each gigabyte and the longest time that one
// packet was held, as one JSON line. Arguments: a directory on the disk to be measured, megabytes (1000).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>

#include "base/console.h"
#include "record/zmfwriter.h"
#include "support/rtp.h"

using namespace orx;

constexpr uint32_t kPackets = 29;  // of a picture
constexpr size_t kPart = 1386;     // media bytes of a packet
constexpr size_t kSound = 320;     // 40 ms
constexpr size_t kPlain = 40000;   // written at a time by the plain loop: a picture
constexpr char kSdp[] =
    "v=0\r\ns=x\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\nm=audio 0 RTP/AVP 0\r\na=rtpmap:0 "
    "PCMU/8000\r\n";

struct Load {
    ZMFWriter *pWriter;
    RtpFields head;
    uint64_t nBytes = 0;  // of media
    double dLongestUs = 0;
};

static int Send(Load *pLoad, char chMedia, uint32_t nTimeMs, bool bMarker, const std::string &payload)
{
    pLoad->head.nSequence = static_cast<uint16_t>(pLoad->head.nSequence + (chMedia == 'v'));
    pLoad->head.nTime = nTimeMs * 90;
    pLoad->head.bMarker = bMarker;
    const std::string packet = MakeRtp(pLoad->head, payload);
    const auto start = std::chrono::steady_clock::now();
    int nResult = ZMFWriterWriteRtpPacket(pLoad->pWriter, reinterpret_cast<const uint8_t *>(packet.data()),
                                          static_cast<uint32_t>(packet.size()), chMedia, nTimeMs);
    const std::chrono::duration<double, std::micro> held = std::chrono::steady_clock::now() - start;
    pLoad->dLongestUs = std::max(pLoad->dLongestUs, held.count());
    pLoad->nBytes += payload.size();
    return nResult == 1;
}

// One picture of a unit in fragments, a parameter set in front of every 25th, and its sound.
static int SendPicture(Load *pLoad, uint32_t nPicture)
{
    uint32_t nTimeMs = nPicture * 40;
    int bGood = nPicture % 25 != 0 || Send(pLoad, 'v', nTimeMs, false, std::string(20, 0x67));
    for (uint32_t i = 0; bGood && i < kPackets; i++) {
        uint32_t nFlags = i == 0 ? 0x80 : i + 1 == kPackets ? 0x40 : 0;
        bGood = Send(pLoad, 'v', nTimeMs, i + 1 == kPackets,
                     "\x7C" + Be(nFlags | 5, 1) + std::string(kPart, static_cast<char>(nPicture)));
    }
    return bGood && Send(pLoad, 'a', nTimeMs + 1, true, std::string(kSound, 0x55));
}

static int Record(const std::string &path, uint64_t nBytes, Load *pLoad)
{
    pLoad->pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, "bench");
    int bGood = pLoad->pWriter && ZMFWriterSetSdp(pLoad->pWriter, kSdp) && ZMFWriterWriteHead(pLoad->pWriter);
    for (uint32_t i = 0; bGood && pLoad->nBytes < nBytes; i++)
        bGood = SendPicture(pLoad, i);
    ZMFWriterFree(pLoad->pWriter);
    return bGood;
}

static int WritePlain(const std::string &path, uint64_t nBytes)
{
    std::ofstream out(path, std::ios::binary);
    out.rdbuf()->pubsetbuf(nullptr, 0);
    const std::string piece(kPlain, 0x55);
    for (uint64_t nDone = 0; out && nDone < nBytes; nDone += piece.size())
        out << piece;
    return !!out;
}

int main(int argc, char **argv)
{
    const std::string path = std::string(argc > 1 ? argv[1] : ".") + "/recordloop.zmf";
    const uint64_t nBytes = (argc > 2 ? strtoull(argv[2], nullptr, 10) : 1000) * 1000000;
    ConsoleSetDaemon(1);
    Load load{};
    const clock_t nStart = clock();
    int bGood = Record(path, nBytes, &load);
    const clock_t nRecorded = clock();
    bGood = bGood && WritePlain(path, nBytes);
    const clock_t nEnd = clock();
    remove(path.c_str());
    if (!bGood) {
        fprintf(stderr, "recordloop: cannot write in %s\n", argc > 1 ? argv[1] : ".");
        return 1;
    }
    auto perGigabyte = [](clock_t nTicks, uint64_t n) { return double(nTicks) / CLOCKS_PER_SEC * 1e9 / double(n); };
    printf("{\"record_cpu_s_per_gb\":%.3f,\"plain_cpu_s_per_gb\":%.3f,\"longest_packet_us\":%.0f}\n",
           perGigabyte(nRecorded - nStart, load.nBytes), perGigabyte(nEnd - nRecorded, nBytes), load.dLongestUs);
    return 0;
}
