#include "record/confine.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "unit/record/recordkit.h"

namespace orx {

TEST(Confine, NamesTheNextThatMayBeFree)
{
    static const struct {
        const char *szPath;
        unsigned nVariant;
        const char *szResult;
    } cases[] = {
        {"/r/x.zmf", 0, "/r/x.zmf"},
        {"/r.d/x.zmf", 2, "/r.d/x-2.zmf"},
        {"S235958.zmf", 1, "S235959.zmf"},
        {"S235958.zmf", 2, "S235958-2.zmf"},
        {"/d/A005959.zmf", 1, "/d/A010000.zmf"},
        {"A00595.zmf", 1, "A00595-1.zmf"},
        {"/d/x-20260131-095959.zmf", 1, "/d/x-20260131-100000.zmf"},
        {"-20260131-095959.zmf", 1, "-20260131-095959-1.zmf"},
        {"x20260131-095959.zmf", 1, "x20260131-095959-1.zmf"},
        {"/d/M000000.zmf.tm!", 1, "/d/M000000.zmf-1.tm!"},
        {"x", 1, "x-1"},
    };
    for (const auto &c : cases) {
        char szOut[64];
        EXPECT_EQ(1, ConfineVariant(szOut, sizeof(szOut), c.szPath, c.nVariant));
        EXPECT_STREQ(c.szResult, szOut);
        EXPECT_EQ(0, ConfineVariant(szOut, strlen(c.szResult), c.szPath, c.nVariant)) << "one byte too few";
    }
}

// Of the files of one recording none replaces another, nor one that came to be meanwhile; and its directory
// may become a link that leads elsewhere.
TEST(Confine, HoldsThroughARecording)
{
    TempDir root, out;
    const std::string dir = root.File("cam"), root2 = root.path + "/";
    ZMFWriter *pWriter = ZMFWriterCreate(root2.c_str(), "cam", RECORD_MANUAL, nullptr, 1);
    ASSERT_NE(nullptr, pWriter);
    const std::string first = pWriter->file.szFile;
    ASSERT_EQ(1, ZMFWriterSetSdp(pWriter, kVideoSdp));
    ASSERT_EQ(1, ZMFWriterWriteHead(pWriter));
    WriteFile(first, "precious");
    ZMFWriterStop(pWriter);
    EXPECT_EQ("precious", ReadFile(first));
    EXPECT_NE(first, pWriter->file.szFile);
    EXPECT_TRUE(std::filesystem::exists(pWriter->file.szFile));
    EXPECT_EQ(1, ZMFWriterCreateNextFile(pWriter));
    ZMFWriterStop(pWriter);
    EXPECT_EQ(3, std::distance(std::filesystem::recursive_directory_iterator(dir), {}) - 1) << "and the day";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directory_symlink(out.path, dir);
    EXPECT_EQ(-1, ZMFWriterCreateNextFile(pWriter));
    ZMFWriterFree(pWriter);
    EXPECT_EQ(nullptr, ZMFWriterCreate(root2.c_str(), "cam", RECORD_MANUAL, nullptr, 1));
    EXPECT_EQ(nullptr, ZMFWriterCreate(root2.c_str(), "", RECORD_MANUAL, nullptr, 1)) << "the root's own parent";
    EXPECT_TRUE(std::filesystem::is_empty(out.path));
}

}  // namespace orx
