#include "record/zmfwriter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "recordkit.h"
#include "support/namespaces.h"

namespace orx {
namespace {

using ::testing::HasSubstr;

uint32_t Field(const std::string &file, size_t nOffset, size_t nBytes)
{
    return GetBe(file.data() + nOffset, nBytes);
}

int Key(ZMFWriter *pWriter, uint32_t nTimeMs, size_t nBytes = 100)
{
    return PutSample(pWriter, 'v', ZMF_KEY, nTimeMs, Nal(7, nBytes, nTimeMs));
}

TEST(ZMFWriter, EveryByteOfASmallFile)
{
    constexpr char szSdp[] = "v=0\r\na=Range:npt=now-\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";
    TempDir dir;
    ZMFWriter *pWriter = ZMFWriterCreateFile(dir.File("x.zmf").c_str(), RECORD_ALARM, "Front door");
    ASSERT_EQ(1, ZMFWriterSetSdp(pWriter, szSdp));
    ASSERT_EQ(1, ZMFWriterSetAppData(pWriter, 10, "0123456789"));
    ASSERT_EQ(1, ZMFWriterWriteHead(pWriter));
    EXPECT_TRUE(std::filesystem::exists(dir.File("x.zmf.tm!")));
    Key(pWriter, 5000, 30);
    PutSample(pWriter, 'v', 0, 5040, "delta");
    PutSample(pWriter, 'u', 0, 5050, "ALARM:1");
    PutSample(pWriter, 't', 0, 6234, "text");
    ZMFWriterFree(pWriter);
    std::string file = ReadFile(dir.File("x.zmf"));
    EXPECT_FALSE(std::filesystem::exists(dir.File("x.zmf.tm!")));

    size_t nText = sizeof(szSdp) - 1;
    size_t nSdp = (nText + 8) / 8 * 8 + 16;
    const struct {
        size_t nOffset, nBytes;
        uint32_t nValue;
    } fields[] = {{0, 4, 0x7A6D6640}, {4, 2, 168}, {6, 2, 100}, {8, 2, 1600}, {10, 2, uint32_t(nSdp)},
                  {12, 2, 16},        {14, 2, 0},  {16, 4, 0},  {36, 2, 2},   {38, 2, 0},
                  {40, 4, 1234},      {44, 4, 2},  {48, 4, 0},  {52, 4, 1},   {56, 4, 1},
                  {128, 4, 1},        {132, 2, 1}, {134, 2, 0}, {168, 4, 0},  {172, 4, 0},
                  {176, 4, 0}};
    for (const auto &field : fields)
        EXPECT_EQ(field.nValue, Field(file, field.nOffset, field.nBytes)) << field.nOffset;
    EXPECT_EQ(std::string("Front door") + std::string(22, '\0'), file.substr(60, 32));
    EXPECT_EQ(8U, strspn(file.c_str() + 20, "0123456789"));
    EXPECT_EQ('-', file[28]);
    EXPECT_EQ('\0', file[35]);
    std::string sdp = "v=0\r\na=range:npt=0-1.234\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";
    sdp.resize(nSdp);
    EXPECT_EQ(sdp, file.substr(1768, nSdp));
    EXPECT_EQ(std::string("0123456789\0\0\0\0\0\0", 16), file.substr(1768 + nSdp, 16));
    std::string records = Be(38, 2) + "v\x40" + Be(0, 4) + Nal(7, 30, 5000) + Be(13, 2) +
                          std::string("v\0", 2) + Be(40, 4) + "delta" + Be(15, 2) + std::string("u\0", 2) +
                          Be(50, 4) + "ALARM:1" + Be(12, 2) + std::string("t\0", 2) + Be(1234, 4) + "text";
    EXPECT_EQ(records, file.substr(1768 + nSdp + 16));
}

// However many range lines a description has and however long it is, the new line fits into its block.
TEST(ZMFWriter, RoomForTheRangeLine)
{
    for (size_t nPad = 0; nPad < 8; nPad++) {
        for (const char *szRange : {"", "a=range:\r\n", "a=range:npt=0-1.000\r\na=Range:x\r\n"}) {
            std::string sdp =
                "v=0\r\ns=" + std::string(nPad, 'x') + "\r\n" + szRange + "m=video 0 RTP/AVP 26";
            Recorder recorder(sdp.c_str());
            Key(recorder.pWriter, 0);
            Key(recorder.pWriter, 2147483000);
            recorder.Close();
            std::string file = ReadFile(recorder.path);
            size_t nExpected = (sdp.size() + 8) / 8 * 8 + (*szRange ? 16 : 32);
            EXPECT_EQ(nExpected, Field(file, 10, 2));
            EXPECT_THAT(file, HasSubstr("a=range:npt=0-2147483.000\r\nm=video")) << szRange;
        }
    }
}

TEST(ZMFWriter, NothingBeforeTheFirstKeyFrame)
{
    Recorder recorder;
    ZMFWriter *pWriter = recorder.pWriter;
    EXPECT_EQ(1, PutSample(pWriter, 'a', 0, 900, "early audio"));
    EXPECT_EQ(1, PutSample(pWriter, 'v', 0, 950, "early picture"));
    EXPECT_EQ(1, PutSample(pWriter, 'u', 0, 960, "ALARM:early"));
    EXPECT_EQ(1, Key(pWriter, 1000));
    EXPECT_EQ(1, PutSample(pWriter, 'a', 0, 990, "one"));  // from before the picture: counts as its time
    EXPECT_EQ(1, PutSample(pWriter, 'a', 0, 1010, "two"));
    EXPECT_EQ(1, PutSample(pWriter, 'v', 0, 1040, "picture"));
    EXPECT_EQ(1, PutSample(pWriter, 'a', 0, 1060, "three"));
    std::vector<Sample> expected = {{'v', ZMF_KEY, 0, Nal(7, 100, 1000)},
                                    {'a', 0, 0, "onetwo"},
                                    {'v', 0, 40, "picture"},
                                    {'a', 0, 60, "three"}};
    EXPECT_EQ(expected, recorder.Finish());
}

TEST(ZMFWriter, AudioBlocksEndAt32768Bytes)
{
    Recorder recorder;
    Key(recorder.pWriter, 0);
    for (uint32_t i = 0; i < 5; i++)
        EXPECT_EQ(
            1, PutSample(recorder.pWriter, 'a', 0, 100 + i, std::string(16384, static_cast<char>('a' + i))));
    std::vector<Sample> samples = recorder.Finish();
    ASSERT_EQ(4U, samples.size());
    EXPECT_EQ((Sample{'a', 0, 100, std::string(16384, 'a') + std::string(16384, 'b')}), samples[1]);
    EXPECT_EQ(102U, samples[2].nTimeMs);
    EXPECT_EQ(16384U, samples[3].data.size());
}

TEST(ZMFWriter, BigFramesUseTheLongLength)
{
    for (size_t nBytes : {65527U, 65528U, 131071U}) {
        Recorder recorder;
        Key(recorder.pWriter, 0, nBytes);
        PutSample(recorder.pWriter, 'v', 0, 40, "next");
        std::vector<Sample> samples = recorder.Finish();
        ASSERT_EQ(2U, samples.size()) << nBytes;
        EXPECT_EQ((Sample{'v', ZMF_KEY, 0, Nal(7, nBytes, 0)}), samples[0]);
        EXPECT_EQ("next", samples[1].data);
    }
}

TEST(ZMFWriter, TheIndexHalvesWhenItIsFull)
{
    const struct {
        uint32_t nKeys, nInterval, nEntries;
    } cases[] = {{199, 1, 199}, {200, 1, 200}, {201, 2, 101}, {400, 4, 100}, {401, 4, 101}, {1000, 8, 125}};
    for (const auto &c : cases) {
        Recorder recorder;
        for (uint32_t i = 0; i < c.nKeys; i++)
            ASSERT_EQ(1, Key(recorder.pWriter, i * 1000, 20));
        recorder.Close();
        std::string file = ReadFile(recorder.path);
        EXPECT_EQ(c.nInterval, Field(file, 132, 2)) << c.nKeys;
        EXPECT_EQ(c.nKeys, Field(file, 128, 4));
        for (uint32_t i = 0; i < 200; i++) {
            uint32_t nKey = i < c.nEntries ? i * c.nInterval : 0;
            EXPECT_EQ(nKey * 28, Field(file, 168 + i * 8, 4)) << c.nKeys << " entry " << i;
            EXPECT_EQ(nKey * 1000, Field(file, 172 + i * 8, 4));
        }
    }
}

TEST(ZMFWriterDeathTest, ATimeBeforeTheFileLaterOn)
{
    Recorder recorder;
    ZMFWriter *pWriter = recorder.pWriter;
    Key(pWriter, 1000);
    for (uint32_t i = 1; i < 6; i++)
        EXPECT_EQ(1, PutSample(pWriter, 'v', 0, 1000 - i, "early"));
    EXPECT_DEATH(PutSample(pWriter, 'v', 0, 1000, "late"), "pWriter->uSampleCount < 6");
    SurviveFaults survive;
    EXPECT_EQ(-1, PutSample(pWriter, 'v', 0, 999, "late"));
}

TEST(ZMFWriter, APauseLeavesNoGap)
{
    Recorder recorder;
    ZMFWriter *pWriter = recorder.pWriter;
    Key(pWriter, 1000);
    for (uint32_t i = 1; i <= 10; i++)
        PutSample(pWriter, 'v', 0, 1000 + i * 40, "p");
    PutSample(pWriter, 'a', 0, 1400, "a");
    ZMFWriterPause(pWriter);
    EXPECT_EQ(1, PutSample(pWriter, 'a', 0, 900000, "b"));
    EXPECT_EQ(1, PutSample(pWriter, 'v', 0, 900000, "q"));  // as early as the sample that set the new base
    EXPECT_EQ(1, PutSample(pWriter, 'v', 0, 900040, "r"));
    std::vector<Sample> samples = recorder.Finish();
    ASSERT_EQ(15U, samples.size());
    EXPECT_EQ((Sample{'a', 0, 420, "b"}), samples[12]);
    EXPECT_EQ((Sample{'v', 0, 420, "q"}), samples[13]);
    EXPECT_EQ((Sample{'v', 0, 460, "r"}), samples[14]);
}

std::vector<std::string> Names(const std::string &dir)
{
    std::vector<std::string> out;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir))
        if (entry.is_regular_file())
            out.push_back(entry.path().filename());
    std::sort(out.begin(), out.end());
    return out;
}

