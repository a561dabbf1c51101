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

// What takes a walk through a long recording is answered after some tasks, in its order, and once: the walk
// through an interrupted file is remembered.
TEST(Slices, LongRecordingsAreLookedThroughInSteps)
{
    TempDir dir;
    WriteLongRecording(dir.File("whole.zmf"), 3 * kStepWork, 1);
    WriteLongRecording(dir.File("cut.zmf"), 3 * kStepWork, 0);
    TestServer server("EnableFilePrg=1\n[INTEROP]\nStandardPlayers=1\n[STORAGE]\nRecordPath=" + dir.path + "\n");
    std::unique_ptr<Client> first, second, player;
    server.Run([&] {
        first = std::make_unique<Client>();
        first->Send(Ask("DESCRIBE", "cut.zmf", 1) + Ask("OPTIONS", "*", 2));
        EXPECT_EQ(0, first->Replies());
    });
    EXPECT_TRUE(WaitFor([&] { return first->Replies() == 2; }));
    EXPECT_LT(first->replies.find("a=range:npt=0-999.000"), first->replies.find("Public:"));
    server.Run([&] {
        second = std::make_unique<Client>();
        second->Send(Ask("DESCRIBE", "cut.zmf", 1));
        EXPECT_EQ(1, second->Replies());
        player = std::make_unique<Client>();
        player->Send(Ask("DESCRIBE", "whole.zmf", 1) +
                     Ask("SETUP", "whole.zmf/trackID=0", 2, "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"));
        EXPECT_EQ(2, player->Replies());
        std::string seeks;
        for (int i = 3; i < 20; i++)
            seeks += Ask("PLAY", "whole.zmf", i, "Range: npt=" + std::to_string(i * 20) + "-\r\n");
        player->Send(seeks);
        EXPECT_LT(player->Replies(), 5) << "others get their turn";
    });
    EXPECT_TRUE(WaitFor([&] { return player->Replies() == 19; }));
    EXPECT_LT(player->replies.find("CSeq: 18\r\n"), player->replies.find("CSeq: 19\r\n"));
}

}  // namespace orx
