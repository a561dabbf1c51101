#include "record/storage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <ctime>
#include <filesystem>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record/storagekeep.h"
#include "record/storageroom.h"
#include "support/files.h"
#include "support/output.h"
#include "unit/record/recordkit.h"

namespace orx {

constexpr const char *kEveryProgram = nullptr;

TEST(Storage, PathsStayBelowTheRoot)
{
    TempDir dir;
    std::string root = dir.path + "/";
    char szPath[256];
    auto next = [&](const std::string &program, int nKind = 1, size_t nRoom = sizeof(szPath)) {
        return StorageNextPath(szPath, nRoom, root.c_str(), program.c_str(), nKind);
    };
    for (int nKind : {1, 2, 3}) {
        ASSERT_EQ(1, next("a/b", nKind));
        EXPECT_THAT(szPath, testing::MatchesRegex(root + "a/b/[0-9]{8}/" + "SAM"[nKind - 1] + "[0-9]{6}.zmf"));
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(szPath).parent_path()));
    }
    EXPECT_EQ(1, next("..a/b.."));
    for (const char *szProgram : {"..", "../x", "a/../../x", "a/..", "."})
        EXPECT_EQ(0, next(szProgram)) << szProgram;
    EXPECT_EQ(0, next("a/b", 0));
    EXPECT_EQ(0, next("a/b", 4));
    EXPECT_EQ(0, next(std::string(60, 'p'), 1, 40)) << "no room for the path";
}

// A tree below a root, and what is outside; the wall clock of recordings stands still at noon of a day in
// March of a leap year.
struct StorageDays : testing::Test {
    TempDir dir;
    std::string root = dir.File("rec/");

    StorageDays()
    {
        tm noon{};
        strptime("2024-03-05 12", "%Y-%m-%d %H", &noon);
        noon.tm_isdst = -1;
        RecordTimeSetOffset(mktime(&noon) - time(nullptr));
        Put(dir.File("outside/20240229/M1.zmf"));
    }
    ~StorageDays() override { RecordTimeSetOffset(0); }
    static void Put(const std::string &path)
    {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        WriteFile(path, "x");
    }
};

// Days of 3 to 10 days of age go: 24 February to 2 March.
TEST_F(StorageDays, GoWithWhatIsInThem)
{
    static const std::tuple<const char *, bool, bool> cases[] = {
        // whether it goes when the days of "cam" are deleted, and when those of every program are
        {"cam/20240302/M1.zmf", true, true},       {"cam/20240302/a/b/M1.zmf", true, true},
        {"cam/20240229/M1.txt", true, true},       {"cam/20240224/M1.zmf.tm!", true, true},
        {"cam/20240303/M1.zmf", false, false},     {"cam/20240223/M1.zmf", false, false},
        {"cam/20240305/M1.zmf", false, false},     {"cam/20240229.bad/M1.zmf", false, false},
        {"cam/0240229/M1.zmf", false, false},      {"cam/20240228", false, false},  // a file
        {"cam/20240227/20240226/x", false, false},                                  // its day is held
        {"20240229/M1.zmf", false, true},          {"cam2/20240229/M1.zmf", false, true},
        {"a/b/20240229/M1.zmf", false, true},      {"cam/sub/20240229/M1.zmf", false, true},
        {".cam/20240229/M1.zmf", false, false},    {"cam/20240303/20240229/M1.zmf", false, false},
    };
    for (const char *szProgram : {"cam", kEveryProgram}) {
        for (const auto &c : cases)
            Put(root + std::get<0>(c));
        for (int nAge : {INT_MIN, -3000000, -1000, 9000, 1000000, INT_MAX})  // days that nobody has
            StorageDeleteOldDays(root.c_str(), szProgram, nAge);
        OpenRecording open;
        StorageHold(&open, (root + "cam/20240227").c_str());
        StorageDeleteOldDays(root.c_str(), szProgram, 3);
        StorageRelease(&open);
        for (const auto &[szFile, bOfCam, bOfAll] : cases)
            EXPECT_EQ(szProgram ? !bOfCam : !bOfAll, std::filesystem::exists(root + szFile)) << szFile;
        EXPECT_FALSE(std::filesystem::exists(root + "cam/20240302"));
    }
}

// A link in the place of a day or of a program is left alone; one within a day goes, not what it names.
TEST_F(StorageDays, NothingOutsideTheRootIsReached)
{
    std::filesystem::create_directories(root + "cam/20240228/a");
    for (const char *szLink : {"cam/20240229", "link", "cam/20240228/inner", "cam/20240228/a/inner"})
        std::filesystem::create_symlink(dir.File("outside/20240229"), root + szLink);
    std::filesystem::create_symlink(dir.File("outside"), root + "program");
    for (const char *szProgram : {"cam", "../outside", "cam/../../outside", kEveryProgram})
        StorageDeleteOldDays(root.c_str(), szProgram, 3);
    EXPECT_EQ("x", ReadFile(dir.File("outside/20240229/M1.zmf")));
    EXPECT_TRUE(std::filesystem::is_symlink(root + "cam/20240229"));
    EXPECT_FALSE(std::filesystem::exists(root + "cam/20240228"));
}

