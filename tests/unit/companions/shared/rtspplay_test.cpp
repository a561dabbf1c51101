#include "shared/rtspplay.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "camerakit.h"
#include "client/rtppacket.h"
#include "shared/link.h"
#include "support/sockets.h"

using namespace orx;
using testing::HasSubstr;

static const char *const kSdp =
    "v=0\r\ns=cam\r\na=control:*\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:t0\r\n";

static const std::string kPacket = std::string("\x80\x60\0\1\0\0\0\0\0\0\0\7pay", 15);

// What a camera in good order answers, with further header lines; packets follow PLAY.
static std::string Good(const RtspMessage &request, const std::string &more)
{
    const char *szCSeq = RtspFindHeader(&request, "CSeq");
    std::string text = "RTSP/1.0 200 OK\r\nCSeq: " + std::string(szCSeq ? szCSeq : "") + "\r\n" + more;
    if (request.method == "OPTIONS")
        text += "Public: DESCRIBE, GET_PARAMETER\r\n";
    if (request.method == "SETUP")
        text += std::string("Session: 12ab;timeout=2\r\nTransport: ") + RtspFindHeader(&request, "Transport") + "\r\n";
    if (request.method == "DESCRIBE")
        return text + "Content-Length: " + std::to_string(strlen(kSdp)) + "\r\n\r\n" + kSdp;
    return text + "\r\n" + (request.method == "PLAY" ? Frame(0, kPacket) : "");
}

// One answer that is not as usual: to the nth request of a method, counted from 1; 0: to all of them.
struct Oddity {
    const char *szMethod;
    int nTime;
    const char *szAnswer;  // "@/": the camera's address; '#': the CSeq; "+...": further lines of a good answer
};

struct PlayTest : testing::Test {
    std::unique_ptr<Loop, void (*)(Loop *)> loop{LoopOpen(), LoopClose};
    Loop *pLoop = loop.get();
    RtspPlay *pPlay = nullptr;
    PlayFault fault = PlayFault::None;
    std::string why;
    std::vector<std::string> packets;
    int nPlaying = 0, nDescribed = 0;
    size_t nWanted = 1;  // packets to stop after
    std::vector<Oddity> oddities;
    std::map<std::string, int> times;
    std::string setups;  // the Transport lines that were asked for
    ScriptedCamera camera{pLoop, [this](const RtspMessage &request) { return Answer(request); }};
    PlaySettings settings;

    PlayTest()
    {
        settings.nAnswerMs = settings.nSilentMs = 300;
        settings.nUdpSilentMs = 50;
    }
    ~PlayTest() override
    {
        RtspPlayStop(pPlay);
        EXPECT_TRUE(WaitFor([&] { return RunFor(2), LinksLeaving() == 0; }));
    }
    std::string Answer(const RtspMessage &request)
    {
        int nTime = ++times[request.method];
        if (request.method == "SETUP")
            setups += std::string(RtspFindHeader(&request, "Transport")).substr(0, 11) + "|";
        for (const Oddity &odd : oddities) {
            if (request.method != odd.szMethod || (odd.nTime != 0 && odd.nTime != nTime))
                continue;
            std::string text = camera.Filled(odd.szAnswer);
            const char *szCSeq = RtspFindHeader(&request, "CSeq");
            return text[0] == '+' ? Good(request, text.substr(1))
                                  : ScriptedCamera::Replaced(text, "#", szCSeq ? szCSeq : "");
        }
        return Good(request, "");
    }
    void RunFor(uint64_t nMs)
    {
        LoopTimer timer{[](void *pUser) { LoopStop(static_cast<Loop *>(pUser)); }, pLoop};
        LoopSetTimer(pLoop, &timer, nMs);
        LoopRun(pLoop);
        LoopClearTimer(pLoop, &timer);
    }
    // Plays until nWanted packets have come or it ends.
    void Play(const char *szUrl)
    {
        static const PlayProcs kProcs = {OnDescribed, [](void *p) { static_cast<PlayTest *>(p)->nPlaying++; }, OnPacket,
                                         nullptr, OnEnded};
        settings.url = camera.Filled(szUrl);
        pPlay = RtspPlayStart(pLoop, &settings, &kProcs, this);
        LoopRun(pLoop);
    }
    static int OnDescribed(void *pUser, PlayDescription *pDescription)
    {
        static_cast<PlayTest *>(pUser)->nDescribed++;
        pDescription->tracks[0].bWanted = 1;
        return 1;
    }
    static void OnPacket(void *pUser, int nTrack, int bRtcp, const uint8_t *pData, size_t nBytes)
    {
        auto *pTest = static_cast<PlayTest *>(pUser);
        EXPECT_EQ(1, pTest->nPlaying);
        pTest->packets.push_back(std::to_string(nTrack) + (bRtcp ? "c" : "p") +
                                 std::string(pData, pData + nBytes).substr(std::min<size_t>(nBytes, 12)));
        if (pTest->packets.size() == pTest->nWanted)
            LoopStop(pTest->pLoop);
    }
    static void OnEnded(void *pUser, PlayFault nFault, const char *szWhy)
    {
        auto *pTest = static_cast<PlayTest *>(pUser);
        pTest->fault = nFault;
        pTest->why = szWhy;
        RtspPlayStop(std::exchange(pTest->pPlay, nullptr));
        LoopStop(pTest->pLoop);
    }
    std::string Seen() const
    {
        std::string all;
        for (const std::string &line : camera.seen)
            all += (all.empty() ? "" : ", ") + line;
        return all;
    }
};

