#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/assertion.h"
#include "base/textbuf.h"
#include "enettest.h"
#include "remote/unet.h"
#include "remote/unetzupo.h"
#include "runtime/clock.h"
#include "support/files.h"

namespace orx {
namespace {

using namespace std::literals;
using testing::HasSubstr;

const char kGuid[] = "box-0123456789abcdef-01";

int FakeAddress(const char *szInterface, char *szOut, size_t nOut)
{
    bool bKnown = !strcmp(szInterface, "eth0") || !strcmp(szInterface, "wlan7");
    TextCopy(szOut, nOut, szInterface[0] == 'e' ? "10.0.0.2" : "10.0.0.3");
    return bKnown ? 0 : -1;
}

std::string Address(int nResult, const char *szCmd, uint32_t nIp, int nPort)
{
    uint8_t packet[kZupoPacketSize];
    ZupoAddress address{nIp, static_cast<uint16_t>(nPort)};
    size_t nLen = ZupoEncodeAddress(packet, szCmd[0] == 'p' ? ZUPO_PUNCH : ZUPO_REGISTER_REPLY,
                                    static_cast<uint32_t>(nResult), &address);
    return {reinterpret_cast<char *>(packet), nLen};
}

// A box that registers with a rendezvous server that the test plays.
struct BoxRig {
    TempDir dir;
    EnetSide server;
    Listener rtsp;
    Unet unet;
    size_t nSeen = 0;  // packets that Next has given out

