// What the tests of recording share: RTP packets and samples of every kind, made from a few numbers.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/mediatype.h"
#include "record/rtphelp.h"
#include "record/storage.h"
#include "record/zmfreader.h"
#include "record/zmfwriter.h"
#include "support/files.h"

namespace orx {

inline const char *Bytes(const uint8_t *p)
{
    return reinterpret_cast<const char *>(p);
}
inline const uint8_t *Data(const std::string &text)
{
    return reinterpret_cast<const uint8_t *>(text.data());
}

inline std::string Be(uint32_t nValue, size_t nBytes)
{
    uint8_t bytes[4];
    PutBe(bytes, nBytes, nValue);
    return {Bytes(bytes), nBytes};
}

// nBytes that differ from place to place and with the seed.
inline std::string Noise(size_t nBytes, uint32_t nSeed)
{
    std::string out(nBytes, '\0');
    for (char &c : out) {
        nSeed = nSeed * 1664525 + 1013904223;
        c = static_cast<char>(nSeed >> 24);
    }
    return out;
}

inline std::string Rtp(uint16_t nSeq, uint32_t nTime, bool bMarker, const std::string &payload,
                       int nPayloadType = 96)
{
    return std::string("\x80", 1) + static_cast<char>((bMarker ? 0x80 : 0) | nPayloadType) + Be(nSeq, 2) +
           Be(nTime, 4) + Be(0x11223344, 4) + payload;
}

// A NAL unit of a type; slices begin with the macroblock number 0.
inline std::string Nal(int nType, size_t nBytes, uint32_t nSeed)
{
    std::string unit = Noise(nBytes, nSeed);
    unit[0] = static_cast<char>(0x60 | nType);
    if (nBytes > 1)
        unit[1] = static_cast<char>(unit[1] | 0x80);
    return unit;
}

inline std::string Prefixed(const std::string &unit)
{
    return Be(static_cast<uint32_t>(unit.size() + 2), 2) + unit;
}

inline std::string Stap(const std::vector<std::string> &units)
{
    std::string out(1, '\x78');
    for (const auto &unit : units)
        out += Be(static_cast<uint32_t>(unit.size()), 2) + unit;
    return out;
}

// A unit in fragments of nPart bytes.
inline std::vector<std::string> Fragments(const std::string &unit, size_t nPart)
{
    std::vector<std::string> out;
    for (size_t nPos = 1; nPos < unit.size(); nPos += nPart) {
        int nFlags = (nPos == 1 ? 0x80 : 0) | (nPos + nPart >= unit.size() ? 0x40 : 0);
        out.push_back(std::string(1, static_cast<char>((unit[0] & 0xE0) | 28)) +
                      static_cast<char>(nFlags | (unit[0] & 0x1F)) + unit.substr(nPos, nPart));
    }
    return out;
}

struct Sample {
    char chMedia;
    uint8_t nFlags;
    uint32_t nTimeMs;
    std::string data;
    bool operator==(const Sample &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Sample &sample)
{
    return out << sample.chMedia << (sample.nFlags & ZMF_KEY ? "*" : "") << "@" << sample.nTimeMs << " "
               << sample.data.size() << " bytes";
}

// Every sample that the reader hands out from where it is.
inline std::vector<Sample> ReadOn(ZMFReader *pReader, int *pnEnd = nullptr)
{
    std::vector<Sample> out;
    int nBytes = 0;
    while (const uint8_t *p = ZMFReaderNextSample(pReader, &nBytes)) {
        ZMFRecordHead head;
        ZMFRecordHeadDecode(p, &head);
        EXPECT_EQ(head.nLength, static_cast<uint32_t>(nBytes));
        out.push_back({head.chMedia, head.nFlags, head.nTimeMs, std::string(Bytes(p) + 8, head.nLength - 8)});
    }
    if (pnEnd)
        *pnEnd = nBytes;
    return out;
}

inline std::vector<Sample> ReadFileSamples(const std::string &path)
{
    ZMFReader *pReader = ZMFReaderOpen(path.c_str(), 204800);
    EXPECT_NE(pReader, nullptr) << path;
    std::vector<Sample> out = pReader ? ReadOn(pReader) : std::vector<Sample>();
    ZMFReaderClose(pReader);
    return out;
}

constexpr char kVideoSdp[] =
    "v=0\r\no=- 1 1 IN IP4 0.0.0.0\r\ns=cam\r\na=NickName:Door\r\nm=video 0 RTP/AVP 96\r\n"
    "a=rtpmap:96 H264/90000\r\na=control:trackID=0\r\nm=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n"
    "a=control:trackID=1\r\n";

inline int PutSample(ZMFWriter *pWriter, char chMedia, uint8_t nFlags, uint32_t nTimeMs,
                     const std::string &data)
{
    return ZMFWriterWriteSample(pWriter, Data(data), static_cast<uint32_t>(data.size()), nTimeMs,
                                SampleType(chMedia, nFlags));
}

inline int PutPacket(ZMFWriter *pWriter, char chMedia, uint32_t nTimeMs, const std::string &packet)
{
    return ZMFWriterWriteRtpPacket(pWriter, Data(packet), static_cast<uint32_t>(packet.size()), chMedia,
                                   nTimeMs);
}

// A writer that is ready for packets, in a file of its own.
struct Recorder {
    TempDir dir;
    std::string path = dir.File("rec.zmf");
    ZMFWriter *pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, nullptr);

