// What a client offers in the "Transport" line of SETUP (RFC 2326, section 12.39): one way for its packets,
// or several in the order in which it wants them. No state. Any thread.
#pragma once

#include <string_view>

namespace orx {

enum class Carrier {
    Other,  // what no packets travel by here
    Tcp,
    Udp,
};

struct TransportOffer {
    Carrier eCarrier = Carrier::Other;
    int bMulticast = 0;
    int nPort = 0;  // client_port: of RTP, RTCP has the next; 0: none that can be sent to
};

// Takes the first offer off the list. Returns 1 with it in *pOut, -1 when it is malformed, 0 when none is
// left.
int TransportNext(std::string_view *pList, TransportOffer *pOut);

}  // namespace orx
