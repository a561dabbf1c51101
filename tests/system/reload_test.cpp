// The configuration read again by SIGHUP: what counts at once, what waits for the next start, and that nobody
// notices who is being served.
#include <csignal>
#include <filesystem>

#include "system/systemtest.h"

using namespace orx;
using testing::HasSubstr;
using testing::Not;

static const char kRead[] = "The configuration was read again";
static const char kRefused[] = "The configuration was not read again and stays as it was";

struct ReloadTest : SystemTest {
    std::string file;  // as the server was started with

    void StartLogged()
    {
        server.Set("STATUS", "Socket", server.dir.File("orx.sock"));
        server.Start();
        file = ReadFile(server.ConfigPath());
    }
    // The configuration with keys in front of its own, so that they count.
    std::string With(const std::string &keys, const std::string &section, std::string text = "") const
    {
        const std::string head = "[" + section + "]\n";
        text = text.empty() ? file : text;
        size_t nAt = text.find(head);
        return nAt == std::string::npos ? text + head + keys : text.insert(nAt + head.size(), keys);
    }
    // Has it read, and waits for the line that tells.
    void Reload(const std::string &text, const char *szTold = kRead)
    {
        WriteFile(server.ConfigPath(), text);
        Hangup(szTold);
    }
    void Hangup(const char *szTold)
    {
        size_t nFrom = server.Output().size();
        server.Signal(SIGHUP);
        ASSERT_TRUE(server.WaitOutput(szTold, 1, nFrom));
        told = server.Output().substr(nFrom);
    }
    size_t Recordings(const std::string &dir) const
    {
        size_t n = 0;
        std::error_code error;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(server.dir.File(dir), error))
            n += entry.is_regular_file();
        return n;
    }
    std::string told;
};

TEST_F(ReloadTest, DoesNothingWhereNothingAsksForIt)
{
    server.Start();
    server.Signal(SIGHUP);
    server.Stat();  // a turn of the loop that would act on it
    server.Stat();
    EXPECT_THAT(server.Output(), Not(HasSubstr("read again")));
}

TEST_F(ReloadTest, KeepsTheOldValuesWhereTheFileIsNoGood)
{
    StartLogged();
    Reload(With("UdpStartPort=1\n", "SERVER"), kRefused);
    Reload("", kRefused);
    Reload(file + std::string(8192, ';') + "\n", kRefused);
    std::filesystem::remove(server.ConfigPath());
    Hangup(kRefused);
    Reload(file + "[GUARD]\nSurvivePeerFaults=1\n" + std::string(8192, ';') + "\n");
    Reload(file);
    EXPECT_THAT(told, Not(HasSubstr("From the next start")));
}

TEST_F(ReloadTest, TellsWhatNeedsAStartAndTakesTheRest)
{
    StartLogged();
    Reload(With("ListenPort=1\nAuthType=2\nConnectLimit=5\n", "SERVER"));
    EXPECT_THAT(told, HasSubstr("From the next start only count: AuthType ListenPort UnetPort."));
    std::vector<Sock> clients;
    for (int i = 0; i < 7; i++)
        clients.push_back(::orx::Connect(server.nPort));
    EXPECT_TRUE(server.WaitOutput("Exceed the connect-limit!"));
    Reload(With("AnnounceFrom=10.1.2.3\n", "GUARD"));
    Connect(&pusher);
    EXPECT_EQ(0, RtspAnnounce(&pusher, CameraSdp()));
}

TEST_F(ReloadTest, RecordsInANewPlaceFromTheNextFileOn)
{
    server.Set("STORAGE", "RecordEnable=1\nRecordPath=" + server.dir.File("one") + "\nMinutePerFile=0");
    StartLogged();
    EXPECT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    SendPictures(&pusher, 0, 2);
    Describe(&player);
    EXPECT_THAT(Ask(&player, "RECORDEX", "", "ActionParam: EventType=1\r\n"), kIsOk);
    EXPECT_EQ(1U, Recordings("one"));
    for (const char *szPlace : {"two", "three"}) {
        Reload(With("RecordPath=" + server.dir.File(szPlace) + "\nRecordAlways=*\nNeverLose=1\n", "STORAGE"));
        SendPictures(&pusher, 2, 2);
        EXPECT_TRUE(WaitFor([&] { return Recordings(szPlace) == 1; })) << szPlace;
        EXPECT_EQ(1U, Recordings("one"));
    }
}

// Values go back and forth while media is pushed, played and recorded.
TEST_F(ReloadTest, EndsNobodysSession)
{
    server.Set("STORAGE", "RecordEnable=1\nRecordAlways=*\nMinutePerFile=0\nRecordPath=" + server.dir.File("one"));
    server.Set("INTEROP", "StandardPlayers=1\nStandardPushers=1");
    StartLogged();
    EXPECT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    SendPictures(&pusher, 0, 1);
    EXPECT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TCP));
    std::string other = With("RecordPath=" + server.dir.File("two") +
                                 "\nWideUnits=1\nNeverLose=1\nKeepDays=1\nReserveMegabytes=20\nAutoDelOldFile=0\n",
                             "STORAGE");
    other = With("EnableFilePrg=1\nEnableLowEnergy=1\nAutoDropDataWhenCrowded=1\nLiveTime=100\nEnableRtcp=1\n",
                 "SERVER", other);
    other = With("LowDelay=1\nUdpPushers=1\nHoldPlayers=5\nProxyProtocolFrom=10.0.0.1\n", "INTEROP", other);
    other = With(
        "SurvivePeerFaults=1\nPinMedia=1\nStrictRoles=1\nAnnounceFrom=10.0.0.1\nAnnounceAuth=1\n"
        "ConfineRecordings=1\nMaxSessionsPerAddress=1\nStateTimeout=60\nCacheMegabytes=1\nAuthFailDelay=100\n"
        "CacheMegabytesTotal=2\nFreshNonce=1\n",
        "GUARD", other);
    for (int i = 0; i < 20; i++) {
        Reload(i % 2 ? file : other);
        EXPECT_THAT(told, Not(HasSubstr("From the next start")));
        SendPictures(&pusher, i + 1, 1);
    }
    EXPECT_GE(Recordings("one"), 2U);
    EXPECT_GE(Recordings("two"), 2U);
    OrxStat stat = server.Stat();
    EXPECT_EQ(1U, stat.nLives);
    EXPECT_EQ(1U, stat.nClients);
}
