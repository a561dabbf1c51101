// Recordings played back: what comes out is what went in, whoever asks and from wherever.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <regex>

#include "base/bytes.h"
#include "support/files.h"
#include "support/rtp.h"

#include "system/recordingtest.h"

using namespace orx;

using testing::HasSubstr;

using PlaybackTest = RecordingTest;

// Long enough that no wait for a busy machine comes near the place that is jumped to. Whatever happens, no
// number of a packet is left out.
TEST_F(PlaybackTest, PlaysFromWhereItIsAsked)
{
    constexpr int kPictures = 2500;  // a hundred seconds; sound comes every 20 ms
    const std::string end = "-100.080\r\n";
    server.Set("INTEROP", "StandardPlayers", "1");
    server.Start();
    Camera camera({Coding::H264, Coding::G711});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "a.zmf", kPictures));
    const MediaUnits &sent = camera.tracks[0].sent;
    for (RtspTransport transport : {RTSP_OVER_TCP, RTSP_OVER_UDP, RTSP_OVER_TUNNEL}) {
        Viewer viewer(transport);
        ASSERT_EQ(1, viewer.Prepare(Url("a.zmf")));
        // Plays and returns with which picture it begins: the one wanted, where others may come before the
        // reply. What comes then are those that follow.
        auto play = [&](const std::string &range, const std::string &reply, size_t nWanted = SIZE_MAX) {
            viewer.Poll();
            MediaUnits got;
            size_t nAt = viewer.Units(0, Coding::H264).size();
            EXPECT_THAT(viewer.Play(range), HasSubstr("\r\nRange: npt=" + reply)) << range;
            EXPECT_TRUE(Watch({&viewer}, [&] {
                got = viewer.Units(0, Coding::H264);
                while (nWanted != SIZE_MAX && nAt < got.size() && got[nAt].nTimeMs != nWanted * 40)
                    nAt++;
                return got.size() >= nAt + 5;
            }));
            size_t nFirst = got.size() > nAt ? got[nAt].nTimeMs / 40 : 0;
            for (size_t i = 0; nAt + i < got.size(); i++)
                EXPECT_TRUE(nFirst + i < sent.size() && sent[nFirst + i].data == got[nAt + i].data) << range << i;
            return nFirst;
        };
        // Pauses, and returns which picture is to come next at the least.
        auto pause = [&] {
            EXPECT_THAT(Ask(&viewer.client, "PAUSE"), kIsOk);
            viewer.Poll();  // what left before the reply
            size_t nGot = viewer.nPictures;
            EXPECT_FALSE(Watch(
                {&viewer}, [&] { return viewer.nPictures > nGot; }, 50))
                << "it is paused";
            return viewer.Units(0, Coding::H264).back().nTimeMs / 40 + 1;
        };
        EXPECT_EQ(0U, play("", "0.000" + end));
        size_t nNext = pause(), nFirst = play("", "");
        EXPECT_EQ(nFirst, nNext) << "nothing is lost";
        pause();
        EXPECT_EQ(1250U, play("50.5-", "50.000" + end));
        EXPECT_EQ(1750U, play("70-", "70.000" + end, 1750)) << "while it plays, as some players do";
        EXPECT_EQ(750U, play("30.5-", "30.000" + end, 750));
        pause();
        EXPECT_EQ(2000U, play("80.9-0", "80.000-0.000\r\n"));
        pause();
        EXPECT_EQ(500U, play("20-40", "20.000-40.000\r\n"));
        nNext = pause();
        EXPECT_EQ(nNext / 25 * 25, play(std::to_string(nNext / 25) + ".99-", "")) << "where it stands";
        pause();
        EXPECT_EQ(0U, play("0-", "0.000" + end)) << "at its very beginning";
        nNext = pause();
        EXPECT_EQ(nNext, play("-20", "")) << "that names no start";
        nNext = pause();
        // the end, and what lies behind it, is nowhere: it goes on where it was
        EXPECT_EQ(nNext, play("99.98-", ""));
        pause();
        EXPECT_EQ(2475U, play("99.979-", "99.000" + end));
        EXPECT_TRUE(Watch({&viewer}, [&] { return viewer.Units(0, Coding::H264).back().data == sent.back().data; }));
        EXPECT_EQ(0U, play("0.5-", "0.000" + end)) << "from its end back to the start";
        viewer.Units(1, Coding::G711);
        EXPECT_THAT(viewer.Play(), testing::EndsWith("timeout=60\r\nDate: RFC1123\r\n\r\n")) << "it plays on";
    }
}

