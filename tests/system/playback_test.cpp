// Recordings played back: what comes out is what went in, whoever asks and from wherever.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "client/rtppacket.h"
#include "system/recordingtest.h"
#include "system/toolprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const RtspTransport kTransports[] = {RTSP_OVER_TCP, RTSP_OVER_UDP, RTSP_OVER_TUNNEL};
constexpr int kBye = 203;

using Viewers = std::vector<std::unique_ptr<Viewer>>;

std::vector<Viewer *> Pointers(const Viewers &viewers)
{
    std::vector<Viewer *> pointers;
    pointers.reserve(viewers.size());
    for (const auto &viewer : viewers)
        pointers.push_back(viewer.get());
    return pointers;
}

struct PlaybackTest : RecordingTest {
    // One player for each transport, ready for PLAY.
    void PrepareAll(const std::string &name, Viewers *pOut)
    {
        for (RtspTransport transport : kTransports) {
            pOut->push_back(std::make_unique<Viewer>(transport));
            ASSERT_EQ(1, pOut->back()->Prepare(Url(name))) << pOut->back()->client.error;
        }
    }
};

struct Programme {
    const char *szFile;
    std::vector<Codec> codecs;
};

const Programme kProgrammes[] = {
    {"h264.zmf", {Codec::H264, Codec::G711, Codec::EVENTS}},
    {"jpeg.zmf", {Codec::JPEG, Codec::AMR_NB}},
    {"wide.zmf", {Codec::H264, Codec::AMR_WB}},
    {"silent.zmf", {Codec::JPEG}},
};

// What a player got of a program that was recorded from its first picture on.
void ExpectAllOf(const Camera &camera, const Viewer &viewer)
{
    for (size_t i = 0; i < camera.tracks.size(); i++) {
        const CameraTrack &track = camera.tracks[i];
        int nLost = 0;
        MediaUnits got = viewer.Units(i, track.codec, &nLost);
        EXPECT_EQ(0, nLost) << "track " << i;
        ASSERT_FALSE(got.empty()) << "track " << i;
        EXPECT_EQ(0U, got[0].nTimeMs - (track.codec == Codec::EVENTS ? got[0].nTimeMs : 0)) << "track " << i;
        if (i > 0) {  // sound is packed anew
            EXPECT_TRUE(JoinData(track.sent) == JoinData(got)) << "track " << i;
            continue;
        }
        ASSERT_EQ(track.sent.size(), got.size());
        for (size_t k = 0; k < got.size(); k++) {
            ASSERT_EQ(track.sent[k], got[k]) << "picture " << k;
            ASSERT_EQ(track.sent[k].nTimeMs - track.sent[0].nTimeMs, got[k].nTimeMs) << "picture " << k;
        }
    }
}

// Nothing comes more than a second before its time, and nothing much later.
void ExpectPace(const Viewer &viewer, uint64_t nStartUs)
{
    constexpr int64_t kLateMs = kSanitized ? 5000 : 1000;
    for (size_t i = 0; i < viewer.packets[0].size(); i++) {
        RtpHead head;
        RtpParseHead(viewer.packets[0][i].data(), viewer.packets[0][i].size(), &head);
        auto nLeadMs =
            int64_t{head.nTimestamp} / 90 - static_cast<int64_t>(viewer.arrivals[0][i] - nStartUs) / 1000;
        ASSERT_LE(nLeadMs, 1100) << "packet " << i;
        ASSERT_GE(nLeadMs, -kLateMs) << "packet " << i;
    }
}

