// Too little of everything, and peers that stand still: who has nothing to do with it is served throughout, and
// afterwards the server is as before.
#include <linux/fs.h>
#include <sys/ioctl.h>

#include "support/namespaces.h"
#include "system/faultkit.h"
#include "system/imagedisk.h"

using namespace orx;

using Faults = FaultTest;

const int kStandstillMs = getenv("ORX_LONG") ? 10000 : 3000;

// Those who come while there are none wait, or are sent away.
TEST_F(Faults, FewDescriptors)
{
    Begin();
    Limit(RLIMIT_NOFILE, static_cast<rlim_t>(nDescriptors) + 4);
    {
        std::vector<Sock> many;
        for (int i = 0; i < 60; i++) {
            many.push_back(orx::Connect(server.nPort));
            many.back().Send(i % 2 ? "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n" : "");
        }
        RtspClient pusher;  // with a recording, which wants a file as well
        RtspOpenPusher(&pusher, server.Url("/other").c_str(), CameraSdp(), "PLAY", 500);
        Serve(50);
    }
    Limit(RLIMIT_NOFILE, RLIM_INFINITY);
    ExpectAsBefore();
}

// What is asked for beyond it is refused, however many ask.
TEST_F(Faults, LittleMemory)
{
    if (kSanitized)
        GTEST_SKIP() << "a sanitizer reserves terabytes";
    Begin();
    Limit(RLIMIT_AS, static_cast<rlim_t>(server.ResidentKb("VmSize:")) * 1024 + (24 << 20));
    {
        ToolProcess crowd("orxload",
                          {"--stalled", "150", "--timeout", "2000", "--duration", "100000", server.Url("/cam")});
        std::deque<Camera> cameras;
        for (int i = 0; i < 8 && !HasFailure(); i++) {
            cameras.emplace_back(std::vector{Coding::JPEG});
            cameras.back().nJpegBytes = 50000;
            ASSERT_EQ(1, cameras.back().Open(server.Url("/more" + std::to_string(i))));
            cameras.back().Send(120);  // 6 MB, which fit into a cache of 5 seconds
        }
        Serve(50);
    }
    Limit(RLIMIT_AS, RLIM_INFINITY);
    ExpectAsBefore();
}

TEST_F(Faults, PlayersThatReadAByteNowAndThen)
{
    Begin();
    {
        RtspClient slow[6];
        for (RtspClient &one : slow) {
            one.nReceiveBuffer = 2048;
            ASSERT_EQ(1, RtspOpenPlayer(&one, server.Url("/cam").c_str(),
                                        &one < slow + 3 ? RTSP_OVER_TCP : RTSP_OVER_TUNNEL));
        }
        size_t nRead = nSeen;
        Serve(getenv("ORX_LONG") ? 1500 : 100, [&] {
            if (witness.nPictures >= nRead + 25) {
                nRead = witness.nPictures;
                char cByte;
                for (RtspClient &one : slow)
                    recv(one.fd, &cByte, 1, MSG_DONTWAIT);
            }
        });
    }
    ExpectAsBefore();
}

// It ends by its silence, and what waits for it does.
TEST_F(Faults, PushersThatStall)
{
    Begin(2);
    RtspClient half, head, other;
    ASSERT_EQ(1, RtspOpenPusher(&half, server.Url("/half").c_str(), CameraSdp()));
    SendPictures(&half, 0, 30);
    ASSERT_EQ(1, RtspOpenPlayer(&other, server.Url("/half").c_str(), RTSP_OVER_UDP));
    Send(&half, Frame(0, CameraPacket(0, 60, 108000, std::string(1000, 'x'))).substr(0, 500));
    ASSERT_EQ(1, RtspConnect(&head, server.Url("/head").c_str()));
    Send(&head, "ANNOUNCE /head RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 900\r\n\r\nv=0");
    Serve(75);
    EXPECT_TRUE(RtspWaitClosed(&half));
    RtspClose(&head);
    Serve(25, [&] { RtspPoll(&other); });
    RtspClose(&other);
    ExpectAsBefore();
}

// The machine is busy elsewhere, or somebody looks into the process: what has come meanwhile goes on to everybody.
TEST_F(Faults, TheServerStandsStill)
{
    Begin();
    server.Signal(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(kStandstillMs));
    server.Signal(SIGCONT);
    Serve(static_cast<size_t>(kStandstillMs) / 40 + 25);
    ExpectAsBefore();
}

TEST_F(Faults, TheDiskIsFrozen)
{
    InChildProcess("may not mount an image, or has no mkfs.ext4", [&] {
        ImageDisk disk{place.File("image"), root};
        if (kEmulated || !EnterNamespaces(CLONE_NEWNS) || !disk.Make())
            return false;
        Begin();
        int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        bool bFrozen = ioctl(fd, FIFREEZE, 0) == 0;
        Serve(100);
        EXPECT_TRUE(!bFrozen || ioctl(fd, FITHAW, 0) == 0);
        close(fd);
        ExpectAsBefore();
        TearDown();
        players.reset();
        while (umount2(root.c_str(), MNT_DETACH) == 0) {
        }
        return bFrozen;
    });
}