// No disk has the room asked for, so that everything that may be deleted is: the oldest day first.
TEST_F(StorageDays, ReserveSpaceDeletesTheOldestFirst)
{
    const std::string days[] = {"20240101", "20231231"};
    // The result, the days that it says are deleted, and those that are left.
    auto reserve = [&](const char *szSub, int bDateLayout, uint32_t nMB, int bDelete) {
        for (const auto &day : days)
            Put(root + "cam/" + day + "/M1.zmf");
        int nResult = -1;
        const std::string said =
            Printed([&] { nResult = CheckPathReserveSpace(root.c_str(), szSub, bDateLayout, nMB, bDelete); });
        std::string told = std::to_string(nResult);
        for (size_t n = 0; (n = said.find("The oldest file (", n)) != std::string::npos; n++)
            told += " -" + said.substr(n + 17 + root.size() + 4, 8);
        for (const auto &day : days)
            told += std::filesystem::exists(root + "cam/" + day) ? " " + day : "";
        return told;
    };
    EXPECT_EQ("1 20240101 20231231", reserve("cam/20240101", 1, 1, 1));
    EXPECT_EQ("0 20240101 20231231", reserve("cam/20240101/", 1, UINT32_MAX, 0));
    EXPECT_EQ("0 -20231231 -20240101", reserve("cam/20240101", 1, UINT32_MAX, 1));
    EXPECT_EQ("1 -20240101 20231231", reserve("cam/20240101", 0, UINT32_MAX, 1)) << "gone, so it cannot be asked";
}

// What goes is told step by step, by the names of the files.
struct StorageRooms : StorageDays {
    StorageRoom room;
    RecordRules rules;

    ~StorageRooms() override
    {
        StorageRoomFree(&room);
        RecordSteadySetOffset(0);
    }
    // Files of equal content, each second older than the one before; bLinked: their bytes stay elsewhere, and are so
    // many that what others on the disk free meanwhile does not count.
    void Fill(const std::string &day, int nFiles, bool bLinked = false)
    {
        for (int i = 0; i < nFiles; i++) {
            const std::string path = root + day + "/" + std::to_string(i) + ".zmf";
            Put(path);
            int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
            EXPECT_EQ(0, posix_fallocate(fd, 0, bLinked ? 8 << 20 : 8192));
            close(fd);
            std::filesystem::last_write_time(path, std::filesystem::file_time_type{} - std::chrono::seconds(i));
            std::filesystem::create_directories(root + "kept");
            if (bLinked)
                std::filesystem::create_hard_link(path, root + "kept/" + std::to_string(i));
        }
    }
    std::string Make(const std::string &day, bool bOthers = false)
    {
        const std::string dayDir = root + day;
        std::filesystem::create_directories(dayDir);
        std::string told;
        RoomResult eResult = RoomResult::None;
        const std::string said = Printed([&] {
            eResult =
                StorageRoomBegin(&room, dayDir.c_str(), 1, UINT32_MAX, 1, &rules, bOthers ? root.c_str() : nullptr);
            for (int nSteps = 0; eResult == RoomResult::More && nSteps < 1000; nSteps++)
                eResult = StorageRoomStep(&room);
        });
        for (size_t n = 0, nEnd = 0; (n = said.find("file (" + root, n)) != std::string::npos; n = nEnd) {
            nEnd = said.find(')', n);
            told += said.substr(n + 6 + root.size(), nEnd - n - 6 - root.size()) + " ";
        }
        return told + (eResult == RoomResult::None ? "none" : "there");
    }
};

TEST_F(StorageRooms, TakeTheOldestFirstAndThenOthers)
{
    Fill("cam/20240102", 2);
    Fill("cam/20240101", 1);
    Fill("a/b/20231231", 1);
    Fill("other/20240103", 2);
    Fill("12345678/20240102", 1);  // a program whose name looks like a day
    EXPECT_EQ("cam/20240101/0.zmf cam/20240102/1.zmf cam/20240102/0.zmf none", Make("cam/20240305", true))
        << "without the rule";
    rules.bNeverLose = 1;
    EXPECT_EQ("none", Make("new/20240305"));
    EXPECT_EQ("a/b/20231231/0.zmf 12345678/20240102/0.zmf other/20240103/1.zmf other/20240103/0.zmf none",
              Make("new/20240305", true));
}

