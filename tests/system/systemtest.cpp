#include "system/systemtest.h"

#include <filesystem>
#include <regex>

namespace orx {

void SystemTest::StartCamera(const std::string &sdp, const std::string &path)
{
    ASSERT_NO_FATAL_FAILURE(server.Start());
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url(path).c_str(), sdp)) << pusher.error;
}

void SystemTest::Connect(RtspClient *pClient, const std::string &path)
{
    ASSERT_EQ(1, RtspConnect(pClient, server.Url(path).c_str()));
}

void SystemTest::Describe(RtspClient *pClient, const std::string &path)
{
    Connect(pClient, path);
    ASSERT_EQ(1, RtspDescribe(pClient)) << pClient->error;
}

void SystemTest::Deliver()
{
    ASSERT_TRUE(Answers(&pusher) && Answers(&pusher));
}

void SystemTest::ExpectLeft(unsigned nClients, unsigned nMonitors)
{
    OrxStat stat;
    EXPECT_TRUE(WaitFor([&] {
        stat = server.Stat();
        return stat.nClients == nClients && stat.nMonitors == nMonitors;
    })) << stat.nClients
        << " clients, " << stat.nMonitors << " sockets";
}

void SystemTest::TearDown()
{
    if (server.pid >= 0) {
        EXPECT_EQ(0, server.Quit());
        EXPECT_THAT(server.Output(), testing::EndsWith("main() exit OK.\n"));
        if (std::filesystem::exists(server.LogPath())) {
            EXPECT_THAT(ReadFile(server.LogPath()), testing::EndsWith(": End\r\n"));
        }
    }
    for (const char *szReport : {"Sanitizer", "runtime error:"})
        EXPECT_EQ(0, CountText(server.Output(), szReport));
    if (HasFailure())
        fprintf(stderr, "--- output of the server ---\n%s\n--- end ---\n", server.Output().c_str());
}

static std::string Normalized(const std::string &reply)
{
    static const std::regex date(
        "\r\nDate: (Sun|Mon|Tue|Wed|Thu|Fri|Sat), (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
        "[1-9][0-9]? 20[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} GMT\r\n");
    static const std::regex standard(
        "\r\nDate: (Sun|Mon|Tue|Wed|Thu|Fri|Sat), [0-9]{2} (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
        "20[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} GMT\r\n");
    static const std::regex session("\r\nSession: 0x[1-9a-f][0-9a-f]{0,7}(\r\n|;)");
    std::string text = std::regex_replace(reply, date, "\r\nDate: DATE\r\n");
    text = std::regex_replace(text, standard, "\r\nDate: RFC1123\r\n");
    return std::regex_replace(text, session, "\r\nSession: SESSION$1");
}

std::string Exchange(RtspClient *pClient, const std::string &text)
{
    RtspMessage reply;
    return RtspSendBytes(pClient, text.data(), text.size()) && RtspWaitReply(pClient, 0, &reply) ? Normalized(reply.raw)
                                                                                                 : "";
}

std::string Ask(RtspClient *pClient, const std::string &method, const std::string &path, const std::string &headers,
                const std::string &body)
{
    const RtspUrl &known = pClient->url;
    std::string url = path.empty()     ? known.plain
                      : path[0] == '/' ? "rtsp://" + known.host + ":" + std::to_string(known.nPort) + path
                                       : path;
    std::string reply = Exchange(pClient, MakeRequest(method, url, ++pClient->nCSeq, headers, body));
    const std::string number = "\r\nCSeq: " + std::to_string(pClient->nCSeq) + "\r\n";
    size_t nAt = reply.find(number);
    return nAt == std::string::npos ? reply : reply.replace(nAt, number.size(), "\r\nCSeq: #\r\n");
}

bool Answers(RtspClient *pClient)
{
    std::string reply = Ask(pClient, "OPTIONS");
    return reply == Dated(kPublic) ||
           (reply.starts_with(Reply("200 OK").substr(0, 40)) && reply.ends_with(kStandardEnd));
}

int NextAnswer(RtspClient *pClient, int nTimeoutMs)
{
    RtspMessage reply;
    if (!RtspWaitReply(pClient, 0, &reply, nTimeoutMs))
        return -1;
    EXPECT_THAT(reply.raw, kIsOk);
    return static_cast<int>(RtspHeaderNumber(&reply, "CSeq", -2));
}

void ExpectAnswers(RtspClient *pClient, int nFirst, int nLast)
{
    for (int i = nFirst; i <= nLast; i++)
        ASSERT_EQ(i, NextAnswer(pClient));
}

void Send(RtspClient *pClient, const std::string &bytes)
{
    ASSERT_EQ(1, RtspSendRaw(pClient, bytes.data(), bytes.size()));
}

std::string UserHeaders(const std::string &user, const std::string &password)
{
    return "UserName: " + user + "\r\nUserAuth: " + RtspUserToken(user, password) + "\r\n";
}

std::string MakeRequest(const std::string &method, const std::string &url, int nCSeq, const std::string &headers,
                        const std::string &body)
{
    std::string text = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(nCSeq) + "\r\n" + headers;
    if (!body.empty())
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

std::string CameraSdp(int nTracks)
{
    static const char *const sections[] = {
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n",
        "m=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000/1\r\na=control:trackID=1\r\n",
        "m=data 0 RTP/AVP 98\r\na=rtpmap:98 event/1000\r\na=control:trackID=2\r\n",
        "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/1\r\na=control:trackID=3\r\n",
    };
    std::string sdp = "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=camera\r\nt=0 0\r\n";
    for (int i = 0; i < nTracks; i++)
        sdp += sections[i];
    return sdp;
}

std::string LongestSdp()
{
    std::string sdp = CameraSdp(2);
    return sdp + "a=x:" + std::string(3999 - sdp.size() - 6, 'x') + "\r\n";
}

std::string CameraPacket(int nTrack, uint16_t nSequence, uint32_t nTime, const std::string &payload, bool bMarker)
{
    static const uint32_t types[] = {96, 0, 98};
    return MakeRtp({types[nTrack], nSequence, nTime, bMarker}, payload);
}

void SendPictures(RtspClient *pPusher, int nFirst, int nCount)
{
    std::string frames;
    for (int i = nFirst; i < nFirst + nCount; i++) {
        auto nTime = static_cast<uint32_t>(i) * 3600;
        auto nSequence = static_cast<uint16_t>(2 * i);
        frames += Frame(0, CameraPacket(0, nSequence, nTime, "\x67sps"));
        frames += Frame(0, CameraPacket(0, static_cast<uint16_t>(nSequence + 1), nTime, "\x65picture", true));
    }
    ASSERT_EQ(1, RtspSendBytes(pPusher, frames.data(), frames.size()));
}

}  // namespace orx
