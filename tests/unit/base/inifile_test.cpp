#include "base/inifile.h"

#include <cstring>

#include <string>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/assertion.h"
#include "support/files.h"

namespace orx {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

struct InifileTest : testing::Test {
    TempDir dir;
    std::string path = dir.File("orx.cfg");
};
using InifileDeathTest = InifileTest;

// The value of a key, or "<none>".
std::string Read(const char *section, const char *key, const std::string &file)
{
    char value[512];
    return read_profile_string(section, key, value, sizeof(value), nullptr, file.c_str()) ? value : "<none>";
}

TEST_F(InifileTest, FindsKeys)
{
    static const struct {
        const char *szText, *szSection, *szKey, *szValue;
    } cases[] = {
        {"[NET]\nip=10.0.0.5\n", "NET", "ip", "10.0.0.5"},
        {"[NET]\r\nip=10.0.0.5\r\nmask=x\r\n", "NET", "mask", "x"},
        {"[NET]\rip=a\rmask=b", "NET", "mask", "b"},
        {"[NET]\nip=\n", "NET", "ip", ""},
        {"[NET]\nip = a\n", "NET", "ip ", " a"},
        {"[NET]\nip = a\n", "NET", "ip", "<none>"},
        {"[NET]\n ip=a\n", "NET", "ip", "a"},  // white space behind the header is skipped
        {"[NET]\nIP=a\n", "NET", "ip", "<none>"},
        {"[NET]\n;ip=a\n", "NET", "ip", "<none>"},
        {"[NET]\n=a\nip=b\n", "NET", "ip", "b"},
        {"[NET]\nipx=a\nip=b\n", "NET", "ip", "b"},
        {"[NET]\nip=a\nip=b\n", "NET", "ip", "a"},
        {"[A]\nip=a\n[NET]\nx=y\n[B]\nip=b\n", "NET", "ip", "<none>"},
        {"[NETWORK]\nip=a\n", "NET", "ip", "a"},  // a header needs only to begin with the name
        {"[NETWORK]\nip=a\n[NET]\nip=b\n", "NET", "ip", "a"},
        {"x[NET]\nip=a\n", "NET", "ip", "<none>"},
        {"[NET]\n[B]\nip=a\n", "NET", "ip", "<none>"},
        {"[NET\n[B]\nip=a\n", "NET", "ip", "a"},  // a header runs to the next bracket, wherever it is
        {"[NET]", "NET", "ip", "<none>"},
        {"", "NET", "ip", "<none>"},
    };
    for (const auto &c : cases) {
        WriteFile(path, c.szText);
        EXPECT_EQ(c.szValue, Read(c.szSection, c.szKey, path)) << c.szText;
        EXPECT_EQ(c.szValue, Read(c.szSection, c.szKey, "inmem:"s + c.szText)) << c.szText;
        EXPECT_EQ(c.szValue != "<none>"s, check_profile_key(c.szSection, c.szKey, path.c_str())) << c.szText;
        Profile *pHandle = ProfileInit(path.c_str());
        char value[512] = "<none>";
        if (pHandle)
            ProfileGetStr(c.szSection, c.szKey, value, sizeof(value), nullptr, pHandle);
        EXPECT_STREQ(c.szValue, value) << c.szText;
        ProfileFree(pHandle);
    }
}

TEST_F(InifileTest, CopiesIntoTheBuffer)
{
    static const struct {
        const char *szKey, *szDefault;
        int nResult;
        const char *bytes;  // six of them
    } cases[] = {
        {"k", nullptr, 1, "abc\0\0\0"},  {"long", "d", 1, "abcde\0"},     {"none", nullptr, 0, "xxxxxx"},
        {"none", "ab", 0, "ab\0\0\0\0"}, {"none", "abcdef", 0, "abcdef"}, {"none", "abcdefgh", 0, "abcdef"},
        {"none", "", 0, "\0\0\0\0\0"},
    };
    WriteFile(path, "[S]\nk=abc\nlong=abcdefgh\n");
    Profile *pHandle = ProfileInit(path.c_str());
    for (const auto &c : cases) {
        char value[] = "xxxxxxg";
        EXPECT_EQ(c.nResult, read_profile_string("S", c.szKey, value, 6, c.szDefault, path.c_str()))
            << c.szKey;
        EXPECT_EQ(std::string(c.bytes, 6) + "g", std::string(value, 7)) << c.szKey;
        memcpy(value, "xxxxxxg", 8);
        EXPECT_EQ(c.nResult, ProfileGetStr("S", c.szKey, value, 6, c.szDefault, pHandle)) << c.szKey;
        EXPECT_EQ(std::string(c.bytes, 6) + "g", std::string(value, 7)) << c.szKey;
    }
    ProfileFree(pHandle);
    char one[2] = "x";
    EXPECT_EQ(1, read_profile_string("S", "k", one, 1, nullptr, path.c_str()));
    EXPECT_EQ('\0', one[0]);
    EXPECT_EQ(0, read_profile_string("S", "k", one, 2, "d", dir.File("missing").c_str()));
    EXPECT_STREQ("d", one);
}

TEST_F(InifileTest, ReadsNumbers)
{
    static const struct {
        const char *szValue;
        int nValue;
    } cases[] = {
        {"554", 554},
        {" \t-7", -7},
        {"12ab", 12},
        {"0x1f", 0},
        {"yes", 0},
        {"-2147483648", -2147483647 - 1},
        {"99999999999", 2147483647},
        {"0000000000000000000000000000000123", 0},  // 31 characters are looked at
        {"0000000000000000000000000000123", 123},
    };
    for (const auto &c : cases) {
        WriteFile(path, "[S]\nk="s + c.szValue + "\n");
        Profile *pHandle = ProfileInit(path.c_str());
        int nValue = 77;
        EXPECT_EQ(c.nValue, read_profile_int("S", "k", 99, path.c_str())) << c.szValue;
        EXPECT_EQ(c.nValue, ProfileGetInt("S", "k", 99, pHandle)) << c.szValue;
        EXPECT_EQ(1, ProfileGetIntEx("S", "k", &nValue, 99, pHandle)) << c.szValue;
        EXPECT_EQ(c.nValue, nValue);
        EXPECT_EQ(99, read_profile_int("S", "none", 99, path.c_str()));
        EXPECT_EQ(99, ProfileGetInt("S", "none", 99, pHandle));
        EXPECT_EQ(0, ProfileGetIntEx("S", "none", &nValue, 99, pHandle));
        EXPECT_EQ(99, nValue);
        ProfileFree(pHandle);
    }
}

TEST_F(InifileTest, LoadsUpToTheLimit)
{
    char buf[kProfileTextSize];
    int nLen = 77;
    EXPECT_EQ(0, load_ini_file(path.c_str(), buf, &nLen));
    EXPECT_EQ(0, nLen);

    std::string text(8191, 'a');
    WriteFile(path, text);
    EXPECT_EQ(1, load_ini_file(path.c_str(), buf, &nLen));
    EXPECT_EQ(8191, nLen);
    EXPECT_EQ(text, buf);

    WriteFile(path, text + "\xff" + text);  // nothing behind the end byte counts
    EXPECT_EQ(1, load_ini_file(path.c_str(), buf, &nLen));
    EXPECT_EQ(8191, nLen);

    WriteFile(path, "[S]\na=1\nb=2\xff\nc=3\n");
    EXPECT_EQ("2", Read("S", "b", path));
    EXPECT_EQ("<none>", Read("S", "c", path));
}

TEST_F(InifileTest, SurvivesWhatAFileOrPeerCanBreak)
{
    AssertSurvivePeerFaults(1);
    std::string text = "[S]\nk=v\n" + std::string(8192, 'a');
    WriteFile(path, text);
    char value[4] = "x";
    EXPECT_EQ(0, read_profile_string("S", "k", value, 4, "d", path.c_str()));
    EXPECT_STREQ("d", value);
    EXPECT_EQ(0, write_profile_string("S", "k", "w", path.c_str()));
    EXPECT_EQ(0, remove_profile_key("S", "k", path.data()));
    EXPECT_EQ(0, remove_profile_section("S", path.data()));
    EXPECT_EQ(text, ReadFile(path));  // and not made anew with one line

    WriteFile(path, "[S]\nk=v\n");
    EXPECT_EQ(9, read_profile_int("S", "", 9, path.c_str()));
    EXPECT_EQ(0, write_profile_string("", "k", "w", path.c_str()));
    EXPECT_EQ(0, check_profile_key("S", nullptr, path.c_str()));
    EXPECT_EQ(0, remove_profile_section("", path.data()));
    std::string merged = "[S]\n=x\nk=w\n";
    EXPECT_EQ(1, Update2IniFile(path.c_str(), merged.data()));
    EXPECT_EQ("[S]\nk=w\n", ReadFile(path));
    AssertSurvivePeerFaults(0);
}

TEST_F(InifileDeathTest, Misuse)
{
    static const char kBuf[] = "buf !=((void *)0)", kParseBuf[] = "buf!=((void *)0)",
                      kSection[] = "section != ((void *)0) && strlen(section)",
                      kKey[] = "key != ((void *)0) && strlen(key)", kValue[] = "value != ((void *)0)",
                      kSize[] = "size > 0", kFile[] = "file !=((void *)0) && strlen(file)";
    WriteFile(path, std::string(8192, 'a'));
    EXPECT_DEATH(Read("S", "k", path), HasSubstr("`i < 1024*8'"));
    char v[8] = "", file[] = "/nonexistent";
    int n[6];
    EXPECT_DEATH(load_ini_file(nullptr, nullptr, n), HasSubstr("`file !=((void *)0)'"));
    EXPECT_DEATH(load_ini_file(file, nullptr, n), HasSubstr(kBuf));
    EXPECT_DEATH(parse_file("", "", nullptr, n, n, n, n, n, n), HasSubstr(kParseBuf));
    EXPECT_DEATH(parse_file("", "", "", n, n, n, n, n, n), HasSubstr(kSection));
    EXPECT_DEATH(parse_file("s", "", "", n, n, n, n, n, n), HasSubstr(kKey));
    EXPECT_DEATH(read_profile_string("s", "k", nullptr, 0, nullptr, ""), HasSubstr(kValue));
    EXPECT_DEATH(read_profile_string("s", "k", v, 8, nullptr, ""), HasSubstr(kFile));
    EXPECT_DEATH(MergeIniFile(nullptr, nullptr), HasSubstr("`szFileSrc !=((void *)0)'"));
    EXPECT_DEATH(MergeIniFile(nullptr, file), HasSubstr("`szFileDst !=((void *)0)'"));
    EXPECT_DEATH(Update2IniFile(nullptr, nullptr), HasSubstr("`szContent !=((void *)0)'"));
    EXPECT_DEATH(Update2IniFile(nullptr, v), HasSubstr("`szIniFile !=((void *)0)'"));
    EXPECT_DEATH(ProfileGetStr("s", "k", v, 0, nullptr, nullptr), HasSubstr(kSize));
    EXPECT_DEATH(ProfileGetStr("s", "k", v, 8, nullptr, nullptr),
                 HasSubstr("`pHandle !=((void *)0) &&strlen(key)'"));
}

TEST_F(InifileTest, Writes)
{
    static const struct {
        const char *szBefore, *szSection, *szKey, *szValue, *szAfter;
    } cases[] = {
        {nullptr, "S", "K", "V", "[S]\nK=V\n"},
        {"", "S", "K", "V", "[S]\nK=V\n"},
        {"\xff[S]\nK=1\n", "S", "K", "V", "[S]\nK=V\n"},
        {"[A]\r\nx=1\r\n", "S", "K", "V", "[A]\r\nx=1\r\n\n[S]\nK=V\n"},
        {"[A]\nx=1", "S", "K", "V", "[A]\nx=1\n[S]\nK=V\n"},
        {"100%% [%s]\n", "S", "K", "%d", "100%% [%s]\n\n[S]\nK=%d\n"},
        // a new key comes first in the last section that matches
        {"[S]\nx=1\n", "S", "K", "V", "[S]\nK=V\nx=1\n"},
        {"[S]\r\n\r\n x=1\n", "S", "K", "V", "[S]\r\n\r\n K=V\nx=1\n"},
        {"[S]\nx=1\n[ST]\ny=2\n[T]\n", "S", "K", "V", "[S]\nx=1\n[ST]\nK=V\ny=2\n[T]\n"},
        // there the rest loses one of two percent signs, and nothing else
        {"%%\n[S]\nx=%%a%%%s%n%%%%%\n", "S", "K", "%%", "%%\n[S]\nK=%%\nx=%a%%s%n%%%\n"},
        // a new value changes nothing around it
        {"[S]\r\nx=%%\r\nK=1\r\n;%%\r\n", "S", "K", "%%", "[S]\r\nx=%%\r\nK=%%\r\n;%%\r\n"},
        {"[S]\nK=long value", "S", "K", "", "[S]\nK="},
    };
    for (const auto &c : cases) {
        unlink(path.c_str());
        if (c.szBefore)
            WriteFile(path, c.szBefore);
        EXPECT_EQ(1, write_profile_string(c.szSection, c.szKey, c.szValue, path.c_str())) << c.szAfter;
        EXPECT_EQ(c.szAfter, ReadFile(path));
        EXPECT_EQ(c.szValue, Read(c.szSection, c.szKey, path)) << c.szAfter;
    }
    EXPECT_EQ(1, write_profile_int("S", "K", -12, path.c_str()));
    EXPECT_EQ(-12, read_profile_int("S", "K", 0, path.c_str()));
}

TEST_F(InifileTest, WritesUpToTheLimit)
{
    static const struct {
        const char *szHead, *szKey;
    } cases[] = {{"[S]\nk=\n", "k"}, {"[S]\nx=\n", "k"}, {"[A]\nx=\n", "k"}};
    for (const auto &c : cases) {
        // how many bytes the file grows by beyond the value
        WriteFile(path, c.szHead);
        ASSERT_EQ(1, write_profile_string("S", c.szKey, "", path.c_str()));
        size_t nGrowth = ReadFile(path).size() - strlen(c.szHead);

        std::string text = c.szHead + std::string(8191 - 10 - nGrowth - strlen(c.szHead), ';');
        WriteFile(path, text);
        EXPECT_EQ(0, write_profile_string("S", c.szKey, "12345678901", path.c_str())) << c.szHead;
        EXPECT_EQ(text, ReadFile(path)) << c.szHead;
        EXPECT_EQ(1, write_profile_string("S", c.szKey, "1234567890", path.c_str())) << c.szHead;
        EXPECT_EQ(8191u, ReadFile(path).size()) << c.szHead;
    }
}

TEST_F(InifileTest, Removes)
{
    static const struct {
        const char *szBefore, *szSection, *szKey;  // without a key the section
        const char *szAfter;                       // null: result 0 and nothing changed
    } cases[] = {
        {"[S]\nk=1\nx=2\n", "S", "k", "[S]\nx=2\n"},
        {"[S]\r\nx=2\r\nk=1\r\n[T]\r\nk=3\r\n", "S", "k", "[S]\r\nx=2\r\n[T]\r\nk=3\r\n"},
        {"[S]\nk =1\n", "S", "k", "[S]\n"},
        {"[S]\nkk=1\nxk=2\nx=k=3\nk=4\n", "S", "k", "[S]\nkk=1\nxk=2\nx=k=3\n"},
        {"[S]\nx=1\nk=1", "S", "k", nullptr},         // no line end
        {"[S]\nk=1\r[T]\nx=1\n", "S", "k", nullptr},  // none within the section
        {"[S]\n[T]\nk=1\n", "S", "k", nullptr},
        {"[ST]\nk=1\n", "S", "k", nullptr},             // the whole name must match
        {"[A]\nx=[S]\n[S]\nk=1\n", "S", "k", nullptr},  // only the first occurrence is tried
        {"[A]\nx=1\n[S]\nk=1\n[B]\ny=1\n", "S", nullptr, "[A]\nx=1\n[B]\ny=1\n"},
        {"[A]\nx=1\n[S]\nk=1\n", "S", nullptr, "[A]\nx=1\n"},
        {"[S]\n\n [B]\nk=1\n", "S", nullptr, ""},  // a blank before it: no header
        {"[A]\nx=[S]\n[S]\nk=1\n", "S", nullptr, nullptr},
    };
    auto remove = [](const auto &c, char *file) {
        return c.szKey ? remove_profile_key(c.szSection, c.szKey, file)
                       : remove_profile_section(c.szSection, file);
    };
    for (const auto &c : cases) {
        const char *szAfter = c.szAfter ? c.szAfter : c.szBefore;
        WriteFile(path, c.szBefore);
        EXPECT_EQ(c.szAfter != nullptr, remove(c, path.data())) << c.szBefore;
        EXPECT_EQ(szAfter, ReadFile(path)) << c.szBefore;
        std::string prefixed = "inmem:"s + c.szBefore;
        EXPECT_EQ(c.szAfter != nullptr, remove(c, prefixed.data())) << c.szBefore;
        EXPECT_EQ("inmem:"s + szAfter, prefixed.c_str());
        std::string bare = c.szBefore;
        EXPECT_EQ(c.szAfter != nullptr, remove(c, bare.data())) << c.szBefore;
        EXPECT_STREQ(szAfter, bare.c_str());
    }
    EXPECT_EQ(0, remove_profile_key("S", "k", dir.File("missing").data()));
    EXPECT_EQ(0, remove_profile_section("S", dir.File("missing").data()));
}

TEST_F(InifileTest, Merges)
{
    static const struct {
        const char *szSource, *szAfter, *szPrinted;
    } cases[] = {
        {"[A]\nx=2\ny=3\n[C]\nz=4", "[A]\ny=3\nx=2\n[B]\nx=1\n\n[C]\nz=4\n",
         "[A]\r\nx=2\r\ny=3\r\n\r\n[C]\r\nz=4\r\n\r\n"},
        {"[A]\r\n\r\n  x=2 \r\n", "[A]\nx=2 \n[B]\nx=1\n", "[A]\r\nx=2 \r\n\r\n"},
        {"[A]\nx=2\nnothing\nx=3\n[B]\nx=4\n", "[A]\nx=2\n[B]\nx=1\n", "[A]\r\nx=2\r\n"},
        {"[A]\n;x=2\n", "[A]\n;x=2\nx=1\n[B]\nx=1\n", "[A]\r\n;x=2\r\n\r\n"},
        {"[A]\n[B]\nx=%s%%\n", "[A]\nx=1\n[B]\nx=%s%%\n", "[A]\r\n\r\n[B]\r\nx=%s%%\r\n\r\n"},
        {"[A\nx=2\n", "[A]\nx=1\n[B]\nx=1\n", ""},
        {"", "[A]\nx=1\n[B]\nx=1\n", ""},
    };
    std::string source = dir.File("source");
    for (const auto &c : cases) {
        WriteFile(path, "[A]\nx=1\n[B]\nx=1\n");
        WriteFile(source, c.szSource);
        testing::internal::CaptureStdout();
        EXPECT_EQ(1, MergeIniFile(path.c_str(), source.c_str())) << c.szSource;
        EXPECT_EQ(c.szPrinted, testing::internal::GetCapturedStdout()) << c.szSource;
        EXPECT_EQ(c.szAfter, ReadFile(path)) << c.szSource;

        WriteFile(path, "[A]\nx=1\n[B]\nx=1\n");
        std::string content = "inmem:"s + c.szSource;
        EXPECT_EQ(1, Update2IniFile(path.c_str(), content.data())) << c.szSource;
        EXPECT_EQ(c.szAfter, ReadFile(path)) << c.szSource;
    }
    EXPECT_EQ(0, MergeIniFile(path.c_str(), dir.File("missing").c_str()));
}

TEST_F(InifileTest, AProfileMayBeLongAndIsReadOnce)
{
    std::string text = "[USERS]\n" + std::string(50000, ';') + "\xff\nadmin=secret\n";
    WriteFile(path, text);
    Profile *pHandle = ProfileInit(path.c_str());
    ASSERT_NE(nullptr, pHandle);
    WriteFile(path, "");  // is no longer looked at
    char value[16];
    EXPECT_EQ(1, ProfileGetStr("USERS", "admin", value, sizeof(value), nullptr, pHandle));
    EXPECT_STREQ("secret", value);
    ProfileFree(pHandle);
}

}  // namespace
}  // namespace orx
