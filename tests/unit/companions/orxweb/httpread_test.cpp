#include "orxweb/httpread.h"

#include <gmock/gmock.h>

using namespace orx;

TEST(HttpRead, DecodesAndRefuses)
{
    static const struct {
        const char *szText;
        int bForm, nResult;
        const char *szOut;
    } cases[] = {
        {"live/cam%201", 0, 1, "live/cam 1"},
        {"a+b", 0, 1, "a+b"},
        {"a+b", 1, 1, "a b"},
        {"T%C3%BCr", 0, 1, "Tür"},
        {"%", 0, 0, ""},
        {"%4", 0, 0, ""},
        {"%4g", 0, 0, ""},
        {"a%00b", 0, 0, ""},
        {"a%0d%0aSet-Cookie:", 0, 0, ""},
        {"%C3", 0, 0, ""},
        {"%C0%AF", 0, 0, ""},
        {"%ED%A0%80", 0, 0, ""},
    };
    for (const auto &c : cases) {
        std::string out;
        EXPECT_EQ(c.nResult, UrlDecode(c.szText, c.bForm, &out)) << c.szText;
        EXPECT_EQ(c.szOut, c.nResult ? out : "");
    }
}

TEST(HttpRead, FindsValues)
{
    std::string out;
    EXPECT_EQ(1, FormValue("xname=1&name=a%26b&name=2", "name", &out));
    EXPECT_EQ("a&b", out);
    EXPECT_EQ(1, FormValue("name", "name", &out));
    EXPECT_EQ("", out);
    EXPECT_EQ(0, FormValue("xname=1&", "name", &out));
    EXPECT_EQ(-1, FormValue("name=%zz", "name", &out));
    EXPECT_EQ("2", CookieValue("xorxweb=1; orxweb=2;orxweb=3", "orxweb"));
    EXPECT_EQ("", CookieValue("orxweb; a=orxweb=1", "orxweb"));
}

TEST(HttpRead, Ranges)
{
    static const struct {
        const char *szHeader;
        RangeResult result;
        uint64_t nFirst, nLast;
    } cases[] = {
        {"bytes=0-", RangeResult::Part, 0, 99},
        {"bytes=10-19", RangeResult::Part, 10, 19},
        {"bytes=99-200", RangeResult::Part, 99, 99},
        {"bytes=-10", RangeResult::Part, 90, 99},
        {"bytes=-200", RangeResult::Part, 0, 99},
        {"bytes=100-", RangeResult::Outside, 0, 0},
        {"bytes=-0", RangeResult::Outside, 0, 0},
        {"bytes=0-1,5-6", RangeResult::Whole, 0, 0},
        {"bytes=9-8", RangeResult::Whole, 0, 0},
        {"bytes=-", RangeResult::Whole, 0, 0},
        {"bytes=a-b", RangeResult::Whole, 0, 0},
        {"bytes=+1-2", RangeResult::Whole, 0, 0},
        {"bytes=18446744073709551616-", RangeResult::Whole, 0, 0},
        {"pages=1-2", RangeResult::Whole, 0, 0},
    };
    for (const auto &c : cases) {
        HttpRange range;
        ASSERT_EQ(c.result, RangeRead(c.szHeader, 100, &range)) << c.szHeader;
        if (c.result == RangeResult::Part) {
            EXPECT_EQ(c.nFirst, range.nFirst) << c.szHeader;
            EXPECT_EQ(c.nLast, range.nLast) << c.szHeader;
        }
    }
    HttpRange range;
    EXPECT_EQ(RangeResult::Outside, RangeRead("bytes=0-", 0, &range));
    EXPECT_EQ(RangeResult::Outside, RangeRead("bytes=-1", 0, &range));
}

