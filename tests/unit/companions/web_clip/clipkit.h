// What the tests of clips share: recordings of every kind in an archive of their own, clips read whole, and
// the boxes of an .mp4.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "client/h264file.h"
#include "orxweb/clip.h"
#include "support/wait.h"
#include "unit/record/recordkit.h"

namespace orx {

constexpr char kH264Line[] = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";
constexpr char kJpegLine[] = "m=video 0 RTP/AVP 26\r\na=rtpmap:26 JPEG/90000\r\n";
constexpr char kAacLine[] =
    "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 MPEG4-GENERIC/48000/2\r\na=fmtp:97 mode=AAC-hbr;config=1190;"
    "sizelength=13;indexlength=3;indexdeltalength=3\r\n";
constexpr char kPcmaLine[] = "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n";
const std::string kSilentUnit("\x21\x10\x04\x60\x8c\x1c", 6);  // AAC-LC, two channels

// What is recorded: ten seconds of 25 pictures, or so many seconds of sound alone.
struct Content {
    std::string video;  // "", "h264", "jpeg"; "changing": parameter sets do
    std::string audio;  // "", "aac", "pcma"; "noise": AAC that only looks like it
    int nSeconds = 10;
    uint32_t nAheadMs = 0;  // in the first half, what sound is ahead of the pictures that are recorded with it
    size_t nKeyEvery = 25;  // pictures
    int bReordered = 0;     // every second and third picture is shown in the other order
};

inline std::vector<std::string> RecordedPictures(const Content &content)
{
    std::vector<std::string> out;
    H264File clip;
    EXPECT_TRUE(H264Load(&clip, ORX_TEST_DATA "/clip.h264"));
    for (const H264Picture &picture : clip.pictures) {
        std::string record;
        for (std::string_view unit : picture.units)
            record += Prefixed(std::string(unit));
        if (content.video == "changing" && picture.bKey && out.size() > 100)
            record.insert(0, Prefixed("\x68\xCE\x3C\x80"));  // one more set of pictures
        if (content.video == "jpeg")
            record = Be(0, 4) + "\x01\x32\x02\x01" + Pattern(200, static_cast<uint32_t>(out.size()));
        out.push_back(record);
    }
    return out;
}

inline int IsKey(const Content &content, size_t nPicture)
{
    return content.video == "jpeg" || nPicture % content.nKeyEvery == 0;
}

// The n-th unit of AAC.
inline std::string Unit(const Content &content, uint32_t n)
{
    return content.audio == "aac" ? kSilentUnit : Pattern(5 + n % 7, n);
}

constexpr uint32_t kShift[] = {0, 40, static_cast<uint32_t>(-40)};

// The recording's bytes.
inline std::string Record(const Content &content)
{
    std::string sdp = std::string("v=0\r\ns=cam\r\n") + (content.video.empty()     ? ""
                                                         : content.video == "jpeg" ? kJpegLine
                                                                                   : kH264Line);
    sdp += content.audio.empty() ? "" : content.audio == "pcma" ? kPcmaLine : kAacLine;
    Recorder recorder(sdp.c_str());
    std::vector<std::string> pictures = RecordedPictures(content);
    if (content.video.empty())
        recorder.PutKey(0);  // of a codec that the description does not name
    for (uint32_t i = 0; i < static_cast<uint32_t>(content.nSeconds) * 25; i++) {
        uint32_t nMs = i * 40;
        if (!content.video.empty())
            recorder.Put('v', IsKey(content, i) ? ZMF_KEY : 0, nMs + (content.bReordered ? kShift[i % 3] : 0),
                         pictures[i % pictures.size()]);
        uint32_t nAheadMs = nMs < static_cast<uint32_t>(content.nSeconds) * 500 ? content.nAheadMs : 0;
        if (content.audio == "pcma")
            recorder.Put('a', 0, nMs + nAheadMs, Pattern(320, i));
        for (uint32_t n = nMs * 48 / 1024; content.audio != "pcma" && n < (nMs + 40) * 48 / 1024; n++)
            if (!content.audio.empty())
                recorder.Put('a', 0, n * 1024 / 48 + nAheadMs, Prefixed(Unit(content, n)));
    }
    return recorder.Finish();
}

constexpr char kProgram[] = "live/cam";

// A record path with recordings of kProgram, and clips of them.
struct Archive {
    TempDir dir;
    ClipSettings settings;

    Archive()
    {
        settings.recordPath = dir.File("record");
        settings.cachePath = dir.File("var/cache");
        std::filesystem::create_directories(settings.recordPath + "/live/cam/20261123");
        EXPECT_EQ(1, ClipsStart(&settings));
    }
    ~Archive() { ClipsStop(); }
    Archive &operator=(Archive &&) = delete;

    void Restart() const
    {
        ClipsStop();
        EXPECT_EQ(1, ClipsStart(&settings));
    }
    std::string PathOf(const std::string &file) const { return settings.recordPath + "/live/cam/" + file; }
    std::string Add(const std::string &name, const std::string &bytes) const
    {
        WriteFile(PathOf("20261123/" + name), bytes);
        return "20261123/" + name;
    }
};

// A clip that is waited for.
struct Opened {
    Clip *p = nullptr;
    ClipState eState = ClipState::Making;

    explicit Opened(const std::string &file, const char *szTag = nullptr)
    {
        WaitFor([&] { return (eState = ClipOpen(kProgram, file.c_str(), &p, szTag)) != ClipState::Making; });
    }
    ~Opened() { ClipClose(p); }
    Opened &operator=(Opened &&) = delete;

    std::string Read(uint64_t nOffset, size_t nBytes) const
    {
        std::string out(nBytes, '\0');
        ssize_t nRead = ClipRead(p, nOffset, out.data(), nBytes);
        EXPECT_LE(0, nRead) << nOffset;
        out.resize(nRead > 0 ? static_cast<size_t>(nRead) : 0);
        return out;
    }
    std::string All() const { return p ? Read(0, ClipSize(p) + 1) : ""; }
};

struct Box {
    std::string type;
    size_t nAt = 0;  // of its content
    size_t nEnd = 0;
};

// The boxes of a file, or of the content of one.
inline std::vector<Box> Boxes(const std::string &mp4, size_t nAt = 0, size_t nEnd = SIZE_MAX)
{
    std::vector<Box> out;
    nEnd = std::min(nEnd, mp4.size());
    while (nAt + 8 <= nEnd) {
        uint32_t nBytes = Field(mp4, nAt, 4);
        EXPECT_TRUE(nBytes >= 8 && nBytes <= nEnd - nAt) << nAt;
        if (nBytes < 8 || nBytes > nEnd - nAt)
            break;
        out.push_back({mp4.substr(nAt + 4, 4), nAt + 8, nAt + nBytes});
        nAt += nBytes;
    }
    EXPECT_EQ(nEnd, nAt);
    return out;
}

inline std::vector<Box> Find(const std::vector<Box> &boxes, const std::string &type)
{
    std::vector<Box> out;
    for (const Box &box : boxes)
        if (box.type == type)
            out.push_back(box);
    return out;
}

// What a program prints.
inline std::string Output(const std::string &command)
{
    std::string out;
    char szPart[4096];
    FILE *pFile = popen((command + " 2>&1").c_str(), "r");
    while (size_t n = fread(szPart, 1, sizeof(szPart), pFile))
        out.append(szPart, n);
    pclose(pFile);
    return out;
}

}  // namespace orx