static bool HasBye(const std::string &report)
{
    for (size_t nAt = 0; nAt + 4 <= report.size(); nAt += 4 + 4 * (GetBe(report.data() + nAt, 4) & 0xFFFF))
        if (static_cast<uint8_t>(report[nAt + 1]) == 203)
            return true;
    return false;
}

// The wall time, in us, that a report gives to time 0 of the recording.
static int64_t ReportedStart(const std::string &report, uint32_t nRate)
{
    int64_t nUs =
        GetBe(report.data() + 8, 4) * int64_t{1000000} + (GetBe(report.data() + 12, 4) * int64_t{1000000} >> 32);
    return nUs - GetBe(report.data() + 16, 4) * int64_t{1000000} / nRate;
}

// Sound and pictures are on one time line, in the reply and in reports, and each track's end is told when its last
// packet was sent.
TEST_F(PlaybackTest, TellsTimesAndTheEnd)
{
    server.Set("INTEROP", "StandardPlayers", "1");
    for (const char *szRtcp : {"0", "1"}) {
        server.Set("SERVER", "EnableRtcp", szRtcp);
        server.Start();
        Camera camera({Coding::H264, Coding::G711});
        const std::string name = std::string(szRtcp) + ".zmf";
        ASSERT_NO_FATAL_FAILURE(Record(&camera, name, 60));
        for (RtspTransport transport : {RTSP_OVER_TCP, RTSP_OVER_UDP, RTSP_OVER_TUNNEL}) {
            Viewer viewer(transport);
            ASSERT_EQ(1, viewer.Prepare(Url(name)));
            EXPECT_TRUE(std::regex_search(viewer.Play("1.5-"),
                                          std::regex("url=" + Url(name) + "/trackID=0;seq=[0-9]+;rtptime=90001,url=" +
                                                     Url(name) + "/trackID=1;seq=[0-9]+;rtptime=8001\r\n")));
            EXPECT_TRUE(Watch(
                {&viewer}, [&] { return std::ranges::count_if(viewer.reports, HasBye) == 2; }, 5000));
            ASSERT_FALSE(viewer.packets[0].empty());
            std::vector<int64_t> starts;
            for (const std::string &report : viewer.reports)
                starts.push_back(
                    ReportedStart(report, report.substr(4, 4) == viewer.packets[0][0].substr(8, 4) ? 90000 : 8000));
            EXPECT_EQ(4U, starts.size()) << "a first one of each track, and the last";
            for (int64_t nStart : starts)
                EXPECT_NEAR(starts[0], nStart, 1000);
            if (viewer.Dropped() == 0) {
                EXPECT_EQ(camera.tracks[0].sent.back().data, viewer.Units(0, Coding::H264).back().data);
                EXPECT_TRUE(JoinData(camera.tracks[1].sent).ends_with(JoinData(viewer.Units(1, Coding::G711))));
            }
        }
        ASSERT_EQ(0, server.Quit());
    }
}

