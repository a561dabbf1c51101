#include "shared/link.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "camerakit.h"
#include "shared/pinfile.h"
#include "support/sockets.h"

using namespace orx;

struct LinkTest : testing::Test {
    Loop *pLoop = LoopOpen();
    Link *pLink = nullptr;
    LinkFault fault = LinkFault::None;
    std::string why, received;
    int bOpen = 0, bDrained = 0;
    ~LinkTest() override
    {
        LinkClose(pLink);
        LoopClose(pLoop);
    }
    static void OnOpen(void *pUser) { static_cast<LinkTest *>(pUser)->bOpen = 1; }
    static void OnDrained(void *pUser) { static_cast<LinkTest *>(pUser)->bDrained = 1; }
    static void OnBytes(void *pUser, const uint8_t *pData, size_t nBytes)
    {
        static_cast<LinkTest *>(pUser)->received.append(pData, pData + nBytes);
    }
    static void OnEnded(void *pUser, LinkFault nFault, const char *szWhy)
    {
        auto *pTest = static_cast<LinkTest *>(pUser);
        pTest->fault = nFault;
        pTest->why = szWhy;
        LoopStop(pTest->pLoop);
    }
    void Open(const LinkTarget &target)
    {
        static const LinkProcs kProcs = {OnOpen, OnBytes, OnDrained, OnEnded};
        pLink = LinkOpen(pLoop, &target, &kProcs, this);
    }
    void RunFor(uint64_t nMs)
    {
        LoopTimer timer{[](void *pUser) { LoopStop(static_cast<Loop *>(pUser)); }, pLoop};
        LoopSetTimer(pLoop, &timer, nMs);
        LoopRun(pLoop);
        LoopClearTimer(pLoop, &timer);
    }
    static LinkTarget Target(const char *szHost, int nPort)
    {
        LinkTarget target;
        target.host = szHost;
        target.nPort = nPort;
        target.nTimeoutMs = 300;
        return target;
    }
};

TEST_F(LinkTest, NobodyListens)
{
    Open(Target("127.0.0.1", Listener().nPort));  // closed again
    EXPECT_EQ(LinkFault::None, fault) << "never from inside of LinkOpen";
    LoopRun(pLoop);
    EXPECT_EQ(LinkFault::Refused, fault);
    EXPECT_NE(std::string::npos, why.find("127.0.0.1:"));
}

TEST_F(LinkTest, TheHandshakeIsNotAnswered)
{
    ScriptedCamera camera(pLoop, [](const RtspMessage &) { return ""; });
    LinkTarget target = Target("127.0.0.1", camera.nPort);
    target.bTls = 1;
    Open(target);
    LoopRun(pLoop);
    EXPECT_EQ(LinkFault::Tls, fault);
}

// "localhost" is ::1 first on many machines, where nothing listens here.
TEST_F(LinkTest, TriesAllAddressesAndSendsWhatWaited)
{
    ScriptedCamera camera(pLoop, [](const RtspMessage &) {
        return "bye"
               "close";
    });
    Open(Target("localhost", camera.nPort));
    EXPECT_TRUE(LinkSendText(pLink, "OPTIONS * RTSP/1.0\r\n\r\n"));
    LoopRun(pLoop);
    EXPECT_TRUE(bOpen);
    EXPECT_EQ(std::vector<std::string>{"OPTIONS *"}, camera.seen);
    EXPECT_EQ("bye", received);
    EXPECT_EQ(LinkFault::Closed, fault);
}

// A peer that reads nothing: what does not go waits up to the bound, whole or not at all, and goes once it
// reads, in order.
TEST_F(LinkTest, BoundsWhatWaitsAndSendsItInOrder)
{
    ScriptedCamera camera(pLoop, [](const RtspMessage &) { return ""; });
    LinkTarget target = Target("127.0.0.1", camera.nPort);
    target.nMostQueued = 1 << 20;
    Open(target);
    RunFor(50);
    ASSERT_TRUE(bOpen);
    int fdPeer = camera.connections.front().watch.fd;
    LoopSetWatch(pLoop, &camera.connections.front().watch, 0);
    std::string sent, got;
    for (char c = 'a';; c = c == 'z' ? 'a' : static_cast<char>(c + 1)) {
        std::string one(1000, c), other(9000, c);
        iovec pieces[] = {{one.data(), one.size()}, {other.data(), other.size()}};
        if (!LinkSend(pLink, pieces, 2))
            break;
        sent += one + other;
    }
    EXPECT_LE(LinkQueued(pLink), target.nMostQueued);
    EXPECT_GT(LinkQueued(pLink), target.nMostQueued - 10000);
    LinkFinish(std::exchange(pLink, nullptr));
    EXPECT_EQ(1, LinksLeaving());
    std::thread reader([&] {
        char bytes[65536];
        ssize_t n;
        while ((n = recv(fdPeer, bytes, sizeof bytes, 0)) > 0)
            got.append(bytes, static_cast<size_t>(n));
        shutdown(fdPeer, SHUT_WR);
    });
    EXPECT_TRUE(WaitFor([&] { return RunFor(5), LinksLeaving() == 0; }));
    reader.join();
    EXPECT_EQ(sent.size(), got.size());
    EXPECT_EQ(sent, got);
}

TEST(PinFile, TakesTheFirstAndRefusesAnother)
{
    std::filesystem::path folder = std::filesystem::temp_directory_path() / ("pins." + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    const std::string file = folder / "pins";
    std::ofstream(file) << "# mine\ncam:322 sha256=AA  \r\nno line end:1 sha256=";
    static const struct {
        const char *szPeer, *szPrint;
        PinState state;
    } cases[] = {{"cam:322", "aa", PinState::Same},    {"cam:322", "ab", PinState::Changed},
                 {"cam:32", "ab", PinState::New},      {"am:322", "cc", PinState::New},
                 {"cam:32", "ab", PinState::Same},     {"[::1]:322", "dd", PinState::New},
                 {"cam:322", "aaa", PinState::Changed}};
    std::string why;
    for (const auto &c : cases)
        EXPECT_EQ(c.state, PinCheck(file, c.szPeer, c.szPrint, &why)) << c.szPeer << c.szPrint;
    struct stat info;
    ASSERT_EQ(0, stat(file.c_str(), &info));
    EXPECT_EQ(0600U, info.st_mode & 0777);
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(folder), {}));
    EXPECT_EQ(PinState::Failed, PinCheck(folder, "cam:1", "aa", &why));
    EXPECT_EQ(PinState::Failed, PinCheck(folder / "none/pins", "cam:1", "aa", &why));
    std::filesystem::remove_all(folder);
}
