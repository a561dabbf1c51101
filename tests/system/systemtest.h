// A test of the server as a process: what is asked of it on its connections, and how replies look.
#pragma once

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/rtspclient.h"
#include "support/rtp.h"
#include "system/orxprocess.h"

namespace orx {

// Whatever the test does, the server ends by "quit" with status 0, unless it has ended already; a sanitizer's
// report fails the test, and a failed test shows what was printed.
struct SystemTest : testing::Test {
    OrxProcess server;
    RtspClient pusher, player;

    // Starts the server with a camera that pushes a program.
    void StartCamera(const std::string &sdp, const std::string &path = "/cam");
    // Connects a client anew.
    void Connect(RtspClient *pClient, const std::string &path = "/cam");
    // Connects a player anew, to a program that is there.
    void Describe(RtspClient *pClient, const std::string &path = "/cam");
    // Waits until what the pusher sent has left for its players: every second read from it sends what waits
    // for one of them, from six packets on.
    void Deliver();
    // Waits until so many clients and sockets, the listener included, are left.
    void ExpectLeft(unsigned nClients, unsigned nMonitors);
    void TearDown() override;
};

// --- Asking ---

// Sends a text as it is and waits for a reply. Returns that with what differs from run to run replaced, a
// well-formed date by "DATE" and a session by "SESSION"; "" when none came.
std::string Exchange(RtspClient *pClient, const std::string &text);
// Sends a request with the client's next number and waits for its reply, in which that number is "#".
// path: that of the program the client was connected for when empty; "*" is sent as it is.
std::string Ask(RtspClient *pClient, const std::string &method, const std::string &path = "",
                const std::string &headers = "", const std::string &body = "");
// Whether the server answers; what the client sent before was taken then.
bool Answers(RtspClient *pClient);
// The number of the next reply, which is a 200; -1 when none comes.
int NextAnswer(RtspClient *pClient, int nTimeoutMs = kRtspTimeoutMs);
// That the next replies have the numbers from nFirst to nLast.
void ExpectAnswers(RtspClient *pClient, int nFirst, int nLast);
// Sends bytes as they are.
void Send(RtspClient *pClient, const std::string &bytes);
// A request as a text, for those that are not sent whole or one by one.
std::string MakeRequest(const std::string &method, const std::string &url, int nCSeq, const std::string &headers = "",
                        const std::string &body = "");
inline std::string Options(int nCSeq)
{
    return MakeRequest("OPTIONS", "*", nCSeq);
}
// Headers of the methods that ask a camera.
inline const std::string kAction = "CamAction: up\r\n", kVoice = "Content-Type: audio/amr\r\n";
inline const std::string kGetCfg = "GetInfoType: getcamcfg\r\n";
// The headers by which some methods know a user.
std::string UserHeaders(const std::string &user, const std::string &password);

// --- Replies, as Ask gives them ---

inline const std::string kServerLine = "Server: Orx/2.3.1.2\r\n";
inline const std::string kNoCache = "Pragma: no-cache\r\nCache-Control: no-cache\r\n";
inline const std::string kDate = "Date: DATE\r\n";
inline const std::string kPublic = "Public: DESCRIBE, SETUP, PLAY, TEARDOWN, SET_PARAMETER, GETCAMINFO, CAMCONTROL\r\n";
// The end of a reply to standard players that tells nothing of media.
inline const std::string kStandardEnd = kNoCache + "Date: RFC1123\r\n\r\n";
inline const std::string kPlain = "Content-Type: text/plain\r\n", kSdp = "Content-Type: application/sdp\r\n";
inline const std::string kOverTcp = "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";

inline std::string Reply(const std::string &status, const std::string &lines = "")
{
    return "RTSP/1.0 " + status + "\r\n" + kServerLine + "CSeq: #\r\n" + lines + "\r\n";
}
// A refusal in the methods of players and pushers.
inline std::string Refused(const std::string &status)
{
    return Reply(status, kNoCache);
}
inline const std::string kWrongState = Refused("455 Method Not Valid in This State");
inline const std::string kNotImplemented = "RTSP/1.0 500 Not implemented\r\n" + kServerLine + kNoCache + "\r\n";
inline const std::string kMismatch =
    "HTTP/1.1 400 Bad Request(Content Types Mismatched)\r\n" + kServerLine + kNoCache + "Connection: Close\r\n\r\n";
inline std::string Dated(const std::string &lines = "")
{
    return Reply("200 OK", lines + kNoCache + kDate);
}
inline std::string WithBody(const std::string &status, const std::string &type, const std::string &body)
{
    return Reply(status, type + "Content-Length: " + std::to_string(body.size()) + "\r\n" + kNoCache + kDate) + body;
}

inline const auto kIsOk = testing::StartsWith("RTSP/1.0 200 OK\r\n");

// --- A camera in miniature ---

// Track 0 is video (H.264, type 96), 1 sound (PCMU, type 0), 2 data (type 98), 3 sound again.
std::string CameraSdp(int nTracks = 1);
// One of two tracks, as long as one may be.
std::string LongestSdp();
// One RTP packet of such a track.
std::string CameraPacket(int nTrack, uint16_t nSequence, uint32_t nTime, const std::string &payload,
                         bool bMarker = false);
// Sends nCount pictures of two packets each (SPS, IDR slice) on track 0, 40 ms apart from nFirst on.
void SendPictures(RtspClient *pPusher, int nFirst, int nCount);

}  // namespace orx
