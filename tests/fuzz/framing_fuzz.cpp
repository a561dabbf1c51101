// What peers send on an RTSP connection, arriving in any pieces: a server inside the fuzzer takes it, with a
// program that is played. Whatever comes, the server goes on and keeps nothing of connections that are gone.
//
// An input is a line that says who sends and where the rest is cut, then the bytes that are sent:
//   "f 10 3\n"   a new connection; pieces of 10 and 3 bytes, then the rest
//   "p", "P"     the pusher of a program with a player ("P": standard pushers are understood)
//   "v"          a player of that program
//   "t"          the POST half of a tunnel that is paired: base64 text
//   "T"          the same, with every second piece on the GET half as it is
//   "g"          a new connection, while a GET half with the cookie "c" waits
//   "h"          a connection handed over with the first piece, while such a GET half waits
#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/assertion.h"
#include "server/front/dispatch.h"
#include "server/front/events.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "support/testserver.h"

using namespace orx;

static const char g_sdp[] =
    "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n"
    "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000/1\r\na=control:trackID=1\r\n"
    "m=data 0 RTP/AVP 98\r\na=rtpmap:98 event/1000\r\na=control:trackID=2\r\n";

static const std::string g_post =
    "POST /cam HTTP/1.0\r\nx-sessioncookie: C\r\nContent-Type: "
    "application/x-rtsp-tunnelled\r\nContent-Length: "
    "32767\r\n\r\n";

// One connection as the server has it.
struct Connection {
    TcpPair pair;
    uint32_t nGeneration = 0;
    Connection()
    {
        Port *pPort = CreateTcpPort(pair.fdServer);
        ORX_ASSERT(pPort && CreateSession(pPort), "a connection can be made");
        nGeneration = pPort->nGeneration;
    }
    // One that comes with its first bytes.
    Connection(const char *pData, size_t nBytes)
    {
        RtspSessionCreate(pair.fdServer, pData, nBytes);
        Port *pPort = FindPort(pair.fdServer);
        nGeneration = pPort ? pPort->nGeneration : 0;
    }
    Port *FindLive() const { return FindPortAlive(pair.fdServer, nGeneration); }
    // Lets the server read some bytes. Returns 0 once it has closed the connection.
    int Send(const char *pData, size_t nBytes)
    {
        while (nBytes > 0 && FindLive()) {
            ssize_t n = send(pair.fdPeer, pData, nBytes, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n <= 0)
                return 0;
            OnRead(pair.fdServer);
            FreeRetired();  // as after a callback
            pData += n;
            nBytes -= static_cast<size_t>(n);
            char reply[16384];
            while (recv(pair.fdPeer, reply, sizeof(reply), MSG_DONTWAIT) > 0)
                continue;
        }
        return FindLive() != nullptr;
    }
    int Send(const std::string &text) { return Send(text.data(), text.size()); }
};

static std::string MakeRequest(const char *szMethod, int nCSeq, const char *szHeaders = "",
                               const std::string &body = "")
{
    return std::string(szMethod) + " rtsp://h/cam" + (nCSeq < 10 ? "" : "/trackID=" + std::to_string(nCSeq % 10)) +
           " RTSP/1.0\r\nCSeq: " + std::to_string(nCSeq) + "\r\n" + szHeaders +
           (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body;
}

// A pusher or player of so many tracks, from its first request on.
static void Start(Connection *pConnection, const std::string &request, int nTracks)
{
    pConnection->Send(request);
    for (int i = 0; i < nTracks; i++)
        pConnection->Send(MakeRequest("SETUP", 10 + i, "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"));
    ORX_ASSERT(pConnection->Send(MakeRequest("PLAY", 20)), "it plays");
}

// The pieces that a line of sizes cuts the data into.
static std::vector<std::string> Cut(const std::string &sizes, std::string data)
{
    std::vector<std::string> pieces;
    std::istringstream line(sizes);
    for (size_t n; pieces.size() < 64 && line >> n; data.erase(0, n))
        pieces.push_back(data.substr(0, n));
    pieces.push_back(data);
    return pieces;
}

// Who sends, and who gets every second piece instead.
struct Cast {
    Connection pusher;
    std::unique_ptr<Connection> player, get, subject;
    Connection *pSender = nullptr;
    Connection *pSecond = nullptr;
};

static void SetUp(Cast *pCast, char c, std::string *pFirst)
{
    Start(&pCast->pusher, MakeRequest("ANNOUNCE", 1, "Content-Type: application/sdp\r\n", g_sdp), 3);
    if (c == 'p' || c == 'P' || c == 'v') {
        pCast->player = std::make_unique<Connection>();
        Start(pCast->player.get(), MakeRequest("DESCRIBE", 1), 2);
        pCast->pSender = c == 'v' ? pCast->player.get() : &pCast->pusher;
        return;
    }
    if (c == 't' || c == 'T' || c == 'g' || c == 'h') {
        pCast->get = std::make_unique<Connection>();
        pCast->get->Send("GET /cam HTTP/1.0\r\nx-sessioncookie: c\r\n\r\n");
        pCast->pSecond = c == 'T' ? pCast->get.get() : nullptr;
    }
    pCast->subject =
        c == 'h' ? std::make_unique<Connection>(pFirst->data(), pFirst->size()) : std::make_unique<Connection>();
    if (c == 'h')
        pFirst->clear();
    ORX_ASSERT((c != 't' && c != 'T') || pCast->subject->Send(g_post), "paired");
    pCast->pSender = pCast->subject.get();
}

static void Play(const std::string &input)
{
    size_t nLine = std::min(input.find('\n'), input.size()), nWho = nLine > 0 && nLine < input.size();
    auto pieces = nLine < input.size() ? Cut(input.substr(nWho, nLine - nWho), input.substr(nLine + 1))
                                       : std::vector<std::string>{input};
    g_settings.bStandardPushers = nWho && input[0] == 'P';  // who connects keeps it
    Cast cast;
    SetUp(&cast, nWho ? input[0] : 'f', &pieces[0]);
    for (size_t i = 0; i < pieces.size(); i++) {
        Connection *pTo = cast.pSecond && i % 2 ? cast.pSecond : cast.pSender;
        if (!pTo->Send(pieces[i]) && !cast.pSecond)
            break;
    }
    // what came behind the header of a POST is otherwise looked at a moment later
    Port *pPort = cast.pSender->FindLive();
    Session *pSession = pPort ? FindSession(pPort->fd) : nullptr;
    if (pSession)
        HandleInput(pSession, pPort);

    while (auto *p = ListFirstOf<Session>(&g_server.sessions))
        SessionEnd(p);
    ORX_ASSERT(ListCount(&g_server.programs) == 0, "programs go with their sessions");
    ORX_ASSERT(!g_server.portMap.root, "ports go with their sessions");
    ORX_ASSERT(!g_server.sessionMap.root, "no descriptor is left in the session map");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    static TestServer server("LiveTime=1\nEnableRtcp=1\nEnableLowEnergy=1\nConnectLimit=1000\n");
    ORX_ASSERT(server.bRunning, "the server runs");
    const std::string input(reinterpret_cast<const char *>(pData), nBytes);
    server.Run([&] { Play(input); });
    return 0;
}