// By key frames, in real time and with stamps that rise, in either direction; the reply says which of the scales it
// is. Then again as it was recorded.
TEST_F(PlaybackTest, PlaysFasterAndBackwards)
{
    constexpr int kPictures = 500;  // twenty seconds with a key picture each
    static const struct {
        const char *szLines, *szReply;
        uint32_t nFirst, nStepMs;  // of pictures: its number, and how far their stamps are apart
        int nStep;
    } cases[] = {
        {"Range: npt=2.5-\r\nScale: 4.000000\r\n", "npt=2.000-20.080\r\nScale: 4\r\n", 50, 250, 25},
        {"Range: npt=0-\r\nScale: 100\r\nSpeed: 0.1\r\n", "npt=0.000-20.080\r\nScale: 16\r\nSpeed: 0.500\r\n", 0, 63,
         25},
        {"Range: npt=19.5-\r\nScale: -7\r\n", "npt=19.000-0.000\r\nScale: -8\r\n", 475, 125, -25},
        {"Range: npt=60-\r\nScale: -20\r\n", "npt=19.000-0.000\r\nScale: -16\r\n", 475, 62, -25},
        {"Range: npt=0-\r\nScale: 0\r\nSpeed: 99\r\n", "npt=0.000-20.080\r\nScale: 1\r\nSpeed: 8.000\r\n", 0, 40, 1},
    };
    server.Set("INTEROP", "StandardPlayers", "1");
    server.Start();
    Camera camera({Coding::H264, Coding::G711});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "a.zmf", kPictures));
    const MediaUnits &sent = camera.tracks[0].sent;
    for (RtspTransport transport : {RTSP_OVER_TCP, RTSP_OVER_UDP}) {
        for (const auto &c : cases) {
            Viewer viewer(transport);
            ASSERT_EQ(1, viewer.Prepare(Url("a.zmf")));
            auto tStart = std::chrono::steady_clock::now();
            EXPECT_THAT(Ask(&viewer.client, "PLAY", "", c.szLines), HasSubstr(std::string("\r\nRange: ") + c.szReply));
            EXPECT_TRUE(Watch(
                {&viewer}, [&] { return std::ranges::count_if(viewer.reports, HasBye) == 2; }, 20000));
            EXPECT_LE(std::chrono::steady_clock::now() - tStart, std::chrono::seconds(6)) << c.szLines;
            EXPECT_EQ(c.nStep == 1, !viewer.packets[1].empty()) << "sound at normal scale only";
            if (viewer.Dropped() > 0)
                continue;
            MediaUnits got = viewer.Units(0, Coding::H264);
            EXPECT_EQ(c.nStep == 1 ? kPictures : c.nStep < 0 ? 20 : 20 - c.nFirst / 25, got.size());
            for (size_t i = 0; i < got.size(); i++) {
                EXPECT_EQ(sent.at(c.nFirst + i * static_cast<size_t>(c.nStep)).data, got[i].data) << i;
                EXPECT_NEAR(c.nFirst * 40 + i * c.nStepMs, got[i].nTimeMs, 1 + i) << c.szLines << i;
            }
        }
    }
    Viewer viewer;
    ASSERT_EQ(1, viewer.Prepare(Url("a.zmf")));
    EXPECT_THAT(Ask(&viewer.client, "PLAY", "", "Scale: 2\r\n"), HasSubstr("Scale: 2\r\n"));
    EXPECT_TRUE(WatchPictures({&viewer}, 3));
    EXPECT_THAT(Ask(&viewer.client, "PAUSE"), kIsOk);
    viewer.Poll();
    size_t nLast = viewer.nPictures - 1;
    EXPECT_THAT(viewer.Play(), HasSubstr("Range: npt=" + std::to_string(nLast) + ".000-20.080\r\nScale: 1\r\n"));
    EXPECT_TRUE(WatchPictures({&viewer}, nLast + 5));
    for (size_t i = 1; i < 5; i++)
        EXPECT_EQ(sent[nLast * 25 + i - 1].data, viewer.Units(0, Coding::H264)[nLast + i].data);
}

// Of places that are asked for at once only the last one is gone to, and each request has its reply.
TEST_F(PlaybackTest, GoesToTheLastOfManyPlaces)
{
    server.Set("INTEROP", "StandardPlayers", "1");
    server.Start();
    Camera camera({Coding::H264});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "a.zmf", 500));
    Viewer viewer;
    ASSERT_EQ(1, viewer.Prepare(Url("a.zmf")));
    std::string requests;
    for (int nSecond : {3, 17, 8, 12})  // behind the last one stands a place that is none
        requests +=
            MakeRequest("PLAY", Url("a.zmf"), ++viewer.client.nCSeq, "Range: npt=" + std::to_string(nSecond) + "-\r\n");
    requests += MakeRequest("PLAY", Url("a.zmf"), ++viewer.client.nCSeq, "Range: npt=20-\r\n");
    Send(&viewer.client, requests);
    for (const char *szStart : {"0.000", "0.000", "0.000", "12.000", ""}) {
        RtspMessage reply;
        ASSERT_EQ(1, RtspWait(
                         &viewer.client, [](const RtspMessage &m) { return m.nStatus == 200; }, &reply));
        EXPECT_THAT(reply.raw, HasSubstr(std::string("Range: npt=") + szStart));
    }
    EXPECT_TRUE(WatchPictures({&viewer}, 5));
    EXPECT_EQ(camera.tracks[0].sent[300].data, viewer.Units(0, Coding::H264)[0].data);
}

