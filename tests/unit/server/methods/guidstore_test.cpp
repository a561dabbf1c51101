// The store of registered cameras.
#include "server/methods/guidstore.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "base/inifile.h"
#include "support/files.h"

namespace orx {

static int Add(const char *szPath, const char *szGuid, const char *szName, int nNextId)
{
    GuidStoreText text;
    return GuidStoreMake(szPath, szGuid, szName, nNextId, &text) && GuidStoreWrite(szPath, &text);
}

TEST(GuidStore, TakesNoKeyThatIsNone)
{
    const std::string longest(kMaxGuid, 'x'), tooLong = longest + "x";
    for (const char *szGuid : {"{6F9619FF-8B86}", "a b;c", longest.c_str()})
        EXPECT_TRUE(GuidIsUsable(szGuid)) << szGuid;
    for (const char *szGuid : {tooLong.c_str(), "", "MaxRegisterId", "a=b", "[GUID]", ";a", "a\nb", "\xff"})
        EXPECT_FALSE(GuidIsUsable(szGuid)) << szGuid;
}

TEST(GuidStore, AddsToWhatIsThere)
{
    static const std::pair<const char *, const char *> cases[] = {
        {"", "[GUID]\ng=cam5\nMaxRegisterId=6\n"},
        {"[A]\nx=%%1\n[GUID]\r\na=cam1\r\nMaxRegisterId=5\r\n[B]\ny=2\n",
         "[A]\nx=%%1\n[GUID]\r\ng=cam5\na=cam1\r\nMaxRegisterId=6\r\n[B]\ny=2\n"},
        {"[GUID]\n[B]\n", "[GUID]\ng=cam5\nMaxRegisterId=6\n[B]\n"},
        {"[A]\nx=1", "[A]\nx=1\n[GUID]\ng=cam5\nMaxRegisterId=6\n"},
    };
    TempDir dir;
    std::string path = dir.File("guid.dat");
    for (const auto &[szOld, szNew] : cases) {
        char name[16];
        WriteFile(path, szOld);
        EXPECT_EQ(1, Add(path.c_str(), "g", "cam5", 6)) << szOld;
        EXPECT_EQ(szNew, ReadFile(path));
        EXPECT_EQ(1, GuidStoreFind(path.c_str(), "g", name, sizeof(name)));
        EXPECT_STREQ("cam5", name);
        EXPECT_EQ(0, GuidStoreFind(path.c_str(), "h", name, sizeof(name)));
    }
}

// The file is never half written: it is another file afterwards, and one that it cannot replace stays whole.
TEST(GuidStore, ReplacesTheFileOrLeavesIt)
{
    TempDir dir;
    std::string path = dir.File("guid.dat");
    ASSERT_EQ(1, Add(path.c_str(), "a", "cam1", 2)) << "no file before";
    std::filesystem::create_hard_link(path, dir.File("old"));
    ASSERT_EQ(1, Add(path.c_str(), "b", "cam2", 3));
    EXPECT_EQ("[GUID]\na=cam1\nMaxRegisterId=2\n", ReadFile(dir.File("old")));
    EXPECT_EQ("[GUID]\nb=cam2\na=cam1\nMaxRegisterId=3\n", ReadFile(path));

    std::string full = "[GUID]\nMaxRegisterId=1000\n;" + std::string(kProfileTextSize - 40, 'x') + "\n";
    WriteFile(path, full);
    EXPECT_EQ(0, Add(path.c_str(), "agoodlongone", "cam1000", 1001)) << "would not be read again";
    EXPECT_EQ(full, ReadFile(path));
    WriteFile(path, "[GUID]\nMaxRegisterId=5\n[GUID2");
    EXPECT_EQ(1, Add(path.c_str(), "b", "cam5", 6));
    WriteFile(path, "[GUID");
    EXPECT_EQ(0, Add(path.c_str(), "b", "cam5", 6)) << "would not be found again";
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(0, Add(path.c_str(), "a", "cam1", 2)) << "something that cannot be read";
}

}  // namespace orx
