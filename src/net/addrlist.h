// A list of addresses and networks as it stands in the configuration ("192.168.0.0/16 127.0.0.1"), parsed
// once at start. Any thread may look into one that nobody changes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/netaddr.h"

namespace orx {

constexpr size_t kMaxAddrEntries = 64;  // as many as the longest value of a key names

struct AddrNetwork {
    uint8_t bytes[16] = {};  // of IPv4 the first four
    int nBits = 0;           // that count, from the first on
    int bIpv6 = 0;
};

struct AddrList {
    AddrNetwork networks[kMaxAddrEntries];
    size_t nNetworks = 0;
    int bGiven = 0;  // the text named something, if only wrongly
};

// Reads one entry, without blanks, into *pOut (may be null). Returns 1, or 0 when it is neither an address
// nor a network; with bIpv6 0 those of IPv6 are none.
int AddrEntryParse(std::string_view text, int bIpv6, AddrNetwork *pOut);

// Reads the entries, separated by blanks. One that is neither an address nor a network ("a.b.c.d/0" to "/32")
// is printed with the key's name and matches nobody; so is what is too much. With bIpv6 IPv6 addresses and
// networks ("2001:db8::/32") are taken as well. Returns how many were left out.
int AddrListParse(AddrList *pList, const char *szText, const char *szKey, int bIpv6);

// Whether the address is one of the list or of its networks. An empty list has none.
int AddrListHas(const AddrList *pList, const NetAddr *pAddr);

}  // namespace orx
