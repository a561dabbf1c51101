#include "net/addrlist.h"

#include <arpa/inet.h>

#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"

namespace orx {

// The number of bits behind the '/', or -1.
static int ParseBits(const char *sz)
{
    int nBits = 0;
    size_t nDigits = strspn(sz, "0123456789");
    if (nDigits < 1 || nDigits > 2 || sz[nDigits] != '\0')
        return -1;
    for (; *sz; sz++)
        nBits = nBits * 10 + (*sz - '0');
    return nBits <= 32 ? nBits : -1;
}

// Takes "a.b.c.d" and "a.b.c.d/n", in a buffer that it may change. Returns 1 or 0.
static int ParseNetwork(char *szEntry, AddrNetwork *pOut)
{
    char *pSlash = strchr(szEntry, '/');
    int nBits = pSlash ? ParseBits(pSlash + 1) : 32;
    if (pSlash)
        *pSlash = '\0';
    in_addr addr{};
    if (nBits < 0 || inet_pton(AF_INET, szEntry, &addr) != 1)
        return 0;
    pOut->nMask = nBits ? ~uint32_t{0} << (32 - nBits) : 0;
    pOut->nIp = ntohl(addr.s_addr) & pOut->nMask;
    return 1;
}

int AddrListParse(AddrList *pList, const char *szText, const char *szKey)
{
    static constexpr char kBlanks[] = " \t";
    int nLeftOut = 0;
    *pList = AddrList();
    for (const char *p = szText + strspn(szText, kBlanks); *p; p += strspn(p, kBlanks)) {
        size_t nEntry = strcspn(p, kBlanks);
        char entry[32];  // longer than any that is right
        AddrNetwork network;
        TextBuf text{entry, sizeof(entry)};
        pList->bGiven = 1;
        if (TextAddBytes(&text, p, nEntry) && ParseNetwork(entry, &network) &&
            pList->nNetworks < kMaxAddrEntries) {
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

int AddrListHas(const AddrList *pList, uint32_t nIp)
{
    for (size_t i = 0; i < pList->nNetworks; i++)
        if ((nIp & pList->networks[i].nMask) == pList->networks[i].nIp)
            return 1;
    return 0;
}

}  // namespace orx
