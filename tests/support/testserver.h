// The server inside a test, without a listening socket unless it is given an address, and a way onto its
// thread. For tests that look into sessions and programs or move clocks; what a client can see is tested on
// the real program.
#pragma once

#include <functional>
#include <string>

#include "server/front/server.h"
#include "support/files.h"
#include "support/testcore.h"

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

    void Run(const std::function<void()> &work) { RunOnScheduler(work); }
};

}  // namespace orx
