#include "net/addrlist.h"

#include <arpa/inet.h>

#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"

namespace orx {

// The number of bits behind the '/', or -1.
static int ParseBits(const char *sz, int nMost)
{
    int nBits = 0;
    size_t nDigits = strspn(sz, "0123456789");
    if (nDigits < 1 || nDigits > (nMost > 99 ? 3 : 2) || sz[nDigits] != '\0')
        return -1;
    for (; *sz; sz++)
        nBits = nBits * 10 + (*sz - '0');
    return nBits <= nMost ? nBits : -1;
}

// Takes "a.b.c.d" and "a.b.c.d/n", or the same of IPv6, in a buffer that it may change. Returns 1 or 0.
static int ParseNetwork(char *szEntry, int bIpv6, AddrNetwork *pOut)
{
    char *pSlash = strchr(szEntry, '/');
    int nMost = bIpv6 ? 128 : 32;
    if (pSlash)
        *pSlash = '\0';
    pOut->nBits = pSlash ? ParseBits(pSlash + 1, nMost) : nMost;
    pOut->bIpv6 = bIpv6;
    return pOut->nBits >= 0 && inet_pton(bIpv6 ? AF_INET6 : AF_INET, szEntry, pOut->bytes) == 1;
}

int AddrEntryParse(std::string_view text, int bIpv6, AddrNetwork *pOut)
{
    char entry[64];  // longer than any that is right
    AddrNetwork network;
    int bFits = TextCopy(entry, sizeof(entry), text);
    if (!bFits || !ParseNetwork(entry, bIpv6 && strchr(entry, ':'), &network))
        return 0;
    if (pOut)
        *pOut = network;
    return 1;
}

int AddrListParse(AddrList *pList, const char *szText, const char *szKey, int bIpv6)
{
    static constexpr char kBlanks[] = " \t";
    int nLeftOut = 0;
    *pList = AddrList();
    for (const char *p = szText + strspn(szText, kBlanks); *p; p += strspn(p, kBlanks)) {
        size_t nEntry = strcspn(p, kBlanks);
        AddrNetwork network;
        pList->bGiven = 1;
        if (AddrEntryParse({p, nEntry}, bIpv6, &network) && pList->nNetworks < kMaxAddrEntries) {
            pList->networks[pList->nNetworks++] = network;
        } else {
            print("%s: \"%.*s\" is no address and no network: it matches nobody.\r\n", szKey,
                  static_cast<int>(nEntry), p);
            nLeftOut++;
        }
        p += nEntry;
    }
    return nLeftOut;
}

// Whether the first bits of both are the same.
static int SharesBits(const uint8_t *pOne, const uint8_t *pOther, int nBits)
{
    size_t nWhole = static_cast<size_t>(nBits) / 8;
    int nRest = nBits % 8;
    if (memcmp(pOne, pOther, nWhole) != 0)
        return 0;
    return nRest == 0 || (pOne[nWhole] ^ pOther[nWhole]) >> (8 - nRest) == 0;
}

int AddrListHas(const AddrList *pList, const NetAddr *pAddr)
{
    int bIpv6 = AddrIsIpv6(pAddr);
    uint8_t bytes[16];
    if (bIpv6)
        memcpy(bytes, &pAddr->in6.sin6_addr, sizeof(pAddr->in6.sin6_addr));
    else
        memcpy(bytes, &pAddr->in4.sin_addr, sizeof(pAddr->in4.sin_addr));
    for (size_t i = 0; i < pList->nNetworks; i++) {
        const AddrNetwork *pNetwork = &pList->networks[i];
        if (pNetwork->bIpv6 == bIpv6 && SharesBits(pNetwork->bytes, bytes, pNetwork->nBits))
            return 1;
    }
    return 0;
}

}  // namespace orx
