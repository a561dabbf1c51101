#include "server/core/settings.h"

#include <iterator>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/textbuf.h"
#include "support/files.h"
#include "support/output.h"

namespace orx {

using testing::HasSubstr;

struct SettingsTest : testing::Test {
    TempDir dir;
    Settings config;
    std::string output;

    ~SettingsTest() override { SettingsFree(&config); }
    // Reads a configuration of that text.
    int Read(const std::string &text)
    {
        int nResult = 0;
        SettingsFree(&config);
        WriteFile(dir.File("orx.cfg"), text);
        output = Printed([&] { nResult = SettingsRead(&config, dir.File("orx.cfg").c_str()); });
        return nResult;
    }
};

TEST_F(SettingsTest, NumbersHaveDefaultsAndAreHeldToTheirLimits)
{
    const char *const values[] = {"", "-1", "0", "2", "60", "65656"};
    static const struct {
        const char *szSection, *szKey;
        uint32_t Settings::*pField;
        uint32_t settings[6];  // what the values become, the first being that without the key
    } cases[] = {
        {"SERVER", "AuthType", &Settings::nAuthType, {1, 1, 0, 2, 1, 1}},
        {"SERVER", "ConnectLimit", &Settings::nConnectLimit, {100, 5, 5, 5, 60, 65656}},
        {"SERVER", "CacheLimit", &Settings::nCacheSeconds, {10, 5, 5, 5, 60, 60}},
        {"SERVER", "LiveTime", &Settings::nLiveTime, {10, 120, 1, 2, 60, 120}},
        {"SERVER", "ListenPort", &Settings::nListenPort, {554, 65535, 554, 2, 60, 120}},
        {"SERVER", "SessionBufSize", &Settings::nSessionBufSize, {16384, 65536, 4096, 4096, 4096, 65536}},
        {"STORAGE", "PreRecordLen", &Settings::nPreRecordLen, {3, 10, 0, 2, 10, 10}},
        {"STORAGE", "MinutePerFile", &Settings::nMinutePerFile, {5, 60, 0, 2, 60, 60}},
    };
    for (const auto &c : cases) {
        for (int i = 0; i < 6; i++) {
            const std::string key = std::string(i == 0 ? "No" : "") + c.szKey;
            ASSERT_EQ(1, Read("[" + std::string(c.szSection) + "]\n" + key + "=" + values[i] + "\n"));
            EXPECT_EQ(c.settings[i], config.*c.pField) << c.szKey << "=" << values[i];
        }
    }
}

TEST_F(SettingsTest, RefusesPathsThatItCannotKeep)
{
    for (const std::string &path : {std::string(""), "/" + std::string(127, 'x'), "/" + std::string(120, 'x') + "/a"})
        EXPECT_EQ(0, SettingsRead(&config, path.c_str()));
}

TEST_F(SettingsTest, TakesIpv6ForStandardPlayers)
{
    const std::string listen = "[SERVER]\nListenIp=2001:db8::1234:56\n";
    ASSERT_EQ(1, Read(listen));
    EXPECT_STREQ("2001:db8::1234:", config.szListenIp) << "as many characters as ever";
    EXPECT_EQ(0, SettingsListenIpv6(&config));
    ASSERT_EQ(1, Read(listen + "[INTEROP]\nStandardPlayers=1\n"));
    EXPECT_STREQ("2001:db8::1234:56", config.szListenIp);
    EXPECT_EQ(1, SettingsListenIpv6(&config));
}

TEST_F(SettingsTest, ChecksTheUdpRange)
{
    static const std::tuple<int, int, const char *> cases[] = {
        {1000, 1001, ""},
        {65530, 65534, ""},
        {65536 + 50000, 65536 + 52000, ""},
        {999, 52000, "Invalid UdpStartPort: 999!\r\n"},
        {65531, 65534, "Invalid UdpStartPort: 65531!\r\n"},
        {50000, 1000, "Invalid UdpEndPort: 1000!\r\n"},
        {50000, 65535, "Invalid UdpEndPort: 65535!\r\n"},
        {50000, 50000, "Invalid UdpPort Range: from 50000 to 50000!\r\n"},
    };
    for (const auto &[nStart, nEnd, szMessage] : cases) {
        std::string range = "UdpStartPort=" + std::to_string(nStart) + "\nUdpEndPort=" + std::to_string(nEnd) + "\n";
        EXPECT_EQ(*szMessage == '\0', Read("[SERVER]\n" + range)) << range;
        EXPECT_THAT(output, HasSubstr(szMessage)) << range;
    }
}

// What changed is taken over but for what counts from the next start, which is named; the rest of the record
// is not written, as others may read it.
TEST_F(SettingsTest, TakesOverWhatMayChange)
{
    Settings inForce;
    ASSERT_EQ(1,
              Read("[SERVER]\nConnectLimit=7\nListenPort=8554\n[STORAGE]\nRecordPath=/a\n[GUARD]\nAnnounceFrom=::1\n"));
    std::swap(inForce, config);
    ASSERT_EQ(1, Read("[SERVER]\nConnectLimit=8\nListenPort=8555\nAuthType=2\n[STORAGE]\nRecordPath=/b\n"));
    char szRestart[64] = "";
    TextBuf restart{szRestart, sizeof(szRestart)};
    SettingsTake(&inForce, &config, &restart);
    EXPECT_STREQ("AuthType ListenPort UnetPort", szRestart);
    EXPECT_EQ(8U, inForce.nConnectLimit);
    EXPECT_EQ(8554U, inForce.nListenPort);
    EXPECT_STREQ("/b/", inForce.szRecordPath);
    EXPECT_STREQ("", inForce.szAnnounceFrom);
    SettingsFree(&inForce);
}

static const char *When(Counts counts)
{
    return counts == Counts::AtOnce ? "at once" : counts == Counts::ForNew ? "new" : "restart";
}

static std::string LimitsOf(const Setting &row)
{
    if (row.kind == SettingKind::Text)
        return std::to_string(row.place.nBytes - 1) + " characters";
    if (row.clamp == Clamp::None || row.clamp == Clamp::Flag)
        return "";
    if (row.nHighest == INT32_MAX)
        return "at least " + std::to_string(row.nLowest);
    std::string limits = std::to_string(row.nLowest) + ".." + std::to_string(row.nHighest);
    if (row.clamp == Clamp::PortOrRefuse)
        return limits + ", else no start";
    int bDefault = row.clamp == Clamp::DefaultUnsigned || (row.clamp == Clamp::Port && row.nLowest > 0);
    return bDefault ? limits + ", else " + std::to_string(row.nDefault) : limits;
}

// What stands in a document under the heading of a section, up to the next heading.
static std::string Part(const std::string &text, const std::string &mark, const char *szSection)
{
    size_t nBegin = text.find(mark + szSection + "]");
    return nBegin == std::string::npos ? "" : text.substr(nBegin, text.find(mark, nBegin + 1) - nBegin);
}

static size_t Count(const std::string &text, const std::regex &what)
{
    return static_cast<size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), what), std::sregex_iterator()));
}