// Ten that free nothing are enough for a minute; what was read of a directory is right when it has changed.
TEST_F(StorageRooms, DeletionPausesWhereItHelpsNobody)
{
    rules.bNeverLose = 1;
    Fill("cam/20240101", 15, true);
    const std::string ten = Make("cam/20240305");
    EXPECT_THAT(ten, testing::StartsWith("cam/20240101/14.zmf cam/20240101/13.zmf "));
    EXPECT_EQ(10, std::count(ten.begin(), ten.end(), ' '));
    EXPECT_EQ("none", Make("cam/20240305"));
    RecordSteadySetOffset(59000);
    EXPECT_EQ("none", Make("cam/20240305"));
    RecordSteadySetOffset(61000);
    std::filesystem::remove(root + "cam/20240101/4.zmf");
    Put(root + "cam/20240101/new.zmf");
    std::filesystem::last_write_time(root + "cam/20240101/new.zmf",
                                     std::filesystem::file_time_type{} - std::chrono::seconds(99));
    EXPECT_THAT(Make("cam/20240305"), testing::StartsWith("cam/20240101/new.zmf cam/20240101/3.zmf "));
}

// Days of more than 3 days of age go: those before 2 March. What only looks like a day is a program.
TEST_F(StorageDays, KeptForSoManyDays)
{
    static const std::tuple<const char *, bool> cases[] = {
        {"cam/20240301/M1.zmf", true},  {"cam/20231231/sub/M1.txt", true},   {"a/b/20240229/M1.zmf.tm!", true},
        {"20200101/M1.zmf", false},     {"20200101/20240305/M1.zmf", false}, {"20200101/20240101/M1.zmf", true},
        {"cam/20240302/M1.zmf", false}, {"12345678/20240305/M1.zmf", false}, {"12345678/20240101/M1.zmf", true},
        {"10020304/M1.zmf", false},     {"cam/20240101.bad/M1.zmf", false},  {"cam/20240102/20240305/x", false},
        {"cam/20250101/M1.zmf", false}, {".cam/20240101/M1.zmf", false},
    };
    for (const auto &c : cases)
        Put(root + std::get<0>(c));
    std::filesystem::create_symlink(dir.File("outside"), root + "program");
    StorageKeep keep;
    OpenRecording open;
    StorageHold(&open, (root + "cam/20240102/20240305").c_str(), "x.zmf");
    int nSteps = 0;
    Printed([&] {
        StorageKeepBegin(&keep, root.c_str(), 3);
        while (StorageKeepStep(&keep) && nSteps < 200)
            nSteps++;
    });
    EXPECT_LT(nSteps, 200);
    StorageRelease(&open);
    StorageKeepFree(&keep);
    for (const auto &[szFile, bGoes] : cases)
        EXPECT_EQ(!bGoes, std::filesystem::exists(root + szFile)) << szFile;
    EXPECT_FALSE(std::filesystem::exists(root + "cam/20231231"));
    EXPECT_TRUE(std::filesystem::exists(dir.File("outside/20240229/M1.zmf")));
}

// Names are settled at once; what has to be looked into is handed out.
TEST_F(StorageDays, InterruptedFilesAreListed)
{
    ZMFWriter *p = ZMFWriterCreateFile((root + "key.zmf").c_str(), RECORD_MANUAL, nullptr);
    EXPECT_EQ(nullptr, p) << "no such directory";
    std::filesystem::create_directories(root + "cam");
    for (const char *szName : {"cam/key.zmf", "cam/none.zmf"}) {
        p = ZMFWriterCreateFile((root + szName).c_str(), RECORD_MANUAL, nullptr);
        EXPECT_EQ(1, ZMFWriterSetSdp(p, kVideoSdp));
        EXPECT_EQ(1, ZMFWriterWriteHead(p));
        if (strstr(szName, "key"))
            ZMFWriterWriteSample(p, Data("x"), 1, 0, SampleType('v', ZMF_KEY));
        ZMFWriterTick(p);
        std::filesystem::copy_file(root + szName + ".tm!", root + szName + ".2.tm!");
        ZMFWriterFree(p);
        std::filesystem::remove(root + szName);
        std::filesystem::rename(root + szName + ".2.tm!", root + szName + ".tm!");
    }
    WriteFile(root + "cam/big.zmf", "is there");
    WriteFile(root + "cam/big.zmf.tm!", std::string(kRecoverMinBytes, 'x'));
    WriteFile(root + "cam/tiny.zmf.tm!", "x");
    PathList repair;
    StorageRecover(root.c_str(), 1, &repair);
    PathListSortByName(&repair);
    std::string told;
    while (const PathItem *pItem = PathListNext(&repair)) {
        EXPECT_TRUE(std::filesystem::exists(pItem->szPath));
        told += pItem->szPath + root.size();
        told += pItem->nBytes < kRecoverMinBytes && StorageDropKeyless(pItem->szPath) ? "- " : " ";
    }
    PathListFree(&repair);
    EXPECT_EQ("cam/big-1.zmf cam/key.zmf cam/none.zmf- ", told);
    EXPECT_FALSE(std::filesystem::exists(root + "cam/tiny.zmf.tm!"));
    EXPECT_FALSE(std::filesystem::exists(root + "cam/none.zmf"));
}

}  // namespace orx
