// What the service manager hears.
#include <csignal>
#include <sys/ptrace.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "system/systemtest.h"

using namespace orx;

using testing::HasSubstr;

// The manager's end of the socket.
struct NotifyTest : SystemTest {
    Sock manager{socket(AF_UNIX, SOCK_DGRAM, 0)};

    void Listen(std::string name, const char *szWatchdogUs)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        setenv("WATCHDOG_USEC", szWatchdogUs, 1);
        if (name[0] == '@')
            name[0] = '\0';
        name.copy(address.sun_path, sizeof(address.sun_path));
        auto nLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        ASSERT_EQ(0, bind(manager.fd, reinterpret_cast<sockaddr *>(&address), nLength));
    }
    std::string Hear(int nMs = 30000) const
    {
        pollfd in{manager.fd, POLLIN, 0};
        char text[256];
        ssize_t n = poll(&in, 1, nMs) > 0 ? read(manager.fd, text, sizeof(text)) : 0;
        return {text, static_cast<size_t>(n)};
    }
    void TearDown() override
    {
        for (const char *szName : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            unsetenv(szName);
        SystemTest::TearDown();
    }
};

TEST_F(NotifyTest, TellsAManagerOfStartReadingAndStop)
{
    Listen(server.dir.File("notify"), "");
    server.Set("LOG", "Level=info");
    server.Start();
    EXPECT_EQ("READY=1", Hear());
    server.Signal(SIGHUP);
    EXPECT_THAT(Hear(), HasSubstr("RELOADING=1\nMONOTONIC_USEC="));
    EXPECT_EQ("READY=1", Hear());
    server.Signal(SIGTERM);
    EXPECT_EQ("STOPPING=1", Hear());
    EXPECT_EQ(0, server.WaitExit());
}

TEST_F(NotifyTest, LivesAsLongAsTheSchedulerAnswers)
{
    Listen("@orx-notify-" + std::to_string(getpid()), "400000");
    server.Start();
    EXPECT_EQ("READY=1", Hear());
    for (int i = 0; i < 3; i++)
        EXPECT_EQ("WATCHDOG=1", Hear());
    server.Signal(SIGTERM);
    while (server.WaitExit(10) < 0)
        ;
    setenv("WATCHDOG_PID", "1", 1);  // somebody else's
    while (!Hear(0).empty())
        ;
    server.Start();
    EXPECT_EQ("READY=1", Hear());
    EXPECT_EQ("", Hear(600));
}

TEST_F(NotifyTest, SaysNothingMoreOnceTheSchedulerHangs)
{
    Listen("@orx-notify-" + std::to_string(getpid()), "400000");
    server.Start();
    ASSERT_TRUE(server.WaitOutput("SchedulerEntry(tid=0x"));
    auto nThread = static_cast<pid_t>(
        strtol(server.Output().c_str() + server.Output().find("SchedulerEntry(tid=0x") + 21, nullptr, 16));
    if (ptrace(PTRACE_SEIZE, nThread, 0, 0) != 0 || ptrace(PTRACE_INTERRUPT, nThread, 0, 0) != 0)
        GTEST_SKIP() << "no thread may be held here";
    ASSERT_EQ(nThread, waitpid(nThread, nullptr, __WALL));
    while (!Hear(0).empty())
        ;
    Hear(300);  // one whose answer had come before
    EXPECT_EQ("", Hear(600));
    ASSERT_EQ(0, ptrace(PTRACE_DETACH, nThread, 0, 0));
    EXPECT_EQ("WATCHDOG=1", Hear());
}
