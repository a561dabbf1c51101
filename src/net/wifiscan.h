// The wireless networks that the box can see: runs the system's scanning tool and reduces what it prints to
// one line per network.
//
//     NAME [ADDRESS] QUALITY ENCRYPTION
//
// Both the tool's text (wifi.txt) and the list (wifilist.txt) stay in the working directory until the next
// scan, which makes them anew: what anybody put there instead, a link, a pipe or a file of another user, is
// removed or refused, but never opened. One scan at a time, as they share these files; it takes as long as
// the tool does, which is seconds.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/thread.h"

namespace orx {

// Scans on one interface; the files are kept in /mnt/ramdisk0 where there is one, else in /tmp. Returns the
// list followed by "\r\n\r\n" and its length, that tail included; a NUL, not counted, stands behind it. The
// caller frees it with free. Returns null, and says on the console why, when the tool fails, takes longer
// than 10 s or is still at work when pThread (null: none) is asked to stop, or a file cannot be made.
char *WifiScan(const char *szInterface, size_t *pnLength, const Thread *pThread);

struct WifiScanPlace {
    const char *szDir = nullptr;  // where the files go
    uint32_t nLimitMs = 10000;    // a tool that takes longer is killed
};
// The same in another place.
char *WifiScanIn(const WifiScanPlace *pPlace, const char *szInterface, size_t *pnLength,
                 const Thread *pThread);

// Reduces nRaw bytes of the tool's text to the list. Result as WifiScan; null only without memory.
char *WifiReduce(const char *pRaw, size_t nRaw, size_t *pnLength);

}  // namespace orx
