#include "remote/hostlookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <new>

#include "base/textbuf.h"

namespace orx {

struct HostLookup {
    std::atomic<int> nOwners{1};   // the asker and the resolving thread; the last one frees the record
    std::atomic<int> nResult{-1};  // as HostLookupResult; written last
    uint32_t nIp = 0;              // host order
    char szHost[256] = "";         // names have 253 characters at most (RFC 1035)
};

static void *ResolveEntry(void *pArgument)
{
    auto *pLookup = static_cast<HostLookup *>(pArgument);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *pFound = nullptr;
    int bFound = getaddrinfo(pLookup->szHost, nullptr, &hints, &pFound) == 0 && pFound;
    if (bFound) {
        sockaddr_in addr{};
        memcpy(&addr, pFound->ai_addr, sizeof(addr));
        pLookup->nIp = ntohl(addr.sin_addr.s_addr);
        freeaddrinfo(pFound);
    }
    pLookup->nResult.store(bFound, std::memory_order_release);
    HostLookupFree(pLookup);
    return nullptr;
}

// Runs the resolver on a detached thread. Returns 1 or 0.
static int StartResolver(HostLookup *pLookup)
{
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return 0;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t id{};
    pLookup->nOwners = 2;
    int bStarted = pthread_create(&id, &attr, ResolveEntry, pLookup) == 0;
    pthread_attr_destroy(&attr);
    if (!bStarted)
        pLookup->nOwners = 1;
    return bStarted;
}

HostLookup *HostLookupStart(const char *szHost)
{
    auto *pLookup = new (std::nothrow) HostLookup;
    if (!pLookup)
        return nullptr;
    in_addr dotted{};
    int bFits = TextCopy(pLookup->szHost, sizeof(pLookup->szHost), szHost) && pLookup->szHost[0];
    if (bFits && inet_pton(AF_INET, szHost, &dotted) == 1) {
        pLookup->nIp = ntohl(dotted.s_addr);
        pLookup->nResult = 1;
        return pLookup;
    }
    if (!bFits || !StartResolver(pLookup)) {
        HostLookupFree(pLookup);
        return nullptr;
    }
    return pLookup;
}

int HostLookupResult(const HostLookup *pLookup, uint32_t *pIp)
{
    int nResult = pLookup->nResult.load(std::memory_order_acquire);
    if (nResult > 0)
        *pIp = pLookup->nIp;
    return nResult;
}

void HostLookupFree(HostLookup *pLookup)
{
    if (pLookup && pLookup->nOwners.fetch_sub(1) == 1)
        delete pLookup;
}

}  // namespace orx