TEST_F(PlaybackTest, GivesEverythingBackOverEveryTransport)
{
    server.Start();
    std::vector<std::unique_ptr<Camera>> cameras;
    Viewers viewers;
    for (const Programme &programme : kProgrammes) {
        cameras.push_back(std::make_unique<Camera>(programme.codecs));
        Camera *pCamera = cameras.back().get();
        ASSERT_EQ(1, pCamera->Open(Url("cam")));
        ASSERT_EQ("200 OK", RecordEx(&pCamera->client, "FileName=" + File(programme.szFile)));
        pCamera->Send(60);
        if (programme.codecs.back() == Codec::EVENTS) {
            pCamera->SendEvent("ALARM:the door");
            pCamera->SendEvent("a remark that nobody keeps");
            pCamera->tracks.back().sent.pop_back();
        }
        pCamera->Send(40);
        pCamera->Flush();
        ASSERT_EQ("200 OK", RecordEx(&pCamera->client, "Cmd=stop"));
        ASSERT_NO_FATAL_FAILURE(PrepareAll(programme.szFile, &viewers));
    }
    uint64_t nStartUs = RtspNowUs();
    for (const auto &viewer : viewers)
        EXPECT_THAT(viewer->Request("PLAY"), HasSubstr("\r\nRange: npt=0.000-3.9"));
    WatchToTheEnd(Pointers(viewers));
    for (size_t i = 0; i < viewers.size(); i++) {
        SCOPED_TRACE(kProgrammes[i / 3].szFile + std::string(" transport ") + std::to_string(i % 3));
        ExpectAllOf(*cameras[i / 3], *viewers[i]);
        ExpectPace(*viewers[i], nStartUs);
        EXPECT_TRUE(viewers[i]->reports.empty());
        EXPECT_FALSE(viewers[i]->client.bClosed) << "a recording's end does not end the connection";
    }
}

// A real encoder's file, as a tool pushes it.
TEST_F(PlaybackTest, GivesBackWhatAToolPushed)
{
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    std::string dump = server.dir.File("dump");
    ToolProcess push("orxpush", {"--wait", "10", "--duration", "5", "--audio", "tone", "--data", "500",
                                 "--packet", "1200", "--dump", dump, server.Url("/live/tool")});
    ASSERT_TRUE(push.WaitOutput("started"));
    RtspClient control;
    ASSERT_EQ(1, RtspConnect(&control, server.Url("/live/tool").c_str()));
    ASSERT_EQ(1, RtspDescribe(&control));
    ASSERT_EQ("200 OK", RecordEx(&control, "EventType=1"));
    EXPECT_EQ(0, push.WaitExit());
    std::vector<std::string> files;  // complete when the encoder has gone, whoever is still connected
    const std::string form = "live/tool/20[0-9]{6}/S[0-9]{6}\\.zmf";
    ASSERT_TRUE(WaitFor([&] {
        files = FilesBelow(root);
        return files.size() == 1 && std::regex_match(files[0], std::regex(form));
    }));

    Viewers viewers;
    ASSERT_NO_FATAL_FAILURE(PrepareAll(files[0], &viewers));
    for (const auto &viewer : viewers)
        EXPECT_THAT(viewer->Request("PLAY"), StartsWith("RTSP/1.0 200 OK"));
    WatchToTheEnd(Pointers(viewers));
    std::string pushed = ReadFile(dump);
    MediaUnits pictures = TakeApart(Codec::H264, ReadDump(pushed, 0), 90);
    std::string sound = JoinData(TakeApart(Codec::G711, ReadDump(pushed, 2), 8));
    for (const auto &viewer : viewers) {
        MediaUnits got = viewer->Units(0, Codec::H264);
        ASSERT_GT(got.size(), 70U);
        MediaUnits expected(pictures.end() - static_cast<long>(got.size()), pictures.end());
        EXPECT_TRUE(expected == got);
        EXPECT_TRUE(got[0].bKey);
        EXPECT_EQ(40U, got[1].nTimeMs);
        std::string gotSound = JoinData(viewer->Units(1, Codec::G711));
        EXPECT_GT(gotSound.size(), 160U * 2 * (got.size() - 10));
        EXPECT_THAT(sound, testing::EndsWith(gotSound));
    }
}

std::string PlayedFrom(int nStartMs, int nEndMs)
{
    char text[64];
    snprintf(text, sizeof(text), "\r\nRange: npt=%d.%03d-%d.%03d\r\n", nStartMs / 1000, nStartMs % 1000,
             nEndMs / 1000, nEndMs % 1000);
    return text;
}

struct SeekTest : PlaybackTest, testing::WithParamInterface<RtspTransport> {
    Camera camera{{Codec::H264, Codec::G711}};
    Viewer viewer{GetParam()};
    static constexpr int kDurationMs = 10000 - 20;  // ten seconds; sound comes every 20 ms

