// The store of registered cameras.
#include "server/guidstore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "base/inifile.h"
#include "support/files.h"

namespace orx {
namespace {

TEST(GuidStore, TakesNoKeyThatIsNone)
{
    static const struct {
        std::string guid;
        int bUsable;
    } cases[] = {
        {"{6F9619FF-8B86-D011-B42D-00CF4FC964FF}", 1},
        {"a b;c", 1},
        {std::string(kMaxGuid, 'x'), 1},
        {std::string(kMaxGuid + 1, 'x'), 0},
        {"", 0},
        {"MaxRegisterId", 0},
        {"a=b", 0},
        {"[GUID]", 0},
        {"a]", 0},
        {";a", 0},
        {"a\nMaxRegisterId", 0},
        {"a\rb", 0},
        {"a\tb", 0},
        {"\x7f", 0},
        {"\xff", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.bUsable, GuidIsUsable(c.guid.c_str())) << c.guid;
}

TEST(GuidStore, AddsToWhatIsThere)
{
    static const struct {
        const char *szOld, *szNew;
    } cases[] = {
        {"", "[GUID]\ng=cam5\nMaxRegisterId=6\n"},
        {"[GUID]\nMaxRegisterId=5\na=cam1\n", "[GUID]\ng=cam5\nMaxRegisterId=6\na=cam1\n"},
        {"[A]\nx=%%1\n[GUID]\r\na=cam1\r\nMaxRegisterId=5\r\n[B]\ny=2\n",
         "[A]\nx=%%1\n[GUID]\r\na=cam1\r\ng=cam5\nMaxRegisterId=6\r\n[B]\ny=2\n"},
        {"[GUID]\n[B]\n", "[GUID]\ng=cam5\nMaxRegisterId=6\n[B]\n"},
        {"[A]\nx=1", "[A]\nx=1\n[GUID]\ng=cam5\nMaxRegisterId=6\n"},
    };
    TempDir dir;
    std::string path = dir.File("guid.dat");
    for (const auto &c : cases) {
        WriteFile(path, c.szOld);
        EXPECT_EQ(1, GuidStoreAdd(path.c_str(), "g", "cam5", 6)) << c.szOld;
        EXPECT_EQ(c.szNew, ReadFile(path));
        char name[16];
        EXPECT_EQ(1, GuidStoreFind(path.c_str(), "g", name, sizeof(name)));
        EXPECT_STREQ("cam5", name);
        EXPECT_EQ(6, read_profile_int("GUID", "MaxRegisterId", 0, path.c_str()));
        EXPECT_EQ(0, GuidStoreFind(path.c_str(), "h", name, sizeof(name)));
    }
    EXPECT_NE(0, access(dir.File("guid.dat.new").c_str(), F_OK)) << "nothing is left beside it";
}

// The file is never half written: it is another file afterwards, and the old one is whole.
TEST(GuidStore, ReplacesTheFile)
{
    TempDir dir;
    std::string path = dir.File("guid.dat"), old = dir.File("old");
    ASSERT_EQ(1, GuidStoreAdd(path.c_str(), "a", "cam1", 2)) << "no file before";
    ASSERT_EQ(0, link(path.c_str(), old.c_str()));
    ASSERT_EQ(1, GuidStoreAdd(path.c_str(), "b", "cam2", 3));
    EXPECT_EQ("[GUID]\na=cam1\nMaxRegisterId=2\n", ReadFile(old));
    EXPECT_EQ("[GUID]\na=cam1\nb=cam2\nMaxRegisterId=3\n", ReadFile(path));
}

TEST(GuidStore, KeepsWhatItCannotReplace)
{
    TempDir dir;
    std::string path = dir.File("guid.dat");
    EXPECT_EQ(0, GuidStoreAdd(dir.File("none/guid.dat").c_str(), "a", "cam1", 2));
    std::string full = "[GUID]\nMaxRegisterId=1000\n;" + std::string(kProfileTextSize - 40, 'x') + "\n";
    WriteFile(path, full);
    EXPECT_EQ(0, GuidStoreAdd(path.c_str(), "agoodlongone", "cam1000", 1001)) << "would not be read again";
    EXPECT_EQ(full, ReadFile(path));
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, mkdir(path.c_str(), 0700)) << "something that cannot be read";
    EXPECT_EQ(0, GuidStoreAdd(path.c_str(), "a", "cam1", 2));
}

}  // namespace
}  // namespace orx
