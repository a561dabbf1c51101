// The server inside a test, without a listening socket unless it is given an address, and a way onto its
// thread. For tests that look into sessions and programs or move clocks; what a client can see is tested on
// the real program.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "server/server.h"
#include "server/session.h"
#include "support/files.h"

namespace orx {

struct TestServer {
    TempDir dir;
    int bRunning = 0;

    // settings: further keys of [SERVER], then further sections.
    explicit TestServer(const std::string &settings = "", const std::string &listenIp = "none")
    {
        WriteFile(dir.File("orx.cfg"), "[SERVER]\nAuthType=0\nListenIp=" + listenIp + "\n" + settings +
                                           "[GUARD]\nRunUnprivileged=1\nSurvivePeerFaults=1\n");
        bRunning = ServerStart(dir.File("orx.cfg").c_str());
    }
    ~TestServer() { Stop(); }
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;
    void Stop()
    {
        if (bRunning)
            ServerStop();
        bRunning = 0;
    }

    // Runs something on the scheduler thread, which owns all sessions and programs, and waits for its end.
    void Run(const std::function<void()> &work)
    {
        struct Job {
            const std::function<void()> *pWork;
            std::mutex mutex;
            std::condition_variable ended;
            bool bEnded = false;
        } job;
        job.pWork = &work;
        auto run = [](Task *pTask, uint32_t, uint32_t, uint32_t) {
            auto *pJob = static_cast<Job *>(TaskArgument(pTask));
            (*pJob->pWork)();
            std::lock_guard<std::mutex> lock(pJob->mutex);
            pJob->bEnded = true;
            pJob->ended.notify_one();
            return -1;
        };
        TaskSchedule(&g_server.scheduler, run, 0, 0, &job);
        std::unique_lock<std::mutex> lock(job.mutex);
        job.ended.wait(lock, [&] { return job.bEnded; });
    }
};

// The two ends of a TCP connection over the loopback; -1 when it cannot be made. The peer's address is one
// that nobody else uses, so that what the server sends to ports there reaches nobody.
struct TcpPair {
    int fdServer = -1;  // for CreateTcpPort, which takes it over
    int fdPeer = -1;    // owned
    TcpPair()
    {
        sockaddr_in addr{}, peer{};
        addr.sin_family = peer.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 0x630000);  // 127.99.0.1
        socklen_t nSize = sizeof(addr);
        auto *pAddr = reinterpret_cast<sockaddr *>(&addr);
        int fdListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        fdPeer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(fdListen, pAddr, nSize) == 0 && listen(fdListen, 1) == 0 &&
            getsockname(fdListen, pAddr, &nSize) == 0 &&
            bind(fdPeer, reinterpret_cast<sockaddr *>(&peer), nSize) == 0 &&
            connect(fdPeer, pAddr, nSize) == 0)
            fdServer = accept4(fdListen, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        close(fdListen);
        linger reset{1, 0};  // thousands of these leave nothing behind
        setsockopt(fdServer, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
    ~TcpPair() { close(fdPeer); }
    TcpPair(const TcpPair &) = delete;
    TcpPair &operator=(const TcpPair &) = delete;
};

}  // namespace orx