// A picture too large for a player's UDP socket leaves little by little. A jump or a pause meanwhile comes behind its
// end, so that a decoder never gets a piece of one.
TEST_F(PlaybackTest, JumpsAndPausesBetweenPictures)
{
    server.Set("INTEROP", "StandardPlayers", "1");
    server.Set("STORAGE", "NeverLose", "1");
    server.Set("STORAGE", "WideUnits", "1");
    server.Start();
    Camera camera({Coding::JPEG});
    ASSERT_EQ(1, camera.Open(Url("camera")));
    ASSERT_EQ("200 OK", camera.Record("FileName=" + File("a.zmf")));
    for (size_t nBytes : {2000, 400000, 2000, 400000, 2000}) {
        camera.nJpegBytes = nBytes;
        camera.Send(nBytes > 2000 ? 1 : 24);
    }
    ASSERT_EQ("200 OK", camera.Record("Cmd=stop"));
    Viewer viewer(RTSP_OVER_UDP);
    ASSERT_EQ(1, viewer.Prepare(Url("a.zmf")));
    const MediaUnits &sent = camera.tracks[0].sent;
    for (const auto &[szMethod, szRange, nFirst] : {std::tuple{"PAUSE", "0.96-", 24U}, {"PLAY", "1.96-", 49U}}) {
        size_t nUnits = viewer.Units(0, Coding::JPEG).size(), nPackets = viewer.packets[0].size();
        EXPECT_THAT(viewer.Play(szRange), kIsOk);
        EXPECT_TRUE(Watch({&viewer}, [&] { return viewer.packets[0].size() > nPackets + 2; }));
        EXPECT_THAT(Ask(&viewer.client, szMethod, "", "Range: npt=0-\r\n"), kIsOk);
        viewer.Poll();
        bool bPaused = szMethod[1] == 'A';
        EXPECT_TRUE(!bPaused || viewer.packets[0].back()[1] & 0x80) << "behind a picture";
        EXPECT_TRUE(Watch({&viewer}, [&] { return bPaused || viewer.Units(0, Coding::JPEG).size() > nUnits + 9; }));
        MediaUnits got = viewer.Units(0, Coding::JPEG);
        for (size_t i = nUnits; i < got.size(); i++) {
            bool bKnown = std::ranges::any_of(sent, [&](const MediaUnit &unit) { return unit.data == got[i].data; });
            EXPECT_TRUE(bKnown) << szMethod << i - nUnits;
        }
        EXPECT_EQ(sent[nFirst].data.size(), got.size() > nUnits ? got[nUnits].data.size() : 0) << szMethod;
    }
}

// A file whose times jump or stand still plays on at once, on any transport.
TEST_F(PlaybackTest, PlaysOnWhereTimesDoNot)
{
    server.Set("INTEROP", "StandardPlayers", "1");
    server.Start();
    Camera camera({Coding::H264, Coding::G711});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "a.zmf", 75));
    ASSERT_EQ(0, server.Quit());
    auto damage = [&](const char *szName, auto change) {
        std::string file = ReadFile(File("a.zmf"));
        size_t nAt = 0;
        for (size_t nPart : {4U, 8U, 10U, 12U})
            nAt += GetBe(file.data() + nPart, 2);
        for (; nAt + 8 <= file.size(); nAt += GetBe(file.data() + nAt, 2))
            file.replace(nAt + 4, 4, Be(change(GetBe(file.data() + nAt + 4, 4)), 4));
        WriteFile(File(szName), file);
    };
    damage("jumps.zmf", [](uint32_t nMs) { return nMs < 1000 ? nMs : nMs < 2000 ? nMs + 21600000 : nMs; });
    damage("stands.zmf", [](uint32_t nMs) { return std::min(nMs, 500U); });
    server.Start();
    for (const char *szName : {"jumps.zmf", "stands.zmf"}) {
        for (RtspTransport transport : {RTSP_OVER_TCP, RTSP_OVER_UDP}) {
            Viewer viewer(transport);
            ASSERT_EQ(1, viewer.Open(Url(szName)));
            auto tStart = std::chrono::steady_clock::now();
            EXPECT_TRUE(Watch(
                {&viewer}, [&] { return std::ranges::count_if(viewer.reports, HasBye) == 2; }, 10000));
            EXPECT_GE(std::chrono::steady_clock::now() - tStart, std::chrono::milliseconds(500))
                << "in real time, but for a second";
            if (viewer.Dropped() > 0)
                continue;
            MediaUnits got = viewer.Units(0, Coding::H264);
            EXPECT_EQ(JoinData(camera.tracks[0].sent), JoinData(got));
            EXPECT_EQ(JoinData(camera.tracks[1].sent), JoinData(viewer.Units(1, Coding::G711)));
            for (size_t i = 1; i < got.size(); i++)
                EXPECT_LE(got[i - 1].nTimeMs, got[i].nTimeMs);
            EXPECT_LE(got.back().nTimeMs, 3200U);
        }
        EXPECT_TRUE(server.WaitOutput(std::string("The times of /") + szName));
    }
}

