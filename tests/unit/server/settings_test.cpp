#include "server/settings.h"

#include <cstdlib>
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/files.h"

namespace orx {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

struct SettingsTest : testing::Test {
    TempDir dir;
    ServerConfig config;
    std::string output;

    ~SettingsTest() override { free(config.szRecordPath); }
    // Reads a configuration of that text. Returns the result.
    int Read(const std::string &text)
    {
        free(config.szRecordPath);
        config.~ServerConfig();
        new (&config) ServerConfig;
        WriteFile(dir.File("orx.cfg"), text);
        testing::internal::CaptureStdout();
        int nResult = SettingsRead(&config, dir.File("orx.cfg").c_str());
        output = testing::internal::GetCapturedStdout();
        return nResult;
    }
    int ReadKey(const char *szSection, const char *szKey, const std::string &value)
    {
        return Read(std::string("[") + szSection + "]\n" + szKey + "=" + value + "\n");
    }
};

// What a key gives: without it, and for values at and beyond its limits.
TEST_F(SettingsTest, NumbersHaveDefaultsAndLimits)
{
    using Get = std::function<long(const ServerConfig &)>;
    static const struct {
        const char *szSection, *szKey;
        Get get;
        long nDefault;
        std::vector<std::pair<const char *, long>> values;
    } cases[] = {
        {"SERVER",
         "AuthType",
         [](const ServerConfig &c) { return long{c.nAuthType}; },
         1,
         {{"0", 0}, {"2", 2}, {"3", 3}, {"4", 1}, {"-1", 1}}},
        {"SERVER",
         "ConnectLimit",
         [](const ServerConfig &c) { return long{c.nConnectLimit}; },
         100,
         {{"3", 5}, {"4", 5}, {"5", 5}, {"6", 6}, {"100000", 100000}, {"0", 5}}},
        {"SERVER",
         "AutoDropDataWhenCrowded",
         [](const ServerConfig &c) { return long{c.bAutoDrop}; },
         0,
         {{"1", 1}}},
        {"SERVER",
         "EnableAnonymousViewer",
         [](const ServerConfig &c) { return long{c.bAnonymousViewer}; },
         0,
         {{"1", 1}}},
        {"SERVER", "EnableRtcp", [](const ServerConfig &c) { return long{c.bRtcp}; }, 0, {{"1", 1}}},
        {"SERVER",
         "EnableLowEnergy",
         [](const ServerConfig &c) { return long{c.bLowEnergy}; },
         0,
         {{"1", 1}}},
        {"SERVER",
         "ControlUsers",
         [](const ServerConfig &c) { return long{c.bControlUsers}; },
         0,
         {{"1", 1}}},
        {"SERVER",
         "EnableFilePrg",
         [](const ServerConfig &c) { return long{c.bFilePrograms}; },
         0,
         {{"1", 1}}},
        {"SERVER",
         "EnableHttpProxy",
         [](const ServerConfig &c) { return long{c.bHttpProxy}; },
         0,
         {{"1", 1}}},
        {"SERVER", "EnableUnet", [](const ServerConfig &c) { return long{c.bUnet}; }, 0, {{"1", 1}}},
        {"ZUPO", "ZupoEnable", [](const ServerConfig &c) { return long{c.bZupo}; }, 0, {{"1", 1}}},
        {"SERVER",
         "SessionBufSize",
         [](const ServerConfig &c) { return long{c.nSessionBufSize}; },
         16384,
         {{"1000", 1000}, {"100000", 100000}}},
        {"SERVER",
         "CacheLimit",
         [](const ServerConfig &c) { return long{c.nCacheLimit}; },
         10,
         {{"4", 5}, {"5", 5}, {"60", 60}, {"61", 60}, {"100", 60}, {"0", 5}}},
        {"SERVER",
         "LiveTime",
         [](const ServerConfig &c) { return long{c.nLiveTime}; },
         10,
         {{"0", 1}, {"1", 1}, {"120", 120}, {"121", 120}, {"500", 120}}},
        {"SERVER",
         "ListenPort",
         [](const ServerConfig &c) { return long{c.nListenPort}; },
         554,
         {{"0", 554}, {"8554", 8554}, {"65535", 65535}}},
        {"SERVER",
         "UnetPort",
         [](const ServerConfig &c) { return long{c.nUnetPort}; },
         554,
         {{"7000", 7000}}},
        {"STORAGE",
         "AutoDelOldFile",
         [](const ServerConfig &c) { return long{c.bAutoDelOldFile}; },
         1,
         {{"0", 0}}},
        {"STORAGE",
         "PreRecordLen",
         [](const ServerConfig &c) { return long{c.nPreRecordLen}; },
         3,
         {{"0", 0}, {"10", 10}, {"11", 10}}},
        {"STORAGE",
         "MinutePerFile",
         [](const ServerConfig &c) { return long{c.nMinutePerFile}; },
         5,
         {{"60", 60}, {"61", 60}}},
        {"STORAGE",
         "RecordEnable",
         [](const ServerConfig &c) { return long{c.bRecord}; },
         0,
         {{"1", 1}, {"7", 1}}},
        {"INTEROP",
         "StandardPushers",
         [](const ServerConfig &c) { return long{c.bStandardPushers}; },
         0,
         {{"1", 1}}},
        {"INTEROP",
         "StandardPlayers",
         [](const ServerConfig &c) { return long{c.bStandardPlayers}; },
         0,
         {{"1", 1}}},
        {"GUARD",
         "SurvivePeerFaults",
         [](const ServerConfig &c) { return long{c.bSurvivePeerFaults}; },
         0,
         {{"1", 1}}},
        {"GUARD",
         "RunUnprivileged",
         [](const ServerConfig &c) { return long{c.bRunUnprivileged}; },
         0,
         {{"1", 1}}},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(1, Read("[OTHER]\nKey=1\n"));
        EXPECT_EQ(c.nDefault, c.get(config)) << c.szKey;
        for (const auto &[szValue, nExpected] : c.values) {
            EXPECT_EQ(1, ReadKey(c.szSection, c.szKey, szValue));
            EXPECT_EQ(nExpected, c.get(config)) << c.szKey << "=" << szValue;
            EXPECT_EQ(1, ReadKey("OTHER", c.szKey, szValue));
            EXPECT_EQ(c.nDefault, c.get(config)) << c.szKey << " belongs to " << c.szSection;
        }
    }
    EXPECT_EQ(200U, config.nFileSendPeriod);
}

TEST_F(SettingsTest, RelayPortFollowsTheListener)
{
    ASSERT_EQ(1, ReadKey("SERVER", "ListenPort", "8554"));
    EXPECT_EQ(8554U, config.nUnetPort);
}

TEST_F(SettingsTest, SaysWhetherCrowdedPlayersLoseMedia)
{
    ReadKey("SERVER", "AutoDropDataWhenCrowded", "1");
    EXPECT_THAT(output, HasSubstr("AutoDropDataWhenCrowded=1.\r\n"));
    Read("");
    EXPECT_THAT(output, HasSubstr("AutoDropDataWhenCrowded=0.\r\n"));
}

TEST_F(SettingsTest, ChecksTheUdpRange)
{
    static const struct {
        int nStart, nEnd, nResult;
        const char *szMessage;
    } cases[] = {
        {50000, 52000, 1, ""},
        {999, 52000, 0, "Invalid UdpStartPort: 999!\r\n"},
        {1000, 1001, 1, ""},
        {65530, 65534, 1, ""},
        {65531, 65534, 0, "Invalid UdpStartPort: 65531!\r\n"},
        {50000, 1000, 0, "Invalid UdpEndPort: 1000!\r\n"},
        {50000, 65535, 0, "Invalid UdpEndPort: 65535!\r\n"},
        {50000, 50000, 0, "Invalid UdpPort Range: from 50000 to 50000!\r\n"},
        {50000, 49999, 0, "Invalid UdpPort Range: from 50000 to 49999!\r\n"},
        {65536 + 50000, 65536 + 52000, 1, ""},
        {65536, 52000, 0, "Invalid UdpStartPort: 0!\r\n"},
        {50000, 0, 0, "Invalid UdpEndPort: 0!\r\n"},
        {0, 0, 0, "Invalid UdpStartPort: 0!\r\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.nResult, Read("[SERVER]\nUdpStartPort=" + std::to_string(c.nStart) +
                                  "\nUdpEndPort=" + std::to_string(c.nEnd) + "\n"))
            << c.nStart << "-" << c.nEnd;
        EXPECT_THAT(output, EndsWith(c.szMessage));
        EXPECT_EQ(c.szMessage[0] != '\0', output.find("Invalid") != std::string::npos) << output;
    }
    ASSERT_EQ(1, Read(""));
    EXPECT_EQ(50000, config.nUdpStartPort);
    EXPECT_EQ(52000, config.nUdpEndPort);
}

