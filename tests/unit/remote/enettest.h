// A reliable-UDP host for tests: a remote player, or a rendezvous server. It moves only while the test pumps
// it.
#pragma once

#include <enet/enet.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/sockets.h"

namespace orx {

struct EnetSide {
    ENetHost *pHost = nullptr;
    std::vector<ENetPeer *> connected;                         // in order of their connect events
    std::vector<std::pair<ENetPeer *, std::string>> received;  // packets
    std::vector<ENetPeer *> disconnected;

    EnetSide()
    {
        ENetAddress address{};
        enet_address_set_host(&address, "127.0.0.1");
        pHost = enet_host_create(&address, 64, 1, 0, 0);
    }
    ~EnetSide() { enet_host_destroy(pHost); }
    EnetSide(EnetSide &&) = delete;
    EnetSide &operator=(EnetSide &&) = delete;
    int Port() const { return PortOf(pHost->socket); }
    ENetPeer *Connect(int nPort)
    {
        ENetAddress address{};
        enet_address_set_host(&address, "127.0.0.1");
        address.port = static_cast<uint16_t>(nPort);
        return enet_host_connect(pHost, &address, 1, 0);
    }
    void Send(ENetPeer *pPeer, std::string_view data)
    {
        enet_peer_send(pPeer, 0, enet_packet_create(data.data(), data.size(), ENET_PACKET_FLAG_RELIABLE));
        enet_host_flush(pHost);
    }
    // Looks after the host until the condition holds or the time is up.
    template <typename Condition>
    bool Pump(Condition condition, int nMs)
    {
        auto start = std::chrono::steady_clock::now();
        for (;;) {
            ENetEvent event{};
            while (enet_host_service(pHost, &event, 0) > 0)
                Note(event);
            if (condition())
                return true;
            if (ElapsedMs(start) > nMs)
                return false;
            enet_uint32 nWait = ENET_SOCKET_WAIT_RECEIVE;
            enet_socket_wait(pHost->socket, &nWait, 2);
        }
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
        received.emplace_back(
            event.peer, std::string(reinterpret_cast<char *>(event.packet->data), event.packet->dataLength));
        enet_packet_destroy(event.packet);
    }
};

}  // namespace orx
