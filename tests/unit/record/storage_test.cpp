#include "record/storage.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/files.h"

namespace orx {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr uint32_t kTooMuchMB = 1U << 31;

struct Tree {
    TempDir dir;
    std::string root = dir.path + "/";

    explicit Tree(std::initializer_list<std::string> names = {})
    {
        for (const auto &name : names) {
            fs::create_directories(fs::path(root + name).parent_path());
            WriteFile(root + name, "x");
        }
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

TEST(Storage, PathsStayBelowTheRoot)
{
    Tree tree;
    char szPath[256];
    auto next = [&](const std::string &program, int nKind = 1, size_t nRoom = sizeof(szPath)) {
        return StorageNextPath(szPath, nRoom, tree.root.c_str(), program.c_str(), nKind);
    };
    for (int nKind : {1, 2, 3}) {
        ASSERT_EQ(1, next("a/b", nKind));
        EXPECT_THAT(szPath,
                    testing::MatchesRegex(tree.root + "a/b/[0-9]{8}/" + "SAM"[nKind - 1] + "[0-9]{6}.zmf"));
        EXPECT_TRUE(fs::exists(fs::path(szPath).parent_path()));
    }
    EXPECT_EQ(1, next("..a/b.."));
    for (const char *szProgram : {"..", "../x", "a/../../x", "a/..", "."})
        EXPECT_EQ(0, next(szProgram)) << szProgram;
    EXPECT_EQ(0, next("a/b", 0));
    EXPECT_EQ(0, next("a/b", 4));
    EXPECT_EQ(0, next(std::string(60, 'p'), 1, 40)) << "no room for the path";
}

TEST(Storage, RoomIsMadeByDays)
{
    Tree tree{"cam/20250102/S1.zmf",     "cam/20250101/S2.zmf",   "cam/20250101/notes.txt",
              "cam/2025/S0.zmf",         "other/20240101/S4.zmf", "cam/20250103/S3.zmf",
              "cam/20250104/S5.zmf.tm!", "cam/20250105/S6.zmf"};
    std::string today = tree.root + "cam/20250105";
    EXPECT_EQ(1, StorageMakeRoom(today.c_str(), 1, 1, 1)) << "there is room";
    EXPECT_EQ(0, StorageMakeRoom(today.c_str(), 1, kTooMuchMB, 0)) << "nothing may be deleted";
    EXPECT_EQ(8U, tree.Left().size());

    OpenRecording open;
    StorageHold(&open, (tree.root + "cam/20250104").c_str());
    EXPECT_EQ(0, StorageMakeRoom(today.c_str(), 1, kTooMuchMB, 1));
    EXPECT_THAT(tree.Left(), ElementsAre("cam/2025/S0.zmf", "cam/20250101.bad/notes.txt",
                                         "cam/20250104/S5.zmf.tm!", "other/20240101/S4.zmf"))
        << "a day without recordings is set aside, the one that is written to stays";
    StorageRelease(&open);
    EXPECT_EQ(0, StorageMakeRoom((tree.root + "cam/20250104").c_str(), 1, kTooMuchMB, 1));
    EXPECT_TRUE(fs::exists(tree.root + "cam/20250104.bad/S5.zmf.tm!"));
}

}  // namespace
}  // namespace orx