    void SetUp() override
    {
        server.Set("INTEROP", "StandardPlayers", "1");
        server.Start();
        ASSERT_NO_FATAL_FAILURE(Record(&camera, "ten.zmf", 250));
        ASSERT_EQ(1, viewer.Prepare(Url("ten.zmf")));
    }
    const MediaUnits &Sent() const { return camera.tracks[0].sent; }
    MediaUnits Pictures() const { return viewer.Units(0, Codec::H264); }

    // Plays and checks where it begins, and that what comes are the pictures from there on.
    void Play(const std::string &range, int nStartMs, int nEndMs = kDurationMs)
    {
        viewer.Forget();
        std::string headers = range.empty() ? "" : "Range: npt=" + range + "\r\n";
        EXPECT_THAT(viewer.Request("PLAY", headers), HasSubstr(PlayedFrom(nStartMs, nEndMs))) << range;
        size_t nLeft = static_cast<size_t>((10000 - nStartMs) / 40);
        ASSERT_TRUE(Watch(
            {&viewer}, [&] { return Pictures().size() >= std::min<size_t>(35, nLeft); }, 5000));
        ExpectFrom(static_cast<size_t>(nStartMs / 40));
    }
    void ExpectFrom(size_t nPicture)
    {
        MediaUnits got = Pictures();
        ASSERT_LE(nPicture + got.size(), Sent().size());
        EXPECT_TRUE(got[0].bKey);
        for (size_t i = 0; i < got.size(); i++) {
            ASSERT_EQ(Sent()[nPicture + i], got[i]) << i;
            ASSERT_EQ((nPicture + i) * 40, got[i].nTimeMs) << i;
        }
    }
    // In the numbers of all packets since the last Play.
    void ExpectNoHole() const
    {
        for (size_t i = 0; i < camera.tracks.size(); i++) {
            int nLost = 0;
            viewer.Units(i, camera.tracks[i].codec, &nLost);
            EXPECT_EQ(0, nLost) << "track " << i;
        }
    }
    void Pause()
    {
        EXPECT_THAT(viewer.Request("PAUSE"), StartsWith("RTSP/1.0 200 OK"));
        viewer.Poll();  // what left before the reply
        size_t nGot = viewer.Packets();
        EXPECT_FALSE(Watch(
            {&viewer}, [&] { return viewer.Packets() > nGot; }, 500))
            << "it is paused";
    }
};

INSTANTIATE_TEST_SUITE_P(Transports, SeekTest, testing::ValuesIn(kTransports));

TEST_P(SeekTest, PlaysFromWhereItIsAsked)
{
    Play("", 0);
    Pause();
    Play("5.5-", 5000);
    Pause();
    Play("8.9-0", 8000, 0);
    Pause();
    Play("2-4", 2000, 4000);
    Pause();
    viewer.Forget();
    // the end, and what lies behind it, is nowhere: it goes on where it was
    for (const char *szRange : {"9.98-", "1000-"}) {
        EXPECT_THAT(viewer.Request("PLAY", std::string("Range: npt=") + szRange + "\r\n"),
                    testing::ContainsRegex("\r\nRange: npt=[34]\\.[0-9]{3}-9\\.980\r\n"));
        Pause();
    }
    Play("9.979-", 9000);
    WatchToTheEnd({&viewer});
    EXPECT_EQ(Sent().back(), Pictures().back());
    EXPECT_EQ(25U, Pictures().size());
    Play("0.5-", 0);  // from its end back to the start
}

// A pause loses at most what was under way: the pictures that were already packed. Their numbers are used
// anew.
TEST_P(SeekTest, GoesOnAfterAPause)
{
    Play("", 0);
    for (int i = 0; i < 3; i++) {
        Pause();
        size_t nBefore = Pictures().size();
        EXPECT_THAT(viewer.Request("PLAY"), StartsWith("RTSP/1.0 200 OK"));
        ASSERT_TRUE(Watch(
            {&viewer}, [&] { return Pictures().size() >= nBefore + 30; }, 5000));
        MediaUnits got = Pictures();
        size_t nFirst = got[nBefore].nTimeMs / 40;
        size_t nLast = got[nBefore - 1].nTimeMs / 40;
        EXPECT_GT(nFirst, nLast);
        EXPECT_LE(nFirst, nLast + 5);
        for (size_t k = nBefore; k < got.size(); k++)
            ASSERT_EQ(Sent()[nFirst + k - nBefore], got[k]);
    }
    ExpectNoHole();
}