struct Dialect {
    const char *szName, *szUrl;
    std::vector<Oddity> oddities;
    PlayFault fault;
    const char *szSeen;  // as far as it goes
};

static const char *const kDigest =
    "RTSP/1.0 401 Unauthorized\r\nCSeq: #\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n\r\n";
static const char *const kStale =
    "RTSP/1.0 401 Unauthorized\r\nCSeq: #\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"m\", stale=true\r\n\r\n";
static const char *const kUsual = "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, SETUP rtsp://@/c/t0, PLAY rtsp://@/c";

static const Dialect kDialects[] = {
    {"plain", "rtsp://@/c", {}, PlayFault::None, kUsual},
    {"base",
     "rtsp://@/c",
     {{"DESCRIBE", 0, "+Content-Base: rtsp://10.1.1.1/c/\r\n"}},
     PlayFault::None,
     "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, SETUP rtsp://@/c/t0, PLAY rtsp://@/c/"},
    {"no CSeq", "rtsp://@/c", {{"OPTIONS", 0, "RTSP/1.0 200 OK\r\n\r\n"}}, PlayFault::None, kUsual},
    {"LF", "rtsp://@/c", {{"OPTIONS", 0, "RTSP/1.0 200 OK\nCSeq: #\n\n\r\n"}}, PlayFault::None, kUsual},
    {"a stray reply",
     "rtsp://@/c",
     {{"OPTIONS", 0,
       "RTSP/1.0 100 Continue\r\nCSeq: #\r\n\r\nRTSP/1.0 404 X\r\nCSeq: 77\r\n\r\n"
       "RTSP/1.0 200 OK\r\nCSeq: #\r\n\r\n"}},
     PlayFault::None,
     kUsual},
    {"OPTIONS refused", "rtsp://@/c", {{"OPTIONS", 0, "RTSP/1.0 501 No\r\nCSeq: #\r\n\r\n"}}, PlayFault::None, kUsual},
    {"OPTIONS refused and hung up",
     "rtsp://@/c",
     {{"OPTIONS", 0, "RTSP/1.0 501 No\r\nCSeq: #\r\n\r\nclose"}},
     PlayFault::None,
     "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, SETUP"},
    {"hung up", "rtsp://@/c", {{"DESCRIBE", 0, "close"}}, PlayFault::Closed, "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c"},
    {"redirect",
     "rtsp://@/c",
     {{"DESCRIBE", 1, "RTSP/1.0 302 Moved\r\nCSeq: #\r\nLocation: rtsp://@/d\r\n\r\n"}},
     PlayFault::None,
     "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, OPTIONS rtsp://@/d, DESCRIBE rtsp://@/d, SETUP"},
    {"redirects without end",
     "rtsp://@/c",
     {{"DESCRIBE", 0, "RTSP/1.0 301 X\r\nLocation: rtsp://@/d\r\n\r\n"}},
     PlayFault::Answer,
     ""},
    {"redirect to nowhere",
     "rtsp://@/c",
     {{"OPTIONS", 0, "RTSP/1.0 305 X\r\nLocation: http://@/d\r\n\r\n"}},
     PlayFault::Answer,
     ""},
    {"login",
     "rtsp://u:secret@@/c",
     {{"DESCRIBE", 1, kDigest}},
     PlayFault::None,
     "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, DESCRIBE rtsp://@/c, SETUP"},
    {"login and hung up",
     "rtsp://u:secret@@/c",
     {{"DESCRIBE", 1, "RTSP/1.0 401 X\r\nCSeq: #\r\nWWW-Authenticate: Basic\r\n\r\nclose"}},
     PlayFault::None,
     "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, SETUP"},
    {"wrong and hung up",
     "rtsp://u:secret@@/c",
     {{"OPTIONS", 0, "RTSP/1.0 401 X\r\nCSeq: #\r\nWWW-Authenticate: Basic\r\n\r\nclose"}},
     PlayFault::Password,
     "OPTIONS rtsp://@/c, OPTIONS rtsp://@/c"},
    {"stale",
     "rtsp://u:secret@@/c",
     {{"DESCRIBE", 1, kDigest}, {"DESCRIBE", 2, kStale}},
     PlayFault::None,
     "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, DESCRIBE rtsp://@/c, DESCRIBE rtsp://@/c, SETUP"},
    {"always stale", "rtsp://u:secret@@/c", {{"DESCRIBE", 0, kStale}}, PlayFault::Password, ""},
    {"wrong",
     "rtsp://u:secret@@/c",
     {{"DESCRIBE", 0, kDigest}},
     PlayFault::Password,
     "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c, DESCRIBE rtsp://@/c"},
    {"no user",
     "rtsp://@/c",
     {{"DESCRIBE", 0, kDigest}},
     PlayFault::Password,
     "OPTIONS rtsp://@/c, DESCRIBE rtsp://@/c"},
    {"not found", "rtsp://@/c", {{"DESCRIBE", 0, "RTSP/1.0 404 No\r\nCSeq: #\r\n\r\n"}}, PlayFault::NotFound, ""},
    {"busy", "rtsp://@/c", {{"SETUP", 0, "RTSP/1.0 453 Full\r\nCSeq: #\r\n\r\n"}}, PlayFault::Answer, ""},
    {"nothing described", "rtsp://@/c", {{"DESCRIBE", 0, "RTSP/1.0 200 OK\r\n\r\n"}}, PlayFault::NoMedia, ""},
    {"too much",
     "rtsp://@/c",
     {{"DESCRIBE", 0, "RTSP/1.0 200 OK\r\nContent-Length: 99999\r\n\r\n"}},
     PlayFault::Answer,
     ""},
    {"no answer", "rtsp://@/c", {{"SETUP", 0, ""}}, PlayFault::Answer, ""},
    {"silent", "rtsp://@/c", {{"PLAY", 0, "RTSP/1.0 200 OK\r\nCSeq: #\r\n\r\n"}}, PlayFault::NoMedia, kUsual},
    {"no URL", "rtsp//@/c", {}, PlayFault::Url, ""},
};

