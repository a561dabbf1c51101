// Who gets a slot of a reliable-UDP host, and what strangers are answered.
#include "remote/unetgate.h"

#include <memory>
#include <string>
#include <vector>

#include "enettest.h"

namespace orx {

// A party that sends what it likes from an address of the loopback net.
struct Stranger {
    Sock sock{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::string request;

    Stranger(const EnetSide &side, int nHost)
    {
        static uint32_t nNumber = 0;
        sockaddr_in addr = Loopback(0);
        addr.sin_addr.s_addr = htonl(0x7F000000 | static_cast<uint32_t>(nHost));
        bind(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
        addr = Loopback(side.Port());
        connect(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
        const uint8_t head[] = {0x8F, 0xFF, 0, 0, 0x82, 0xFF, 0, 1, 0, 0, 0xFF, 0xFF,
                                0,    0,    4, 0, 0,    1,    0, 0, 0, 0, 0,    1};
        request.assign(reinterpret_cast<const char *>(head), sizeof(head));
        request.resize(52);
        ++nNumber;
        request.replace(44, sizeof(nNumber), reinterpret_cast<const char *>(&nNumber), sizeof(nNumber));
    }
    void Ask() const { EXPECT_TRUE(sock.Send(request)); }
    // Bytes of the datagrams that have come.
    size_t Answered() const
    {
        char data[4096];
        size_t nBytes = 0;
        for (ssize_t n; (n = recv(sock.fd, data, sizeof(data), MSG_DONTWAIT)) > 0;)
            nBytes += static_cast<size_t>(n);
        return nBytes;
    }
};

// The host of a test behind a gate; two of its 64 slots are kept, one address gets 4.
struct GateTest : testing::Test {
    EnetSide side;
    UnetGate gate;
    std::vector<std::unique_ptr<Stranger>> strangers;

    GateTest() { EXPECT_EQ(1, UnetGateInit(&gate, side.pHost, 2, 4)); }
    ~GateTest() override
    {
        UnetGateFree(&gate);
        ClockSetOffset(0);
    }
    // Services the host until nothing is left to read, and the library's timers are over.
    void Service()
    {
        enet_time_set(enet_time_get() + 600);
        ENetEvent event{};
        do
            EXPECT_EQ(0, UnetGateService(&gate, &event));
        while (Sock(dup(side.pHost->socket)).Readable(0));
    }
    // Lets so many strangers of an address ask. Returns how many of them have a slot then.
    int Flood(int nHost, int nCount)
    {
        for (int i = 0; i < nCount; i++) {
            strangers.push_back(std::make_unique<Stranger>(side, nHost));
            strangers.back()->Ask();
            Service();
        }
        int nTaken = 0;
        for (size_t i = 0; i < side.pHost->peerCount; i++)
            nTaken += side.pHost->peers[i].state != ENET_PEER_STATE_DISCONNECTED;
        return nTaken;
    }
};

TEST_F(GateTest, ARequestIsAnsweredOnceForEachTimeItComesAndDroppedAfterTwoSeconds)
{
    Stranger stranger(side, 1);
    for (int i = 0; i < 3; i++) {
        stranger.Ask();
        Service();
        Service();
        EXPECT_EQ(48U, stranger.Answered());
        Service();
        EXPECT_EQ(0U, stranger.Answered()) << "it has not asked again";
    }
    EXPECT_EQ(ENET_PEER_STATE_ACKNOWLEDGING_CONNECT, side.pHost->peers[0].state);
    stranger.sock.Send(std::string("\x80\0\0\0", 4));  // to that slot, shorter than an answer
    Service();
    EXPECT_EQ(0U, stranger.Answered());
    ClockSetOffset(2000);
    Service();
    EXPECT_EQ(ENET_PEER_STATE_DISCONNECTED, side.pHost->peers[0].state);
    EXPECT_EQ(0U, stranger.Answered());
}

TEST_F(GateTest, StrangersGetNeitherEverySlotNorManyFromOneAddress)
{
    EXPECT_EQ(4, Flood(2, 6));
    EXPECT_EQ(62, Flood(1, 70));
    EXPECT_EQ(62, Flood(3, 1));
    for (int i = 0; i < 2; i++) {
        ENetPeer *pPeer = side.Connect(PortOf(strangers[0]->sock.fd));
        ASSERT_TRUE(pPeer);
        UnetGateOwn(&gate, pPeer);
    }
    ClockSetOffset(2000);
    Service();
    EXPECT_EQ(2 + 4, Flood(2, 6)) << "own connections stay and do not count";
}

// Neither a fragment of a million with one byte in all, nor empty packets that wait for one that never comes.
TEST_F(GateTest, AConnectedPartyCannotFillTheMemoryWithNothing)
{
    EnetSide client;
    ENetPeer *pPeer = client.Connect(side.Port());
    ENetEvent event{};
    ASSERT_TRUE(client.Pump([&] { return UnetGateService(&gate, &event) > 0 && !client.connected.empty(); }));
    const sockaddr_in to = Loopback(side.Port());
    auto flood = [&](int nDatagrams, auto command) {
        for (int i = 0; i < nDatagrams; i++) {
            std::string data = {static_cast<char>(pPeer->outgoingSessionID << 4), 0};
            for (int k = 0; k < 32; k++)
                data += command(i * 32 + k);
            EXPECT_EQ(static_cast<ssize_t>(data.size()), sendto(client.pHost->socket, data.data(), data.size(), 0,
                                                                reinterpret_cast<const sockaddr *>(&to), sizeof(to)));
            ASSERT_EQ(0, UnetGateService(&gate, &event));
        }
    };
    using namespace std::literals;
    const ENetChannel *pChannel = &side.pHost->peers[0].channels[0];
    flood(1, [](int n) {
        return "\x88\0\0"s + char(2 + n) + "\0"s + char(2 + n) + "\0\1\0\x10\0\0\0\0\0\0\0\0\0\1\0\0\0\0x"s;
    });
    EXPECT_TRUE(enet_list_empty(&pChannel->incomingReliableCommands));
    flood(1000, [](int n) { return "\7\0\0\5"s + char(n >> 8) + char(n) + "\0\0"s; });
    EXPECT_LT(enet_list_size(const_cast<ENetList *>(&pChannel->incomingUnreliableCommands)), 4096U + 65 * 32);
    EXPECT_GT(enet_list_size(const_cast<ENetList *>(&pChannel->incomingUnreliableCommands)), 32U);
}

}  // namespace orx