// Without a pause, as some players do it: behind the reply nothing comes from before the jump.
TEST_P(SeekTest, JumpsWhileItPlays)
{
    Play("", 0);
    for (int nStartMs : {5000, 2000, 7000}) {
        std::string range = "Range: npt=" + std::to_string(nStartMs / 1000) + ".5-\r\n";
        size_t nBefore = Pictures().size();
        EXPECT_THAT(viewer.Request("PLAY", range), HasSubstr(PlayedFrom(nStartMs, kDurationMs)));
        MediaUnits got;
        size_t nFirst = 0;
        ASSERT_TRUE(Watch(
            {&viewer},
            [&] {
                got = Pictures();
                for (nFirst = nBefore; nFirst < got.size() && got[nFirst].nTimeMs != uint32_t(nStartMs);)
                    nFirst++;
                return got.size() >= nFirst + 30;
            },
            5000));
        for (size_t k = nFirst; k < got.size(); k++)
            ASSERT_EQ(Sent()[static_cast<size_t>(nStartMs / 40) + k - nFirst], got[k]);
    }
    ExpectNoHole();
    EXPECT_THAT(viewer.Request("PLAY"), StartsWith("RTSP/1.0 455 ")) << "where to?";
}

TEST_F(PlaybackTest, DescribesRecordings)
{
    server.Start();
    Camera camera({Codec::H264});
    ASSERT_EQ(1, camera.Open(Url("cam"), "a=NickName:door\r\na=range:npt=now-\r\na=ProgramAuth:123\r\n"));
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "FileName=" + File("a.zmf")));
    camera.Send(26);
    camera.Flush();
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "Cmd=stop"));
    RtspClient player;
    ASSERT_EQ(1, RtspConnect(&player, Url("a.zmf").c_str()));
    RtspMessage reply;
    ASSERT_EQ(1, RtspDescribe(&player, &reply));
    std::string sdp = camera.Sdp();
    sdp.insert(sdp.find("m="), "a=range:npt=0-1.000\r\n");
    EXPECT_EQ(sdp + "a=NickName:door\r\n", reply.body);
    EXPECT_TRUE(server.WaitOutput("CreateFileProgram(Uri=/a.zmf), pointer=0x"));
    for (const char *szName : {"b.zmf", "../rec/a.zmf", "a.zmf.tm!", "a", ".zmf", "sub/../../a.zmf"}) {
        RtspClient other;
        ASSERT_EQ(1, RtspConnect(&other, Url(szName).c_str()));
        EXPECT_EQ(StatusReply("404 Not Found", 1), Exchange(&other, MakeRequest("DESCRIBE", Url(szName), 1)))
            << szName;
    }
}

TEST_F(PlaybackTest, NobodyPlaysRecordingsWhenOff)
{
    server.Set("SERVER", "EnableFilePrg", "0");
    server.Start();
    Camera camera({Codec::H264});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "a.zmf", 26));
    RtspClient player;
    ASSERT_EQ(1, RtspConnect(&player, Url("a.zmf").c_str()));
    EXPECT_EQ(StatusReply("404 Not Found", 1), Exchange(&player, MakeRequest("DESCRIBE", Url("a.zmf"), 1)));
}

// Everybody has a reader of its own: one's seek does not move the other.
TEST_F(PlaybackTest, PlayersDoNotDisturbEachOther)
{
    server.Start();
    Camera camera({Codec::JPEG, Codec::AMR_NB});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "a.zmf", 100));
    Viewers viewers;
    for (int i = 0; i < 20; i++) {
        viewers.push_back(std::make_unique<Viewer>(kTransports[i % 3]));
        ASSERT_EQ(1, viewers.back()->Prepare(Url("a.zmf")));
        EXPECT_THAT(viewers.back()->Request("PLAY"), StartsWith("RTSP/1.0 200 OK"));
    }
    for (int i = 0; i < 20; i += 2) {
        viewers[static_cast<size_t>(i)]->Request("PAUSE");
        viewers[static_cast<size_t>(i)]->Request("PLAY", "Range: npt=3.5-\r\n");
    }
    RtspReset(&viewers[18]->client);
    WatchToTheEnd(Pointers(viewers));
    for (size_t i = 1; i < 20; i += 2)
        ExpectAllOf(camera, *viewers[i]);
    viewers.clear();
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nMonitors == 2; })) << "nothing of them stays";
    EXPECT_EQ(20, CountText(server.Output(), "OnFreeProgram(Uri=/a.zmf)"));
}

