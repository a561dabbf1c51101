// Recordings whose names, directories or days meet.
#include <array>
#include <filesystem>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record/storageroom.h"
#include "unit/record/recordkit.h"

namespace orx {

// A wall clock that stands still, so that names meet; past 2038, which 32-bit machines have to know as well.
struct RecordNames : testing::Test {
    TempDir dir;
    std::string root = dir.path + "/";
    RecordRules rules;

    RecordNames() { StandAt("12:00:00"); }
    ~RecordNames() override { RecordTimeSetOffset(0); }
    static void StandAt(const char *szClock)
    {
        tm when{};
        strptime((std::string("2041-03-05 ") + szClock).c_str(), "%Y-%m-%d %H:%M:%S", &when);
        when.tm_isdst = -1;
        RecordTimeHold(mktime(&when));
    }
    ZMFWriter *Begin(const std::string &name, int bNamed) const
    {
        ZMFWriter *p = bNamed ? ZMFWriterCreateFile(dir.File(name).c_str(), RECORD_MANUAL, nullptr, nullptr, &rules)
                              : ZMFWriterCreate(root.c_str(), name.c_str(), RECORD_MANUAL, nullptr, 0, &rules);
        EXPECT_EQ(1, ZMFWriterSetSdp(p, kVideoSdp));
        EXPECT_EQ(1, ZMFWriterSetLimits(p, 60, 0));
        EXPECT_EQ(1, ZMFWriterWriteHead(p));
        return p;
    }
    static void Put(ZMFWriter *p, uint32_t nTimeMs, const std::string &data)
    {
        EXPECT_EQ(1, ZMFWriterWriteSample(p, Data(data), Size(data), nTimeMs, SampleType('v', ZMF_KEY)));
    }
    std::map<std::string, std::string> Kept() const
    {
        std::map<std::string, std::string> out;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(dir.path)) {
            if (!entry.is_regular_file())
                continue;
            int nEnd = 1;
            std::string &told = out[std::filesystem::relative(entry.path(), dir.path)];
            for (const MediaSample &sample : Reader(entry.path()).ReadOn(&nEnd))
                told += sample.data;
        }
        return out;
    }
};

// Three at a time, of which each goes on in a second file.
TEST_F(RecordNames, NoTwoAreOne)
{
    using Files = std::map<std::string, std::string>;
    const std::string day = "cam/20410305/M12";
    static const struct {
        std::array<const char *, 3> names;
        int bNamed;
    } cases[] = {
        {{"cam", "cam/", "/cam"}, 0}, {{"cam-1.zmf", "cam-2.zmf", "cam.zmf"}, 1}, {{"a.zmf", "a.zmf", "./a.zmf"}, 1}};
    const Files expected[] = {
        {{day + "0000.zmf", "0"},
         {day + "0001.zmf", "1"},
         {day + "0002.zmf", "2"},
         {day + "0100.zmf", "0"},
         {day + "0101.zmf", "1"},
         {day + "0102.zmf", "2"}},
        {{"cam-1.zmf", "0"},
         {"cam-2.zmf", "1"},
         {"cam.zmf", "2"},
         {"cam-20410305-120100.zmf", "0"},
         {"cam-20410305-120101.zmf", "1"},
         {"cam-20410305-120102.zmf", "2"}},
        {{"a.zmf", "0"},
         {"a-1.zmf", "1"},
         {"a-2.zmf", "2"},
         {"a-20410305-120100.zmf", "0"},
         {"a-20410305-120101.zmf", "1"},
         {"a-20410305-120102.zmf", "2"}},
    };
    for (int bNeverLose : {0, 1}) {
        for (size_t i = 0; i < std::size(cases); i++) {
            rules.bNeverLose = bNeverLose;
            StandAt("12:00:00");
            std::vector<ZMFWriter *> writers;
            for (const char *szName : cases[i].names) {
                writers.push_back(Begin(szName, cases[i].bNamed));
                Put(writers.back(), 0, std::to_string(writers.size() - 1));
            }
            StandAt("12:01:00");
            for (size_t n = 0; n < writers.size(); n++)
                Put(writers[n], 60000, std::to_string(n));
            for (ZMFWriter *p : writers)
                ZMFWriterFree(p);
            EXPECT_EQ(expected[i], Kept()) << i << " " << bNeverLose;
            for (const auto &entry : std::filesystem::directory_iterator(dir.path))
                std::filesystem::remove_all(entry);
        }
    }
}

// What is finished is replaced, or with the rule stays whether it was there first or came meanwhile.
TEST_F(RecordNames, FinishedFilesStayWithTheRule)
{
    for (int bNamed : {0, 1}) {
        for (int bNeverLose : {0, 1}) {
            rules.bNeverLose = bNeverLose;
            const std::string name = bNamed ? "x.zmf" : "cam";
            for (const char *szData : {"first", "second"}) {
                ZMFWriter *p = Begin(name, bNamed);
                Put(p, 0, szData);
                ZMFWriterFree(p);
            }
            ZMFWriter *p = Begin(name, bNamed);
            Put(p, 0, "third");
            WriteFile(p->file.szFile, "meanwhile");
            ZMFWriterFree(p);
            auto files = std::filesystem::recursive_directory_iterator(dir.path);
            EXPECT_EQ(bNeverLose ? 4 : 1, std::count_if(begin(files), end(files),
                                                        [](const auto &entry) { return entry.is_regular_file(); }))
                << bNamed;
            for (const auto &entry : std::filesystem::directory_iterator(dir.path))
                std::filesystem::remove_all(entry);
        }
    }
}

// A program below the day of another one is recorded while that one's days are deleted or set aside.
TEST_F(RecordNames, DaysStayWhileSomethingBelowThemIsWritten)
{
    ZMFWriter *p = Begin("cam/20410301", 0);
    Put(p, 0, "written");
    StorageDeleteOldDays(root.c_str(), nullptr, 1);
    std::filesystem::create_directories(root + "cam/20410305");
    EXPECT_EQ(0, StorageMakeRoom((root + "cam/20410305").c_str(), 1, UINT32_MAX, 1));
    ZMFWriterFree(p);
    EXPECT_EQ("written", Kept()["cam/20410301/20410305/M120000.zmf"]);
}

}  // namespace orx
