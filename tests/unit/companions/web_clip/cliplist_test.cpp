// Lists of recordings, and the way from a time to a second of one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orxctl/json.h"
#include "orxweb/cliplist.h"

namespace orx {

static time_t At(const char *szTime)
{
    time_t tWhen = 0;
    EXPECT_EQ(1, ClipTimeRead(szTime, &tWhen)) << szTime;
    return tWhen;
}

constexpr char kAnswer[] = R"({"program":"/a b","more":true,"recordings":[
{"file":"a b/20261122/S140000.zmf","start":"20261122-140000","duration_s":600.5,"bytes":5000000000,"kind":"scheduled","state":"complete","play_url":"x"},
{"file":"a b/20261122/x.bad","start":"20261122-140000","duration_s":1,"bytes":1,"kind":"manual","state":"complete","play_url":"x"},
{"file":"a b/20261122/S141500.zmf","start":"20261122-141500","duration_s":0,"bytes":10,"kind":"alarm","state":"interrupted","play_url":"x"},
{"file":"a b/20261122/S150000.zmf","start":"","duration_s":0,"bytes":10,"kind":"alarm","state":"unreadable","play_url":"x"},
{"file":"a b/20261122/M160000\"<.zmf.tm!","start":"20261122-160000","duration_s":0,"bytes":10,"kind":"manual","state":"writing","play_url":null}]})";

TEST(ClipList, ReadsWhatTheStatusSocketAnswers)
{
    std::vector<ClipRow> rows;
    std::string after;
    ASSERT_EQ(1, ClipListRead(kAnswer, At("2026-11-22T16:01:00"), &rows, &after));
    ASSERT_EQ(3U, rows.size());
    EXPECT_EQ("/recordings?program=a%20b&day=20261122&after=a%20b/20261122/M160000%22%3C.zmf.tm%21",
              ClipListTarget("a b", "20261122", after));
    EXPECT_EQ("/recordings/a%20b/20261122/S140000.mp4", rows[0].mp4);
    EXPECT_EQ("/recordings/a%20b/20261122/M160000%22%3C.mp4", rows[2].mp4);
    EXPECT_EQ(5000000000U, rows[0].nBytes);
    EXPECT_EQ(600.5, rows[0].dSeconds);
    EXPECT_EQ(60, rows[2].dSeconds);
    JsonValue list;
    ASSERT_EQ(1, JsonParse(ClipListJson(rows), &list));
    ASSERT_EQ(3U, list.items.size());
    EXPECT_EQ("2026-11-22T14:00:00", JsonMember(list.items[0], "start").text);
    EXPECT_EQ("600.500", JsonMember(list.items[0], "seconds").text);
    EXPECT_EQ(rows[0].mp4, JsonMember(list.items[0], "mp4").text);
    for (const char *szBad : {"", "[]", "{\"recordings\":1}", "{\"recordings\":["})
        EXPECT_EQ(0, ClipListRead(szBad, 0, &rows, &after)) << szBad;

    std::vector<ClipDays> days;
    EXPECT_EQ(1, ClipDaysRead(R"({"programs":[{"program":"/live/a","days":["20261122","../x"]}]})", &days));
    ASSERT_EQ(1U, days.size());
    EXPECT_EQ("live/a", days[0].program);
    EXPECT_THAT(days[0].days, testing::ElementsAre("20261122"));
}

TEST(ClipList, FindsTheRecordingOfATime)
{
    std::vector<ClipRow> rows;
    std::string after;
    ASSERT_EQ(1, ClipListRead(kAnswer, At("2026-11-22T16:01:00"), &rows, &after));
    static const struct {
        const char *szTime;
        int nRow;  // -1: none
        double dSecond;
    } cases[] = {
        {"2026-11-22T13:59:59", 0, 0},  {"2026-11-22T14:00:00", 0, 0},  {"2026-11-22T14:10:00", 0, 600},
        {"2026-11-22T14:10:01", 1, 0},  {"2026-11-22 14:20", 1, 300},   {"2026-11-22T15:59:00", 1, 6240},
        {"2026-11-22T16:00:30", 2, 30}, {"2026-11-22T16:02:00", -1, 0},
    };
    for (const auto &c : cases) {
        size_t nRow = 99;
        double dSecond = -1;
        ASSERT_EQ(c.nRow >= 0, ClipListAt(rows, At(c.szTime), &nRow, &dSecond)) << c.szTime;
        if (c.nRow < 0)
            continue;
        EXPECT_EQ(static_cast<size_t>(c.nRow), nRow) << c.szTime;
        EXPECT_EQ(c.dSecond, dSecond) << c.szTime;
    }
    time_t tWhen = 0;
    for (const char *szBad : {"", "2026-11-22", "2026-13-22T14:00", "2026-11-22T24:00", "2026-11-22T14:00:00x",
                              "2026-11-22T14:00:", "2026-02-29T14:00", "x026-11-22T14:00"})
        EXPECT_EQ(0, ClipTimeRead(szBad, &tWhen)) << szBad;
    EXPECT_EQ("2026-11-22T14:05:00", ClipTimeText(At("2026-11-22T14:05")));
    EXPECT_EQ("20261122", ClipDayOf(At("2026-11-22T14:05")));
}

TEST(ClipList, TakesAddressesApart)
{
    static const struct {
        const char *szPath, *szProgram, *szFile;
    } cases[] = {
        {"live/cam/20261122/S1.mp4", "live/cam", "20261122/S1.zmf"},
        {"cam/20261122/S1.mp4", "cam", "20261122/S1.zmf"},
        {"20261122/S1.mp4", nullptr, nullptr},
        {"/20261122/S1.mp4", nullptr, nullptr},
        {"cam/20261122/.mp4", nullptr, nullptr},
        {"cam/20261122/S1.zmf", nullptr, nullptr},
        {"cam/yesterday/S1.mp4", nullptr, nullptr},
        {"cam/20261122//S1.mp4", nullptr, nullptr},
        {".mp4", nullptr, nullptr},
        {"", nullptr, nullptr},
    };
    for (const auto &c : cases) {
        std::string program, file;
        ASSERT_EQ(c.szProgram != nullptr, ClipPathSplit(c.szPath, &program, &file)) << c.szPath;
        if (!c.szProgram)
            continue;
        EXPECT_EQ(c.szProgram, program);
        EXPECT_EQ(c.szFile, file);
    }
}

}  // namespace orx