bool HasBye(const std::string &report)
{
    for (size_t nAt = 0; nAt + 4 <= report.size(); nAt += 4 * (size_t{GetBe(report.data() + nAt + 2, 2)} + 1))
        if (static_cast<uint8_t>(report[nAt + 1]) == kBye)
            return report.find("completed", nAt) != std::string::npos;
    return false;
}

size_t CountByes(const Viewer &viewer)
{
    return static_cast<size_t>(std::count_if(viewer.reports.begin(), viewer.reports.end(), HasBye));
}

// Ten seconds after the last reports, and once.
TEST_F(PlaybackTest, SaysByeWhereReportsAreOn)
{
    server.Set("SERVER", "EnableRtcp", "1");
    server.Start();
    Camera camera({Codec::H264, Codec::G711});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "a.zmf", 30));
    Viewers viewers;
    ASSERT_NO_FATAL_FAILURE(PrepareAll("a.zmf", &viewers));
    uint64_t nStartUs = RtspNowUs();
    for (const auto &viewer : viewers)
        EXPECT_THAT(viewer->Request("PLAY"), StartsWith("RTSP/1.0 200 OK"));
    auto ended = [&] {
        return std::all_of(viewers.begin(), viewers.end(),
                           [](const auto &viewer) { return CountByes(*viewer) == 2; });
    };
    EXPECT_TRUE(Watch(Pointers(viewers), ended, 14000));
    EXPECT_GT(RtspNowUs() - nStartUs, 8500000U);
    Watch(
        Pointers(viewers), [] { return false; }, 700);
    for (const auto &viewer : viewers) {
        EXPECT_EQ(2U, CountByes(*viewer)) << "one for each track";
        EXPECT_EQ(4U, viewer->reports.size()) << "and one after the first packet of each";
        ExpectAllOf(camera, *viewer);
    }
}

// --- Files from elsewhere ---

// Where record number n begins.
size_t RecordAt(const std::string &file, int n)
{
    size_t nAt = DataOffset(file);
    while (n-- > 0)
        nAt += RecordLength(file, nAt);
    return nAt;
}

void Set(std::string *pFile, size_t nAt, size_t nBytes, uint32_t nValue)
{
    PutBe(pFile->data() + nAt, nBytes, nValue);
}

constexpr int kRefused = -1;
constexpr int kAny = -2;

struct Damage {
    const char *szName;
    void (*pfnDo)(std::string *pFile);
    int nPictures;       // that are played
    const char *szText;  // of the assertion that it breaks, or null
};

