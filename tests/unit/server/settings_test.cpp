#include "server/settings.h"

#include <cstdlib>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/files.h"
#include "support/output.h"

namespace orx {
namespace {

using testing::HasSubstr;

struct SettingsTest : testing::Test {
    TempDir dir;
    std::unique_ptr<ServerConfig> config;
    std::string output;

    ~SettingsTest() override { Forget(); }
    void Forget()
    {
        if (config)
            free(config->szRecordPath);
        config = std::make_unique<ServerConfig>();
    }
    // Reads a configuration of that text.
    int Read(const std::string &text)
    {
        int nResult = 0;
        Forget();
        WriteFile(dir.File("orx.cfg"), text);
        output = Printed([&] { nResult = SettingsRead(config.get(), dir.File("orx.cfg").c_str()); });
        return nResult;
    }
};

TEST_F(SettingsTest, NumbersHaveDefaultsAndAreHeldToTheirLimits)
{
    static const struct {
        const char *szValue;  // of every number; null: not there
        unsigned nAuthType, nConnectLimit, nCacheLimit, nLiveTime, nListenPort, nPreRecordLen, nMinutePerFile;
    } cases[] = {
        {nullptr, 1, 100, 10, 10, 554, 3, 5},
        {"-1", 1, 5, 5, 120, 65535, 10, 60},
        {"0", 0, 5, 5, 1, 554, 0, 0},
        {"2", 2, 5, 5, 2, 2, 2, 2},
        {"6", 1, 6, 6, 6, 6, 6, 6},
        {"60", 1, 60, 60, 60, 60, 10, 60},
        {"65656", 1, 65656, 60, 120, 120, 10, 60},
    };
    for (const auto &c : cases) {
        std::string text = "[SERVER]\n";
        for (const char *szKey : {"AuthType", "ConnectLimit", "CacheLimit", "LiveTime", "ListenPort"})
            text += c.szValue ? std::string(szKey) + "=" + c.szValue + "\n" : "";
        text += "[STORAGE]\n";
        for (const char *szKey : {"PreRecordLen", "MinutePerFile"})
            text += c.szValue ? std::string(szKey) + "=" + c.szValue + "\n" : "";
        ASSERT_EQ(1, Read(text));
        EXPECT_EQ(c.nAuthType, unsigned(config->nAuthType)) << text;
        EXPECT_EQ(c.nConnectLimit, unsigned(config->nConnectLimit)) << text;
        EXPECT_EQ(c.nCacheLimit, unsigned(config->nCacheLimit)) << text;
        EXPECT_EQ(c.nLiveTime, unsigned(config->nLiveTime)) << text;
        EXPECT_EQ(c.nListenPort, unsigned(config->nListenPort)) << text;
        EXPECT_EQ(c.nListenPort, unsigned(config->nUnetPort)) << "follows the listener";
        EXPECT_EQ(c.nPreRecordLen, unsigned(config->nPreRecordLen)) << text;
        EXPECT_EQ(c.nMinutePerFile, unsigned(config->nMinutePerFile)) << text;
    }
}

TEST_F(SettingsTest, ChecksTheUdpRange)
{
    static const struct {
        int nStart, nEnd;
        const char *szMessage;  // null: good
    } cases[] = {
        {1000, 1001, nullptr},
        {65530, 65534, nullptr},
        {65536 + 50000, 65536 + 52000, nullptr},
        {999, 52000, "Invalid UdpStartPort: 999!\r\n"},
        {65531, 65534, "Invalid UdpStartPort: 65531!\r\n"},
        {50000, 1000, "Invalid UdpEndPort: 1000!\r\n"},
        {50000, 65535, "Invalid UdpEndPort: 65535!\r\n"},
        {50000, 50000, "Invalid UdpPort Range: from 50000 to 50000!\r\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(!c.szMessage, Read("[SERVER]\nUdpStartPort=" + std::to_string(c.nStart) +
                                     "\nUdpEndPort=" + std::to_string(c.nEnd) + "\n"));
        EXPECT_THAT(output, HasSubstr(c.szMessage ? c.szMessage : "")) << c.nStart << "-" << c.nEnd;
    }
}

TEST_F(SettingsTest, FormsPathsThatItCanKeep)
{
    ServerConfig other;
    for (const std::string &path :
         {std::string(""), "/" + std::string(127, 'x'), "/" + std::string(120, 'x') + "/a"})
        EXPECT_EQ(0, SettingsRead(&other, path.c_str()));
    std::string exe = std::filesystem::read_symlink("/proc/self/exe").parent_path().string() + "/";
    const std::pair<const char *, std::string> cases[] = {
        {"", exe},          {"./rec", exe + "rec/"}, {".", exe}, {"../up", exe + "/up/"},
        {"/var/", "/var/"}, {"rec", "rec/"},         {"/", "/"},
    };
    for (const auto &[szValue, path] : cases) {
        char *sz = SettingsRecordPath(szValue);
        EXPECT_EQ(path, sz) << szValue;
        free(sz);
    }
}

}  // namespace
}  // namespace orx