TEST(ZMFWriter, RollsOverAtTheNextKeyFrame)
{
    MovedClock clock;
    Recorder recorder;
    ZMFWriter *pWriter = recorder.pWriter;
    ZMFWriterSetLimits(pWriter, 60, 0);
    for (uint32_t nFile = 0; nFile < 3; nFile++) {
        uint32_t nStart = nFile * 60000;
        clock.Set(nFile * 60 + 30);  // half a minute before and after
        EXPECT_EQ(1, Key(pWriter, nStart + 30000));
        clock.Set(nFile * 60 + 60 + 1);
        EXPECT_EQ(1, PutSample(pWriter, 'a', 0, nStart + 59000, "sound"));
        EXPECT_EQ(1, PutSample(pWriter, 'v', 0, nStart + 60000, "no key frame"));
        EXPECT_EQ(1, Key(pWriter, nStart + 60040));
    }
    recorder.Close();
    std::vector<std::string> names = Names(recorder.dir.path);
    ASSERT_EQ(4U, names.size());
    EXPECT_THAT(names[0], testing::MatchesRegex("rec-[0-9]{8}-[0-9]{6}.zmf"));
    EXPECT_EQ("rec.zmf", names[3]);
    std::vector<Sample> first = ReadFileSamples(recorder.path);
    ASSERT_EQ(3U, first.size());
    std::string next = ReadFile(recorder.dir.File(names[1]));
    EXPECT_EQ(2U, Field(next, 134, 2));
    EXPECT_EQ(60000U, Field(next, 40, 4)) << "up to the key frame that began the next";
    EXPECT_EQ(0U, ReadFileSamples(recorder.dir.File(names[1]))[0].nTimeMs);
    EXPECT_THAT(next, HasSubstr("a=range:npt=0-60.000\r\nm=video"));
}