TEST_F(SettingsTest, TextsHaveDefaultsAndAreCut)
{
    ASSERT_EQ(1, Read(""));
    EXPECT_STREQ("0.0.0.0", config.szListenIp);
    ASSERT_EQ(1, ReadKey("SERVER", "ListenIp", "192.168.100.200"));
    EXPECT_STREQ("192.168.100.200", config.szListenIp);

    const std::string proxy =
        "HttpProxyTargetIp=10.1.2.3\nHttpProxyTargetPort=81\nHttpProxyListenPort=65617\n";
    ASSERT_EQ(1, Read("[SERVER]\n" + proxy));
    EXPECT_STREQ("", config.szHttpProxyTargetIp) << "not looked at while the proxy is off";
    ASSERT_EQ(1, Read("[SERVER]\nEnableHttpProxy=1\n" + proxy));
    EXPECT_STREQ("10.1.2.3", config.szHttpProxyTargetIp);
    EXPECT_EQ(81, config.nHttpProxyTargetPort);
    EXPECT_EQ(81, config.nHttpProxyListenPort) << "16 bits";
    ASSERT_EQ(1, Read("[SERVER]\nEnableHttpProxy=1\n"));
    EXPECT_STREQ("127.0.0.1", config.szHttpProxyTargetIp);
    EXPECT_EQ(8080, config.nHttpProxyTargetPort);
    EXPECT_EQ(80, config.nHttpProxyListenPort);
}

