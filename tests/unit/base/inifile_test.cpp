#include "base/inifile.h"

#include <string>
#include <tuple>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/files.h"
#include "support/output.h"

namespace orx {

using namespace std::string_literals;
using testing::HasSubstr;

struct InifileTest : testing::Test {
    TempDir dir;
    std::string path = dir.File("orx.cfg");
};

// The value of a key, or "<none>".
static std::string Read(const char *section, const char *key, const std::string &file)
{
    char value[512];
    return read_profile_string(section, key, value, sizeof(value), nullptr, file.c_str()) ? value : "<none>";
}

TEST_F(InifileTest, FindsKeys)
{
    static const std::pair<const char *, std::string> cases[] = {
        // a text, and the value of "ip" in "NET" there
        {"[NET]\r\nmask=x\r\nip=10.0.0.5\r\n", "10.0.0.5"},
        {"[NET]\rmask=a\rip=b", "b"},
        {"[NET]\nip=\n", ""},
        {"[NET]\n ip= a\n", " a"},  // white space behind the header is skipped
        {"[NET]\nip =a\nIP=a\n;ip=a\n=a\nipx=a\n", "<none>"},
        {"[NET]\nip=a\nip=b\n", "a"},
        {"[A]\nip=a\n[NET]\nx=y\n[B]\nip=b\n", "<none>"},
        {"[NETWORK]\nip=a\n[NET]\nip=b\n", "a"},  // a header needs only to begin with the name
        {"x[NET]\nip=a\n", "<none>"},
        {"[NET\n[B]\nip=a\n", "a"},            // a header runs to the next bracket, wherever it is
        {"[NET]\nx=y\xff\nip=a\n", "<none>"},  // that byte ends a file
        {"", "<none>"},
    };
    for (const auto &[szText, value] : cases) {
        WriteFile(path, szText);
        EXPECT_EQ(value, Read("NET", "ip", path)) << szText;
        EXPECT_EQ(value != "<none>", check_profile_key("NET", "ip", path.c_str())) << szText;
    }
    EXPECT_EQ("a", Read("NET", "ip", "inmem:\n[NET]\nip=a\n"));
    EXPECT_EQ("a", Read("NET", "ip", "[NET]\nip=a\n"));
}

TEST_F(InifileTest, CopiesIntoTheBuffer)
{
    static const std::tuple<const char *, const char *, int, const char *> cases[] = {
        // a key, its default, the result and the six bytes of the buffer
        {"k", nullptr, 1, "abc\0\0\0"},  {"long", "d", 1, "abcde\0"},     {"none", nullptr, 0, "xxxxxx"},
        {"none", "ab", 0, "ab\0\0\0\0"}, {"none", "abcdef", 0, "abcdef"}, {"none", "abcdefgh", 0, "abcdef"},
    };
    const char *szText = "[S]\nk=abc\nlong=abcdefgh\n";
    for (const auto &[szKey, szDefault, nResult, bytes] : cases) {
        char value[] = "xxxxxxg";
        EXPECT_EQ(nResult, read_profile_string("S", szKey, value, 6, szDefault, szText));
        EXPECT_EQ(std::string(bytes, 6) + "g", std::string(value, 7)) << szKey;
    }
}

// A file of 8192 bytes, or a name that a request left empty: nothing is found, and nothing written.
TEST_F(InifileTest, SurvivesWhatAFileOrPeerCanBreak)
{
    const std::string tooLong = "[S]\nk=v\n" + std::string(kProfileTextSize - 8, 'a');
    WriteFile(path, tooLong.substr(1));
    EXPECT_EQ("<none>", Read("S", "k", path));
    WriteFile(path, tooLong);
    EXPECT_THAT(PeerFaults([&] { EXPECT_EQ("<none>", Read("S", "k", path)); }), HasSubstr("`i < 1024*8'"));
    EXPECT_THAT(PeerFaults([&] { EXPECT_EQ("<none>", Read("", "k", path)); }),
                HasSubstr("section != ((void *)0) && strlen(section)"));
    EXPECT_THAT(PeerFaults([&] { EXPECT_EQ("<none>", Read("S", "", path)); }),
                HasSubstr("key != ((void *)0) && strlen(key)"));
    SurviveFaults survive;
    EXPECT_EQ(0, write_profile_string("S", "k", "w", path.c_str()));
    EXPECT_EQ(0, remove_profile_key("S", "k", path.data()));
    EXPECT_EQ(tooLong, ReadFile(path)) << "and not made anew with one line";
    EXPECT_EQ(0, write_profile_string("", "k", "w", path.c_str()));
    EXPECT_EQ(0, remove_profile_section("", path.data()));
}

TEST_F(InifileTest, Writes)
{
    static const std::tuple<const char *, const char *, const char *> cases[] = {
        // a file, a value for "K" in "S", and the file with it
        {nullptr, "V", "[S]\nK=V\n"},
        {"[A]\r\nx=1\r\n", "V", "[A]\r\nx=1\r\n\n[S]\nK=V\n"},
        {"100%% [%s]\n", "%d", "100%% [%s]\n\n[S]\nK=%d\n"},
        // a new key comes first in the last section that matches
        {"[S]\nx=1\n[ST]\r\n\r\n y=2\n[T]\n", "V", "[S]\nx=1\n[ST]\r\n\r\n K=V\ny=2\n[T]\n"},
        // there the rest loses one of two percent signs, and nothing else
        {"%%\n[S]\nx=%%a%%%s%n%%%%%\n", "%%", "%%\n[S]\nK=%%\nx=%a%%s%n%%%\n"},
        // a new value changes nothing around it
        {"[S]\r\nx=%%\r\nK=1\r\n;%%\r\n", "%%", "[S]\r\nx=%%\r\nK=%%\r\n;%%\r\n"},
    };
    for (const auto &[szBefore, szValue, szAfter] : cases) {
        unlink(path.c_str());
        if (szBefore)
            WriteFile(path, szBefore);
        EXPECT_EQ(1, write_profile_string("S", "K", szValue, path.c_str())) << szAfter;
        EXPECT_EQ(szAfter, ReadFile(path));
        EXPECT_EQ(szValue, Read("S", "K", path)) << szAfter;
    }
}

// Whichever way a value gets in: the result has 8191 bytes at most, or the file stays as it was.
TEST_F(InifileTest, WritesUpToTheLimit)
{
    for (const char *szHead : {"[S]\nk=\n", "[S]\nx=\n", "[A]\nx=\n"}) {
        WriteFile(path, szHead);
        ASSERT_EQ(1, write_profile_string("S", "k", "", path.c_str()));
        std::string text = szHead + std::string(kProfileTextSize - 1 - 10 - ReadFile(path).size(), ';');
        WriteFile(path, text);
        EXPECT_EQ(0, write_profile_string("S", "k", "12345678901", path.c_str())) << szHead;
        EXPECT_EQ(text, ReadFile(path)) << szHead;
        EXPECT_EQ(1, write_profile_string("S", "k", "1234567890", path.c_str())) << szHead;
        EXPECT_EQ(kProfileTextSize - 1, ReadFile(path).size()) << szHead;
    }
}

TEST_F(InifileTest, Removes)
{
    static const std::tuple<const char *, const char *, const char *> cases[] = {
        // a key of section "S" or null for the whole section, what there is, and what is left; null: result 0
        // and nothing changed
        {"k", "[S]\r\nx=2\r\nk=1\r\n[T]\r\nk=3\r\n", "[S]\r\nx=2\r\n[T]\r\nk=3\r\n"},
        {"k", "[S]\nkk=1\nxk=2\nx=k=3\nk =4\n", "[S]\nkk=1\nxk=2\nx=k=3\n"},
        {"k", "[S]\nx=1\nk=1", nullptr},           // no line end
        {"k", "[S]\nk=1\r[T]\nx=1\n", nullptr},    // none within the section
        {"k", "[ST]\nk=1\n", nullptr},             // the whole name must match
        {"k", "[A]\nx=[S]\n[S]\nk=1\n", nullptr},  // only the first occurrence is tried
        {nullptr, "[A]\nx=1\n[S]\nk=1\n[B]\ny=1\n", "[A]\nx=1\n[B]\ny=1\n"},
        {nullptr, "[S]\n\n [B]\nk=1\n", ""},  // a blank before it: no header
    };
    for (const auto &[szKey, szBefore, szAfter] : cases) {
        std::string inMemory = "inmem:"s + szBefore;
        WriteFile(path, szBefore);
        for (char *file : {path.data(), inMemory.data()})
            EXPECT_EQ(szAfter != nullptr,
                      szKey ? remove_profile_key("S", szKey, file) : remove_profile_section("S", file))
                << szBefore;
        EXPECT_EQ(szAfter ? szAfter : szBefore, ReadFile(path)) << szBefore;
        EXPECT_EQ("inmem:" + ReadFile(path), inMemory.c_str());
    }
}

TEST_F(InifileTest, Merges)
{
    std::string source = dir.File("source");
    WriteFile(path, "[A]\nx=1\n[B]\nx=1\n");
    WriteFile(source, "[A]\nx=2 \r\ny=%s%%\n[C]\nz=4\nnothing behind\nz=5");
    EXPECT_EQ("[A]\r\nx=2 \r\ny=%s%%\r\n\r\n[C]\r\nz=4\r\n",
              Printed([&] { EXPECT_EQ(1, MergeIniFile(path.c_str(), source.c_str())); }));
    EXPECT_EQ("[A]\ny=%s%%\nx=2 \n[B]\nx=1\n\n[C]\nz=4\n", ReadFile(path));
    EXPECT_EQ(0, MergeIniFile(path.c_str(), dir.File("missing").c_str()));
}

}  // namespace orx
