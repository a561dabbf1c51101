// The store of registered cameras.
#include "server/methods/guidstore.h"

#include <string>

#include <gtest/gtest.h>

#include "base/inifile.h"
#include "support/files.h"

namespace orx {
namespace {

using namespace std::string_literals;

TEST(GuidStore, TakesNoKeyThatIsNone)
{
    const std::string longest(kMaxGuid, 'x');
    for (const std::string &guid : {"{6F9619FF-8B86}"s, "a b;c"s, longest})
        EXPECT_TRUE(GuidIsUsable(guid.c_str())) << guid;
    for (const std::string &guid :
         {longest + "x", ""s, "MaxRegisterId"s, "a=b"s, "[GUID]"s, ";a"s, "a\nb"s, "\xff"s})
        EXPECT_FALSE(GuidIsUsable(guid.c_str())) << guid;
}

TEST(GuidStore, AddsToWhatIsThere)
{
    static const struct {
        const char *szOld, *szNew;
    } cases[] = {
        {"", "[GUID]\ng=cam5\nMaxRegisterId=6\n"},
        {"[A]\nx=%%1\n[GUID]\r\na=cam1\r\nMaxRegisterId=5\r\n[B]\ny=2\n",
         "[A]\nx=%%1\n[GUID]\r\na=cam1\r\ng=cam5\nMaxRegisterId=6\r\n[B]\ny=2\n"},
        {"[GUID]\n[B]\n", "[GUID]\ng=cam5\nMaxRegisterId=6\n[B]\n"},
        {"[A]\nx=1", "[A]\nx=1\n[GUID]\ng=cam5\nMaxRegisterId=6\n"},
    };
    TempDir dir;
    std::string path = dir.File("guid.dat");
    for (const auto &c : cases) {
        char name[16];
        WriteFile(path, c.szOld);
        EXPECT_EQ(1, GuidStoreAdd(path.c_str(), "g", "cam5", 6)) << c.szOld;
        EXPECT_EQ(c.szNew, ReadFile(path));
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
    ASSERT_EQ(1, GuidStoreAdd(path.c_str(), "a", "cam1", 2)) << "no file before";
    std::filesystem::create_hard_link(path, dir.File("old"));
    ASSERT_EQ(1, GuidStoreAdd(path.c_str(), "b", "cam2", 3));
    EXPECT_EQ("[GUID]\na=cam1\nMaxRegisterId=2\n", ReadFile(dir.File("old")));
    EXPECT_EQ("[GUID]\na=cam1\nb=cam2\nMaxRegisterId=3\n", ReadFile(path));

    std::string full = "[GUID]\nMaxRegisterId=1000\n;" + std::string(kProfileTextSize - 40, 'x') + "\n";
    WriteFile(path, full);
    EXPECT_EQ(0, GuidStoreAdd(path.c_str(), "agoodlongone", "cam1000", 1001)) << "would not be read again";
    EXPECT_EQ(full, ReadFile(path));
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(0, GuidStoreAdd(path.c_str(), "a", "cam1", 2)) << "something that cannot be read";
}

}  // namespace
}  // namespace orx
