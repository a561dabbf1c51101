#include "server/core/settings.h"

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
    std::unique_ptr<Settings> config;
    std::string output;

    ~SettingsTest() override { Forget(); }
    void Forget()
    {
        if (config)
            free(config->szRecordPath);
        config = std::make_unique<Settings>();
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
        const char *szValue;  // of every number; empty: not there
        unsigned nAuthType, nConnectLimit, nCacheLimit, nLiveTime, nListenPort, nPreRecordLen, nMinutePerFile;
    } cases[] = {
        {"", 1, 100, 10, 10, 554, 3, 5},   {"-1", 1, 5, 5, 120, 65535, 10, 60},
        {"0", 0, 5, 5, 1, 554, 0, 0},      {"2", 2, 5, 5, 2, 2, 2, 2},
        {"60", 1, 60, 60, 60, 60, 10, 60}, {"65656", 1, 65656, 60, 120, 120, 10, 60},
    };
    for (const auto &c : cases) {
        const std::string value = c.szValue, rest = value.empty() ? "Other=1\n" : "=" + value + "\n";
        std::string text = "[SERVER]\n";
        for (const char *szKey : {"AuthType", "ConnectLimit", "CacheLimit", "LiveTime", "ListenPort"})
            text += szKey + rest;
        text += "[STORAGE]\n";
        for (const char *szKey : {"PreRecordLen", "MinutePerFile"})
            text += szKey + rest;
        ASSERT_EQ(1, Read(text));
        EXPECT_EQ(c.nAuthType, config->nAuthType) << value;
        EXPECT_EQ(c.nConnectLimit, config->nConnectLimit) << value;
        EXPECT_EQ(c.nCacheLimit, config->nCacheSeconds) << value;
        EXPECT_EQ(c.nLiveTime, config->nLiveTime) << value;
        EXPECT_EQ(c.nListenPort, config->nListenPort) << value;
        EXPECT_EQ(c.nPreRecordLen, config->nPreRecordLen) << value;
        EXPECT_EQ(c.nMinutePerFile, config->nMinutePerFile) << value;
    }
}

TEST_F(SettingsTest, RefusesPathsThatItCannotKeep)
{
    Settings other;
    for (const std::string &path :
         {std::string(""), "/" + std::string(127, 'x'), "/" + std::string(120, 'x') + "/a"})
        EXPECT_EQ(0, SettingsRead(&other, path.c_str()));
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

}  // namespace
}  // namespace orx
