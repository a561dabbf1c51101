#include "record/storage.h"

#include <climits>
#include <ctime>
#include <filesystem>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/files.h"
#include "support/output.h"

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

}  // namespace orx
