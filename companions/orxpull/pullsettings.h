// What orxpull is told: the section [PULL] of the server's configuration, and what it has to know of the
// server's own. Main thread, before the loop runs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "shared/rtspplay.h"

namespace orx {

constexpr int kMostSources = 1000;

struct PullSource {
    std::string url;      // of the camera, with its credentials
    std::string program;  // the path in Orx, without its first slash
    PlayOver over = PlayOver::Tcp;
    int bOnDemand = 0;  // the camera's session ends while nobody watches
    int bAudio = 1;
};

struct PullSettings {
    std::string serverIp = "127.0.0.1";  // where Orx listens, without brackets
    int nServerPort = 554;
    int nLiveTime = 10;          // seconds of silence that Orx allows a pusher
    int bStandardPushers = 0;    // Orx takes any clock rate and up to eight tracks
    size_t nMostFrame = 16383;   // bytes that fit its receive buffer, with the four in front of a packet
    int nHoldSeconds = 60;       // for how long a push outlives its camera
    std::string user, password;  // towards Orx
    std::string pinFile;         // of the certificates of cameras, beside the configuration
    std::vector<PullSource> sources;
};

// What is wrong, a line each: "FILE:LINE: [PULL] KEY what it should be". A URL or password is never in it.
using PullDoubts = std::vector<std::string>;

// Reads a configuration. A source that is wrong is left out and said; other values that are wrong are said
// and the default is taken. Returns 1, or 0 where the file cannot be read (said as well).
int PullSettingsRead(const std::string &path, PullSettings *pOut, PullDoubts *pDoubts);

// The path of the configuration that is meant: a name without a slash lies in cfg/ of the installation.
std::string PullConfigPath(const std::string &name);

int PullOverRead(const std::string &text, PlayOver *pOut);        // "tcp", "udp", "http": 1 or 0
int PullUrlIsGood(const std::string &url);                        // rtsp:// or rtsps:// and a host
int PullProgramRead(const std::string &text, std::string *pOut);  // 1, or 0 for what is no name of a program

}  // namespace orx
