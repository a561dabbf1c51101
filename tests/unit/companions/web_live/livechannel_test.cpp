// Viewers of one program, each at its own pace, of a server that says what the test wants.
#include <gtest/gtest.h>

#include <cstring>

#include "client/h264file.h"
#include "client/rtppack.h"
#include "client/rtspmessage.h"
#include "orxweb/livechannel.h"
#include "support/rtp.h"
#include "support/sockets.h"
#include "support/wait.h"

using namespace orx;

static const char *const kDescription =
    "v=0\r\ns=c\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:t0\r\n";

static std::string GoodAnswer(const RtspMessage &request)
{
    std::string text = std::string("RTSP/1.0 200 OK\r\nCSeq: ") + RtspFindHeader(&request, "CSeq") + "\r\n";
    if (request.method == "SETUP")
        text += std::string("Session: 1\r\nTransport: ") + RtspFindHeader(&request, "Transport") + "\r\n";
    if (request.method != "DESCRIBE")
        return text + "\r\n";
    return text + "Content-Length: " + std::to_string(strlen(kDescription)) + "\r\n\r\n" + kDescription;
}

static void TellNobody(void *) {}

struct LiveChannelTest : testing::Test {
    H264File clip;
    Listener listener;
    Sock session;
    RtpStream video{.nPayloadType = 96};
    uint32_t nStamp = 0;

    void SetUp() override
    {
        ASSERT_EQ(1, H264Load(&clip, ORX_TEST_DATA "/clip.h264"));
        LiveSettings settings;
        settings.rtspBase = "rtsp://127.0.0.1:" + std::to_string(listener.nPort) + "/";
        ASSERT_EQ(1, LiveStart(&settings));
    }
    void TearDown() override { LiveStop(); }
    // Answers until the session plays.
    void Serve()
    {
        std::string received;
        RtspMessage request;
        session = listener.Accept();
        for (int bPlays = 0; !bPlays;) {
            char bytes[2048];
            ssize_t n = recv(session.fd, bytes, sizeof(bytes), 0);
            ASSERT_GT(n, 0);
            received.append(bytes, static_cast<size_t>(n));
            for (long nUsed; (nUsed = RtspParse(received.data(), received.size(), &request)) > 0;) {
                received.erase(0, static_cast<size_t>(nUsed));
                ASSERT_TRUE(session.Send(GoodAnswer(request)));
                bPlays |= request.method == "PLAY";
            }
        }
    }
    void Push(const std::vector<std::string_view> &units)
    {
        RtpPackets packets;
        std::string bytes;
        PackH264(&video, units, nStamp += 3600, 0, &packets);
        for (const std::string &packet : packets)
            bytes += Frame(0, packet);
        ASSERT_TRUE(session.Send(bytes));
    }
    static LiveViewer *Join()
    {
        LiveUser user;
        return LiveJoin("cam", &user, LiveForm::Mp4, TellNobody, nullptr);
    }
    // What there is for a viewer, up to nMost bytes.
    static LiveResult Read(LiveViewer *pViewer, std::string *pInto, size_t nMost = 64 << 20)
    {
        std::string piece(65536, 0);
        LiveResult result = LiveResult::Ok;
        for (size_t nBytes = 0; nMost > 0; nMost -= nBytes) {
            result = LiveRead(pViewer, piece.data(), std::min(nMost, piece.size()), &nBytes);
            if (result != LiveResult::Ok)
                break;
            pInto->append(piece, 0, nBytes);
        }
        return result;
    }
    static int Fragments(const std::string &text)
    {
        int nFound = 0;
        for (size_t n = 0; (n = text.find("moof", n)) != std::string::npos; n++)
            nFound++;
        return nFound;
    }
};

TEST_F(LiveChannelTest, WhoNeverReadsCostsNothingAndJumps)
{
    constexpr int kPictures = 40;
    const std::string large = "\x41\x9A" + std::string(500000, 'U');  // together more than is held of a program
    LiveViewer *pReads = Join(), *pSleeps = Join();
    std::string all, late;
    Serve();
    Push(clip.pictures[0].units);
    ASSERT_TRUE(WaitFor([&] { return Read(pReads, &all) == LiveResult::Later && Fragments(all) == 1; }, 10000));
    EXPECT_EQ(LiveResult::Ok, Read(pSleeps, &late, 100));
    for (int i = 0; i < kPictures; i++) {
        Push({large});
        ASSERT_TRUE(WaitFor([&] { return Read(pReads, &all), Fragments(all) == 2 + i; }, 10000)) << i;
    }
    EXPECT_EQ(LiveResult::Later, Read(pSleeps, &late)) << "where it was is gone, and so is the group's begin";
    EXPECT_EQ(0, Fragments(late));
    Push(clip.pictures[0].units);
    ASSERT_TRUE(WaitFor([&] { return Read(pSleeps, &late) == LiveResult::Later && Fragments(late) == 1; }, 10000));
    EXPECT_LT(late.size(), large.size()) << "the newest group alone";
    LiveLeave(pReads);
    LiveLeave(pSleeps);
}

TEST_F(LiveChannelTest, OtherParameterSetsEndWhatWasBegun)
{
    LiveViewer *pViewer = Join();
    std::string first, second;
    Serve();
    Push(clip.pictures[0].units);
    ASSERT_TRUE(WaitFor([&] { return Read(pViewer, &first) == LiveResult::Later && Fragments(first) == 1; }, 10000));
    std::string sps(clip.sps);
    sps[3] = static_cast<char>(sps[3] + 1);  // another level
    std::vector<std::string_view> units = clip.pictures[0].units;
    for (std::string_view &unit : units)
        if (H264UnitType(unit) == H264_SPS)
            unit = sps;
    Push(units);
    EXPECT_TRUE(WaitFor([&] { return Read(pViewer, &first) == LiveResult::Ended; }, 10000));
    LiveLeave(pViewer);
    pViewer = Join();
    EXPECT_TRUE(WaitFor([&] { return Read(pViewer, &second) == LiveResult::Later && Fragments(second) == 1; }, 10000));
    EXPECT_NE(first.substr(0, first.find("moof")), second.substr(0, second.find("moof")));
    LiveLeave(pViewer);
}
