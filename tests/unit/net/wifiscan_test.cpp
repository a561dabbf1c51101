#include "net/wifiscan.h"

#include <cstdlib>

#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/files.h"

namespace orx {
namespace {

using testing::HasSubstr;

struct FreeBytes {
    void operator()(char *p) const { free(p); }
};
using Owned = std::unique_ptr<char, FreeBytes>;

const std::string kIndent(20, ' ');
const std::string kRsn =
    kIndent + "IE: IEEE 802.11i/WPA2 Version 1\n" + kIndent + "    Group Cipher : CCMP\n";
const std::string kWpa = kIndent + "IE: WPA Version 1\n" + kIndent + "    Group Cipher : TKIP\n";

// A network as the tool prints it. essid is all that stands behind "ESSID:".
std::string Cell(const std::string &essid, const std::string &quality, const std::string &key,
                 const std::string &rest = "", const std::string &mac = "00:1A:2B:3C:4D:5E")
{
    return "          Cell 01 - Address: " + mac + "\n" + kIndent + "Channel:6\n" + kIndent +
           "Frequency:2.437 GHz (Channel 6)\n" + kIndent + "Quality=" + quality + "\n" + kIndent +
           "Encryption key:" + key + "\n" + kIndent + "ESSID:" + essid + "\n" + kIndent +
           "Bit Rates:1 Mb/s; 2 Mb/s; 5.5 Mb/s\n" + rest;
}
const char kTitle[] = "wlan0     Scan completed :\n";
const char kSignal[] = "70/70  Signal level=-31 dBm  ";

std::string Reduce(const std::string &raw)
{
    size_t nLength = 0;
    // a block of its very size, so that the address sanitizer sees a step past its end
    std::vector<char> bytes(raw.begin(), raw.end());
    Owned list(WifiReduce(bytes.data(), bytes.size(), &nLength));
    EXPECT_EQ('\0', list.get()[nLength]);
    return {list.get(), nLength};
}

TEST(WifiReduce, Networks)
{
    const std::string mac = " [00:1A:2B:3C:4D:5E] ";
    const struct {
        const char *szWhat;
        std::string raw, line;  // the line without the list's end
    } cases[] = {
        {"none found", "wlan0     No scan results\n\n", ""},
        {"open", Cell("\"cafe\"", kSignal, "off"), "cafe" + mac + "70/70 OPEN\n"},
        {"WEP", Cell("\"cafe\"", kSignal, "on"), "cafe" + mac + "70/70 WEP\n"},
        {"WPA", Cell("\"cafe\"", kSignal, "on", kWpa), "cafe" + mac + "70/70 WPA\n"},
        {"WPA2", Cell("\"cafe\"", kSignal, "on", kRsn), "cafe" + mac + "70/70 WPA/WPA2\n"},
        {"both", Cell("\"cafe\"", kSignal, "on", kRsn + kWpa), "cafe" + mac + "70/70 WPA/WPA2\n"},
        {"a key", Cell("\"cafe\"", kSignal, "1234-5678 [1]"), "cafe" + mac + "70/70 1234-5678 [1]\n"},
        {"quality of 9", Cell("\"c\"", "5/100  Signal", "on"), "c" + mac + "5/100 WEP\n"},
        {"quality of 11", Cell("\"c\"", "100/100  Signal", "on"), "c" + mac + "100/100 WEP\n"},
        {"quality alone", Cell("\"c\"", "70/70", "on"), "c" + mac + "70/70WEP\n"},
        {"hidden by no name", Cell("\"\"", kSignal, "on"), mac + "70/70 WEP\n"},
        {"hidden by a word", Cell("off/any/hidden", kSignal, "on"), mac + "70/70 WEP\n"},
        {"nothing of the first", "Address: 00:11\nAddress: 00:22\n", " [00:11] \n [00:22] \n"},
        {"before the first address", "ESSID:\"x\"\nkey:on\nQuality=1\n" + Cell("\"c\"", kSignal, "on"),
         "c" + mac + "70/70 WEP\n"},
        {"several", Cell("\"c\"", kSignal, "on", kRsn) + Cell("\"d\"", kSignal, "off"),
         "c" + mac + "70/70 WPA/WPA2\nd" + mac + "70/70 OPEN\n"},
        {"a NUL ends a line", Cell(std::string("\"c\"\0d", 5), kSignal, "on"), "c" + mac + "70/70 WEP\n"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.line + "\r\n\r\n", Reduce(kTitle + c.raw)) << c.szWhat;
}

TEST(WifiReduce, NamesThatStrangersChoose)
{
    // what a line of 127 characters has room for behind its indentation, the mark and the quote
    const size_t nFits = 127 - kIndent.size() - strlen("ESSID:\"");
    const struct {
        std::string name, kept;
    } cases[] = {
        {"say \"hi\"", "say \"hi\""},
        {"100%s%n%d\\x0A", "100%s%n%d\\x0A"},
        {"caf\xC3\xA9 \xE2\x98\x95", "caf\xC3\xA9 \xE2\x98\x95"},
        {"$(reboot); `x` ' > /etc/passwd", "$(reboot); `x` ' > /etc/passwd"},
        {"Quality=0/70   Encryption key:off", "Quality=0/70   Encryption key:off"},
        {std::string(nFits - 1, 'n'), std::string(nFits - 1, 'n')},
        {std::string(nFits, 'n'), std::string(nFits - 1, 'n')},  // the quote is no longer there to be dropped
        {std::string(nFits, 'n') + "key:off", std::string(nFits - 1, 'n')},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.kept + " [00:1A:2B:3C:4D:5E] 70/70 WPA/WPA2\n\r\n\r\n",
                  Reduce(kTitle + Cell("\"" + c.name + "\"", kSignal, "on", kRsn)))
            << c.name;
}

// The stand-in for the scanning tool, first in PATH, prints the file "text" after what it is given to do.
struct WifiScanTest : testing::Test {
    TempDir dir;
    std::string path = getenv("PATH");

    void SetUp() override
    {
        ASSERT_EQ(0, setenv("PATH", (dir.path + ":" + path).c_str(), 1));
        WriteFile(dir.File("text"), kTitle + Cell("\"cafe\"", kSignal, "on", kRsn));
        Tool("");
    }
    void TearDown() override { setenv("PATH", path.c_str(), 1); }

    void Tool(const std::string &before, const std::string &after = "")
    {
        WriteFile(dir.File("iwlist"),
                  "#!/bin/sh\ncd '" + dir.path + "'\n" + before + "\ncat - text\n" + after + "\n");
        chmod(dir.File("iwlist").c_str(), 0755);
    }
    // The list, or "<none>" and what was printed.
    std::string Scan(const char *szInterface = "wlan0")
    {
        size_t nLength = 0;
        testing::internal::CaptureStdout();
        Owned list(WifiScanIn(dir.path.c_str(), szInterface, &nLength));
        std::string printed = testing::internal::GetCapturedStdout();
        return list ? std::string(list.get(), nLength) : "<none>" + printed;
    }
};

const std::string kLine = "cafe [00:1A:2B:3C:4D:5E] 70/70 WPA/WPA2\n";

TEST_F(WifiScanTest, TheInterfaceIsOneArgument)
{
    Tool("for word in \"$@\"; do echo \"<$word>\"; done > args");
    for (const char *szName : {"wlan0", "", "wlan0; touch shell", "$(touch shell)`touch shell`",
                               "a b\n'\"%s&", "wlan0 scan > shell #"}) {
        EXPECT_EQ(kLine + "\r\n\r\n", Scan(szName)) << szName;
        EXPECT_EQ("<" + std::string(szName) + ">\n<scan>\n", ReadFile(dir.File("args")));
    }
    EXPECT_NE(0, access(dir.File("shell").c_str(), F_OK));
}

TEST_F(WifiScanTest, TheToolFails)
{
    const std::string told = "<none>cmd=iwlist wlan0 scan > " + dir.path + "/wifi.txt failed!\n";
    Tool("", "exit 1");
    EXPECT_EQ(told, Scan());
    Tool("", "kill -9 $$");
    EXPECT_EQ(told, Scan());
    EXPECT_EQ(ReadFile(dir.File("text")), ReadFile(dir.File("wifi.txt")));  // for who wants to know why

    EXPECT_EQ("<none>cmd=iwlist %n%s scan > " + dir.path + "/wifi.txt failed!\n", Scan("%n%s"));
    chmod(dir.File("iwlist").c_str(), 0644);
    ASSERT_EQ(0, setenv("PATH", dir.path.c_str(), 1));  // there is none that could be run
    EXPECT_EQ(told, Scan());
}

TEST_F(WifiScanTest, FilesThatCannotBeOpened)
{
    mkdir(dir.File("wifilist.txt").c_str(), 0755);
    EXPECT_EQ("<none>Could NOT open file " + dir.path + "/wifilist.txt!\n", Scan());
    rmdir(dir.File("wifilist.txt").c_str());
    Tool("rm wifi.txt");
    EXPECT_EQ("<none>Could NOT open file " + dir.path + "/wifi.txt!\n", Scan());

    // a link that somebody laid where the files are to be
    Tool("");
    WriteFile(dir.File("precious"), "precious");
    ASSERT_EQ(0, symlink("precious", dir.File("wifi.txt").c_str()));
    EXPECT_THAT(Scan(), HasSubstr("/wifi.txt failed!\n"));
    unlink(dir.File("wifi.txt").c_str());
    ASSERT_EQ(0, symlink("precious", dir.File("wifilist.txt").c_str()));
    EXPECT_EQ("<none>Could NOT open file " + dir.path + "/wifilist.txt!\n", Scan());
    EXPECT_EQ("precious", ReadFile(dir.File("precious")));
}

// The tool neither holds our sockets open nor takes the commands typed at our console.
TEST_F(WifiScanTest, TheToolInheritsNothing)
{
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    ASSERT_EQ(6, write(fds[1], "quit\r\n", 6));
    int nStdin = dup(STDIN_FILENO);
    ASSERT_EQ(STDIN_FILENO, dup2(fds[0], STDIN_FILENO));
    ASSERT_EQ(100, dup2(fds[1], 100));  // left open by whoever made it
    Tool("[ ! -e /proc/$$/fd/100 ] || echo leaked > leak");
    EXPECT_EQ(kLine + "\r\n\r\n", Scan());
    char typed[6] = "";
    EXPECT_EQ(6, read(fds[0], typed, sizeof(typed)));
    EXPECT_EQ("", ReadFile(dir.File("leak")));
    dup2(nStdin, STDIN_FILENO);
    for (int fd : {fds[0], fds[1], nStdin, 100})
        close(fd);
}

}  // namespace
}  // namespace orx
