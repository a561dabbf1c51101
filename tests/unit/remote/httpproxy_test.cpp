#include "remote/httpproxy.h"

#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/clock.h"
#include "runtime/descriptors.h"
#include "support/sockets.h"

namespace orx {

const char kTunnelGet[] = "GET /live HTTP/1.0\r\nx-sessioncookie: abc\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n";

static int g_bFast = 0;  // for the rigs that follow

// With a thread for each relay, and with one for all.
struct HttpProxyTest : testing::TestWithParam<int> {
    void SetUp() override { g_bFast = GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(Relays, HttpProxyTest, testing::Values(0, 1),
                         [](const auto &info) { return info.param ? "Fast" : "Slow"; });

// The proxy under test in front of a web server that the test plays, and what it hands over.
struct ProxyRig {
    Listener web;
    HttpProxy proxy;
    int nPort = Listener().nPort;  // that nobody listens on just now
    std::mutex mutex;
    std::vector<std::pair<Sock, std::string>> handed;

    explicit ProxyRig(unsigned nMaxRelays = 0, int nSilentMs = 60000)
    {
        HttpProxySettings settings{"127.0.0.1", nPort, "127.0.0.1", web.nPort, nMaxRelays, nSilentMs,
                                   HandOver,    this,  0,           {},        g_bFast};
        EXPECT_EQ(1, HttpProxyStart(&proxy, &settings));
    }
    ~ProxyRig() { HttpProxyStop(&proxy); }

    static int HandOver(void *pContext, int fd, const void *pData, size_t nLen, const HttpFronted *)
    {
        auto *pRig = static_cast<ProxyRig *>(pContext);
        std::lock_guard<std::mutex> lock(pRig->mutex);
        pRig->handed.emplace_back(Sock(fd), std::string(static_cast<const char *>(pData), nLen));
        return 1;
    }
    size_t Handed()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return handed.size();
    }
    Sock Ask(const std::string &request, int nHost = 1) const
    {
        Sock client = Connect(nPort, nHost);
        EXPECT_TRUE(client.Send(request));
        return client;
    }
    // Returns once the proxy has accepted and judged a connection made now, hence every earlier one, too.
    void Settle()
    {
        size_t nBefore = Handed();
        Sock marker = Ask(kTunnelGet);
        ASSERT_TRUE(WaitFor([&] { return Handed() > nBefore; }));
    }
};

TEST_P(HttpProxyTest, TellsTunnelsFromPagesByTheFirst4095Bytes)
{
    const std::string mark = "application/x-rtsp-tunnelled";
    const size_t nFits = 4095 - mark.size();
    const std::pair<std::string, bool> cases[] = {
        // whether it is a tunnel
        {kTunnelGet, true},
        {"POST /x HTTP/1.0\r\nContent-Type: " + mark + "\r\n\r\nREVTQ1JJQkU=", true},
        {std::string("\0\xff\0", 3) + mark, true},
        {std::string(nFits, 'a') + mark + "tail", true},
        {std::string(nFits + 1, 'a') + mark, false},  // the mark is cut
        {"GET / HTTP/1.0\r\nAccept: Application/X-RTSP-Tunnelled\r\n\r\n", false},
        {"G", false},
    };
    ProxyRig rig;
    for (const auto &[request, bTunnel] : cases) {
        SCOPED_TRACE(request.substr(0, 80));
        size_t nBefore = rig.Handed();
        Sock client = rig.Ask(request);
        if (bTunnel) {
            ASSERT_TRUE(WaitFor([&] { return rig.Handed() > nBefore; }));
            EXPECT_EQ(request.substr(0, 4095), rig.handed.back().second);
        } else {
            EXPECT_EQ(request, rig.web.Accept().Read(request.size()));
            EXPECT_EQ(nBefore, rig.Handed());
        }
    }
}

TEST_P(HttpProxyTest, SilentConnectionGoesAfterThreeSeconds)
{
    ProxyRig rig;
    Sock silent = Connect(rig.nPort);
    rig.Settle();
    EXPECT_TRUE(silent.StillOpen());
    ClockSetOffset(3000);
    EXPECT_TRUE(silent.Closed(20000));
    ClockSetOffset(0);
    EXPECT_FALSE(rig.web.sock.Readable(0)) << "it was never relayed";
}

TEST_P(HttpProxyTest, PendingListIsFullAt128AndTheOldestGoes)
{
    ProxyRig rig;
    std::vector<Sock> silent;
    for (unsigned i = 0; i <= kHttpPendingMax; i++)
        silent.push_back(Connect(rig.nPort));
    EXPECT_TRUE(silent[0].Closed(20000));
    EXPECT_TRUE(silent[1].StillOpen());
    EXPECT_TRUE(silent.back().StillOpen());
}

TEST_P(HttpProxyTest, CarriesLargeFilesBothWays)
{
    ProxyRig rig;
    const int nBefore = OpenDescriptors();
    const std::string up = "POST /" + Pattern(300000, 1), down = Pattern(300000, 2);
    Sock client = Connect(rig.nPort);
    std::thread sender([&] { client.Send(up); });
    Sock page = rig.web.Accept();
    std::thread server([&] { page.Send(down); });
    EXPECT_TRUE(up == page.Read(up.size()));
    EXPECT_TRUE(down == client.Read(down.size()));
    sender.join();
    server.join();
    page.Close();
    EXPECT_TRUE(client.Closed(20000));
    client.Close();
    EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() <= nBefore; })) << "nothing of them stays";
}