TEST(HttpRead, Languages)
{
    static const struct {
        const char *szHeader, *szLanguage;
    } cases[] = {
        {"", "en"},
        {"de", "de"},
        {"de-AT,en;q=0.5", "de"},
        {"fr, de;q=0.3, en;q=0.2", "de"},
        {"fr", "en"},
        {"den", "en"},
        {"en;q=0.4,de;q=0.9", "de"},
        {"de;q=0", "en"},
        {"DE", "de"},
        {"en-US,en;q=0.9,de;q=0.8", "en"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.szLanguage, LanguageOf(c.szHeader, "en de")) << c.szHeader;
}

TEST(HttpRead, Basic)
{
    std::string name, password;
    ASSERT_EQ(1, BasicRead("Basic YWRtaW46Z2U6aGVpbQ==", &name, &password));
    EXPECT_EQ("admin", name);
    EXPECT_EQ("ge:heim", password);
    for (const char *sz : {"Basic ", "Basic !!!!", "Digest YWRtaW46Z2U6aGVpbQ==", "Basic YWRtaW4=", "Basic YQA6Yg=="})
        EXPECT_EQ(0, BasicRead(sz, &name, &password)) << sz;
}

TEST(HttpRead, StaysHere)
{
    for (const char *sz : {"/", "/live/cam", "/recordings/a%20b?at=2026-11-22T14:05:00"})
        EXPECT_EQ(sz, LocalTarget(sz));
    for (const char *sz :
         {"", "//evil.example/", "/\\evil.example", "https://evil.example/", "live", "/a\r\nb", "/a b"})
        EXPECT_EQ("/", LocalTarget(sz)) << sz;
    EXPECT_TRUE(OriginIsHost("http://box:8080", "box:8080"));
    EXPECT_TRUE(OriginIsHost("https://BOX", "box:443"));
    EXPECT_TRUE(OriginIsHost("http://box/live/cam", "box"));
    for (const char *sz : {"null", "http://evil", "http://box.evil", "http://box@evil", "box", ""})
        EXPECT_FALSE(OriginIsHost(sz, "box")) << sz;
    EXPECT_FALSE(OriginIsHost("http://", ""));
}

TEST(HttpRead, AddressesOfPrograms)
{
    static const struct {
        const char *szPath;
        int bRecording;
        AddressKind kind;
        const char *szProgram;
    } cases[] = {
        {"live/cam1", 0, AddressKind::Page, "live/cam1"},
        {"live/cam1.mp4", 0, AddressKind::Mp4, "live/cam1"},
        {"a.jpg.mjpeg", 0, AddressKind::Mjpeg, "a.jpg"},
        {"a%2Ejpg", 0, AddressKind::Page, "a.jpg"},
        {"H%C3%B6f%20%26", 0, AddressKind::Page, "Höf &"},
        {"a.jpg", 1, AddressKind::Page, "a.jpg"},
        {"", 0, AddressKind::None, ""},
        {".mp4", 0, AddressKind::None, ""},
        {"a//b", 0, AddressKind::None, ""},
        {"a/..%2Fb", 0, AddressKind::None, ""},
        {"a/", 0, AddressKind::None, ""},
        {"a%00", 0, AddressKind::None, ""},
    };
    for (const auto &c : cases) {
        ProgramAddress address = ProgramAddressRead(c.szPath, c.bRecording);
        EXPECT_EQ(c.kind, address.kind) << c.szPath;
        EXPECT_EQ(c.szProgram, address.program) << c.szPath;
    }
}

TEST(DayRead, TakesDaysOfTheCalendar)
{
    static const struct {
        const char *szText;
        int bDay;
    } cases[] = {{"20261122", 1},  {"2026-11-22", 1}, {"20240229", 1}, {"20260229", 0}, {"20261301", 0},
                 {"2026-11-2", 0}, {"99999999", 0},   {"00000000", 0}, {"19691231", 0}, {"", 0}};
    for (const auto &row : cases) {
        std::string day;
        EXPECT_EQ(row.bDay, DayRead(row.szText, &day)) << row.szText;
    }
}
