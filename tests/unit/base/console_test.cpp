#include "base/console.h"

#include <algorithm>
#include <csignal>
#include <string>
#include <tuple>

#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/files.h"

namespace orx {

// A pipe, and the terminal of somebody who has gone to lunch.
TEST(Print, AReaderWhoDoesNotReadHoldsUpNobody)
{
    static const std::pair<int, bool> cases[] = {{STDOUT_FILENO, false}, {STDOUT_FILENO, true}, {STDERR_FILENO, false}};
    for (const auto &[fdStream, bTerminal] : cases) {
        int fds[2], nSavedFd = dup(fdStream);
        auto say = [fd = fdStream](const std::string &text) {
            fd == STDOUT_FILENO ? print("%s", text.c_str()) : ConsoleError(text.data(), text.size());
        };
        termios raw{};
        cfmakeraw(&raw);
        ASSERT_EQ(0, bTerminal ? openpty(&fds[0], &fds[1], nullptr, &raw, nullptr) : pipe(fds));
        dup2(fds[1], fdStream);
        ConsoleUnblock(1);
        close(fds[1]);
        auto arrived = [&, bWait = bTerminal] {
            std::string all;
            char buf[4096];
            pollfd in{fds[0], POLLIN, 0};
            while (poll(&in, 1, bWait ? 100 : 0) == 1) {  // what a terminal shows takes a moment
                ssize_t n = read(fds[0], buf, sizeof(buf));
                all.append(buf, n > 0 ? size_t(n) : 0);
                ConsoleFlush(0);
            }
            return all;
        };
        const std::string text(2000, 'x');
        for (int i = 0; i < 100; i++)  // more than the pipe holds, and what is kept for it
            say(text + "\n");
        const std::string all = arrived();
        unsigned nLost = 0;
        size_t nRead = all.find('(');
        ASSERT_NE(std::string::npos, nRead) << bTerminal;
        EXPECT_EQ(1, sscanf(all.c_str() + nRead, "(%u messages that nobody read are lost)\r\n", &nLost));
        EXPECT_EQ(100, nRead / (text.size() + 1) + nLost) << nRead;
        EXPECT_GT(nRead, 65536U);
        say(text + " 100%s\n");
        EXPECT_EQ(text + " 100%s\n", arrived());
        close(fds[0]);  // and a handler that prints, too, does not make it worse
        auto pfnBefore = signal(SIGPIPE, [](int) { ConsoleWriteRaw("Catch: SIGPIPE\r\n", 16); });
        say("nobody hears this\r\n");
        signal(SIGPIPE, pfnBefore);
        dup2(nSavedFd, fdStream);
        ConsoleUnblock(0);
        close(nSavedFd);
    }
}

// The oldest 51200 bytes go, and on to the next line, which may begin right there or far behind.
TEST(Log, TrimsPastTheLimit)
{
    TempDir dir;
    std::string path = dir.File("orx.log");
    LogSetup(path.c_str(), 1);
    static const std::tuple<size_t, size_t, size_t> cases[] = {
        {204800, 100, 0}, {204801, 51198, 60002}, {204801, 51199, 60002}, {300000, 51200, 51202}};
    for (const auto &[nBytes, nLineEnd, nDropped] : cases) {
        std::string text(nBytes, '\0');
        text.replace(nLineEnd, 2, "\r\n");
        text.replace(60000, 2, "\r\n");
        WriteFile(path, text);
        log("new %s", "%n%s");
        std::string after = ReadFile(path), kept = text.substr(nDropped);
        EXPECT_TRUE(after.starts_with(kept)) << nBytes;
        EXPECT_TRUE(after.ends_with(": new %n%s\r\n")) << nBytes;
        EXPECT_LT(after.size(), kept.size() + 40) << nBytes;
    }
    LogSetup("", 0);
}

static int g_nCalls = 0;

// The order is kept, and what there was no room for is told in its place.
TEST(Log, WaitsInMemoryWhileItIsDiverted)
{
    TempDir dir;
    std::string path = dir.File("orx.log");
    LogSetup(path.c_str(), 1);
    LogDivert([] { g_nCalls++; });
    const std::string text(900, 'x');
    for (int i = 0; i < 400; i++)
        log("line %d %s", i, text.c_str());
    EXPECT_EQ(1, g_nCalls) << "once until all is written";
    EXPECT_EQ("", ReadFile(path));
    EXPECT_EQ(0, LogWriteSome());
    log("behind the gap");
    while (!LogWriteSome()) {
    }
    log("a second call");
    EXPECT_EQ(2, g_nCalls);
    LogDivert(nullptr);
    log("after");
    std::string all = ReadFile(path);  // of which the oldest has gone
    int nLost = 0;
    sscanf(all.c_str() + std::min(all.size(), all.find(": (")), ": (%d lines that waited for the disk are lost)",
           &nLost);
    EXPECT_GT((400 - nLost) * 900, 200000);
    EXPECT_LT((400 - nLost) * 900, 262144);
    const std::string ends[] = {
        "line 200 ", "line " + std::to_string(399 - nLost) + " ", "(", "behind the gap", "a second call", "after"};
    size_t nAt = 0;
    for (const std::string &end : ends) {
        nAt = all.find(": " + end, nAt);
        ASSERT_NE(std::string::npos, nAt) << end;
    }
    LogSetup("", 0);
}

}  // namespace orx