TEST_F(SettingsTest, RegisterIdComesFromTheFileBeside)
{
    ASSERT_EQ(1, ReadKey("GUID", "MaxRegisterId", "5"));
    EXPECT_EQ(1001, config.nMaxRegisterId) << "not from the configuration itself";
    EXPECT_EQ(dir.File("guid.dat"), config.szGuidPath);
    WriteFile(dir.File("guid.dat"), "[GUID]\nMaxRegisterId=2000\n");
    ASSERT_EQ(1, Read(""));
    EXPECT_EQ(2000, config.nMaxRegisterId);
}

TEST_F(SettingsTest, RefusesPathsThatItCannotKeep)
{
    EXPECT_EQ(0, SettingsRead(&config, ""));
    EXPECT_EQ(0, SettingsRead(&config, nullptr));
    EXPECT_EQ(0, SettingsRead(&config, ("/" + std::string(127, 'x')).c_str()));
    EXPECT_EQ(0, SettingsRead(&config, ("/" + std::string(120, 'x') + "/a").c_str())) << "nor guid.dat's";
}

TEST_F(SettingsTest, FormsTheRecordPath)
{
    std::string exe = std::filesystem::read_symlink("/proc/self/exe").parent_path().string() + "/";
    const std::pair<std::string, std::string> cases[] = {
        {"", exe},
        {"./rec", exe + "rec/"},
        {"./rec/", exe + "rec/"},
        {".", exe},
        {"./", exe},
        {"../up", exe + "/up/"},
        {"/var/rec", "/var/rec/"},
        {"/var/rec/", "/var/rec/"},
        {"rec", "rec/"},
        {"/", "/"},
    };
    for (const auto &[value, path] : cases) {
        char *sz = SettingsRecordPath(value.c_str());
        EXPECT_EQ(path, sz) << value;
        free(sz);
    }
    ASSERT_EQ(1, ReadKey("STORAGE", "RecordPath", "/mnt/card"));
    EXPECT_STREQ("/mnt/card/", config.szRecordPath);
}

}  // namespace
}  // namespace orx