TEST(ZMFWriter, EndsWithItsTotalTime)
{
    MovedClock clock;
    Recorder recorder;
    ZMFWriterSetLimits(recorder.pWriter, 0, 10);
    EXPECT_EQ(1, Key(recorder.pWriter, 0));
    clock.Set(-3600);  // a clock that is set back does not make the recording longer by an hour
    EXPECT_EQ(1, Key(recorder.pWriter, 1000));
    clock.Set(-3600 + 10);
    EXPECT_EQ(1, Key(recorder.pWriter, 2000));
    clock.Set(-3600 + 12);
    EXPECT_EQ(0, Key(recorder.pWriter, 3000));
    char szName[256];
    EXPECT_EQ(0, ZMFWriterFileName(recorder.pWriter, szName, sizeof(szName)));
    EXPECT_EQ(-1, Key(recorder.pWriter, 4000));
    EXPECT_EQ(4U, recorder.Finish().size());
}

TEST(ZMFWriter, DateLayoutAndWhatHappensWithoutSpace)
{
    MovedClock clock;
    TempDir dir;
    std::string root = dir.path + "/";
    ZMFWriter *pWriter = ZMFWriterCreate(root.c_str(), "live/cam", RECORD_SCHEDULED, nullptr);
    ASSERT_NE(pWriter, nullptr);
    char szName[512];
    int nLen = ZMFWriterFileName(pWriter, szName, sizeof(szName));
    EXPECT_THAT(std::string(szName, static_cast<size_t>(nLen)),
                testing::MatchesRegex(root + "live/cam/[0-9]{8}/S[0-9]{6}.zmf"));
    EXPECT_EQ(1, ZMFWriterSetReserveMinSpace(pWriter, 1, 0));
    EXPECT_EQ(0, ZMFWriterSetReserveMinSpace(pWriter, 1U << 31, 1)) << "nothing there to delete";
    EXPECT_TRUE(std::filesystem::exists(std::string(szName) + ".tm!")) << "the open file and its day stay";
    EXPECT_EQ(1, ZMFWriterSetReserveMinSpace(pWriter, 1, 1));
    ZMFWriterSetSdp(pWriter, kVideoSdp);
    ZMFWriterWriteHead(pWriter);
    ZMFWriterSetLimits(pWriter, 1, 0);
    Key(pWriter, 0);
    clock.Set(2);
    EXPECT_EQ(0, ZMFWriterSetReserveMinSpace(pWriter, 1U << 31, 0));
    EXPECT_EQ(0, Key(pWriter, 2000)) << "no space for the next file";
    ZMFWriterFree(pWriter);
    EXPECT_EQ(1U, Names(dir.path).size());

    // A clean-up in vain that deletes the last file takes the day with it: there is nowhere left to record
    // to.
    pWriter = ZMFWriterCreate(root.c_str(), "cam2", RECORD_MANUAL, nullptr);
    ZMFWriterSetSdp(pWriter, kVideoSdp);
    ZMFWriterWriteHead(pWriter);
    Key(pWriter, 0);
    ZMFWriterStop(pWriter);
    ZMFWriterSetReserveMinSpace(pWriter, 1U << 31, 1);
    EXPECT_EQ(-1, ZMFWriterCreateNextFile(pWriter));
    EXPECT_EQ(-1, Key(pWriter, 1));
    ZMFWriterFree(pWriter);
}

