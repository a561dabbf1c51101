// recordloop: what recording costs. Hands the packets of an 8 Mbit/s program (25 pictures a second in packets
// of 1400 bytes, G.711 between them) to a recording writer as fast as it takes them, and then writes the same
// bytes with a plain loop. Prints the processor time of both for each gigabyte and the longest time that one
// packet was held, as one JSON line. Argument: a directory on the disk to be measured; -m megabytes (1000).
#include <fcntl.h>
#include <getopt.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "base/console.h"
#include "record/zmfwriter.h"

using namespace orx;

constexpr uint32_t kPackets = 29;      // of a picture
constexpr uint32_t kPart = 1386;       // media bytes of a packet
constexpr uint32_t kSoundBytes = 320;  // 40 ms
constexpr uint32_t kKeyInterval = 25;
constexpr size_t kPlainBytes = 40000;  // written at a time by the plain loop: a picture
constexpr double kGigabyte = 1e9;
constexpr char kSdp[] =
    "v=0\r\ns=x\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\nm=audio 0 RTP/AVP 0\r\na=rtpmap:0 "
    "PCMU/8000\r\n";

struct Load {
    ZMFWriter *pWriter;
    uint16_t nSeq = 0;
    uint64_t nMediaBytes = 0;
    double dLongestUs = 0;
};

static double NowUs(clockid_t nClock)
{
    timespec now{};
    clock_gettime(nClock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

static int Send(Load *pLoad, char chMedia, uint32_t nTimeMs, int bMarker, std::vector<uint8_t> *pPacket)
{
    uint8_t *p = pPacket->data();
    p[0] = 0x80;
    p[1] = static_cast<uint8_t>(bMarker ? 0xE0 : 0x60);
    PutBe(p + 2, 2, chMedia == 'v' ? pLoad->nSeq++ : 0);
    PutBe(p + 4, 4, nTimeMs * 90);
    double dStart = NowUs(CLOCK_MONOTONIC);
    int nResult =
        ZMFWriterWriteRtpPacket(pLoad->pWriter, p, static_cast<uint32_t>(pPacket->size()), chMedia, nTimeMs);
    pLoad->dLongestUs = std::max(pLoad->dLongestUs, NowUs(CLOCK_MONOTONIC) - dStart);
    pLoad->nMediaBytes += pPacket->size() - 12;
    return nResult == 1;
}

// One picture of two units in fragments, a parameter set in front of every 25th, and its sound.
static int SendPicture(Load *pLoad, uint32_t nPicture)
{
    uint32_t nTimeMs = nPicture * 40;
    std::vector<uint8_t> sps(12 + 20, 0x67);
    if (nPicture % kKeyInterval == 0 && !Send(pLoad, 'v', nTimeMs, 0, &sps))
        return 0;
    std::vector<uint8_t> packet(12 + 2 + kPart, static_cast<uint8_t>(nPicture));
    for (uint32_t i = 0; i < kPackets; i++) {
        packet[12] = 0x7C;
        packet[13] = static_cast<uint8_t>((i == 0 ? 0x80 : i + 1 == kPackets ? 0x40 : 0) | 5);
        if (!Send(pLoad, 'v', nTimeMs, i + 1 == kPackets, &packet))
            return 0;
    }
    std::vector<uint8_t> sound(12 + kSoundBytes, 0x55);
    return Send(pLoad, 'a', nTimeMs + 1, 1, &sound);
}

// Returns the processor time in seconds, or -1.
static double Record(const std::string &path, uint64_t nBytes, Load *pLoad)
{
    pLoad->pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, "bench");
    if (!pLoad->pWriter || !ZMFWriterSetSdp(pLoad->pWriter, kSdp) || !ZMFWriterWriteHead(pLoad->pWriter)) {
        ZMFWriterFree(pLoad->pWriter);
        return -1;
    }
    double dStart = NowUs(CLOCK_PROCESS_CPUTIME_ID);
    int bGood = 1;
    for (uint32_t i = 0; bGood && pLoad->nMediaBytes < nBytes; i++)
        bGood = SendPicture(pLoad, i);
    ZMFWriterFree(pLoad->pWriter);
    double dSeconds = (NowUs(CLOCK_PROCESS_CPUTIME_ID) - dStart) / 1e6;
    unlink(path.c_str());
    return bGood ? dSeconds : -1;
}

static double WritePlain(const std::string &path, uint64_t nBytes)
{
    std::vector<uint8_t> piece(kPlainBytes, 0x55);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    double dStart = NowUs(CLOCK_PROCESS_CPUTIME_ID);
    int bGood = fd >= 0;
    for (uint64_t nDone = 0; bGood && nDone < nBytes; nDone += piece.size())
        bGood = write(fd, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size());
    double dSeconds = (NowUs(CLOCK_PROCESS_CPUTIME_ID) - dStart) / 1e6;
    if (fd >= 0)
        close(fd);
    unlink(path.c_str());
    return bGood ? dSeconds : -1;
}

int main(int argc, char **argv)
{
    uint64_t nBytes = 1000000000;
    for (int c = getopt(argc, argv, "m:"); c != -1; c = getopt(argc, argv, "m:")) {
        if (c != 'm') {
            fprintf(stderr, "usage: recordloop [-m megabytes] DIRECTORY\n");
            return 2;
        }
        nBytes = strtoull(optarg, nullptr, 10) * 1000000;
    }
    std::string dir = optind < argc ? argv[optind] : ".";
    ConsoleSetDaemon(1);
    Load load{};
    double dRecord = Record(dir + "/recordloop.zmf", nBytes, &load);
    double dPlain = WritePlain(dir + "/recordloop.plain", nBytes);
    if (dRecord < 0 || dPlain < 0) {
        fprintf(stderr, "recordloop: cannot write in %s\n", dir.c_str());
        return 1;
    }
    double dGigabytes = static_cast<double>(load.nMediaBytes) / kGigabyte;
    double dPlainGigabytes = static_cast<double>(nBytes) / kGigabyte;
    printf("{\"record_cpu_s_per_gb\":%.3f,\"plain_cpu_s_per_gb\":%.3f,\"longest_packet_us\":%.0f}\n",
           dRecord / dGigabytes, dPlain / dPlainGigabytes, load.dLongestUs);
    return 0;
}
