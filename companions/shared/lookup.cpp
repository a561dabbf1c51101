#include "shared/lookup.h"

#include <netdb.h>
#include <pthread.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <set>

namespace orx {

constexpr size_t kStackBytes = 256 << 10;  // getaddrinfo needs some tens of kB

struct Lookup {
    Loop *pLoop;
    std::string host;
    int nPort;
    void (*pfnDone)(void *pUser, const LookupResult *pResult);
    void *pUser;
    LookupResult result;
    int bDropped = 0;  // under the lock
    int bPosted = 0;   // under the lock; the loop frees it then
};

// All that are under way. The lock also makes sure that no thread posts to a loop whose users have gone.
static std::mutex g_lock;
static std::set<Lookup *> g_lookups;

static void Free(Lookup *pLookup)
{
    {
        std::lock_guard guard(g_lock);
        g_lookups.erase(pLookup);
    }
    delete pLookup;
}

static void OnPosted(void *pContext)
{
    auto *pLookup = static_cast<Lookup *>(pContext);
    if (!pLookup->bDropped)
        pLookup->pfnDone(pLookup->pUser, &pLookup->result);
    Free(pLookup);
}

static void TakeAddresses(const addrinfo *pFound, LookupResult *pOut)
{
    for (; pFound; pFound = pFound->ai_next) {
        if (pFound->ai_addrlen > sizeof(NetAddr))
            continue;
        NetAddr addr;
        memcpy(static_cast<void *>(&addr), pFound->ai_addr, pFound->ai_addrlen);
        pOut->addresses.push_back(addr);
    }
}

static void Resolve(Lookup *pLookup, int nFlags)
{
    addrinfo wanted{}, *pFound = nullptr;
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = nFlags | AI_NUMERICSERV;
    int nError = getaddrinfo(pLookup->host.c_str(), std::to_string(pLookup->nPort).c_str(), &wanted, &pFound);
    if (nError == 0)
        TakeAddresses(pFound, &pLookup->result);
    else
        pLookup->result.why = gai_strerror(nError);
    if (pFound)
        freeaddrinfo(pFound);
}

static void *LookupThread(void *pContext)
{
    auto *pLookup = static_cast<Lookup *>(pContext);
    Resolve(pLookup, AI_ADDRCONFIG);
    if (pLookup->result.addresses.empty())  // a host without any address but loopback's knows names as well
        Resolve(pLookup, 0);
    {
        std::lock_guard guard(g_lock);
        if (!pLookup->bDropped) {
            pLookup->bPosted = 1;
            LoopPost(pLookup->pLoop, OnPosted, pLookup);
            return nullptr;
        }
    }
    Free(pLookup);
    return nullptr;
}

static int StartThread(Lookup *pLookup)
{
    pthread_attr_t attributes;
    pthread_t thread;
    if (pthread_attr_init(&attributes) != 0)
        return 0;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, kStackBytes);
    int bStarted = pthread_create(&thread, &attributes, LookupThread, pLookup) == 0;
    pthread_attr_destroy(&attributes);
    return bStarted;
}

Lookup *LookupStart(Loop *pLoop, const std::string &host, int nPort,
                    void (*pfnDone)(void *pUser, const LookupResult *pResult), void *pUser)
{
    auto *pLookup = new (std::nothrow) Lookup{pLoop, host, nPort, pfnDone, pUser, {}};
    if (!pLookup)
        return nullptr;
    {
        std::lock_guard guard(g_lock);
        g_lookups.insert(pLookup);
    }
    Resolve(pLookup, AI_NUMERICHOST);
    if (!pLookup->result.addresses.empty()) {
        pLookup->bPosted = 1;
        LoopPost(pLoop, OnPosted, pLookup);
    } else if (!StartThread(pLookup)) {
        Free(pLookup);
        return nullptr;
    }
    return pLookup;
}

void LookupDrop(Lookup *pLookup)
{
    if (!pLookup)
        return;
    std::lock_guard guard(g_lock);
    pLookup->bDropped = 1;  // whoever comes last, the thread or the loop, frees it
}

}  // namespace orx