    explicit Recorder(const char *szSdp = kVideoSdp)
    {
        EXPECT_EQ(1, ZMFWriterSetSdp(pWriter, szSdp));
        EXPECT_EQ(1, ZMFWriterWriteHead(pWriter));
    }
    ~Recorder() { Close(); }
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;
    void Close()
    {
        ZMFWriterFree(pWriter);
        pWriter = nullptr;
    }
    std::vector<Sample> Finish()
    {
        Close();
        return ReadFileSamples(path);
    }
};

// While it lives, what a peer's bytes break is refused and not fatal.
struct SurviveFaults {
    SurviveFaults() { AssertSurvivePeerFaults(1); }
    ~SurviveFaults() { AssertSurvivePeerFaults(0); }
};

// While it lives, the wall clock of recordings can be moved.
struct MovedClock {
    ~MovedClock() { RecordTimeSetOffset(0); }
    void Set(int64_t nSeconds) { RecordTimeSetOffset(nSeconds); }
};

// A player's output with three tracks, whose packets can be taken apart.
struct Player {
    RtpOut out;
    std::vector<uint8_t> scratch = std::vector<uint8_t>(65536);

    explicit Player(bool bInterleaved = false, uint32_t nMediaType = 1, uint32_t nTimeScale = 1000)
    {
        out.bInterleaved = bInterleaved;
        out.pScratch = scratch.data();
        out.nScratch = static_cast<uint32_t>(scratch.size());
        BlockListInit(&out.Outq, nullptr);
        out.nTracks = kMaxTracks;
        for (int i = 0; i < kMaxTracks; i++) {
            out.tracks[i].bSetUp = 1;
            out.tracks[i].nMediaType = nMediaType;
            out.tracks[i].nPayloadType = static_cast<uint8_t>(96 + i);
            out.tracks[i].nSsrc = 0xA0B0C0D0 + static_cast<uint32_t>(i);
            out.tracks[i].nNextSeq = 0xFFFE;
            out.tracks[i].nTimeScale = nTimeScale;
        }
    }
    ~Player() { ListEmpty(&out.Outq); }
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;

    struct Packet {
        uint32_t nFlags;
        uint32_t nTimeMs;
        std::string data;
        bool Marker() const { return data[1] & 0x80; }
        std::string Payload() const { return data.substr(12); }
    };
    std::vector<Packet> Packets() const
    {
        std::vector<Packet> packets;
        for (ListNode *p = out.Outq.pFirst; p; p = p->pNext) {
            auto *pBlock = reinterpret_cast<DataBlock *>(p);
            packets.push_back({pBlock->nFlags, pBlock->nTimestamp, {Bytes(BlockData(pBlock)), pBlock->len}});
        }
        return packets;
    }
};

}  // namespace orx