// In the file each key has its comment, "; ListenPort (554; 1..65535, else 554): ...", and below that its
// line, which a ';' may switch off and which is that of 0 for a key with a number. The page has a row for it,
// "| `ListenPort` | 554 | 1..65535, else 554 | restart | ...". Neither knows any other key.
TEST(SettingsTable, IsWhatTheDocumentsSay)
{
    const std::string file = ReadFile(ORX_SOURCE_DIR "/cfg/orx.cfg"),
                      page = ReadFile(ORX_SOURCE_DIR "/docs/configuration.md");
    for (const Setting &row : SettingsTable()) {
        const std::string limits = LimitsOf(row), key = row.szKey, name = key.substr(0, key.find('%')),
                          value = !row.szDefault   ? std::to_string(row.nDefault)
                                  : *row.szDefault ? row.szDefault
                                                   : "empty";
        EXPECT_THAT(Part(file, "\n[", row.szSection),
                    testing::ContainsRegex("\n; " + key + " [(]" + value + (limits.empty() ? "" : "; ") + limits +
                                           "[)]: [^\n]*\n(; [^\n]*\n)*;?" + name + (key == name ? "=" : "0=")));
        EXPECT_THAT(Part(page, "\n## [", row.szSection),
                    HasSubstr("\n| `" + key + "` | " + value + " | " + limits + (limits.empty() ? "| " : " | ") +
                              When(row.counts) + " | "));
    }
    EXPECT_EQ(SettingsTable().size(), Count(file, std::regex("\n; \\w+(%d)? \\([^)]*\\): ")));
    EXPECT_EQ(SettingsTable().size(), Count(file, std::regex("\n;?\\w+=")));
    EXPECT_EQ(SettingsTable().size(), Count(page, std::regex("\n\\| `")));
}

// Who reads a key that the table does not know makes a setting that no document names; and a key that the
// server leaves to others is to be read by one of them.
TEST(SettingsTable, HasARowForEveryKeyThatASourceNames)
{
    std::set<std::string> known, others, named;
    std::string sections = "none";
    for (const Setting &row : SettingsTable()) {
        std::string key = std::string("\"") + row.szSection + "\", \"" + row.szKey;
        key = key.substr(0, key.find('%'));
        sections += std::string("|") + row.szSection;
        known.insert(key);
        const std::string reader = row.place.szReader;  // companions are not of this source
        if (row.place.nOffset == kNotHere && reader != "orxpull" && reader != "orxweb")
            others.insert(key);
    }
    const std::regex use("\"(" + sections + ")\", \"[^\"%]*");
    for (const auto &entry : std::filesystem::recursive_directory_iterator(ORX_SOURCE_DIR "/src")) {
        int bSource = entry.is_regular_file() && entry.path().filename() != "settings.cpp";
        std::istringstream text(bSource ? ReadFile(entry.path()) : "");
        std::smatch found;
        for (std::string line; std::getline(text, line);)
            if (line.find("\", \"") != std::string::npos && line.find("write_profile") == std::string::npos &&
                std::regex_search(line, found, use))
                named.insert(found.str());
    }
    EXPECT_THAT(named, testing::IsSubsetOf(known));
    EXPECT_THAT(named, testing::IsSupersetOf(others));
}

}  // namespace orx