class PlayDialect : public PlayTest, public testing::WithParamInterface<Dialect> {};

TEST_P(PlayDialect, IsUnderstood)
{
    const Dialect &dialect = GetParam();
    SCOPED_TRACE(dialect.szName);
    oddities = dialect.oddities;
    Play(dialect.szUrl);
    EXPECT_EQ(dialect.fault, fault) << why;
    EXPECT_THAT(Seen(), testing::StartsWith(dialect.szSeen));
    EXPECT_EQ(fault == PlayFault::None ? "0ppay" : "", packets.empty() ? "" : packets[0]);
    EXPECT_EQ(std::string::npos, (why + Seen()).find("secret"));
}

INSTANTIATE_TEST_SUITE_P(All, PlayDialect, testing::ValuesIn(kDialects));

TEST_F(PlayTest, ServerChangesChannelsAndSendsBeforeItAnswers)
{
    oddities = {
        {"SETUP", 0, "RTSP/1.0 200 OK\r\nCSeq: #\r\nSession: 1\r\nTransport: RTP/AVP/TCP;interleaved=6-7\r\n\r\n"},
        {"PLAY", 0, "$\6\0\xb____________abc"}};
    std::string early = Frame(0, kPacket) + Frame(6, kPacket) + Frame(7, kPacket);
    camera.script = [&, old = camera.script](const RtspMessage &request) {
        return request.method == "PLAY" ? early + Good(request, "") : old(request);
    };
    nWanted = 2;
    Play("rtsp://@/c");
    EXPECT_EQ((std::vector<std::string>{"0ppay", "0cpay"}), packets);
}

