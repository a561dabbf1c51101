// The certificates of peers, as they were when each was first met: lines "host:port sha256=HEX" of a file
// that only its owner may read. Whoever runs the program takes a line out when a camera has a new one. The
// loop's thread; waits for the disk.
#pragma once

#include <string>

namespace orx {

enum class PinState {
    Same,     // as it was
    New,      // met for the first time, and written down
    Changed,  // not the one that is written down
    Failed,   // the file cannot be read or written; *pWhy says why
};

// Compares hexPrint (lower case) with what the file has for a peer, "host:port".
PinState PinCheck(const std::string &file, const std::string &peer, const std::string &hexPrint,
                  std::string *pWhy);

}  // namespace orx
