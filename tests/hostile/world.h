// What strangers must not hurt: the server with a camera that pushes, 20 players, and a recording; and what is
// looked at while they try and when they have gone. Main thread.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "client/rtspclient.h"
#include "hostile/line.h"
#include "system/orxprocess.h"

namespace orx {

// A configuration: the shipped one with a few keys changed.
struct Scene {
    const char *szName;
    struct Change {
        const char *szSection, *szLines;
    };
    std::vector<Change> changes;
    bool bAccounts = false;  // admin/secret and ann/annpw are asked for
};
const std::vector<Scene> &Scenes();

struct World {
    explicit World(const Scene &scene);

    // Each returns whether all is well; what is not is in `failure`, the first only.
    bool Start();    // the server, camera, players and recording
    bool Settle();   // the server answers, so that it has seen what was sent before
    bool Check();    // between two attacks, from time to time: everybody is there, the server holds little
    bool Recover();  // after the attackers have left: it holds what it held after Start
    bool Finish();   // nobody lost anything; the server ends in order
    bool Hold(bool bOk, const std::string &what);

    std::string User() const { return bAccounts ? "admin:secret@" : ""; }
    std::string Describe() const;  // figures in a line

    OrxProcess server;
    Listener web{server.nSparePort + 1};  // the web server behind the web port
    Ports ports{server.nPort, server.nSparePort};
    std::string recordings = server.dir.File("bin/rec");
    std::string failure;
    long nFirstKb = 0, nHighestKb = 0;  // resident memory: after the first Recover, and the most
    int nSlowestMs = 0;                 // the longest that an answer took

private:
    bool bAccounts;
    std::unique_ptr<ToolProcess> camera, streams, datagrams;
    RtspClient control;  // the box's own: it began the recording and asks from time to time
    OrxStat atStart, now;
    int nFdsAtStart = 0, nFds = 0;
    unsigned nChecks = 0;
    unsigned nRecent = 0, nBefore = 0;  // lines opened until the last window of time began, and the one before
    uint64_t nWindowUs = 0;
    void LookForReports();  // of sanitizers
    bool HoldsWhatItHeld();
    bool RecordingIsWhole();
};

}  // namespace orx
