#include "server/core/settings.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

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
        unsigned nAuthType, nConnectLimit, nCacheLimit, nLiveTime, nListenPort, nPreRecordLen, nMinutePerFile,
            nSessionBufSize;
    } cases[] = {
        {"", 1, 100, 10, 10, 554, 3, 5, 16384},  {"-1", 1, 5, 5, 120, 65535, 10, 60, 65536},
        {"0", 0, 5, 5, 1, 554, 0, 0, 4096},      {"2", 2, 5, 5, 2, 2, 2, 2, 4096},
        {"60", 1, 60, 60, 60, 60, 10, 60, 4096}, {"65656", 1, 65656, 60, 120, 120, 10, 60, 65536},
    };
    for (const auto &c : cases) {
        const std::string value = c.szValue, rest = value.empty() ? "Other=1\n" : "=" + value + "\n";
        std::string text = "[SERVER]\n";
        for (const char *szKey :
             {"AuthType", "ConnectLimit", "CacheLimit", "LiveTime", "ListenPort", "SessionBufSize"})
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
        EXPECT_EQ(c.nSessionBufSize, config->nSessionBufSize) << value;
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

// What the documents are to say of a key: "SERVER ListenPort (554; 1..65535, else 554)".
std::string Documented(const std::string &section, const std::string &key, const std::string &value,
                       const std::string &limits)
{
    return section + " " + key + " (" + value + (limits.empty() ? "" : "; ") + limits + ")";
}

std::string LimitsOf(const Setting &row)
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

std::vector<std::string> WhatTheTableSays()
{
    std::vector<std::string> all;
    for (const Setting &row : SettingsTable()) {
        std::string value = row.szDefault ? row.szDefault : std::to_string(row.nDefault);
        all.push_back(Documented(row.szSection, row.szKey, value.empty() ? "empty" : value, LimitsOf(row)));
    }
    return all;
}

std::vector<std::string> Lines(const char *szFile)
{
    std::vector<std::string> lines;
    std::istringstream text(ReadFile(std::string(ORX_SOURCE_DIR) + szFile));
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

// What stands between the two behind nFrom; nothing when they are not there.
std::string Between(const std::string &text, const char *szBegin, const char *szEnd, size_t nFrom = 0)
{
    size_t nBegin = text.find(szBegin, nFrom);
    size_t nEnd = nBegin == std::string::npos ? nBegin : text.find(szEnd, nBegin + strlen(szBegin));
    nBegin += strlen(szBegin);
    return nEnd == std::string::npos ? "" : text.substr(nBegin, nEnd - nBegin);
}

// Above each key its comment, "; ListenPort (554; 1..65535, else 554): ...". A key may be switched off by a
// ';', and of those with a number that of 0 stands for all.
TEST(ConfigurationFile, NamesEveryKeyWithItsDefaultAndLimits)
{
    std::vector<std::string> all;
    std::string section, key;
    for (const std::string &line : Lines("/cfg/orx.cfg")) {
        size_t nEqual = line.find('='), nName = line.find_first_not_of(';');
        std::string comment = Between(line, "; ", " (");
        if (line[0] == '[') {
            section = Between(line, "[", "]");
            EXPECT_THAT(WhatTheTableSays(), testing::Contains(testing::StartsWith(section + " ")));
        } else if (!comment.empty() && comment.find(' ') == std::string::npos &&
                   comment.size() + 2 == line.find(" (")) {
            EXPECT_EQ("", key) << "its line is missing";
            key = comment;
            all.push_back(Documented(section, key, Between(line, "(", "):"), ""));
        } else if (nEqual != std::string::npos && line.find(' ') > nEqual) {
            std::string name =
                key.substr(0, key.find("%d")) + (key.find("%d") == std::string::npos ? "" : "0");
            EXPECT_EQ(name, line.substr(nName, nEqual - nName)) << "has another comment, or none";
            key.clear();
        }
    }
    EXPECT_EQ("", key) << "its line is missing";
    EXPECT_THAT(all, testing::UnorderedElementsAreArray(WhatTheTableSays()));
}

// One row for each key, below a heading for each section: "| `ListenPort` | 554 | 1..65535, else 554 | ...".
TEST(ConfigurationPage, NamesEveryKeyWithItsDefaultAndLimits)
{
    std::vector<std::string> all;
    std::string section;
    for (const std::string &line : Lines("/docs/configuration.md")) {
        if (line.rfind("## ", 0) == 0)
            section = Between(line, "[", "]");
        if (line.rfind("| `", 0) != 0)
            continue;
        size_t nDefault = line.find(" | "), nLimits = line.find(" |", nDefault + 1);
        all.push_back(
            Documented(section, Between(line, "`", "`"), Between(line, "| ", " |", nDefault),
                       line.compare(nLimits, 4, " | |") == 0 ? "" : Between(line, "| ", " |", nLimits)));
    }
    EXPECT_THAT(all, testing::UnorderedElementsAreArray(WhatTheTableSays()));
}

// Who reads a key that the table does not know makes a setting that no document names; and a key that the
// server leaves to others is to be read by one of them.
TEST(SettingsTable, HasARowForEveryKeyThatASourceNames)
{
    std::set<std::string> sections, known, others, named;
    for (const Setting &row : SettingsTable()) {
        const std::string section = std::string("\"") + row.szSection + "\", \"";
        const std::string key = section + std::string(row.szKey, strcspn(row.szKey, "%"));
        sections.insert(section);
        known.insert(key);
        if (row.place.nOffset == kNotHere)
            others.insert(key);
    }
    for (const auto &entry : std::filesystem::recursive_directory_iterator(ORX_SOURCE_DIR "/src")) {
        int bSource = entry.is_regular_file() && entry.path().filename() != "settings.cpp";
        std::istringstream text(bSource ? ReadFile(entry.path()) : "");
        for (std::string line; std::getline(text, line);)
            for (const std::string &section : sections)
                if (line.find(section) != std::string::npos &&
                    line.find("write_profile") == std::string::npos)
                    named.insert(section + Between(line, section.c_str(), "\""));
    }
    EXPECT_THAT(named, testing::IsSubsetOf(known));
    EXPECT_THAT(named, testing::IsSupersetOf(others));
}

}  // namespace
}  // namespace orx
