#include "record/storage.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/files.h"

namespace orx {
namespace {

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
        EXPECT_THAT(szPath,
                    testing::MatchesRegex(root + "a/b/[0-9]{8}/" + "SAM"[nKind - 1] + "[0-9]{6}.zmf"));
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(szPath).parent_path()));
    }
    EXPECT_EQ(1, next("..a/b.."));
    for (const char *szProgram : {"..", "../x", "a/../../x", "a/..", "."})
        EXPECT_EQ(0, next(szProgram)) << szProgram;
    EXPECT_EQ(0, next("a/b", 0));
    EXPECT_EQ(0, next("a/b", 4));
    EXPECT_EQ(0, next(std::string(60, 'p'), 1, 40)) << "no room for the path";
}

}  // namespace
}  // namespace orx