const Damage kDamages[] = {
    {"empty", [](std::string *p) { p->clear(); }, kRefused, nullptr},
    {"four bytes", [](std::string *p) { p->resize(4); }, kRefused, nullptr},
    {"half a header", [](std::string *p) { p->resize(100); }, kRefused, nullptr},
    {"zeros", [](std::string *p) { std::fill(p->begin(), p->end(), '\0'); }, kRefused, nullptr},
    {"wrong magic", [](std::string *p) { (*p)[3] = '#'; }, kRefused, nullptr},
    {"header of nothing", [](std::string *p) { Set(p, 4, 2, 0); }, kRefused, nullptr},
    {"header of 7", [](std::string *p) { Set(p, 4, 2, 7); }, kRefused, nullptr},
    {"header beyond the file", [](std::string *p) { Set(p, 4, 2, 0xFFFF); }, kRefused, nullptr},
    {"odd index", [](std::string *p) { Set(p, 8, 2, 1601); }, kRefused, "(pFileHead->nIdxSize & 0x7) == 0"},
    {"index beyond the file", [](std::string *p) { Set(p, 8, 2, 0xFFF8); }, kRefused, nullptr},
    {"index that begins late", [](std::string *p) { Set(p, 168, 4, 1); }, kRefused, "*p == 0"},
    {"index outside", [](std::string *p) { Set(p, 176, 4, 0x7FFFFFFF); }, 50, nullptr},
    {"index of nonsense", [](std::string *p) { p->replace(176, 1592, std::string(1592, '\x5A')); }, 50,
     nullptr},
    {"no index entries", [](std::string *p) { p->replace(168, 1600, std::string(1600, '\0')); }, 50, nullptr},
    {"description beyond the file", [](std::string *p) { Set(p, 10, 2, 0xFFFF); }, kRefused, nullptr},
    {"no description", [](std::string *p) { p->replace(1768, 40, std::string(40, '\0')); }, kRefused,
     nullptr},
    {"application data beyond the file", [](std::string *p) { Set(p, 12, 2, 0xFFF8); }, kAny, nullptr},
    {"no duration", [](std::string *p) { Set(p, 40, 4, 0); }, 50, nullptr},
    {"endless duration", [](std::string *p) { Set(p, 40, 4, 0xFFFFFFFF); }, 50, nullptr},
    {"record of nothing", [](std::string *p) { Set(p, RecordAt(*p, 20), 2, 0); }, 20, nullptr},
    {"record of 7", [](std::string *p) { Set(p, RecordAt(*p, 20), 2, 7); }, 20, nullptr},
    {"record of its head", [](std::string *p) { Set(p, RecordAt(*p, 49), 2, 8); }, kAny, nullptr},
    {"record beyond the file", [](std::string *p) { Set(p, RecordAt(*p, 20), 2, 0xFFFF); }, kAny, nullptr},
    {"record of a megabyte", [](std::string *p) { Set(p, RecordAt(*p, 20) + 3, 1, 0x0F); }, 20, nullptr},
    {"unknown record", [](std::string *p) { (*p)[RecordAt(*p, 20) + 2] = 'z'; }, 49, nullptr},
    {"time that goes back", [](std::string *p) { Set(p, RecordAt(*p, 20) + 4, 4, 0); }, 50, nullptr},
    {"unit beyond its record", [](std::string *p) { Set(p, RecordAt(*p, 20) + 8, 2, 0xFFFF); }, kAny,
     "len==0"},
    {"unit of nothing", [](std::string *p) { Set(p, RecordAt(*p, 20) + 8, 2, 2); }, kAny, "len==0"},
    {"picture that is sound", [](std::string *p) { (*p)[RecordAt(*p, 20) + 2] = 'a'; }, kAny, nullptr},
};

struct BrokenFileTest : PlaybackTest {
    std::string good;  // two seconds of pictures

    void Make()
    {
        Camera camera({Codec::H264});
        ASSERT_NO_FATAL_FAILURE(Record(&camera, "good.zmf", 50));
        good = ReadFile(File("good.zmf"));
        ASSERT_EQ(50U, CountPictures(good, good.size()));
    }
};

TEST_F(BrokenFileTest, EndWithoutHarm)
{
    server.Set("GUARD", "SurvivePeerFaults", "1");
    server.Start();
    ASSERT_NO_FATAL_FAILURE(Make());
    Viewers viewers;
    std::vector<const Damage *> playing;
    for (const Damage &damage : kDamages) {
        SCOPED_TRACE(damage.szName);
        std::string file = good;
        damage.pfnDo(&file);
        WriteFile(File("bad.zmf"), file);
        auto viewer = std::make_unique<Viewer>();
        bool bPrepared = viewer->Prepare(Url("bad.zmf")) != 0;
        if (damage.nPictures != kAny) {
            EXPECT_EQ(damage.nPictures != kRefused, bPrepared);
        }
        std::filesystem::remove(File("bad.zmf"));  // its reader keeps it
        if (!bPrepared) {
            EXPECT_EQ("DESCRIBE: 404 Not Found", viewer->client.error);
            continue;
        }
        viewer->Request("PLAY");
        viewers.push_back(std::move(viewer));
        playing.push_back(&damage);
    }
    WatchToTheEnd(Pointers(viewers));
    for (size_t i = 0; i < viewers.size(); i++) {
        if (playing[i]->nPictures >= 0) {
            EXPECT_EQ(static_cast<size_t>(playing[i]->nPictures), viewers[i]->Units(0, Codec::H264).size())
                << playing[i]->szName;
        }
    }
    // who plays a broken file may seek in it, too
    for (const auto &viewer : viewers)
        for (const char *szRange : {"1.9-", "0.1-", "4000000-"}) {
            viewer->Request("PAUSE");
            viewer->Request("PLAY", std::string("Range: npt=") + szRange + "\r\n");
        }
    for (const Damage &damage : kDamages)
        if (damage.szText) {
            EXPECT_THAT(server.Output(), HasSubstr(damage.szText)) << damage.szName;
        }
    Viewer last;
    ASSERT_EQ(1, last.Prepare(Url("good.zmf")));
    last.Request("PLAY");
    WatchToTheEnd({&last});
    EXPECT_EQ(50U, last.Units(0, Codec::H264).size());
}

