#include "runtime/portmgr.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "base/eventlog.h"

namespace orx {

static constexpr int kBitsPerWord = 32;
static constexpr int kWordsPerLine = 4;  // of the dump

static std::atomic<int> g_bDebug{0};  // written at start-up, read by any thread

static void DumpForDebug(const PortMgr *pPortMgr)
{
    if (g_bDebug)
        PortMgrDump(pPortMgr);
}

int PortMgrInit(PortMgr *pPortMgr, int nStartPort, int nEndPort)
{
    if (!pPortMgr)
        return 0;
    pPortMgr->nStartPort = static_cast<uint16_t>(nStartPort & ~1);
    pPortMgr->nEndPort = static_cast<uint16_t>(nEndPort & ~1);
    int nPairs = (pPortMgr->nEndPort - pPortMgr->nStartPort) / 2;
    if (nPairs < 0)
        nPairs = 0;
    pPortMgr->nWords = static_cast<uint16_t>(nPairs / kBitsPerWord + 1);
    size_t nBytes = pPortMgr->nWords * sizeof(uint32_t);
    pPortMgr->m_ports = static_cast<uint32_t *>(malloc(nBytes));
    ORX_ASSERT(pPortMgr->m_ports != nullptr, "pPortMgr->m_ports != ((void *)0)");
    // the last word is filled whole, so pairs past the range are offered too
    memset(pPortMgr->m_ports, 0xFF, nBytes);
    return 1;
}

void PortMgrFree(PortMgr *pPortMgr)
{
    if (!pPortMgr)
        return;
    free(pPortMgr->m_ports);
    pPortMgr->m_ports = nullptr;
}

int PortMgrAlloc(PortMgr *pPortMgr)
{
    if (!pPortMgr->m_ports)
        return 0;
    for (int nWord = 0; nWord < pPortMgr->nWords; nWord++) {
        uint32_t *pWord = &pPortMgr->m_ports[nWord];
        if (*pWord == 0)
            continue;
        int nBit = __builtin_ctz(*pWord);
        *pWord &= *pWord - 1;
        // cut to 16 bits a port may come out as 0: that pair stays out of use
        auto nPort = static_cast<uint16_t>(pPortMgr->nStartPort + 2 * (kBitsPerWord * nWord + nBit));
        if (nPort == 0)
            continue;
        DumpForDebug(pPortMgr);
        return nPort;
    }
    print("FULL! PortManager can not allocate new pair port!\r\n");
    EventSayBounded(EventLevel::Warn, "ports.used_up", {EventNumber("first", pPortMgr->nStartPort)});
    return 0;
}

void PortMgrRelease(PortMgr *pPortMgr, int nPort)
{
    if (!pPortMgr->m_ports || nPort < pPortMgr->nStartPort || nPort > pPortMgr->nEndPort || nPort % 2 != 0)
        return;
    int nPair = (nPort - pPortMgr->nStartPort) / 2;
    pPortMgr->m_ports[nPair / kBitsPerWord] |= 1U << nPair % kBitsPerWord;
    DumpForDebug(pPortMgr);
}

void PortMgrDump(const PortMgr *pPortMgr)
{
    for (int nWord = 0; pPortMgr->m_ports && nWord < pPortMgr->nWords; nWord++) {
        print("%05d=[%x]\t", nWord, pPortMgr->m_ports[nWord]);
        if (nWord % kWordsPerLine == kWordsPerLine - 1)
            print("\r\n");
    }
    print("\r\n");
}

void PortMgrSetDebug(int bDebug)
{
    g_bDebug = bDebug;
}

}  // namespace orx
