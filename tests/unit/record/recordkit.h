// What the tests of recording share: RTP packets and samples of every kind, made from a few numbers.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/bytes.h"
#include "base/mediatype.h"
#include "record/codec.h"
#include "record/rtphelp.h"
#include "record/zmfreader.h"
#include "record/zmfwriter.h"
#include "support/files.h"
#include "support/output.h"
#include "support/rtp.h"

namespace orx {

inline std::string Text(const uint8_t *p, size_t nBytes)
{
    return {reinterpret_cast<const char *>(p), nBytes};
}
inline const uint8_t *Data(const std::string &text)
{
    return reinterpret_cast<const uint8_t *>(text.data());
}
inline uint32_t Size(const std::string &text)
{
    return static_cast<uint32_t>(text.size());
}

inline uint32_t Field(const std::string &file, size_t nOffset, size_t nBytes)
{
    return GetBe(file.data() + nOffset, nBytes);
}

// A NAL unit of a type; slices begin with the macroblock number 0.
inline std::string Nal(int nType, size_t nBytes, uint32_t nSeed)
{
    std::string unit = Pattern(nBytes, nSeed);
    unit[0] = static_cast<char>(0x60 | nType);
    if (nBytes > 1)
        unit[1] = static_cast<char>(unit[1] | 0x80);
    return unit;
}

// As it is recorded.
inline std::string Prefixed(const std::string &unit)
{
    return Be(Size(unit) + 2, 2) + unit;
}

// A unit in fragments of nPart bytes.
inline std::vector<std::string> Fragments(const std::string &unit, size_t nPart)
{
    std::vector<std::string> out;
    for (size_t nPos = 1; nPos < unit.size(); nPos += nPart) {
        uint32_t nFlags = (nPos == 1 ? 0x80 : 0) | (nPos + nPart >= unit.size() ? 0x40 : 0);
        out.push_back("\x7C" + Be(nFlags | (unit[0] & 0x1F), 1) + unit.substr(nPos, nPart));
    }
    return out;
}

struct MediaSample {
    char chMedia;
    uint8_t nFlags;
    uint32_t nTimeMs;
    std::string data;
    bool operator==(const MediaSample &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const MediaSample &sample)
{
    return out << sample.chMedia << int{sample.nFlags} << "@" << sample.nTimeMs << " " << sample.data.size()
               << " bytes";
}

// For a Depacketiser whose context is a vector of samples.
inline int KeepSample(void *pSamples, const uint8_t *p, uint32_t n, uint32_t nTimeMs, uint32_t nType)
{
    static_cast<std::vector<MediaSample> *>(pSamples)->push_back(
        {static_cast<char>(nType >> 8), static_cast<uint8_t>(nType), nTimeMs, Text(p, n)});
    return 1;
}

struct Reader {
    ZMFReader *p;

    explicit Reader(const std::string &path) : p(ZMFReaderOpen(path.c_str(), 204800)) {}
    ~Reader() { ZMFReaderClose(p); }
    Reader &operator=(Reader &&) = delete;

    // Every sample from where it is; how the file ends goes into *pnEnd.
    std::vector<MediaSample> ReadOn(int *pnEnd) const
    {
        std::vector<MediaSample> out;
        while (const uint8_t *pRecord = ZMFReaderNextSample(p, pnEnd)) {
            ZMFRecordHead head;
            ZMFRecordHeadDecode(pRecord, &head);
            EXPECT_EQ(head.nLength, static_cast<uint32_t>(*pnEnd));
            out.push_back({head.chMedia, head.nFlags, head.nTimeMs, Text(pRecord + 8, head.nLength - 8)});
        }
        return out;
    }
};

constexpr char kVideoSdp[] = "v=0\r\ns=cam\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";

// A writer that is ready for packets, in a file of its own.
struct Recorder {
    TempDir dir;
    std::string path = dir.File("rec.zmf");
    ZMFWriter *pWriter;

    explicit Recorder(const char *szSdp = kVideoSdp, const char *szLabel = nullptr, const std::string &appData = "")
        : pWriter(ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, szLabel))
    {
        if (!szSdp)
            return;  // what is recorded comes later
        EXPECT_EQ(1, ZMFWriterSetSdp(pWriter, szSdp));
        EXPECT_EQ(1, ZMFWriterSetAppData(pWriter, Size(appData), appData.data()));
        EXPECT_EQ(1, ZMFWriterWriteHead(pWriter));
    }
    ~Recorder() { ZMFWriterFree(pWriter); }
    Recorder &operator=(Recorder &&) = delete;

    int Put(char chMedia, uint8_t nFlags, uint32_t nTimeMs, const std::string &data) const
    {
        return ZMFWriterWriteSample(pWriter, Data(data), Size(data), nTimeMs, SampleType(chMedia, nFlags));
    }
    int PutKey(uint32_t nTimeMs, size_t nBytes = 100) const
    {
        return Put('v', ZMF_KEY, nTimeMs, Nal(7, nBytes, nTimeMs));
    }
    // The finished file.
    std::string Finish()
    {
        ZMFWriterFree(std::exchange(pWriter, nullptr));
        return ReadFile(path);
    }
    std::vector<MediaSample> FinishedSamples()
    {
        int nEnd = 1;
        Finish();
        return Reader(path).ReadOn(&nEnd);
    }
};

// A player's output with one track, whose packets can be taken apart.
struct Player {
    RtpOut out;
    RtpTrack track;
    std::vector<uint8_t> scratch = std::vector<uint8_t>(65536);

    explicit Player(uint32_t nTimeScale = 1000)
    {
        out.pScratch = scratch.data();
        out.nScratch = static_cast<uint32_t>(scratch.size());
        out.nTracks = 1;
        track = RtpTrack{1, MEDIA_H264, 96, 0xA0B0C0D0, 0xFFFE, nTimeScale};
        out.tracks[0] = &track;
    }
    ~Player() { QueueEmpty(&out.Outq); }
    Player &operator=(Player &&) = delete;

    int Pack(PackProc pfn, const std::string &sample, uint32_t nTimeMs = 0)
    {
        std::vector<uint8_t> exact(sample.begin(), sample.end());  // so that a step past its end is seen
        return pfn(&out, exact.data(), static_cast<uint32_t>(exact.size()), nTimeMs, 0);
    }

    struct Packet {
        int bKey;
        std::string data;
        bool Marker() const { return data[1] & 0x80; }
        std::string Payload() const { return data.substr(12); }
    };
    std::vector<Packet> Packets() const
    {
        std::vector<Packet> packets;
        for (uint32_t i = 0; i < out.Outq.nItems; i++) {
            const BlockRef *p = QueueAt(&out.Outq, i);
            packets.push_back({(RefFlags(p) & DB_KEY) != 0, Text(RefData(p), RefLen(p))});
        }
        return packets;
    }
};

}  // namespace orx