TEST_F(BrokenFileTest, PlayUpToTheLastWholeRecord)
{
    server.Start();
    ASSERT_NO_FATAL_FAILURE(Make());
    size_t nData = DataOffset(good);
    std::vector<size_t> cuts;
    for (int i : {0, 1, 2, 24, 25, 26, 49})
        for (int nOffset : {-1, 0, 1, 7, 8, 9})
            cuts.push_back(RecordAt(good, i) + static_cast<size_t>(nOffset));
    for (size_t n = 0; n < nData; n += 97)
        cuts.push_back(n);
    Viewers viewers;
    std::vector<size_t> played;
    for (size_t nBytes : cuts) {
        WriteFile(File("cut.zmf"), good.substr(0, nBytes));
        auto viewer = std::make_unique<Viewer>();
        bool bPrepared = viewer->Prepare(Url("cut.zmf")) != 0;
        EXPECT_EQ(nBytes >= nData, bPrepared) << nBytes << " of " << nData;
        std::filesystem::remove(File("cut.zmf"));
        if (!bPrepared)
            continue;
        viewer->Request("PLAY");
        viewers.push_back(std::move(viewer));
        played.push_back(nBytes);
    }
    WatchToTheEnd(Pointers(viewers));
    for (size_t i = 0; i < viewers.size(); i++)
        EXPECT_EQ(CountPictures(good, played[i]), viewers[i]->Units(0, Codec::H264).size()) << played[i];
}

TEST_F(BrokenFileTest, AreNoFilesAtAll)
{
    server.Start();
    std::filesystem::create_directories(File("directory.zmf"));
    ASSERT_EQ(0, mkfifo(File("fifo.zmf").c_str(), 0644));
    std::filesystem::create_symlink("/dev/zero", File("device.zmf"));
    std::filesystem::create_symlink("nowhere", File("nowhere.zmf"));
    for (const char *szName : {"directory.zmf", "fifo.zmf", "device.zmf", "nowhere.zmf"}) {
        Viewer viewer;
        EXPECT_EQ(0, viewer.Prepare(Url(szName))) << szName;
        EXPECT_EQ("DESCRIBE: 404 Not Found", viewer.client.error) << szName;
    }
}

// With the guard off a broken file stops the process, by the text that names what is broken.
TEST(BrokenFiles, StopTheProcessWhenTheGuardIsOff)
{
    for (const Damage &damage : kDamages) {
        if (!damage.szText)
            continue;
        struct : BrokenFileTest {
            void TestBody() override {}
        } test;
        test.server.Start();
        ASSERT_NO_FATAL_FAILURE(test.Make());
        damage.pfnDo(&test.good);
        WriteFile(test.File("bad.zmf"), test.good);
        Viewer viewer;
        if (viewer.Prepare(test.Url("bad.zmf")))
            viewer.Request("PLAY");
        EXPECT_EQ(256 + SIGABRT, test.server.WaitExit()) << damage.szName;
        EXPECT_THAT(test.server.Output(),
                    HasSubstr("Assertion `" + std::string(damage.szText) + "' failed."));
    }
}

}  // namespace
}  // namespace orx
