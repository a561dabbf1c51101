#include "net/wifiscan.h"

#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "support/files.h"
#include "support/wait.h"

namespace orx {

const char kRsn[] = "IE: IEEE 802.11i/WPA2 Version 1\n";
const char kWpa[] = "IE: WPA Version 1\n";
const char kTitle[] = "wlan0     Scan completed :\n";
const char kSignal[] = "70/70  Signal level=-31 dBm  ";

// A network as the tool prints it. essid is all that stands behind "ESSID:".
static std::string Cell(const std::string &essid, const std::string &quality, const std::string &key,
                        const std::string &rest = "")
{
    return "          Cell 01 - Address: 00:1A\n    Channel:6\n    Quality=" + quality + "\n    Encryption key:" + key +
           "\n    ESSID:" + essid + "\n    Bit Rates:1 Mb/s\n    " + rest;
}

// A list, or "<none>"; it is freed.
static std::string Taken(char *pList, size_t nLength)
{
    std::string list = pList ? std::string(pList, nLength) : "<none>";
    EXPECT_TRUE(!pList || pList[nLength] == '\0');
    free(pList);
    return list;
}

TEST(WifiReduce, OneLineForANetwork)
{
    // what a line of 127 characters has room for behind its indentation, the mark and the quote
    const size_t nFits = 127 - strlen("    ESSID:\"");
    const std::pair<std::string, std::string> cases[] = {
        {Cell("\"cafe\"", kSignal, "off"), "cafe [00:1A] 70/70 OPEN\n"},
        {Cell("\"cafe\"", kSignal, "on"), "cafe [00:1A] 70/70 WEP\n"},
        {Cell("\"cafe\"", kSignal, "on", kWpa), "cafe [00:1A] 70/70 WPA\n"},
        {Cell("\"cafe\"", kSignal, "on", std::string(kRsn) + kWpa), "cafe [00:1A] 70/70 WPA/WPA2\n"},
        {Cell("\"cafe\"", kSignal, "1234-5678 [1]"), "cafe [00:1A] 70/70 1234-5678 [1]\n"},
        {Cell("\"c\"", "70/70", "on"), "c [00:1A] 70/70WEP\n"},
        {Cell("\"\"", kSignal, "on"), " [00:1A] 70/70 WEP\n"},
        {Cell("off/any/hidden", kSignal, "on"), " [00:1A] 70/70 WEP\n"},
        {Cell("\"c\"", kSignal, "on", kRsn) + Cell("\"d\"", kSignal, "off"),
         "c [00:1A] 70/70 WPA/WPA2\nd [00:1A] 70/70 OPEN\n"},
        {"Address: 00:11\nAddress: 00:22\n", " [00:11] \n [00:22] \n"},
        {"ESSID:\"x\"\nkey:on\nQuality=1\n" + Cell("\"c\"", kSignal, "on"), "c [00:1A] 70/70 WEP\n"},
        {Cell(std::string("\"c\"\0d", 5), kSignal, "on"), "c [00:1A] 70/70 WEP\n"},
        // names that strangers choose
        {Cell("\"say \"hi\" 100%s%n\\x0A\"", kSignal, "on"), "say \"hi\" 100%s%n\\x0A [00:1A] 70/70 WEP\n"},
        {Cell("\"Quality=0/70   Encryption key:off\"", kSignal, "on"),
         "Quality=0/70   Encryption key:off [00:1A] 70/70 WEP\n"},
        {Cell("\"" + std::string(nFits, 'n') + "key:off\"", kSignal, "on"),
         std::string(nFits - 1, 'n') + " [00:1A] 70/70 WEP\n"},
    };
    for (const auto &[raw, lines] : cases) {
        const std::string text = kTitle + raw;
        std::vector<char> bytes(text.begin(), text.end());  // of its very size, for the address sanitizer
        size_t nLength = 0;
        char *pList = WifiReduce(bytes.data(), bytes.size(), &nLength);
        EXPECT_EQ(lines + "\r\n\r\n", Taken(pList, nLength)) << raw;
    }
}

// The stand-in for the scanning tool, first in PATH, prints the file "text" after what it is given to do.
struct WifiScanTest : testing::Test {
    TempDir dir;
    std::string path = getenv("PATH");

    void SetUp() override
    {
        setenv("PATH", (dir.path + ":" + path).c_str(), 1);
        WriteFile(dir.File("text"), kTitle + Cell("\"cafe\"", kSignal, "on"));
    }
    void TearDown() override { setenv("PATH", path.c_str(), 1); }

    void Tool(const std::string &before)
    {
        WriteFile(dir.File("iwlist"), "#!/bin/sh\ncd '" + dir.path + "'\n" + before + "\ncat - text\n");
        std::filesystem::permissions(dir.File("iwlist"), std::filesystem::perms::owner_all);
    }
    std::string Scan(const char *szInterface = "wlan0", uint32_t nLimitMs = 10000) const
    {
        size_t nLength = 0;
        WifiScanPlace place{dir.path.c_str(), nLimitMs};
        char *pList = WifiScanIn(&place, szInterface, &nLength, nullptr);
        return Taken(pList, nLength);
    }
};

const char kList[] = "cafe [00:1A] 70/70 WEP\n\r\n\r\n";

TEST_F(WifiScanTest, TheInterfaceIsOneArgument)
{
    Tool("for word in \"$@\"; do echo \"<$word>\"; done > args");
    for (const char *szName : {"", "wlan0; touch shell", "$(touch shell)`touch shell`", "a b\n'\"%s& > shell #"}) {
        EXPECT_EQ(kList, Scan(szName)) << szName;
        EXPECT_EQ("<" + std::string(szName) + ">\n<scan>\n", ReadFile(dir.File("args")));
    }
    EXPECT_FALSE(std::filesystem::exists(dir.File("shell")));
}

// What somebody laid where the files are to be gives way to them; a directory does not.
TEST_F(WifiScanTest, OpensNothingThatIsThere)
{
    Tool("");
    WriteFile(dir.File("precious"), "precious");
    for (const std::string &path : {dir.File("wifi.txt"), dir.File("wifilist.txt")}) {
        std::filesystem::remove(path);
        std::filesystem::create_symlink("precious", path);
        EXPECT_EQ(kList, Scan());
        std::filesystem::remove(path);
        std::filesystem::create_hard_link(dir.File("precious"), path);
        EXPECT_EQ(kList, Scan());
        std::filesystem::remove(path);
        ASSERT_EQ(0, mkfifo(path.c_str(), 0666));
        EXPECT_EQ(kList, Scan());
        std::filesystem::remove(path);
        std::filesystem::create_directory(path);
        EXPECT_EQ("<none>", Scan());
        std::filesystem::remove(path);
    }
    EXPECT_EQ("precious", ReadFile(dir.File("precious")));
}

// With what it has started.
TEST_F(WifiScanTest, EndsAToolThatHangs)
{
    Tool("(read x < /dev/zero; touch late) & echo $! > child; wait");
    EXPECT_EQ("<none>", Scan("wlan0", 100));
    EXPECT_TRUE(WaitFor([&] { return kill(std::stoi(ReadFile(dir.File("child"))), 0) != 0; }));
}

}  // namespace orx
