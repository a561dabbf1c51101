// Programs of the build as processes of their own: the server under test, which has a directory, a
// configuration and ports of its own, and the tools beside it.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/emulated.h"
#include "support/files.h"
#include "support/portblock.h"
#include "support/sockets.h"
#include "support/wait.h"

namespace orx {

// Whether server and tests run under a sanitizer, which takes memory and time of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// How many times a text occurs in another, from a place in it on.
int CountText(const std::string &in, const std::string &text, size_t nFrom = 0);

// A process with its standard input, and a file for what it prints on both outputs.
struct ChildProcess {
    ChildProcess() = default;
    ~ChildProcess() { Kill(); }
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    // Starts a program; its output begins anew. A failure is a test failure.
    void Spawn(const std::string &program, const std::vector<std::string> &arguments);
    // Writes a line, or bytes as they are, to its standard input; ends that.
    void Type(const std::string &line) { TypeBytes(line + "\n"); }
    void TypeBytes(const std::string &bytes);
    void EndInput() { input.Close(); }
    void Signal(int nSignal) const;
    void Kill();  // when it runs
    // Waits for its end. Returns the exit status, 256 + n when signal n ended it, -1 when the time is over.
    int WaitExit(int nMs = 60000);
    // What it has printed so far.
    const std::string &Output() const;
    void ForgetOutput();  // what it has printed so far, which would fill a long test's memory
    // Waits until the output, from a place in it on, holds a text, nTimes times.
    bool WaitOutput(const std::string &text, int nTimes = 1, size_t nFrom = 0) const;

    TempDir dir;
    std::vector<int> closed;  // standard streams that it starts without
    pid_t pid = -1;           // -1: not running

private:
    Sock input;
    mutable std::string output;  // what was read so far
};

// One of the project's tools.
struct ToolProcess : ChildProcess {
    ToolProcess(const std::string &name, const std::vector<std::string> &arguments);
};

// What the console answers to "stat".
struct OrxStat {
    unsigned nTasks = 0, nLives = 0, nClients = 0, nMonitors = 0;
    std::vector<std::string> sessions;  // a line each
};

// The server. It starts with open access, standard pushers off, peer faults fatal, and patience: a pusher is
// silent for as long as a busy machine takes.
struct OrxProcess : ChildProcess {
    OrxProcess();
    ~OrxProcess() { Kill(); }  // before its ports are given back

    // Lines of a section of the configuration, before it is started; of one key the last one that was set
    // counts.
    void Set(const std::string &section, const std::string &lines);
    void Set(const std::string &section, const std::string &key, const std::string &value)
    {
        Set(section, key + "=" + value);
    }
    // Writes the configuration and starts the program; Start also waits until it listens
    // and reads its console.
    void Launch(const std::vector<std::string> &arguments = {});
    void Start(const std::vector<std::string> &arguments = {});
    // Stops it by "quit". Returns as WaitExit.
    int Quit();
    // Asks the console. A failure is a test failure.
    OrxStat Stat();

    std::string Url(const std::string &path) const;
    int Descriptors() const;                                // open ones
    long ResidentKb(const char *szField = "VmRSS:") const;  // resident memory, now or ("VmHWM:") at most
    std::string ConfigPath() const { return dir.File("cfg/orx.cfg"); }
    std::string LogPath() const { return dir.File("log/orx.log"); }

    PortBlock ports;
    int nPort = ports.nFirst;           // of RTSP
    int nSparePort = ports.nFirst + 1;  // this one and the next are free for what a test needs
    int nUdpStart = ports.nFirst + 16;  // first port of its media range

private:
    std::map<std::string, std::string> settings;
};

}  // namespace orx
