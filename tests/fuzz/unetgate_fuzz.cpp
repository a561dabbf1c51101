// Datagrams of strangers, and of a party that is connected, at a reliable-UDP host behind its gate.
#include "remote/unetgate.h"

#include <arpa/inet.h>
#include <enet/enet.h>

#include "fuzz/fuzz.h"
#include "support/sockets.h"

using namespace orx;

// A host behind its gate and a party beside it, connected when an input begins.
struct Pair {
    ENetHost *pHost = nullptr, *pClient = nullptr;
    ENetPeer *pPeer = nullptr;  // the host, as the party sees it
    UnetGate gate;

    Pair()
    {
        ENetAddress address{htonl(INADDR_LOOPBACK), 0};
        pHost = enet_host_create(&address, 8, 1, 0, 0);
        pClient = enet_host_create(&address, 2, 1, 0, 0);
        ORX_ASSERT(pHost && pClient && UnetGateInit(&gate, pHost, 2, 0), "a host and a party");
        address.port = static_cast<uint16_t>(PortOf(pHost->socket));
        pPeer = enet_host_connect(pClient, &address, 1, 0);
        for (int i = 0; i < 100000 && pPeer->state != ENET_PEER_STATE_CONNECTED; i++)
            Service();
    }
    ~Pair()
    {
        UnetGateFree(&gate);
        enet_host_destroy(pHost);
        enet_host_destroy(pClient);
    }
    Pair &operator=(Pair &&) = delete;
    void Service()
    {
        ENetEvent event{};
        enet_host_service(pClient, &event, 0);
        while (UnetGateService(&gate, &event) > 0)
            if (event.packet)
                enet_packet_destroy(event.packet);
    }
    void Send(int fd, const std::string &data) const
    {
        sockaddr_in to = Loopback(PortOf(pHost->socket));
        sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    Pair pair;
    Sock stranger(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::string data = Text(pData, nBytes);
    pair.Send(stranger.fd, data);
    if (nBytes >= 2)  // addressed to its slot, in its session
        data[0] = static_cast<char>((data[0] & 0xC0) | pair.pPeer->outgoingSessionID << 4), data[1] = 0;
    pair.Send(pair.pClient->socket, data);
    pair.Service();
    return 0;
}
