#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "server/front/events.h"
#include "support/longrecording.h"
#include "support/testserver.h"
#include "support/wait.h"

namespace orx {

// A client, whose connection the test reads as the monitor's events would.
struct Client {
    TcpPair pair;
    std::string replies;

    Client() { CreateSession(CreateTcpPort(pair.fdServer)); }
    void Send(const std::string &requests)
    {
        EXPECT_EQ(static_cast<ssize_t>(requests.size()), send(pair.fdPeer, requests.data(), requests.size(), 0));
        OnRead(pair.fdServer);
    }
    int Replies()
    {
        char bytes[65536];
        ssize_t n;
        int nReplies = 0;
        while ((n = recv(pair.fdPeer, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0)
            replies.append(bytes, static_cast<size_t>(n));
        for (size_t i = replies.find("RTSP/1.0 200"); i != std::string::npos; i = replies.find("RTSP/1.0 200", i + 1))
            nReplies++;
        return nReplies;
    }
};

static std::string Ask(const std::string &method, const std::string &uri, int nCSeq, const std::string &lines = "")
{
    return method + " rtsp://h/" + uri + " RTSP/1.0\r\nCSeq: " + std::to_string(nCSeq) + "\r\n" + lines + "\r\n";
}

// Who needs the disk waits for it and keeps his order; nobody else does.
TEST(Slices, LongRecordingsHoldUpWhoAskedForThem)
{
    TempDir dir;
    WriteLongRecording(dir.File("whole.zmf"), 3 * kStepWork, 1);
    WriteLongRecording(dir.File("cut.zmf"), 3 * kStepWork, 0);
    TestServer server("EnableFilePrg=1\n[INTEROP]\nStandardPlayers=1\n[STORAGE]\nRecordPath=" + dir.path + "\n");
    std::unique_ptr<Client> reader, player, other;
    server.Run([&] {
        reader = std::make_unique<Client>();
        player = std::make_unique<Client>();
        other = std::make_unique<Client>();
        reader->Send(Ask("DESCRIBE", "cut.zmf", 1) + Ask("OPTIONS", "*", 2));
        other->Send(Ask("OPTIONS", "*", 1));
        EXPECT_EQ(1, other->Replies());
        EXPECT_EQ(0, reader->Replies());
        std::string requests =
            Ask("DESCRIBE", "whole.zmf", 1) +
            Ask("SETUP", "whole.zmf/trackID=0", 2, "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
        for (int i = 3; i < 20; i++)
            requests += Ask("PLAY", "whole.zmf", i, "Range: npt=" + std::to_string(i * 20) + "-\r\n");
        player->Send(requests);
    });
    EXPECT_TRUE(WaitFor([&] { return reader->Replies() == 2; }));
    EXPECT_LT(reader->replies.find("a=range:npt=0-999.000"), reader->replies.find("Public:"));
    EXPECT_TRUE(WaitFor([&] { return player->Replies() == 19; }));
    for (int i = 3; i < 20; i++)
        EXPECT_LT(player->replies.find("CSeq: " + std::to_string(i - 1) + "\r\n"),
                  player->replies.find("CSeq: " + std::to_string(i) + "\r\n"));
}

}  // namespace orx