TEST_F(PlayTest, AnswersRequestsKeepsAliveAndTakesLeave)
{
    settings.nSilentMs = 5000;
    oddities = {{"GET_PARAMETER", 1,
                 "OPTIONS * RTSP/1.0\r\nCSeq: 5\r\n\r\nANNOUNCE x RTSP/1.0\r\nCSeq: 6\r\n\r\n"
                 "RTSP/1.0 501 No\r\nCSeq: #\r\n\r\n"}};
    Play("rtsp://@/c");
    EXPECT_TRUE(WaitFor([&] { return RunFor(5), camera.seen.size() >= 8; }));
    RtspPlayStop(std::exchange(pPlay, nullptr));
    EXPECT_TRUE(WaitFor([&] { return RunFor(2), LinksLeaving() == 0; }));
    EXPECT_THAT(Seen(), HasSubstr("PLAY rtsp://@/c, GET_PARAMETER rtsp://@/c, RTSP/1.0 200 OK, "
                                  "RTSP/1.0 501 Not Implemented, OPTIONS rtsp://@/c"));
    EXPECT_EQ("TEARDOWN rtsp://@/c", camera.seen.back());
}

TEST_F(PlayTest, GoesToTheOtherTransport)
{
    static const struct {
        PlayOver over;
        Oddity odd;
        const char *szSetups;
        PlayFault fault;
    } cases[] = {
        // nothing comes: another session, over TCP
        {PlayOver::Udp, {"PLAY", 1, "RTSP/1.0 200 OK\r\nCSeq: #\r\n\r\n"}, "RTP/AVP;uni|RTP/AVP/TCP|", PlayFault::None},
        {PlayOver::Udp,
         {"SETUP", 1, "RTSP/1.0 461 No\r\nCSeq: #\r\n\r\n"},
         "RTP/AVP;uni|RTP/AVP/TCP|",
         PlayFault::None},
        {PlayOver::Tcp,
         {"SETUP", 0, "RTSP/1.0 461 No\r\nCSeq: #\r\n\r\n"},
         "RTP/AVP/TCP|RTP/AVP;uni|",
         PlayFault::Answer},
    };
    for (const auto &c : cases) {
        settings.over = c.over;
        oddities = {c.odd};
        times.clear();
        setups.clear();
        packets.clear();
        nPlaying = nDescribed = 0;
        fault = PlayFault::None;
        Play("rtsp://@/c");
        RtspPlayStop(std::exchange(pPlay, nullptr));
        EXPECT_EQ(c.szSetups, setups);
        EXPECT_EQ(c.fault, fault) << why;
        EXPECT_EQ(1, nDescribed);
        EXPECT_EQ(c.fault == PlayFault::None ? 1U : 0U, packets.size());
    }
}

