#include "remote/registration.h"

#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/textbuf.h"
#include "enettest.h"
#include "support/output.h"

namespace orx {

using namespace std::literals;

const char kGuid[] = "box-0123456789abcdef-01";
constexpr std::string_view kHeartbeat = "\0\0\1\0\0\0\0\0\0\0\x03\xEB\0\0\0\0"sv;

static int FakeAddress(const char *szInterface, char *szOut, size_t nOut)
{
    bool bKnown = !strcmp(szInterface, "eth0") || !strcmp(szInterface, "wlan7");
    TextCopy(szOut, nOut, szInterface[0] == 'e' ? "10.0.0.2" : "10.0.0.3");
    return bKnown ? 0 : -1;
}

// A packet that carries an address.
static std::string Packet(uint32_t nCmd, uint32_t nResult)
{
    uint8_t packet[kZupoPacketSize];
    ZupoAddress address{0x7F000001, 7};
    size_t nLen = ZupoEncodeAddress(packet, nCmd, nResult, &address);
    return {reinterpret_cast<char *>(packet), nLen};
}

// A box that registers with a rendezvous server that the test plays.
struct BoxRig : RelayRig {
    size_t nSeen = 0;  // packets that Next has given out

    explicit BoxRig(const std::string &config = "") : RelayRig(FakeAddress)
    {
        WriteFile(dir.File("orx.cfg"), "[MAIN]\nDeviceGuid="s + kGuid + "\n" + config);
        EXPECT_EQ(1, ZupoRegisterCreate(&unet, "localhost", remote.Port(), dir.File("orx.cfg").c_str()));
    }
    // The next packet from the box, or "none".
    std::string Next()
    {
        bool bCame = remote.Pump([&] { return remote.received.size() > nSeen; });
        return bCame ? remote.received[nSeen++].second : "none";
    }
    void Reply(const std::string &packet) { remote.Send(remote.connected.back(), packet); }
    std::string Register(const std::string &ip, const std::string &mapped) const
    {
        std::string port = {static_cast<char>(rtsp.nPort >> 8), static_cast<char>(rtsp.nPort)};
        return "\0\0\1\0\0\0\0\x28\0\0\x03\xE9\0\0\0\0"s + kGuid + std::string(32 - strlen(kGuid), '\0') + ip + port +
               mapped;
    }
};

TEST(Registration, TellsWhatTheConfigurationSays)
{
    static const std::tuple<const char *, std::string, std::string> cases[] = {
        // a configuration, and the bytes of the address and of the mapped port
        {"[UPNP]\nUpnpEnable=1\nMappedListenPort=32769\n", "\x0A\0\0\2"s, "\x80\1"s},
        {"[WIFI]\nUseWirelessLan=1\nDevName=wlan7\n", "\x0A\0\0\3"s, "\0\0"s},
        {"[WIFI]\nUseWirelessLan=1\n", "\x0A\0\0\2"s, "\0\0"s},
        {"[WIFI]\nUseWirelessLan=1\nDevName=gone0\n", "\0\0\0\0"s, "\0\0"s},
    };
    for (const auto &[szConfig, ip, mapped] : cases) {
        BoxRig rig(szConfig);
        EXPECT_EQ(rig.Register(ip, mapped), rig.Next()) << szConfig;
    }
}

TEST(Registration, AcceptedThenAHeartbeatEveryTenSeconds)
{
    BoxRig rig;
    EXPECT_NE("none", rig.Next());
    rig.Reply(Packet(ZUPO_REGISTER_REPLY, kZupoAccepted));
    for (uint32_t nMs : {11000, 22000}) {
        ClockSetOffset(nMs);
        EXPECT_EQ(kHeartbeat, rig.Next());
    }
}

// A minute after it was refused, half a minute after the connection was lost.
TEST(Registration, ComesBackAfterAWhile)
{
    for (int bRefused : {0, 1}) {
        BoxRig rig;
        EXPECT_NE("none", rig.Next());
        uint32_t nStart = ClockMs();
        if (bRefused)
            rig.Reply(Packet(ZUPO_REGISTER_REPLY, 0));
        else
            enet_peer_disconnect(rig.remote.connected.back(), 0);
        for (uint32_t nMs = 0; !rig.remote.Pump([&] { return rig.remote.connected.size() > 1; }, 20); nMs += 1000)
            ClockSetOffset(nMs);
        EXPECT_GE(ClockDiff(ClockMs(), nStart), bRefused ? 58000 : 28000);
        EXPECT_NE("none", rig.Next());
    }
}

TEST(Registration, ABrokenPacketEndsTheConnection)
{
    const std::string reply = Packet(ZUPO_REGISTER_REPLY, kZupoAccepted), punch = Packet(ZUPO_PUNCH, 0);
    const std::pair<std::string, const char *> cases[] = {
        {"", "dataLength >= (sizeof(ZUPO_PACKET_HEAD))'"},
        {reply.substr(0, 15), "dataLength >= (sizeof(ZUPO_PACKET_HEAD))'"},
        {reply.substr(0, 7) + "\7"s + reply.substr(8), "ack_head.nDataLen==6"},
        {punch.substr(0, 7) + "\0"s + punch.substr(8), "ack_head.nDataLen==6"},
        {punch.substr(0, 21), "dataLength >= (sizeof(ZUPO_PACKET_HEAD))+ack_head.nDataLen"},
        {reply, ""},
        {std::string(kHeartbeat), ""},  // other commands concern nobody here
    };
    for (const auto &[packet, szText] : cases) {
        UnetHost host;
        Registration registration;
        registration.pHost = &host;
        registration.bRegistered = 1;
        auto receive = [&, &bytes = packet] { RegistrationReceive(&registration, bytes.data(), bytes.size()); };
        EXPECT_THAT(PeerFaults(receive), testing::HasSubstr(szText));
        EXPECT_EQ(*szText == '\0', registration.bRegistered) << szText;
        EXPECT_EQ(packet == reply ? 0x7F000001U : 0, registration.nSeenIp);
    }
}

}  // namespace orx
