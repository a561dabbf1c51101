// Who comes to the box in the course of a day, and how they leave. One thread; what happens is decided by dice alone.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hostile/dice.h"
#include "soak/box.h"
#include "system/mediakit.h"
#include "system/orxprocess.h"

namespace orx {

// Somebody who is connected.
struct Guest {
    explicit Guest(RtspTransport nTransport) : viewer(nTransport) {}
    Viewer viewer;
    const char *szScene = nullptr;  // by which it came
    int nCamera = -1;               // of which pictures are expected; -1: of none
    bool bReads = true;             // or it is as good as dead
    bool bMayStay = true;           // overnight, and is sent away for its silence
    Sock raw;                       // of those who are no players
};

struct Town {
    explicit Town(uint32_t nSeed) : dice(nSeed) {}
    Dice dice;
    bool bPatient = false;  // there is time for what takes minutes
    TempDir place;          // recordings, the status socket, what the server prints
    std::string recordings = place.File("rec"), socketPath = place.File("s.sock");
    Box box;
    PortBlock ports;                     // the web port and that of the relay
    Listener web;                        // the web server behind the web port
    std::unique_ptr<ToolProcess> relay;  // runs today
    std::vector<std::unique_ptr<Camera>> cameras;
    std::deque<std::unique_ptr<Guest>> guests;
    std::map<std::string, int> counts;  // what happened how often
    std::vector<std::string> faults;
    std::string printed;  // by the server, when the first of them was found
    std::string today;    // who came, for messages; minutes end with ';'

    bool Hold(bool bOk, const std::string &what);
    bool Start(uint32_t nBeforeWrapMs);
    void Day();  // from the first camera until all have gone, and the night
    // Waits until nobody is there any more and the box holds no more than `most`, while time goes by.
    void Settle(const BoxFigures &most);
    std::string CameraPath(size_t nCamera) const { return "/cam" + std::to_string(nCamera); }
    std::vector<std::string> Recordings() const;  // that are complete
    // A camera of that number, instead of the one before; and a minute of all.
    void OpenCamera(size_t nCamera);
    void Minute();

private:
    void ExpectServed();
    void Evening();
};

}  // namespace orx
