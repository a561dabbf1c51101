#include "base/console.h"

#include <csignal>
#include <cstdlib>
#include <ctime>

#include <regex>
#include <string>
#include <utility>

#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/files.h"

namespace orx {
namespace {

// Standard output as a pipe for as long as it lives.
struct StdoutPipe {
    int nReadFd = -1;
    int nSavedFd = -1;

    StdoutPipe()
    {
        int fds[2];
        EXPECT_EQ(0, pipe(fds));
        nReadFd = fds[0];
        nSavedFd = dup(STDOUT_FILENO);
        dup2(fds[1], STDOUT_FILENO);
        close(fds[1]);
    }
    ~StdoutPipe()
    {
        dup2(nSavedFd, STDOUT_FILENO);
        close(nSavedFd);
        close(nReadFd);
    }
    StdoutPipe(const StdoutPipe &) = delete;
    StdoutPipe &operator=(const StdoutPipe &) = delete;

    // What has arrived already, without waiting.
    std::string Arrived() const
    {
        char buf[4096];
        pollfd in{nReadFd, POLLIN, 0};
        ssize_t n = poll(&in, 1, 0) == 1 ? read(nReadFd, buf, sizeof(buf)) : 0;
        return {buf, n > 0 ? size_t(n) : 0};
    }
};

TEST(Print, IsInThePipeWhenItReturns)
{
    StdoutPipe out;
    print("fd=0x%x %s\r\n", 0x1f, "100%s");
    EXPECT_EQ("fd=0x1f 100%s\r\n", out.Arrived());
    print("no line end");
    EXPECT_EQ("no line end", out.Arrived());
    ConsoleWriteRaw("Catch\r\nxx", 7);
    EXPECT_EQ("Catch\r\n", out.Arrived());
}

TEST(Print, IsSilentAsADaemon)
{
    StdoutPipe out;
    ConsoleSetDaemon(1);
    print("nobody hears this\r\n");
    ConsoleWriteRaw("nor this", 8);
    EXPECT_EQ("", out.Arrived());
    ConsoleSetDaemon(0);
    print("but this");
    EXPECT_EQ("but this", out.Arrived());
}

TEST(Print, APipeThatNobodyEmptiesHoldsUpNobody)
{
    StdoutPipe out;
    std::string text(1000, 'x');
    for (int i = 0; i < 200; i++)  // more than the pipe holds
        print("%s\n", text.c_str());
    out.Arrived();
    while (!out.Arrived().empty())
        continue;
    print("read again\n");
    EXPECT_EQ("read again\n", out.Arrived());
}

TEST(Print, ASignalHandlerThatPrintsOutlivesTheReader)
{
    auto pfnBefore = signal(SIGPIPE, [](int) { ConsoleWriteRaw("Catch: SIGPIPE\r\n", 16); });
    {
        StdoutPipe out;
        close(std::exchange(out.nReadFd, -1));
        print("nobody hears this\r\n");  // must come back
    }
    signal(SIGPIPE, pfnBefore);
}

struct LogTest : testing::Test {
    TempDir dir;
    std::string path = dir.File("orx.log");

    LogTest() { LogSetup(path.c_str(), 1); }
    ~LogTest() override { LogSetup("", 0); }
};

TEST_F(LogTest, StampsLinesUnderOneDateHeader)
{
    time_t tBefore = time(nullptr);
    log("Begin");
    log("Create session(fd=0x%x) from %s", 0x1f, "10.0.0.5:4000 %n%s");
    time_t tAfter = time(nullptr);
    char dates[2][32];
    strftime(dates[0], sizeof(dates[0]), "%Y-%m-%d", localtime(&tBefore));
    strftime(dates[1], sizeof(dates[1]), "%Y-%m-%d", localtime(&tAfter));

    std::string text = ReadFile(path);
    std::regex form(
        "\r\n(\\d{4}-\\d\\d-\\d\\d)\r\n\\d\\d:\\d\\d:\\d\\d: Begin\r\n"
        "\\d\\d:\\d\\d:\\d\\d: Create session\\(fd=0x1f\\) from 10.0.0.5:4000 %n%s\r\n");
    std::smatch match;
    if (std::string(dates[0]) == dates[1]) {  // else the test ran over midnight
        ASSERT_TRUE(std::regex_match(text, match, form)) << text;
        EXPECT_EQ(dates[0], match[1]);
    }
}

TEST_F(LogTest, AnotherDayGetsAnotherHeader)
{
    setenv("TZ", "XXX-14", 1);  // the two zones never share a date
    tzset();
    log("east");
    log("east");
    setenv("TZ", "XXX12", 1);
    tzset();
    log("west");
    unsetenv("TZ");
    tzset();
    std::string text = ReadFile(path);
    std::regex header("\r\n\\d{4}-\\d\\d-\\d\\d\r\n");
    EXPECT_EQ(2, std::distance(std::sregex_iterator(text.begin(), text.end(), header), {})) << text;
}

// 100 bytes a line, the last one longer or shorter.
std::string LinesOf(size_t nBytes)
{
    std::string text;
    for (int i = 0; text.size() + 200 <= nBytes; i++) {
        std::string line = "line " + std::to_string(i) + " ";
        text += line + std::string(98 - line.size(), '.') + "\r\n";
    }
    return text + std::string(nBytes - text.size() - 2, 'e') + "\r\n";
}

TEST_F(LogTest, TrimsPastTheLimit)
{
    static const struct {
        size_t nBytes;    // size before the line
        size_t nDropped;  // bytes lost from the front
    } cases[] = {
        {204800, 0},
        {204801, 51200 + 100},  // offset 51200 is the start of a line, and the line from there on goes, too
        {300050, 51200 + 100},
    };
    for (const auto &c : cases) {
        std::string before = LinesOf(c.nBytes);
        WriteFile(path, before);
        LogSetup(path.c_str(), 1);
        log("new");
        std::string after = ReadFile(path);
        std::string kept = before.substr(c.nDropped);
        EXPECT_TRUE(after.starts_with(kept + "\r\n2")) << c.nBytes;
        EXPECT_TRUE(after.ends_with(": new\r\n")) << c.nBytes;
        EXPECT_LT(after.size(), kept.size() + 40) << c.nBytes;
    }
}

// The rounding starts in the middle of a line, and bytes that are no text do not stop it.
TEST_F(LogTest, TrimsToTheNextLine)
{
    std::string text(204900, '\0');
    text.replace(51199, 2, "\r\n");  // the pair is split by the cut
    text.replace(60000, 6, "\r\nkept");
    WriteFile(path, text);
    log("new");
    EXPECT_TRUE(ReadFile(path).starts_with(text.substr(60002)));
}

}  // namespace
}  // namespace orx
