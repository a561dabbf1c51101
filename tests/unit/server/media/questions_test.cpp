// What askers may have waiting at a pusher that does not read, and when a question ends.
#include "server/media/questions.h"

#include "server/media/outqueue.h"
#include "server/media/send.h"
#include "support/playerkit.h"

namespace orx {

struct QuestionsTest : PlayerQueueTest {
    TcpPair pairs[2];
    Session *askers[2] = {};

    // The player of the kit becomes the pusher, whose connection takes no more.
    void SetUp() override
    {
        Start();
        RunOnScheduler([&] {
            ProgramDetach(pPlayer);
            pProg->pPusher = pPlayer;
            ProgramAttach(pPlayer, pProg);
            for (int i = 0; i < 2; i++) {
                askers[i] = CreateSession(CreateTcpPort(pairs[i].fdServer));
                ProgramAttach(askers[i], pProg);
            }
            while (Waiting() == 0)
                SendReply(pPlayer, pPlayer->peer.Cmd, std::string(30000, 'x').data(), 30000);
        });
    }
    void TearDown() override
    {
        PlayerQueueTest::TearDown();
        ClockSetOffset(0);
    }
    // Asks until it is refused. Returns how many were taken.
    int AskAll(Session *pAsker, size_t nBody)
    {
        const std::string body(nBody, 'x');
        for (int n = 0;; n++) {
            Message question(pPlayer, nullptr);
            RequestBegin(&question, "CAMCONTROL");
            if (QuestionSend(&question, pAsker, body.data(), nBody, 4000) != Asked::Sent)
                return n;
        }
    }
};

TEST_F(QuestionsTest, CountsWhatWaitsOfEachAsker)
{
    RunOnScheduler([&] {
        unsigned nBefore = Waiting();
        EXPECT_EQ(0, AskAll(askers[0], 4000)) << "too long";
        EXPECT_EQ(16, AskAll(askers[0], 10));
        EXPECT_EQ(9, AskAll(askers[1], 3500)) << "of 32 kB";
        EXPECT_EQ(nBefore + 25, Waiting());
        QuestionAnswered(askers[0]);
        EXPECT_EQ(0, AskAll(askers[0], 10)) << "an answer does not write the others";
        ClockSetOffset(29000);
        EXPECT_TRUE(QuestionIsOpen(askers[0]));
        EXPECT_EQ(0, AskAll(askers[0], 10));
        ClockSetOffset(30001);
        EXPECT_FALSE(QuestionIsOpen(askers[0]));
        EXPECT_EQ(16, AskAll(askers[0], 10)) << "those from before are forgotten";
        SessionEnd(askers[0]);
        ProgramDetach(askers[1]);
        EXPECT_EQ(nBefore, Waiting()) << "they go with who asked";
        EXPECT_FALSE(QuestionIsOpen(askers[1]));
    });
}

// What was written waits for its answer; nobody is refused for it.
TEST_F(QuestionsTest, ForgetsTheOldestOfWhatWasWritten)
{
    RunOnScheduler([&] {
        for (int i = 0; i < 30; i++) {
            ClockSetOffset(static_cast<uint32_t>(i) * 1000);
            QueueDropAll(pPlayer);  // as if it had been written
            EXPECT_LE(15, AskAll(askers[0], 10));
        }
        int nOpen = 0;
        for (; QuestionIsOpen(askers[0]); nOpen++)
            QuestionAnswered(askers[0]);
        EXPECT_LE(64, nOpen);
        EXPECT_GE(80, nOpen);
    });
}

}  // namespace orx
