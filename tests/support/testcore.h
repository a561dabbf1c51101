// The registry and its threads inside a test, for what works on sessions and programs without a server around
// them; and a way onto the thread that owns them.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "base/assertion.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/session.h"
#include "server/core/settings.h"
#include "support/files.h"
#include "support/sockets.h"

namespace orx {

// Runs something on the scheduler thread, which owns all sessions and programs, and waits for its end.
inline void RunOnScheduler(const std::function<void()> &work)
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

struct TestCore {
    TempDir dir;
    PortMgr ports;

    // settings: further keys of [SERVER], then further sections.
    explicit TestCore(const std::string &settings = "")
    {
        WriteFile(dir.File("orx.cfg"), "[SERVER]\n" + settings + "[GUARD]\nRunUnprivileged=1\nSurvivePeerFaults=1\n");
        SettingsRead(&g_settings, dir.File("orx.cfg").c_str());
        AssertSurvivePeerFaults(1);
        ThreadAllowNoPriority(1);
        RegistryInit(OnFreePort);
        g_server.pPortMgr = &ports;
        PortMgrInit(&ports, g_settings.nUdpStartPort, g_settings.nUdpEndPort);
        SchedulerCreate(&g_server.scheduler);
        SchedulerSetAfterProc(&g_server.scheduler, FreeRetiredSlice);
        MonitorCreate(
            &g_server.monitor, [](void *, int, uint32_t, uint32_t) {}, nullptr);
    }
    ~TestCore()
    {
        ThreadJoin(&g_server.monitor.thread);
        SchedulerDestroy(&g_server.scheduler);
        SessionEndAll();
        ProgramEndAll();
        AvlDestroy(&g_server.portMap);
        AvlDestroy(&g_server.programMap);
        FreeRetired();
        MonitorDestroy(&g_server.monitor);
        PortMgrFree(&ports);
        SettingsFree(&g_settings);
        AssertSurvivePeerFaults(0);
    }
    TestCore(const TestCore &) = delete;
    TestCore &operator=(const TestCore &) = delete;
};

// The two ends of a TCP connection over the loopback; -1 when it cannot be made. The peer's address is one
// that nobody else uses, so that what the server sends to ports there reaches nobody.
struct TcpPair {
    int fdServer = -1;  // for CreateTcpPort, which takes it over
    int fdPeer = -1;    // owned
    TcpPair()
    {
        Listener listener;
        sockaddr_in own = Loopback(0), to = Loopback(listener.nPort);
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 0x630000);  // 127.99.0.1
        fdPeer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(fdPeer, reinterpret_cast<sockaddr *>(&own), sizeof(own)) == 0 &&
            connect(fdPeer, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0)
            fdServer = accept4(listener.sock.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        linger reset{1, 0};  // thousands of these leave nothing behind
        setsockopt(fdServer, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
    ~TcpPair() { close(fdPeer); }
    TcpPair(const TcpPair &) = delete;
    TcpPair &operator=(const TcpPair &) = delete;
};

}  // namespace orx