// Who asks meanwhile is neither answered nor closed; the proxy stops at once with all of them.
TEST_P(HttpProxyTest, OutlivesAWebServerThatIsDown)
{
    ProxyRig rig;
    rig.web.sock.Close();
    std::vector<Sock> waiting;
    for (int i = 0; i < 20; i++)
        waiting.push_back(rig.Ask("GET /"));
    rig.Settle();
    Listener again(rig.web.nPort);
    Sock client = rig.Ask("GET /new");
    Sock page = again.Accept();
    EXPECT_EQ("GET /new", page.Read(8));
    for (const Sock &sock : waiting)
        EXPECT_TRUE(sock.StillOpen());
    auto start = std::chrono::steady_clock::now();
    HttpProxyStop(&rig.proxy);
    EXPECT_LT(ElapsedMs(start), 1000);
}

// Either side may end its direction first: the rest of the other one still comes.
TEST(FastRelays, OutliveTheEndOfOneDirection)
{
    g_bFast = 1;
    ProxyRig rig;
    const int nBefore = OpenDescriptors();
    const std::string down = Pattern(3000000, 1);
    Sock client = rig.Ask("GET /half"), page = rig.web.Accept();
    EXPECT_EQ("GET /half", page.Read(9));
    shutdown(client.fd, SHUT_WR);
    EXPECT_TRUE(page.Closed(20000)) << "the end of the request is told";
    std::thread server([&] { page.Send(down); });
    EXPECT_TRUE(down == client.Read(down.size()));
    server.join();
    page.Close();
    EXPECT_TRUE(client.Closed(20000));
    Sock uploads = rig.Ask("POST /x"), answered = rig.web.Accept();
    EXPECT_EQ("POST /x", answered.Read(7));
    shutdown(answered.fd, SHUT_WR);
    EXPECT_TRUE(uploads.Closed(20000));
    EXPECT_TRUE(uploads.Send("more"));
    EXPECT_EQ("more", answered.Read(4));
    for (Sock *pSock : {&client, &page, &uploads, &answered})
        pSock->Close();
    EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() <= nBefore; })) << "nothing of them stays";
}

// A web server may refuse an upload and close; the client is told all the same.
TEST(FastRelays, TellTheAnswerToAnUploadThatIsRefused)
{
    g_bFast = 1;
    ProxyRig rig;
    const std::string up = Pattern(3000000, 1), refusal = "HTTP/1.1 413 No\r\nConnection: close\r\n\r\n";
    Sock client = rig.Ask("POST /"), page = rig.web.Accept();
    std::thread sender([&] { client.Send(up); });
    EXPECT_EQ("POST /", page.Read(6));
    EXPECT_TRUE(page.Send(refusal));
    page.Close();
    sender.join();
    EXPECT_EQ(refusal, client.Read(refusal.size()));
    EXPECT_TRUE(client.Closed(20000));
}

