// The server inside the test, so that its clocks can be moved.
#pragma once

#include <string>

#include "record/storage.h"
#include "runtime/clock.h"
#include "runtime/diskthread.h"
#include "support/testserver.h"
#include "system/orxprocess.h"

namespace orx {

struct LocalServer {
    PortBlock ports;
    TestServer server;

    // settings: further keys of [SERVER], then further sections. A pusher may be silent for nLiveTime
    // seconds, by default longer than clocks are moved in one step.
    explicit LocalServer(const std::string &settings, int nLiveTime = 120)
        : server("LiveTime=" + std::to_string(nLiveTime) + "\nListenPort=" + std::to_string(ports.nFirst) +
                     "\nUdpStartPort=" + std::to_string(ports.nFirst + 16) +
                     "\nUdpEndPort=" + std::to_string(ports.nFirst + 500) + "\n" + settings,
                 "127.0.0.1")
    {
    }
    ~LocalServer()
    {
        server.Stop();
        ClockSetOffset(0);
        RecordTimeSetOffset(0);
    }
    LocalServer(const LocalServer &) = delete;
    LocalServer &operator=(const LocalServer &) = delete;

    std::string Url(const std::string &path) const { return "rtsp://127.0.0.1:" + std::to_string(ports.nFirst) + path; }
    // Moves the clock of all that is due some time to nMs after the start, and wakes the scheduler. What it is at
    // comes first, or it might take the new time for the one at which it comes again.
    void MoveClock(uint64_t nMs)
    {
        server.Run([] {});
        ClockSetOffset(nMs);
        server.Run([] {});
    }
    // Moves the wall clock of recordings, once all that was sent is written.
    void MoveWallClock(int64_t nSeconds)
    {
        server.Run([] {});
        EXPECT_EQ(0U, DiskAwait(60000));
        RecordTimeSetOffset(nSeconds);
    }
};

}  // namespace orx
