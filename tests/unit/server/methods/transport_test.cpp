#include "server/methods/transport.h"

#include <string>

#include <gtest/gtest.h>

namespace orx {

// Each offer as a letter (tcp, udp, other), 'm' behind it for multicast, and the port; '!' where it is malformed.
TEST(Transport, ReadsOffersInTheirOrder)
{
    static const struct {
        const char *szList, *szOffers;
    } cases[] = {
        {"RTP/AVP/TCP;unicast;interleaved=0-1", "t0 "},
        {"rtp/avp/tcp", "t0 "},
        {"RTP/AVP;unicast;client_port=6000-6001;mode=\"PLAY,RECORD\"", "u6000 "},
        {"RTP/AVP/UDP ; unicast ; client_port = 6000 ;", "u6000 "},
        {"RTP/AVP;multicast, RTP/AVP/TCP;unicast;interleaved=0-1,RTP/AVP;client_port=8-9", "um0 t0 u8 "},
        {"RTP/SAVP;unicast;client_port=6000-6001,x-real-rdt/udp;client_port=6", "o6000 o6 "},
        {"RTP/AVP;unicast", "u0 "},
        {"RTP/AVP;unicast;client_port=0-0,RTP/AVP;client_port=65535", "u0 u0 "},
        {"RTP/AVP;client_port=65535-65536,RTP/AVP/TCP", "! t0 "},
        {"RTP/AVP;client_port=6000-6002", "! "},
        {"RTP/AVP;client_port=-5-6", "! "},
        {"RTP/AVP;client_port=", "! "},
        {"RTP/AVP;client_port=99999999999999999999", "! "},
        {"RTP/AVP/TCP;interleaved=a-b,RTP/AVP/TCP;interleaved=256-257,RTP/AVP/TCP;interleaved=7", "! ! t0 "},
        {"TCP,/AVP,RTP/,;unicast", "! ! ! ! "},
        {" , ,", ""},
        {"", ""},
    };
    for (const auto &c : cases) {
        std::string_view list(c.szList);
        TransportOffer offer;
        std::string offers;
        for (int n; (n = TransportNext(&list, &offer)) != 0; offers += ' ') {
            offers += n < 0 ? '!' : "otu"[static_cast<int>(offer.eCarrier)];
            if (n > 0)
                offers += (offer.bMulticast ? "m" : "") + std::to_string(offer.nPort);
        }
        EXPECT_EQ(c.szOffers, offers) << c.szList;
    }
}

}  // namespace orx
