// A reliable-UDP host for tests: a remote player, or a rendezvous server. It moves only while the test pumps
// it.
#pragma once

#include <enet/enet.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "remote/unet.h"
#include "runtime/clock.h"
#include "support/files.h"
#include "support/sockets.h"

namespace orx {

struct EnetSide {
    ENetHost *pHost = nullptr;
    std::vector<ENetPeer *> connected, disconnected;           // in order of their events
    std::vector<std::pair<ENetPeer *, std::string>> received;  // packets
    ENetAddress address{};                                     // its own, then that of the last Connect

    explicit EnetSide(const char *szIp = "127.0.0.1")
    {
        enet_address_set_host(&address, szIp);
        pHost = enet_host_create(&address, 64, 1, 0, 0);
    }
    ~EnetSide() { enet_host_destroy(pHost); }
    EnetSide &operator=(EnetSide &&) = delete;
    int Port() const { return PortOf(pHost->socket); }
    ENetPeer *Connect(int nPort)
    {
        enet_address_set_host(&address, "127.0.0.1");
        address.port = static_cast<uint16_t>(nPort);
        return enet_host_connect(pHost, &address, 1, 0);
    }
    void Send(ENetPeer *pPeer, std::string_view data)
    {
        ENetPacket *pPacket = enet_packet_create(data.data(), data.size(), ENET_PACKET_FLAG_RELIABLE);
        if (enet_peer_send(pPeer, 0, pPacket) != 0)
            enet_packet_destroy(pPacket);  // it is not connected
        enet_host_flush(pHost);
    }
    // Looks after the host until the condition holds or the time is up, which is generous by default.
    template <typename Condition>
    bool Pump(Condition condition, int nMs = 60000)
    {
        auto pumped = [&] {
            for (ENetEvent event{}; enet_host_service(pHost, &event, 0) > 0;)
                Note(event);
            return condition();
        };
        return WaitFor(pumped, nMs);
    }
    // Everything that came from the peer, in one piece.
    std::string Stream(const ENetPeer *pPeer) const
    {
        std::string all;
        for (const auto &packet : received)
            if (packet.first == pPeer)
                all += packet.second;
        return all;
    }

private:
    void Note(const ENetEvent &event)
    {
        if (event.type == ENET_EVENT_TYPE_CONNECT)
            connected.push_back(event.peer);
        if (event.type == ENET_EVENT_TYPE_DISCONNECT)
            disconnected.push_back(event.peer);
        if (event.type != ENET_EVENT_TYPE_RECEIVE)
            return;
        received.emplace_back(event.peer,
                              std::string(reinterpret_cast<char *>(event.packet->data), event.packet->dataLength));
        enet_packet_destroy(event.packet);
    }
};

// The relay in front of an RTSP server that the test plays, and a host that it is to deal with.
struct RelayRig {
    TempDir dir;
    Listener rtsp;
    Unet unet;
    EnetSide remote;

    explicit RelayRig(InterfaceAddressProc pfnGetAddress = nullptr)
    {
        UnetSettings settings;
        settings.nBindIp = INADDR_LOOPBACK;
        settings.nRtspPort = rtsp.nPort;
        settings.pfnGetAddress = pfnGetAddress;
        EXPECT_EQ(1, UnetStart(&unet, &settings));
    }
    ~RelayRig()
    {
        UnetStop(&unet);
        ClockSetOffset(0);
    }
    RelayRig &operator=(RelayRig &&) = delete;
    // A remote player and the connection that the relay makes for it.
    std::pair<ENetPeer *, Sock> Join(EnetSide &side)
    {
        size_t nBefore = side.connected.size();
        ENetPeer *pPeer = side.Connect(unet.nPort);
        EXPECT_TRUE(side.Pump([&] { return side.connected.size() > nBefore && rtsp.sock.Readable(0); }));
        return {pPeer, rtsp.Accept()};
    }
    // Whether something comes out of the relay, or it closes the connection.
    bool Arrives(const Sock &server)
    {
        return remote.Pump([&] { return server.Readable(0); });
    }
};

}  // namespace orx
