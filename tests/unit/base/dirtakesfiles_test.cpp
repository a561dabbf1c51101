#include <gtest/gtest.h>

#include <filesystem>

#include "base/filewrite.h"
#include "support/files.h"

using namespace orx;

TEST(DirTakesFiles, TriesIt)
{
    TempDir dir;
    EXPECT_TRUE(DirTakesFiles(dir.path.c_str()));
    EXPECT_TRUE(std::filesystem::is_empty(dir.path)) << "what it made is gone";
    EXPECT_FALSE(DirTakesFiles("/proc")) << "where root may write, and nothing can be";
    EXPECT_FALSE(DirTakesFiles(dir.File("missing").c_str()));
}