// One that does not read stops its sender soon, and nobody else; what it was sent is all there in the end.
TEST(FastRelays, HoldLittleForWhoDoesNotRead)
{
    g_bFast = 1;
    ProxyRig rig;
    Sock stalled = rig.Ask("GET /big"), page = rig.web.Accept();
    const std::string piece = Pattern(65536, 3), rest = Pattern(5000000, 2);
    size_t nTaken = 0;
    EXPECT_EQ("GET /big", page.Read(8));
    pollfd set{page.fd, POLLOUT, 0};
    for (ssize_t n = 1; n > 0 && nTaken < 64000000; nTaken += static_cast<size_t>(n > 0 ? n : 0)) {
        n = send(page.fd, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && poll(&set, 1, 500) > 0)
            n = send(page.fd, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    EXPECT_LT(nTaken, 32000000U) << "what the kernel takes, and one read";
    Sock other = rig.Ask("GET /other"), quick = rig.web.Accept();
    EXPECT_EQ("GET /other", quick.Read(10));
    std::thread server([&] { quick.Send(rest); });
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(rest == other.Read(rest.size()));
    EXPECT_LT(ElapsedMs(start), 5000) << "the other kind takes 12 s for it";
    server.join();
    page.Close();
    EXPECT_EQ(nTaken, stalled.Read(nTaken + 1).size());
}

const std::string kBusy = "HTTP/1.0 503 Service Unavailable\r\n", kDown = "HTTP/1.0 502 Bad Gateway\r\n";

TEST_P(HttpProxyTest, RefusesWhatIsBeyondItsLimits)
{
    ProxyRig rig(8);
    std::vector<Sock> waiting;
    auto add = [&](int nHost) { waiting.push_back(rig.Ask("GET /", nHost)); };
    auto isRefused = [&] { return waiting.back().Read(kBusy.size()) == kBusy; };
    for (int nHost : {1, 1, 2, 2, 3, 3, 4})
        add(nHost);
    std::vector<Sock> pages(7);
    for (Sock &page : pages)
        page = rig.web.Accept();
    add(2);
    EXPECT_TRUE(isRefused()) << "a third one from one address";
    add(4);
    pages.push_back(rig.web.Accept());
    add(5);
    EXPECT_TRUE(isRefused()) << "a ninth one";
    pages.clear();
    for (int i = 0; i < 7; i++)
        EXPECT_TRUE(waiting[static_cast<size_t>(i)].Closed(20000));
    Sock again;
    EXPECT_TRUE(WaitFor([&] {
        again = rig.Ask("GET /", 5);
        return rig.web.Accept(100).fd >= 0;
    })) << "room once others have gone";
}

TEST_P(HttpProxyTest, EndsASilentRelayAndTellsOfAWebServerThatIsDown)
{
    ProxyRig rig(64, 100);
    Sock silent = rig.Ask("GET /");
    Sock page = rig.web.Accept();
    EXPECT_EQ("GET /", page.Read(5));
    EXPECT_TRUE(silent.Closed(20000));
    rig.web.sock.Close();
    std::string answer = rig.Ask("GET /").Read(1000);
    EXPECT_EQ(kDown, answer.substr(0, kDown.size()));
    EXPECT_EQ("\r\n\r\nThe web server does not answer.\r\n", answer.substr(answer.find("\r\n\r\n")));
}

// The threads of this process and how often each has run so far.
static std::map<std::string, uint64_t> Wakes()
{
    std::map<std::string, uint64_t> wakes;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);)
            if (line.find("voluntary_ctxt_switches:") != std::string::npos)
                wakes[task.path().filename()] += std::stoull(line.substr(line.find(':') + 1));
    }
    return wakes;
}

TEST_P(HttpProxyTest, SleepsWhileNothingHappens)
{
    std::thread([] {}).join();    // with the first one a sanitizer begins a thread of its own
    const auto others = Wakes();  // that, and this one
    ProxyRig rig;
    Sock client = rig.Ask("GET /");
    Sock page = rig.web.Accept();
    EXPECT_EQ("GET /", page.Read(5));
    EXPECT_TRUE(WaitFor([&] {
        auto before = Wakes();
        poll(nullptr, 0, 500);
        auto after = Wakes();
        for (const auto &other : others)
            after[other.first] = before[other.first];
        return before == after;
    }));
    EXPECT_TRUE(page.Send("hello"));
    EXPECT_EQ("hello", client.Read(5));
}

TEST_P(HttpProxyTest, LeavesDescriptorsForOthers)
{
    ProxyRig rig;
    rlimit before{}, few{};
    getrlimit(RLIMIT_NOFILE, &before);
    few = before;
    few.rlim_cur = static_cast<rlim_t>(OpenDescriptors() + kDescriptorsKept + 20);
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<Sock> clients, pages;
    std::string answer;
    while (answer.empty() && clients.size() < 20) {
        clients.push_back(rig.Ask("GET /"));
        if (WaitFor([&] { return clients.back().Readable(0) || rig.web.sock.Readable(0); }) && rig.web.sock.Readable(0))
            pages.push_back(rig.web.Accept());
        else
            answer = clients.back().Read(kBusy.size());
    }
    EXPECT_EQ(kBusy, answer);
    EXPECT_GE(DescriptorsLeft(), kDescriptorsKept - 2) << "client and page are of this process, too";
    setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace orx