    explicit BoxRig(const std::string &config = "")
    {
        Configure(config);
        UnetSettings settings;
        settings.szBindIp = "127.0.0.1";
        settings.nRtspPort = rtsp.nPort;
        settings.pfnGetAddress = FakeAddress;
        EXPECT_EQ(1, UnetStart(&unet, &settings));
        EXPECT_EQ(1, ZupoRegisterCreate(&unet, "localhost", server.Port(), dir.File("orx.cfg").c_str()));
    }
    ~BoxRig()
    {
        UnetStop(&unet);
        ClockSetOffset(0);
        AssertSurvivePeerFaults(0);
    }
    void Configure(const std::string &config)
    {
        WriteFile(dir.File("orx.cfg"), "[MAIN]\nDeviceGuid="s + kGuid + "\n" + config);
    }
    // The next packet from the box, or "none".
    std::string Next(int nMs = 5000)
    {
        return server.Pump([&] { return server.received.size() > nSeen; }, nMs)
                   ? server.received[nSeen++].second
                   : "none";
    }
    ENetPeer *Box() const { return server.connected.back(); }
    std::string Register(const std::string &ip, const std::string &mapped) const
    {
        std::string port = {static_cast<char>(rtsp.nPort >> 8), static_cast<char>(rtsp.nPort)};
        return "\0\0\1\0\0\0\0\x28\0\0\x03\xE9\0\0\0\0"s + kGuid + std::string(32 - strlen(kGuid), '\0') +
               ip + port + mapped;
    }
    bool ComesBack(int nMs)
    {
        size_t nBefore = server.connected.size();
        return server.Pump([&] { return server.connected.size() > nBefore; }, nMs);
    }
};

constexpr std::string_view kHeartbeat = "\0\0\1\0\0\0\0\0\0\0\x03\xEB\0\0\0\0"sv;

TEST(Registration, TellsWhatTheConfigurationSays)
{
    const struct {
        const char *szConfig;
        std::string ip, mapped;
    } cases[] = {
        {"", "\x0A\0\0\2"s, "\0\0"s},
        {"[UPNP]\nMappedListenPort=32769\n", "\x0A\0\0\2"s, "\0\0"s},
        {"[UPNP]\nUpnpEnable=1\nMappedListenPort=32769\n", "\x0A\0\0\2"s, "\x80\1"s},
        {"[WIFI]\nDevName=wlan7\n", "\x0A\0\0\2"s, "\0\0"s},
        {"[WIFI]\nUseWirelessLan=1\nDevName=wlan7\n", "\x0A\0\0\3"s, "\0\0"s},
        {"[WIFI]\nUseWirelessLan=1\n", "\x0A\0\0\2"s, "\0\0"s},
        {"[WIFI]\nUseWirelessLan=1\nDevName=gone0\n", "\0\0\0\0"s, "\0\0"s},
    };
    for (const auto &c : cases) {
        BoxRig rig(c.szConfig);
        EXPECT_EQ(rig.Register(c.ip, c.mapped), rig.Next()) << c.szConfig;
    }
}

TEST(Registration, AcceptedThenAHeartbeatEveryTenSeconds)
{
    testing::internal::CaptureStdout();
    BoxRig rig;
    EXPECT_EQ(rig.Register("\x0A\0\0\2"s, "\0\0"s), rig.Next());
    ClockSetOffset(11000);
    EXPECT_EQ("none", rig.Next(200));  // not registered yet
    rig.server.Send(rig.Box(), Address(1, "reply", 0x5DB8D822, 7));
    EXPECT_EQ(kHeartbeat, rig.Next());
    EXPECT_EQ("none", rig.Next(200));
    rig.Configure("[UPNP]\nUpnpEnable=1\nMappedListenPort=81\n");
    ClockSetOffset(21000);
    EXPECT_EQ(kHeartbeat, rig.Next());
    UnetStop(&rig.unet);
    EXPECT_EQ(0x5DB8D822u, rig.unet.nSeenIp);
    std::string printed = testing::internal::GetCapturedStdout(), port = std::to_string(rig.rtsp.nPort);
    for (const std::string &line :
         {"Connected to Zupo server 127.0.0.1:" + std::to_string(rig.server.Port()) + ".\n",
          "GetDeviceInfo(private_ip=0xa000002, port=" + port + ", mappingport=0)\r\n",
          "GetDeviceInfo(private_ip=0xa000002, port=" + port + ", mappingport=81)\r\n"})
        EXPECT_THAT(printed, HasSubstr(line));
}

TEST(Registration, ComesBackAfterAWhile)
{
    for (int bRefused = 0; bRefused < 2; bRefused++) {
        BoxRig rig;
        EXPECT_NE("none", rig.Next());
        if (bRefused)
            rig.server.Send(rig.Box(), Address(0, "reply", 0, 0));
        else
            enet_peer_disconnect_now(rig.Box(), 0);
        rig.server.Pump([] { return false; }, 100);  // it takes its way
        uint32_t nWaitMs = bRefused ? 60000 : 30000;
        ClockSetOffset(nWaitMs - 3000);
        EXPECT_FALSE(rig.ComesBack(300));
        ClockSetOffset(nWaitMs + 2000);
        EXPECT_TRUE(rig.ComesBack(5000));
        EXPECT_NE("none", rig.Next());
    }
}

TEST(Registration, APunchOpensThePathAndIsNoPlayer)
{
    BoxRig rig;
    EXPECT_NE("none", rig.Next());
    rig.server.Send(rig.Box(), Address(1, "reply", 1, 1));
    for (int i = 0; i < 40; i++) {  // more often than there are peers: each replaces the one before
        EnetSide player;
        rig.server.Send(rig.Box(), Address(0, "punch", 0x7F000001, player.Port()));
        ASSERT_TRUE(player.Pump([&] { return !player.connected.empty(); }, 5000)) << i;
        ENetPeer *pPunch = player.connected[0];
        EXPECT_EQ(rig.unet.nPort, pPunch->address.port);
        player.Send(pPunch, "what a punching peer says goes nowhere");
        ENetPeer *pOwn = player.Connect(rig.unet.nPort);
        ASSERT_TRUE(
            player.Pump([&] { return player.connected.size() == 2 && rig.rtsp.sock.Readable(0); }, 5000));
        Sock session = rig.rtsp.Accept();
        player.Send(pOwn, "OPTIONS");
        ASSERT_TRUE(player.Pump([&] { return session.Readable(0); }, 5000));
        EXPECT_EQ("OPTIONS", session.Read(7));
        EXPECT_FALSE(rig.rtsp.sock.Readable(0));
        enet_peer_disconnect_now(pOwn, 0);
        rig.server.Pump([] { return true; }, 0);
    }
}

TEST(Registration, ABrokenPacketEndsTheConnectionWhenFaultsAreSurvived)
{
    const std::string whole = Address(1, "reply", 1, 1);
    const std::string broken[] = {"", whole.substr(0, 15), whole.substr(0, 21),
                                  whole.substr(0, 7) + "\5"s + whole.substr(8)};
    for (const std::string &packet : broken) {
        BoxRig rig;
        AssertSurvivePeerFaults(1);
        EXPECT_NE("none", rig.Next());
        rig.server.Send(rig.Box(), packet);
        enet_peer_ping_interval(rig.Box(), 50);
        enet_peer_timeout(rig.Box(), 1, 100, 200);
        EXPECT_TRUE(rig.server.Pump([&] { return !rig.server.disconnected.empty(); }, 5000));
        ClockSetOffset(32000);
        EXPECT_TRUE(rig.ComesBack(5000));
    }
}

TEST(RegistrationDeathTest, PacketsThatBreakTheProtocol)
{
    Unet unet;
    const std::string reply = Address(1, "reply", 1, 1), punch = Address(0, "punch", 1, 1);
    const struct {
        std::string packet;
        const char *szText;
    } cases[] = {
        {reply.substr(0, 15), "OnZupoReceive: Assertion `dataLength >= (sizeof(ZUPO_PACKET_HEAD))' failed"},
        {reply.substr(0, 7) + "\7"s + reply.substr(8), "Assertion `ack_head.nDataLen==6' failed"},
        {punch.substr(0, 7) + "\0"s + punch.substr(8), "Assertion `ack_head.nDataLen==6' failed"},
        {punch.substr(0, 21), "failed"},
    };
    for (const auto &c : cases)
        EXPECT_DEATH(ZupoReceive(&unet, c.packet.data(), c.packet.size()), HasSubstr(c.szText));
    uint8_t heartbeat[kZupoPacketSize];  // other commands concern nobody here
    ZupoReceive(&unet, heartbeat, ZupoEncode(heartbeat, ZUPO_HEARTBEAT, 0));
}

}  // namespace
}  // namespace orx
