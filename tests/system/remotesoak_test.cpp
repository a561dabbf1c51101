// A hundred megabytes each way at once, through a bridge of the relay and through a proxied connection. They
// take minutes by design of the two, so only ORX_LONG=1 runs them.
#include <cstdlib>
#include <cstring>

#include <functional>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/md5.h"
#include "remote/httpproxy.h"
#include "remote/unet.h"
#include "support/sockets.h"
#include "system/toolprocess.h"
#include "unit/remote/enettest.h"

namespace orx {
namespace {

constexpr size_t kTotal = 100 * 1000 * 1000;
constexpr size_t kPiece = 8000;

// A stream that is never held as a whole: made piece by piece, and compared by its digest.
struct Stream {
    Md5Context context;
    uint32_t nSeed;
    size_t nBytes = 0;

    explicit Stream(uint32_t nFirst) : nSeed(nFirst) { Md5Init(&context); }
    std::string Next()
    {
        std::string piece = Pattern(kPiece, nSeed++);
        Add(piece.data(), piece.size());
        return piece;
    }
    void Add(const void *pData, size_t nLen)
    {
        Md5Update(&context, pData, nLen);
        nBytes += nLen;
    }
    std::string Digest()
    {
        char szHex[kMd5HexSize];
        Md5FinalHex(&context, szHex);
        return szHex;
    }
};

void SendAll(const Sock &sock, Stream *pStream)
{
    while (pStream->nBytes < kTotal && sock.Send(pStream->Next())) {
    }
}

void ReceiveAll(const Sock &sock, Stream *pStream)
{
    std::string piece;
    while (pStream->nBytes < kTotal && !(piece = sock.Read(kPiece)).empty())
        pStream->Add(piece.data(), piece.size());
}

struct RemoteSoak : testing::Test {
    Stream upSent{1}, upGot{0}, downSent{1000000}, downGot{0};

    void SetUp() override
    {
        const char *szLong = getenv("ORX_LONG");
        if (!szLong || strcmp(szLong, "1") != 0)
            GTEST_SKIP() << "takes minutes: ORX_LONG=1 runs it";
    }
    void ExpectWhole()
    {
        EXPECT_EQ(kTotal, upGot.nBytes);
        EXPECT_EQ(kTotal, downGot.nBytes);
        EXPECT_EQ(upSent.Digest(), upGot.Digest());
        EXPECT_EQ(downSent.Digest(), downGot.Digest());
    }
};

TEST_F(RemoteSoak, ProxiedConnection)
{
    Listener web;
    HttpProxy proxy;
    int nPort = FreeTcpPort();
    ASSERT_EQ(1, HttpProxyStart(&proxy, "127.0.0.1", nPort, "127.0.0.1", web.nPort, nullptr, nullptr));
    Sock client = Connect(nPort);
    client.Send(upSent.Next());
    Sock side = web.Accept();
    std::thread threads[] = {std::thread(SendAll, std::cref(client), &upSent),
                             std::thread(ReceiveAll, std::cref(side), &upGot),
                             std::thread(SendAll, std::cref(side), &downSent)};
    ReceiveAll(client, &downGot);
    for (std::thread &thread : threads)
        thread.join();
    ExpectWhole();
    HttpProxyStop(&proxy);
}

TEST_F(RemoteSoak, Bridge)
{
    Listener rtsp;
    Unet unet;
    EnetSide remote;
    UnetSettings settings;
    settings.szBindIp = "127.0.0.1";
    settings.nRtspPort = rtsp.nPort;
    ASSERT_EQ(1, UnetStart(&unet, &settings));
    ENetPeer *pPeer = remote.Connect(unet.nPort);
    ASSERT_TRUE(remote.Pump([&] { return !remote.connected.empty() && rtsp.sock.Readable(0); }, 5000));
    Sock server = rtsp.Accept();
    std::thread threads[] = {std::thread(ReceiveAll, std::cref(server), &upGot),
                             std::thread(SendAll, std::cref(server), &downSent)};
    // in one thread, as the library wants it: as fast as the box takes it, and what has come is digested
    auto exchange = [&] {
        while (upSent.nBytes < kTotal && pPeer->reliableDataInTransit < 32768)
            remote.Send(pPeer, upSent.Next());
        for (const auto &packet : remote.received)
            downGot.Add(packet.second.data(), packet.second.size());
        remote.received.clear();
        return downGot.nBytes >= kTotal && upSent.nBytes >= kTotal;
    };
    EXPECT_TRUE(remote.Pump(exchange, 500000));
    remote.Pump([&] { return enet_list_empty(&pPeer->sentReliableCommands) != 0; }, 10000);
    for (std::thread &thread : threads)
        thread.join();
    ExpectWhole();
    UnetStop(&unet);
}

TEST_F(RemoteSoak, PlayerOfOrxrelayThatPauses)
{
    Listener rtsp;
    Unet unet;
    UnetSettings settings;
    settings.szBindIp = "127.0.0.1";
    settings.nRtspPort = rtsp.nPort;
    ASSERT_EQ(1, UnetStart(&unet, &settings));
    int nPort = FreeTcpPort();
    ToolProcess relay("orxrelay",
                      {"--listen", std::to_string(nPort), "127.0.0.1:" + std::to_string(unet.nPort)});
    ASSERT_TRUE(relay.WaitOutput("open rtsp"));
    Sock player = Connect(nPort);
    Sock server = rtsp.Accept();
    ASSERT_GE(server.fd, 0);
    const std::string up = Pattern(3000000, 7), down = Pattern(30000000, 8);
    std::thread writer([&] { server.Send(down); });
    std::string gotUp;
    std::thread reader([&] { gotUp = server.Read(up.size()); });
    player.Send(up);
    // longer than a party may be silent; by then all buffers on the way are full
    std::this_thread::sleep_for(std::chrono::seconds(25));
    EXPECT_TRUE(down == player.Read(down.size()));
    writer.join();
    reader.join();
    EXPECT_TRUE(up == gotUp);
    player.Close();
    EXPECT_TRUE(server.Closed(2000));
    UnetStop(&unet);
    EXPECT_THAT(relay.Output(), testing::Not(testing::HasSubstr("orxrelay:")));
}

}  // namespace
}  // namespace orx
