// A player of a program, and packets for it, without a server around them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/bytes.h"
#include "record/zmfreader.h"
#include "server/media/filereader.h"
#include "record/zmfwriter.h"
#include "runtime/clock.h"
#include "server/media/distribute.h"
#include "server/media/filesend.h"
#include "support/rtp.h"
#include "support/testcore.h"
#include "support/wait.h"

namespace orx {

constexpr uint8_t kPayloadTypes[] = {96, 8, 98};
// A cached packet: track 0 video, 1 audio, 2 data.
struct Packet {
    uint32_t nTime;
    int nTrack = 0;
    int bKey = 0;
    int bMarker = 0;
    size_t nPayload = 4;
};

inline DataBlock *MakePacket(const Packet &packet)
{
    const RtpFields head{kPayloadTypes[packet.nTrack], 0, packet.nTime * 90, packet.bMarker != 0};
    std::string frame = Frame(2 * packet.nTrack, MakeRtp(head, std::string(packet.nPayload, 'p')));
    DataBlock *pBlock = MakeDataBlock(frame.data(), frame.size(), 1, packet.nTrack == 0, packet.bKey);
    pBlock->nTimestamp = packet.nTime;
    return pBlock;
}

// A program that nothing feeds but the test.
inline const ProgramOps g_testOps = {
    [](const Program *pProg) -> const char * { return pProg->reader ? pProg->reader->szSdp : pProg->desc.szSdp; },
    FillBufferFromFile,
    [](Program *pProg) {
        FileReaderClose(pProg->reader);
        pProg->reader = nullptr;
    },
};

// A program and a player that has set the video and audio tracks up, on a real connection that takes little.
struct PlayerQueueTest : testing::Test {
    std::unique_ptr<TestCore> core;
    Program *pProg = nullptr;
    Session *pPlayer = nullptr;
    TcpPair pair;

    void Start(const std::string &settings = "")
    {
        core = std::make_unique<TestCore>(settings);
        int nSmall = 4096;
        setsockopt(pair.fdServer, SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof(nSmall));
        RunOnScheduler([&] { MakePlayer(); });
    }
    void MakePlayer()
    {
        pProg = ProgramNew("/cam", &g_testOps);
        pProg->bLive = 1;
        pProg->desc.nDataTrack = 2;
        pProg->nRefs = 1;  // as if a pusher held it
        ListAppend(&g_server.programs, pProg);
        pPlayer = AddPlayer(pair.fdServer);
    }
    Session *AddPlayer(int fd) const
    {
        Session *p = CreateSession(CreateTcpPort(fd));
        p->peer.Reply = p->peer.Cmd;
        p->out.bInterleaved = 1;
        p->nState = STATE_PLAYING;
        ProgramAttach(p, pProg);
        p->out.nTracks = 3;
        for (int i = 0; i < 3; i++) {
            p->tracks[i].nPayloadType = kPayloadTypes[i];
            p->tracks[i].bSetUp = i < 2;
        }
        return p;
    }
    void TearDown() override { core.reset(); }

    void Push(const Packet &packet, int nTimes = 1)
    {
        RunOnScheduler([&] {
            for (int i = 0; i < nTimes; i++)
                CachePacketEx(pProg, MakePacket(packet));
        });
    }
    unsigned Waiting() const { return pPlayer->out.Outq.nItems; }
    // Reads what comes until nBytes are there.
    std::string Receive(size_t nBytes) const
    {
        std::string data;
        EXPECT_TRUE(WaitFor([&] {
            char bytes[65536];
            ssize_t n = recv(pair.fdPeer, bytes, sizeof(bytes), MSG_DONTWAIT);
            data.append(bytes, n > 0 ? static_cast<size_t>(n) : 0);
            return data.size() >= nBytes;
        }));
        return data;
    }
};

// The same player with a recording of twenty seconds, one picture a second.
struct RecordingQueueTest : PlayerQueueTest {
    void StartPlaying()
    {
        Start("[INTEROP]\nStandardPlayers=1\n");
        std::string file = core->dir.File("a.zmf");
        ZMFWriter *pWriter = ZMFWriterCreateFile(file.c_str(), RECORD_MANUAL, nullptr);
        ASSERT_EQ(1, ZMFWriterSetSdp(pWriter, "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"));
        ASSERT_EQ(1, ZMFWriterWriteHead(pWriter));
        const uint8_t picture[] = {0, 4, 0x67, 0};
        for (uint32_t i = 0; i <= 20; i++)
            ASSERT_EQ(1, ZMFWriterWriteSample(pWriter, picture, 4, 1000 * i, 'v' << 8 | 0x40));
        ZMFWriterFree(pWriter);
        RunOnScheduler([&] {
            pProg->bLive = 0;
            pProg->reader = FileReaderNew(ZMFReaderOpen(file.c_str(), 65536));
            pPlayer->play.nPlayClock = ClockMs();
            pPlayer->tracks[0].nNextSeq = 1;
            pPlayer->tracks[1].nNextSeq = 500;
        });
        ASSERT_NE(nullptr, pProg->reader->pFile);
    }
    // Queues a packet of which nSent bytes have left, and returns the rest.
    std::string Queue(const Packet &packet, uint16_t nSent = 0)
    {
        DataBlock *pBlock = MakePacket(packet);
        QueueAppend(&pPlayer->out.Outq, {pBlock, 0, nSent});
        pPlayer->tracks[packet.nTrack].nNextSeq++;
        auto *p = reinterpret_cast<char *>(BlockData(pBlock));
        return {p + nSent, p + pBlock->len};
    }
};

}  // namespace orx