// A login of HTTP and one of RTSP, and requests of more bytes than a POST may have.
TEST_F(PlayTest, PlaysThroughATunnel)
{
    oddities = {{"GET", 1, "HTTP/1.0 401 X\r\nWWW-Authenticate: Basic realm=\"x\"\r\nContent-Length: 4\r\n\r\noh!!"},
                {"GET", 2, "HTTP/1.0 200 OK\r\nContent-Length: 32767\r\n\r\n"},
                {"DESCRIBE", 1, kDigest}};
    settings.over = PlayOver::Http;
    settings.nAnswerMs = 5000;
    Play(("rtsp://u:secret@@/" + std::string(4000, 'c')).c_str());
    EXPECT_EQ(PlayFault::None, fault) << why;
    EXPECT_EQ(std::vector<std::string>{"0ppay"}, packets);
    EXPECT_GE(std::count(camera.seen.begin(), camera.seen.end(), "POST"), 2);
    EXPECT_EQ(2, times["GET"]);
}

// Datagrams of the camera's address are taken, and it is sent something first.
TEST_F(PlayTest, PlaysOverUdp)
{
    Sock rtp(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in own = Loopback(0);
    bind(rtp.fd, reinterpret_cast<sockaddr *>(&own), sizeof own);
    settings.over = PlayOver::Udp;
    settings.nSilentMs = settings.nUdpSilentMs = 5000;
    std::string transport = "RTP/AVP;unicast;server_port=" + std::to_string(PortOf(rtp.fd));
    int nClientPort = 0;
    camera.script = [&](const RtspMessage &request) {
        const char *szTransport = RtspFindHeader(&request, "Transport");
        if (szTransport)
            nClientPort = atoi(strstr(szTransport, "client_port=") + 12);
        if (request.method == "SETUP")
            return ScriptedCamera::Replaced("RTSP/1.0 200 OK\r\nSession: 1\r\nTransport: #\r\n\r\n", "#", transport);
        if (request.method != "PLAY")
            return Good(request, "");
        sockaddr_in peer = Loopback(nClientPort);
        for (int nHost : {2, 1}) {  // of another's address, and of ours
            Sock sock(socket(AF_INET, SOCK_DGRAM, 0));
            sockaddr_in from = Loopback(0);
            from.sin_addr.s_addr = htonl(0x7F000000 | static_cast<uint32_t>(nHost));
            bind(sock.fd, reinterpret_cast<sockaddr *>(&from), sizeof from);
            std::string packet = kPacket + (nHost == 2 ? "forged" : "");
            sendto(sock.fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&peer), sizeof peer);
        }
        return std::string("RTSP/1.0 200 OK\r\n\r\n");
    };
    Play("rtsp://@/c");
    EXPECT_EQ(std::vector<std::string>{"0ppay"}, packets);
    EXPECT_EQ(0, nClientPort % 2);
    EXPECT_TRUE(rtp.Readable(0));
}

TEST_F(PlayTest, AnotherHostIsGivenNoPasswordInClear)
{
    ScriptedCamera other(pLoop,
                         [](const RtspMessage &) { return "RTSP/1.0 401 X\r\nWWW-Authenticate: Basic\r\n\r\n"; });
    std::string answer = "RTSP/1.0 302 X\r\nLocation: rtsp://localhost:" + std::to_string(other.nPort) + "/\r\n\r\n";
    oddities = {{"DESCRIBE", 0, answer.c_str()}};
    Play("rtsp://u:secret@@/c");
    EXPECT_EQ(PlayFault::Password, fault);
    EXPECT_EQ(1U, other.seen.size());
}

TEST(PlayFaultText, IsWhatOthersRead)
{
    const char *const texts[] = {"",    "url", "name",     "refused", "route",  "tls",
                                 "401", "404", "no media", "codec",   "answer", "closed"};
    for (int i = 0; i < 12; i++)
        EXPECT_STREQ(texts[i], PlayFaultText(static_cast<PlayFault>(i)));
}