// A disk so small that every file has to make room for the next one.
TEST(ZMFWriter, GoesOnWhenItsOnlyFileIsDeletedForTheNext)
{
    TempDir dir;
    InChildProcess("no mounts", [&dir] {
        if (!EnterNamespaces(CLONE_NEWNS) || !MountEmpty(dir.path.c_str(), "size=8m"))
            return false;
        MovedClock clock;
        ZMFWriter *pWriter = ZMFWriterCreate((dir.path + "/").c_str(), "cam", RECORD_MANUAL, nullptr);
        EXPECT_EQ(1, ZMFWriterSetReserveMinSpace(pWriter, 6, 1));
        ZMFWriterSetSdp(pWriter, kVideoSdp);
        ZMFWriterSetLimits(pWriter, 300, 0);
        ZMFWriterWriteHead(pWriter);
        for (uint32_t n = 0; n < 60; n++) {
            clock.Set(n);
            EXPECT_EQ(1, Key(pWriter, n * 1000, 100000)) << n;
        }
        EXPECT_GT(pWriter->head.nFileSeq, 1);
        ZMFWriterFree(pWriter);
        return true;
    });
}

TEST(ZMFWriter, WhichCodecsAreRecorded)
{
    const struct {
        const char *szSdp, *szVideo, *szAudio;
        DepacketProc pfnVideo, pfnAudio;
    } cases[] = {
        {kVideoSdp, "H264", "PCMU", WriteH264RtpData, WriteG711RtpData},
        {"m=audio 0 RTP/AVP 97\r\na=rtpmap:97 SAWB/16000\r\nm=video 0 RTP/AVP 26\r\n", "JPEG", "AMR-WB",
         WriteJpegRtpData, WriteAmrRtpData},
        {"m=video 0 RTP/AVP 96\r\na=rtpmap:96 VP8/90000\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 "
         "opus/48000\r\n",
         "VP8", "opus", nullptr, nullptr},
        {"m=video 0 RTP/AVP 96\r\nm=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n", "", "PCMU", nullptr,
         WriteG711RtpData},
    };
    for (const auto &c : cases) {
        Recorder recorder(c.szSdp);
        EXPECT_STREQ(c.szVideo, recorder.pWriter->szVideoCodec) << c.szSdp;
        EXPECT_STREQ(c.szAudio, recorder.pWriter->szAudioCodec) << c.szSdp;
        EXPECT_EQ(c.pfnVideo, recorder.pWriter->pfnVideo) << c.szSdp;
        EXPECT_EQ(c.pfnAudio, recorder.pWriter->pfnAudio) << c.szSdp;
        if (!c.pfnVideo) {
            EXPECT_EQ(-1, PutPacket(recorder.pWriter, 'v', 0, Rtp(1, 0, true, "x")));
        }
    }
}

