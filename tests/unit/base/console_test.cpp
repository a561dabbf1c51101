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
    int nSavedFd = dup(STDOUT_FILENO);

    StdoutPipe()
    {
        int fds[2];
        EXPECT_EQ(0, pipe(fds));
        nReadFd = fds[0];
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
    print("fd=0x%x %s", 0x1f, "100%s");
    EXPECT_EQ("fd=0x1f 100%s", out.Arrived());
    std::string longer(3000, 'x');
    print("%s\n", longer.c_str());
    EXPECT_EQ(longer + "\n", out.Arrived());
    ConsoleWriteRaw("Catch\r\nxx", 7);
    EXPECT_EQ("Catch\r\n", out.Arrived());
}

TEST(Print, APipeThatNobodyEmptiesHoldsUpNobody)
{
    StdoutPipe out;
    std::string text(1000, 'x');
    for (int i = 0; i < 200; i++)  // more than the pipe holds
        print("%s\n", text.c_str());
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

TEST_F(LogTest, AnotherDayGetsAnotherHeader)
{
    setenv("TZ", "XXX-14", 1);  // the two zones never share a date
    tzset();
    log("east %s", "%n%s");
    log("east");
    setenv("TZ", "XXX12", 1);
    tzset();
    log("west");
    unsetenv("TZ");
    tzset();
    const std::string day = "\r\n\\d{4}-\\d\\d-\\d\\d\r\n", time = "\\d\\d:\\d\\d:\\d\\d: ";
    std::regex form(day + time + "east %n%s\r\n" + time + "east\r\n" + day + time + "west\r\n");
    EXPECT_TRUE(std::regex_match(ReadFile(path), form)) << ReadFile(path);
}

// The oldest 51200 bytes go, and on to the next line, which may begin right there or far behind.
TEST_F(LogTest, TrimsPastTheLimit)
{
    static const struct {
        size_t nBytes, nLineEnd, nDropped;
    } cases[] = {
        {204800, 100, 0},
        {204801, 51198, 60002},
        {204801, 51199, 60002},
        {300000, 51200, 51202},
    };
    for (const auto &c : cases) {
        std::string text(c.nBytes, '\0');
        text.replace(c.nLineEnd, 2, "\r\n");
        text.replace(60000, 2, "\r\n");
        WriteFile(path, text);
        log("new");
        std::string after = ReadFile(path), kept = text.substr(c.nDropped);
        EXPECT_TRUE(after.starts_with(kept)) << c.nBytes;
        EXPECT_TRUE(after.ends_with(": new\r\n")) << c.nBytes;
        EXPECT_LT(after.size(), kept.size() + 40) << c.nBytes;
    }
}

}  // namespace
}  // namespace orx
