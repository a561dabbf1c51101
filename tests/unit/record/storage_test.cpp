#include "record/storage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "recordkit.h"

namespace orx {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

constexpr uint32_t kTooMuchMB = 1U << 31;

// A tree of recordings. Files are made in the order of their age.
struct Tree {
    TempDir dir;
    std::string root = dir.path + "/";
    int nAge = 1000;

    void Add(const std::string &name, size_t nBytes = 10)
    {
        fs::create_directories(fs::path(root + name).parent_path());
        WriteFile(root + name, std::string(nBytes, 'x'));
        fs::last_write_time(root + name, fs::file_time_type::clock::now() - std::chrono::seconds(nAge--));
    }
    // Every file and empty directory, sorted.
    std::vector<std::string> Left() const
    {
        std::vector<std::string> out;
        for (const auto &entry : fs::recursive_directory_iterator(dir.path))
            if (!entry.is_directory() || fs::is_empty(entry.path()))
                out.push_back(entry.path().string().substr(root.size()));
        std::sort(out.begin(), out.end());
        return out;
    }
};

std::string Today(const char *szFormat = "%Y%m%d", int nDaysAgo = 0)
{
    time_t tNow = RecordTime();
    tm local{};
    localtime_r(&tNow, &local);
    local.tm_mday -= nDaysAgo;
    local.tm_hour = 12;
    local.tm_isdst = -1;
    mktime(&local);
    char sz[32];
    strftime(sz, sizeof(sz), szFormat, &local);
    return sz;
}

TEST(Storage, PathsOfRecordings)
{
    Tree tree;
    char szPath[256];
    for (int nKind = 1; nKind <= 3; nKind++) {
        ASSERT_EQ(1, StorageNextPath(szPath, sizeof(szPath), tree.root.c_str(), "a/b", nKind));
        std::string expected = tree.root + "a/b/" + Today() + "/" + "SAM"[nKind - 1] + "[0-9]{6}.zmf";
        EXPECT_THAT(szPath, testing::MatchesRegex(expected));
    }
    WriteFile(szPath, "of the same second");
    ASSERT_EQ(1, StorageNextPath(szPath, sizeof(szPath), tree.root.c_str(), "a/b", 3));
    EXPECT_FALSE(fs::exists(szPath));
    for (int nKind : {-1, 0, 4})
        EXPECT_EQ(0, StorageNextPath(szPath, sizeof(szPath), tree.root.c_str(), "a/b", nKind));
    for (const char *szProgram : {"..", "../x", "a/../../x", "a/..", "."})
        EXPECT_EQ(0, StorageNextPath(szPath, sizeof(szPath), tree.root.c_str(), szProgram, 1)) << szProgram;
    EXPECT_EQ(1, StorageNextPath(szPath, sizeof(szPath), tree.root.c_str(), "..a/b..", 1));
    EXPECT_EQ(0, StorageNextPath(szPath, 40, tree.root.c_str(), std::string(60, 'p').c_str(), 1));
    std::string prefix = tree.root + "x-";
    snprintf(szPath, sizeof(szPath), "%s", prefix.c_str());
    ASSERT_EQ(1, StorageNextPath(szPath, sizeof(szPath), nullptr, "p", 2));
    EXPECT_THAT(szPath, testing::MatchesRegex(prefix + "A[0-9]{6}.zmf"));
}

TEST(Storage, OldestDay)
{
    Tree tree;
    for (const char *szDay :
         {"20260101", "20251231", "20261231", "30000101", "2025123", "202512311", "19991231.bad"})
        tree.Add(std::string("cam/") + szDay + "/f");
    tree.Add("cam/10000000");  // a file
    char szDay[256];
    ASSERT_EQ(1, StorageFindOldestDay(szDay, sizeof(szDay), (tree.root + "cam/").c_str(), nullptr));
    EXPECT_EQ(tree.root + "cam/20251231", szDay);
    testing::internal::CaptureStdout();
    ASSERT_EQ(1, StorageFindOldestDay(szDay, sizeof(szDay), (tree.root + "cam").c_str(), "20251231"));
    EXPECT_EQ("The oldest path is " + tree.root + "cam/20260101.\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, StorageFindOldestDay(szDay, sizeof(szDay), (tree.root + "none").c_str(), nullptr));
    EXPECT_EQ(0, StorageFindOldestDay(szDay, sizeof(szDay), (tree.root + "cam/20260101").c_str(), nullptr));
}

TEST(Storage, OldestFile)
{
    Tree tree;
    for (const char *szName : {"d/A1.zmf.tm!", "d/.zmf", "d/A1.zmf", "d/S9.zmf", "d/S1.zmf", "d/x.txt"})
        tree.Add(szName);
    std::string dir = tree.root + "d";
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, StorageDeleteOldestFile(dir.c_str(), 1));
    EXPECT_EQ("The oldest file (" + dir + "/S9.zmf) is removed.\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1, StorageDeleteOldestFile(dir.c_str(), 0));
    EXPECT_EQ(1, StorageDeleteOldestFile(dir.c_str(), 0));
    EXPECT_EQ(0, StorageDeleteOldestFile(dir.c_str(), 0));
    EXPECT_THAT(tree.Left(), ElementsAre("d/.zmf", "d/A1.zmf.tm!", "d/x.txt"));
    tree.Add("e/M1.zmf");
    EXPECT_EQ(1, StorageDeleteOldestFile((tree.root + "e").c_str(), 0));
    EXPECT_FALSE(fs::exists(tree.root + "e")) << "an empty directory goes, too";
    EXPECT_EQ(0, StorageDeleteOldestFile((tree.root + "none").c_str(), 0));
}

TEST(Storage, MakingRoomByDays)
{
    Tree tree;
    for (const char *szName : {"cam/20250102/S1.zmf", "cam/20250101/S2.zmf", "cam/20250101/notes.txt",
                               "cam/20250103/S3.zmf", "other/20240101/S4.zmf", "cam/20250104/S5.zmf.tm!"})
        tree.Add(szName);
    fs::create_directories(tree.root + "cam/20250105");
    std::string dir = tree.root + "cam/20250105";
    EXPECT_EQ(1, StorageMakeRoom(dir.c_str(), 1, 1, 1)) << "there is room";
    EXPECT_EQ(0, StorageMakeRoom(dir.c_str(), 1, kTooMuchMB, 0)) << "nothing may be deleted";
    EXPECT_EQ(7U, tree.Left().size());

    OpenRecording open;
    StorageHold(&open, (tree.root + "cam/20250104").c_str());
    EXPECT_EQ(0, CheckPathReserveSpace(tree.root.c_str(), "cam/20250105/", 1, kTooMuchMB, 1));
    EXPECT_THAT(tree.Left(),
                ElementsAre("cam/20250101.bad/notes.txt", "cam/20250104/S5.zmf.tm!", "other/20240101/S4.zmf"))
        << "days without recordings are set aside or gone, the one that is written to stays";
    StorageRelease(&open);
    EXPECT_EQ(0, CheckPathReserveSpace(tree.root.c_str(), "cam/20250104", 1, kTooMuchMB, 1));
    EXPECT_TRUE(fs::exists(tree.root + "cam/20250104.bad/S5.zmf.tm!"));
}

TEST(StorageDeathTest, NoSpaceAskedFor)
{
    EXPECT_DEATH(CheckPathReserveSpace("/", "tmp", 1, 0, 1), "nSpaceInMB > 0");
}

TEST(Storage, InterruptedFilesAreSettled)
{
    Tree tree;
    tree.Add("cam/20250101/S1.zmf.tm!", 65536);
    tree.Add("cam/20250101/S2.zmf.tm!", 65535);
    tree.Add("cam/20250101/S3.zmf", 10);
    tree.Add("named.zmf.tm!", 70000);
    tree.Add("cam/.hidden/S4.zmf.tm!", 10);
    fs::create_directories(tree.root + "cam/dir.tm!");
    tree.Add("elsewhere/S5.zmf.tm!", 10);
    fs::create_directory_symlink(tree.root + "elsewhere", tree.root + "cam/link");
    fs::rename(tree.root + "elsewhere", tree.root + "cam/.elsewhere");
    StorageRecover(tree.root.c_str());
    EXPECT_THAT(tree.Left(),
                ElementsAre("cam/.elsewhere/S5.zmf.tm!", "cam/.hidden/S4.zmf.tm!", "cam/20250101/S1.zmf",
                            "cam/20250101/S3.zmf", "cam/dir.tm!", "cam/link", "named.zmf"));
    StorageRecover("/no/such/root/");
    StorageRecover(nullptr);
}

TEST(Storage, OldDaysAreDeleted)
{
    Tree tree;
    for (int nDays : {29, 30, 33, 37, 38})
        for (const char *szProgram : {"cam/", "deep/er/"})
            tree.Add(szProgram + Today("%Y%m%d", nDays) + "/sub/x.txt");
    OpenRecording open;
    StorageHold(&open, (tree.root + "cam/" + Today("%Y%m%d", 33)).c_str());
    StorageDeleteOldDays(tree.root.c_str(), "../", 30);
    StorageDeleteOldDays(tree.root.c_str(), "cam", 30);
    EXPECT_EQ(8U, tree.Left().size());
    EXPECT_TRUE(fs::exists(tree.root + "cam/" + Today("%Y%m%d", 29)));
    EXPECT_TRUE(fs::exists(tree.root + "cam/" + Today("%Y%m%d", 33))) << "is being written to";
    EXPECT_TRUE(fs::exists(tree.root + "cam/" + Today("%Y%m%d", 38)));
    StorageRelease(&open);
    StorageDeleteOldDays(tree.root.c_str(), nullptr, 30);
    EXPECT_EQ(4U, tree.Left().size());
}

TEST(Storage, LinksAreNotFollowedWhenATreeGoes)
{
    Tree tree;
    tree.Add("keep/x");
    tree.Add("gone/a/b/y");
    fs::create_directory_symlink(tree.root + "keep", tree.root + "gone/link");
    EXPECT_EQ(1, StorageRemoveTree((tree.root + "gone").c_str()));
    EXPECT_THAT(tree.Left(), ElementsAre("keep/x"));
}

}  // namespace
}  // namespace orx
