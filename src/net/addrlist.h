// A list of IPv4 addresses and networks as it stands in the configuration ("192.168.0.0/16 127.0.0.1"),
// parsed once at start. Any thread may look into one that nobody changes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr size_t kMaxAddrEntries = 64;  // as many as the longest value of a key names

struct AddrNetwork {
    uint32_t nIp = 0;    // host order; bits outside the mask are 0
    uint32_t nMask = 0;  // host order
};

struct AddrList {
    AddrNetwork networks[kMaxAddrEntries];
    size_t nNetworks = 0;
    int bGiven = 0;  // the text named something, if only wrongly
};

// Reads the entries, separated by blanks. One that is neither an address nor a network ("a.b.c.d/0" to "/32")
// is printed with the key's name and matches nobody; so is what is too much. Returns how many were left out.
int AddrListParse(AddrList *pList, const char *szText, const char *szKey);

// Whether the address (host order) is one of the list or of its networks. An empty list has none.
int AddrListHas(const AddrList *pList, uint32_t nIp);

}  // namespace orx