// Links lead to what is recorded below the directory, or anywhere.
TEST_F(PlaybackTest, PlaysWhatItsDirectoryHolds)
{
    const std::string out = root + "-other";
    std::filesystem::create_directories(out);
    server.Start();
    Camera camera({Coding::H264});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "a.zmf", 2));
    ASSERT_EQ(0, server.Quit());
    std::filesystem::copy_file(File("a.zmf"), out + "/a.zmf");
    std::filesystem::create_symlink(out + "/a.zmf", File("out.zmf"));
    std::filesystem::create_symlink(out, File("away"));
    std::filesystem::create_symlink(File("a.zmf"), File("in.zmf"));
    static const struct {
        const char *szPath, *szOff, *szOn;
    } cases[] = {
        {"/in.zmf", "200", "200"},      {"/out.zmf", "200", "404"}, {"/away/a.zmf", "200", "404"},
        {"/away//a.zmf", "200", "404"}, {"/a.zmf//", "404", "200"}, {"/b.zmf", "404", "404"},
    };
    for (const char *szConfined : {"0", "1"}) {
        server.Set("GUARD", "ConfineRecordings", szConfined);
        server.Start();
        for (const auto &c : cases) {
            Connect(&player, c.szPath);
            EXPECT_THAT(Ask(&player, "DESCRIBE"),
                        testing::StartsWith(std::string("RTSP/1.0 ") + (*szConfined == '1' ? c.szOn : c.szOff)))
                << c.szPath;
        }
        ASSERT_EQ(0, server.Quit());
    }
}

TEST_F(PlaybackTest, DescribesRecordings)
{
    server.Start();
    Camera camera({Coding::H264});
    ASSERT_NO_FATAL_FAILURE(
        Record(&camera, "a.zmf", 26, "a=NickName:door\r\na=range:npt=now-\r\na=ProgramAuth:123\r\n"));
    std::string sdp = camera.Sdp() + "a=NickName:door\r\n";
    sdp.insert(sdp.find("m="), "a=range:npt=0-1.000\r\n");
    Connect(&player, "/a.zmf");
    EXPECT_EQ(WithBody("200 OK", kSdp, sdp), Ask(&player, "DESCRIBE"));
    EXPECT_TRUE(server.WaitOutput("CreateFileProgram(Uri=/a.zmf), pointer=0x"));
    std::filesystem::create_directories(File("directory.zmf"));
    ASSERT_EQ(0, mkfifo(File("fifo.zmf").c_str(), 0644));
    std::filesystem::create_symlink("/dev/zero", File("device.zmf"));
    for (const char *szName : {"b.zmf", "../rec/a.zmf", "a.zmf.tm!", "a", ".zmf", "sub/../../a.zmf", "directory.zmf",
                               "fifo.zmf", "device.zmf"}) {
        Connect(&player, std::string("/") + szName);
        EXPECT_EQ(Refused("404 Not Found"), Ask(&player, "DESCRIBE")) << szName;
    }
    ASSERT_EQ(0, server.Quit());
    server.Set("SERVER", "EnableFilePrg", "0");
    server.Start();
    Connect(&player, "/a.zmf");
    EXPECT_EQ(Refused("404 Not Found"), Ask(&player, "DESCRIBE"));
}
