// UDP port pairs: hands out even/odd local port pairs from one range, lowest first.
// No locking inside: scheduler thread only.
#pragma once

#include <cstdint>

namespace orx {

struct PortMgr {
    uint32_t *m_ports = nullptr;  // one bit per pair, set = free; owned, from malloc
    uint16_t nStartPort = 0;      // first port of the range, even
    uint16_t nEndPort = 0;        // end of the range, even
    uint16_t nWords = 0;          // words in m_ports
};

// Readies the manager for pairs from nStartPort to nEndPort, both rounded down to even.
// Returns 1, or 0 for a null record. Undo with PortMgrFree.
int PortMgrInit(PortMgr *pPortMgr, int nStartPort, int nEndPort);
// Frees the bitmap; accepts null.
void PortMgrFree(PortMgr *pPortMgr);
// Takes the lowest free pair. Returns its even port, or 0 when none is free (printed).
int PortMgrAlloc(PortMgr *pPortMgr);
// Gives a pair back by its even port. Odd ports and ports outside the range as given are ignored, although
// pairs beyond its end are handed out.
void PortMgrRelease(PortMgr *pPortMgr, int nPort);
// Prints the bitmap.
void PortMgrDump(const PortMgr *pPortMgr);
// With 1, every allocation and release is followed by a dump.
void PortMgrSetDebug(int bDebug);

}  // namespace orx
