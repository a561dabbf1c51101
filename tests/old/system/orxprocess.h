// The real program under test: a process with a directory, a configuration and ports of its own.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "client/rtspclient.h"
#include "support/files.h"
#include "support/wait.h"

namespace orx {

// Whether server and tests run under a sanitizer, which takes memory and time of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// 1024 ports that no other test has at the same time.
struct PortBlock {
    int nFirst = 0;       // the last one is taken
    int fdReserved = -1;  // keeps the block; -1 when all are taken
    PortBlock();
    ~PortBlock();
    PortBlock(const PortBlock &) = delete;
    PortBlock &operator=(const PortBlock &) = delete;
};

// What the console answers to "stat".
struct OrxStat {
    struct Line {
        std::string program, remote, start;
        int bPusher;
    };
    unsigned nTasks = 0, nLives = 0, nClients = 0, nMonitors = 0;
    std::vector<Line> sessions;
};

struct OrxProcess {
    OrxProcess();
    ~OrxProcess();
    OrxProcess(const OrxProcess &) = delete;
    OrxProcess &operator=(const OrxProcess &) = delete;

    // One value of the configuration, before Start. Tests start from open access, standard pushers off, peer
    // faults fatal.
    void Set(const std::string &section, const std::string &key, const std::string &value)
    {
        settings[{section, key}] = value;
    }
    // A variable of the program's environment, before Start.
    void SetEnvironment(const std::string &name, const std::string &value) { environment[name] = value; }

    // Writes the configuration and starts the program; Start also waits until it listens. The output begins
    // anew. A failure is a test failure.
    void Launch(bool bDaemon = false);
    void Start(bool bDaemon = false);
    // As Launch, with any arguments.
    void LaunchWith(const std::vector<std::string> &arguments);
    // Writes a line, or bytes as they are, to its console; ends its standard input.
    void Type(const std::string &line) { TypeBytes(line + "\n"); }
    void TypeBytes(const std::string &bytes);
    void EndInput();
    void Signal(int nSignal) const;
    // Waits for its end. Returns the exit status, 256 + n when signal n ended it, -1 when the time is over.
    int WaitExit(int nMs = 10000);
    // Stops it by "quit". Returns as WaitExit.
    int Quit();

    std::string Url(const std::string &path) const;
    // What it has printed so far, on both outputs.
    const std::string &Output() const;
    // Waits until the output, from a place in it on, holds a text, nTimes times.
    bool WaitOutput(const std::string &text, int nTimes = 1, int nMs = 10000, size_t nFrom = 0) const;
    // Asks the console. A failure is a test failure.
    OrxStat Stat();
    int Descriptors() const;  // open ones
    long ResidentKb() const;  // resident memory
    std::string ConfigPath() const { return dir.File("cfg/orx.cfg"); }
    std::string LogPath() const { return dir.File("log/orx.log"); }

    TempDir dir;         // bin/orx, cfg/orx.cfg, log/, output
    int nPort = 0;       // of RTSP
    int nSparePort = 0;  // this one and the next seven are free for what a test needs
    int nUdpStart = 0;   // first port of its media range
    pid_t pid = -1;      // -1: not running

private:
    std::map<std::pair<std::string, std::string>, std::string> settings;
    std::map<std::string, std::string> environment;
    int fdInput = -1;
    PortBlock ports;
    mutable std::string text;  // the output that was read so far

    void WriteConfig();
};

// A fixture around one process. Unless the test ends it, it is stopped by "quit" and must exit with 0; a
// sanitizer's report fails the test, and a failed test shows the output.
struct SystemTest : testing::Test {
    OrxProcess server;
    void TearDown() override;
};

// How many times a text occurs in another.
int CountText(const std::string &in, const std::string &text);

// A reply with what differs from run to run replaced: a well-formed date by "DATE", a session by "SESSION".
std::string Normalized(const std::string &reply);

// Sends a text as it is and waits for a reply to it. Returns the reply normalized, "" when none came.
std::string Exchange(RtspClient *pClient, const std::string &request);

// A request with a CSeq; szHeaders: further lines, each ended by CRLF.
std::string MakeRequest(const std::string &method, const std::string &url, int nCSeq,
                        const std::string &headers = "", const std::string &body = "");

// The lines that replies share.
inline const std::string kServerLine = "Server: Orx/2.3.1.2\r\n";
inline const std::string kNoCache = "Pragma: no-cache\r\nCache-Control: no-cache\r\n";
// "RTSP/1.0 <status>", Server, CSeq, the cache lines.
std::string StatusReply(const std::string &status, int nCSeq);

// Descriptions and packets of a camera: track 0 video (H.264, type 96), track 1 audio (PCMU, type 0), track 2
// data (type 98); as many as wanted.
std::string CameraSdp(int nTracks = 1);
// One RTP packet of such a track.
std::string CameraPacket(int nTrack, uint16_t nSequence, uint32_t nTime, const std::string &payload,
                         bool bMarker = false);
// Sends nCount pictures of two packets each (SPS, IDR slice) on track 0, 40 ms apart from nFirst on.
void SendPictures(RtspClient *pPusher, int nFirst, int nCount);

}  // namespace orx