TEST(ZMFWriter, OnlyAlarmsOfOtherPacketsAreKept)
{
    Recorder recorder;
    Key(recorder.pWriter, 0);
    EXPECT_EQ(1, PutPacket(recorder.pWriter, 'u', 10, Rtp(1, 0, true, "ALARM:door")));
    EXPECT_EQ(1, PutPacket(recorder.pWriter, 'u', 20, Rtp(2, 0, true, "ALARMdoor")));
    EXPECT_EQ(1, PutPacket(recorder.pWriter, 't', 30, Rtp(3, 0, true, "ALARM:")));
    EXPECT_EQ(1, PutPacket(recorder.pWriter, '?', 30, "ALARM:"));
    std::vector<Sample> samples = recorder.Finish();
    ASSERT_EQ(3U, samples.size());
    EXPECT_EQ((Sample{'u', 0, 10, "ALARM:door"}), samples[1]);
    EXPECT_EQ((Sample{'t', 0, 30, "ALARM:"}), samples[2]);
}

// Every write fails from some byte on, as on a full disk: the recording ends and what it had plays.
TEST(ZMFWriter, AFullDiskCostsTheLastRecordOnly)
{
    TempDir dir;
    ZMFWriter *pWriter = ZMFWriterCreateFile(dir.File("x.zmf").c_str(), RECORD_MANUAL, nullptr);
    ZMFWriterSetSdp(pWriter, kVideoSdp);
    ZMFWriterWriteHead(pWriter);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small{100000, old.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    int nResult = 1;
    uint32_t nWritten = 0;
    for (; nResult == 1 && nWritten < 100; nWritten++)
        nResult = PutSample(pWriter, 'v', ZMF_KEY, nWritten * 40, Nal(7, 7000, nWritten));
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(-1, nResult);
    ZMFWriterFree(pWriter);
    std::vector<Sample> samples = ReadFileSamples(dir.File("x.zmf"));
    EXPECT_GE(samples.size(), 9U);
    for (uint32_t i = 0; i < samples.size(); i++)
        EXPECT_EQ((Sample{'v', ZMF_KEY, i * 40, Nal(7, 7000, i)}), samples[i]);
    ZMFReader *pReader = ZMFReaderOpen(dir.File("x.zmf").c_str(), 65536);
    int nEnd = 1;
    ReadOn(pReader, &nEnd);
    EXPECT_EQ(0, nEnd) << "the file ends with a whole record";
    ZMFReaderClose(pReader);
}

}  // namespace
}  // namespace orx
