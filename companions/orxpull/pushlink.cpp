#include "orxpull/pushlink.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "client/rtspauth.h"
#include "client/rtspmessage.h"
#include "orxpull/pushline.h"
#include "shared/link.h"

namespace orx {

constexpr uint64_t kAnswerMs = 10000;
constexpr uint64_t kMostTickMs = 5000;
constexpr size_t kMostWaiting = 2 << 20;   // bytes that Orx has not taken: a large key frame or two
constexpr size_t kFewWaiting = 128 << 10;  // below that it takes them again
constexpr size_t kMostInput = 64 << 10;    // of a message of Orx
constexpr size_t kFrameHead = 4;
constexpr size_t kKeptBuffer = 8 << 10;  // what a burst leaves behind of its memory
constexpr uint64_t kSaidAgainMs = 60000;

namespace {

enum class Step {
    Connecting,
    Announce,  // asked, and so on
    Setup,     // of track nSetUp
    Play,
    Ready,  // packets leave
};

}  // namespace

struct PushLink {
    Loop *pLoop = nullptr;
    const PullSettings *pSettings = nullptr;
    const PushProcs *pProcs = nullptr;
    void *pUser = nullptr;
    Announcement announcement;
    PushLine line;
    std::string url;        // of the program in Orx
    Link *pLink = nullptr;  // owned; null once it has ended
    Step step = Step::Connecting;
    size_t nSetUp = 0;
    std::vector<int> channels;  // of RTP, by track
    int nCSeq = 0;
    std::string session;
    RtspChallenge challenge;
    int nChallenges = 0;    // that were answered
    std::string input;      // received and not yet taken apart
    std::string burst;      // frames that leave with the next burst, or as soon as it is ready
    int nOpen = 0;          // requests without an answer
    uint64_t nAskedMs = 0;  // when the first of them left
    uint64_t nSentMs = 0;   // when anything left last
    int bPaused = 0;
    int bSkips = 0;        // packets are left out up to a key frame
    KeyWatch watch;        // while it skips
    uint64_t nSaidMs = 0;  // that Orx is behind; 0: never
    int bSaidLarge = 0;
    LoopTimer tick;
};

// --- The end ---

static void End(PushLink *pPush, const char *szWord, const std::string &why)
{
    LinkClose(pPush->pLink);
    pPush->pLink = nullptr;
    LoopClearTimer(pPush->pLoop, &pPush->tick);
    pPush->pProcs->pfnEnded(pPush->pUser, szWord, why.c_str());
}

static void OnLinkEnded(void *pUser, LinkFault fault, const char *szWhy)
{
    End(static_cast<PushLink *>(pUser), LinkFaultText(fault), szWhy);
}

// --- Asking ---

static void Send(PushLink *pPush, const std::string &text)
{
    pPush->nSentMs = LoopNowMs();
    LinkSendText(pPush->pLink, text);
}

static void Ask(PushLink *pPush, const char *szMethod, const std::string &url, const std::string &headers,
                const std::string &body = std::string())
{
    std::string text = std::string(szMethod) + " " + url +
                       " RTSP/1.0\r\nCSeq: " + std::to_string(++pPush->nCSeq) + "\r\nUser-Agent: orxpull\r\n";
    if (!pPush->session.empty())
        text += "Session: " + pPush->session + "\r\n";
    if (pPush->nChallenges > 0)
        text += "Authorization: " +
                RtspAuthorization(&pPush->challenge, pPush->pSettings->user, pPush->pSettings->password,
                                  szMethod, url) +
                "\r\n";
    text += headers;
    if (!body.empty())
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    if (pPush->nOpen++ == 0)
        pPush->nAskedMs = LoopNowMs();
    Send(pPush, text + "\r\n" + body);
}

static void AskNext(PushLink *pPush)
{
    switch (pPush->step) {
        case Step::Connecting:
        case Step::Announce:
            pPush->step = Step::Announce;
            // Orx asks whom it knows to understand: SLEEP and WAKE
            Ask(pPush, "ANNOUNCE", pPush->url, "Content-Type: application/sdp\r\nSupported: orx.sleep\r\n",
                pPush->announcement.sdp);
            break;
        case Step::Setup: {
            std::string channel = std::to_string(2 * pPush->nSetUp);
            std::string pair = channel + "-" + std::to_string(2 * pPush->nSetUp + 1);
            Ask(pPush, "SETUP", pPush->url + "/trackID=" + std::to_string(pPush->nSetUp),
                "Transport: RTP/AVP/TCP;unicast;interleaved=" + pair + ";mode=record\r\n");
            break;
        }
        case Step::Play:
            Ask(pPush, "PLAY", pPush->url, "Range: npt=0.000-\r\n");
            break;
        case Step::Ready:
            break;
    }
}

static void OnTick(void *pUser)
{
    auto *pPush = static_cast<PushLink *>(pUser);
    uint64_t nNow = LoopNowMs();
    if (pPush->nOpen > 0 && nNow - pPush->nAskedMs >= kAnswerMs) {
        End(pPush, "answer", "none in " + std::to_string(kAnswerMs / 1000) + " s");
        return;
    }
    auto nEveryMs = static_cast<uint64_t>(pPush->pSettings->nLiveTime) * 1000 / 3;
    uint64_t nTickMs = std::min(nEveryMs / 2, kMostTickMs);
    LoopSetTimer(pPush->pLoop, &pPush->tick, nTickMs);
    if (pPush->step == Step::Ready && nNow - pPush->nSentMs + nTickMs > nEveryMs)
        Ask(pPush, "OPTIONS", pPush->url, "");
}

static void OnOpen(void *pUser)
{
    auto *pPush = static_cast<PushLink *>(pUser);
    AskNext(pPush);
    OnTick(pPush);
}

// --- What Orx says ---

static const char *FaultWord(int nStatus)
{
    static const struct {
        int nStatus;
        const char *szWord;
    } words[] = {{401, "401"}, {403, "403"}, {404, "404"}, {502, "duplicate"}};
    for (const auto &word : words)
        if (word.nStatus == nStatus)
            return word.szWord;
    return "answer";
}

static std::string StatusText(const RtspMessage *pReply)
{
    return std::to_string(pReply->nStatus) + " " + pReply->reason;
}

// Whether the reply is a challenge that there are credentials for: an old nonce is asked for once more.
static int TakeChallenge(PushLink *pPush, const RtspMessage *pReply)
{
    const char *szChallenge = RtspFindHeader(pReply, "WWW-Authenticate");
    if (pReply->nStatus != 401 || !szChallenge || pPush->pSettings->user.empty())
        return 0;
    int bStale = strcasestr(szChallenge, "stale=true") != nullptr;
    if (pPush->nChallenges >= (bStale ? 2 : 1) || !RtspParseChallenge(szChallenge, &pPush->challenge))
        return 0;
    pPush->nChallenges++;
    return 1;
}

static void TakeSetup(PushLink *pPush, const RtspMessage *pReply)
{
    const char *szTransport = RtspFindHeader(pReply, "Transport");
    const char *szChannel = szTransport ? strstr(szTransport, "interleaved=") : nullptr;
    long nChannel = szChannel ? strtol(szChannel + 12, nullptr, 10) : -1;
    if (nChannel < 0 || nChannel > 254)
        nChannel = static_cast<long>(2 * pPush->nSetUp);
    pPush->channels[pPush->nSetUp++] = static_cast<int>(nChannel);
    if (const char *szSession = RtspFindHeader(pReply, "Session"))
        pPush->session.assign(szSession, strcspn(szSession, ";"));
}

// What waited for it leaves; the frames were made with the channels that were asked for.
static void BecomeReady(PushLink *pPush)
{
    pPush->step = Step::Ready;
    size_t nAt = 0;
    while (pPush->burst.size() - nAt >= kFrameHead) {
        auto nChannel = static_cast<uint8_t>(pPush->burst[nAt + 1]);
        pPush->burst[nAt + 1] = static_cast<char>(pPush->channels[nChannel / 2] + (nChannel & 1));
        nAt += kFrameHead + GetBe(pPush->burst.data() + nAt + 2, 2);
    }
    PushBurst(pPush);
}

// Goes on behind an answer of 200.
static void GoOn(PushLink *pPush, const RtspMessage *pReply)
{
    switch (pPush->step) {
        case Step::Connecting:
        case Step::Ready:
            return;
        case Step::Announce:
            pPush->step = Step::Setup;
            break;
        case Step::Setup:
            TakeSetup(pPush, pReply);
            if (pPush->nSetUp == pPush->channels.size())
                pPush->step = Step::Play;
            break;
        case Step::Play:
            BecomeReady(pPush);
            return;
    }
    AskNext(pPush);
}

// Returns 0 where that was the end.
static int TakeReply(PushLink *pPush, const RtspMessage *pReply)
{
    pPush->nOpen = std::max(pPush->nOpen - 1, 0);
    pPush->nAskedMs = LoopNowMs();
    if (pPush->step == Step::Ready)
        return 1;
    if (TakeChallenge(pPush, pReply)) {
        AskNext(pPush);
        return 1;
    }
    if (pReply->nStatus != 200) {
        End(pPush, FaultWord(pReply->nStatus), StatusText(pReply));
        return 0;
    }
    GoOn(pPush, pReply);
    return 1;
}

static void TakeRequest(PushLink *pPush, const RtspMessage *pRequest)
{
    const char *szClient = RtspFindHeader(pRequest, "ClientSsId");
    if (pRequest->method == "SLEEP" || pRequest->method == "WAKE") {
        pPush->pProcs->pfnSleep(pPush->pUser, pRequest->method == "SLEEP");
    } else if (szClient) {  // what a player asks the camera: it has no way to say, and is not left waiting
        std::string headers = std::string("ClientSsId: ") + szClient + "\r\nForward: 501 Not Implemented\r\n";
        Send(pPush, "RESPOND " + pPush->url + " RTSP/1.0\r\nCSeq: " + std::to_string(++pPush->nCSeq) +
                        "\r\n" + headers + "\r\n");
    }
}

static void OnBytes(void *pUser, const uint8_t *pData, size_t nBytes)
{
    auto *pPush = static_cast<PushLink *>(pUser);
    pPush->input.append(reinterpret_cast<const char *>(pData), nBytes);
    size_t nAt = 0;
    long nTaken = 0;
    RtspMessage message;
    while ((nTaken = RtspParse(pPush->input.data() + nAt, pPush->input.size() - nAt, &message)) > 0) {
        nAt += static_cast<size_t>(nTaken);
        if (message.kind == RTSP_REPLY && !TakeReply(pPush, &message))
            return;
        if (message.kind == RTSP_REQUEST)
            TakeRequest(pPush, &message);
    }
    pPush->input.erase(0, nAt);
    if (nTaken < 0 || pPush->input.size() > kMostInput)
        End(pPush, "answer", "what came is no RTSP");
}

// --- Life ---

static const LinkProcs g_linkProcs = {OnOpen, OnBytes, nullptr, OnLinkEnded};

static std::string ProgramUrl(const PullSettings *pSettings, const std::string &program)
{
    int bIpv6 = pSettings->serverIp.find(':') != std::string::npos;
    std::string host = bIpv6 ? "[" + pSettings->serverIp + "]" : pSettings->serverIp;
    return "rtsp://" + host + ":" + std::to_string(pSettings->nServerPort) + "/" + program;
}

PushLink *PushOpen(Loop *pLoop, const PullSettings *pSettings, const std::string &program,
                   const Announcement *pAnnouncement, const PushProcs *pProcs, void *pUser)
{
    auto *pPush = new (std::nothrow) PushLink;
    if (!pPush)
        return nullptr;
    pPush->pLoop = pLoop;
    pPush->pSettings = pSettings;
    pPush->pProcs = pProcs;
    pPush->pUser = pUser;
    pPush->announcement = *pAnnouncement;
    pPush->url = ProgramUrl(pSettings, program);
    for (const AnnouncedTrack &track : pAnnouncement->tracks)
        pPush->line.tracks.push_back(LineTrack{track.nRate});
    pPush->channels.assign(pAnnouncement->tracks.size(), 0);
    pPush->tick.pfnDue = OnTick;
    pPush->tick.pUser = pPush;
    LinkTarget target;
    target.host = pSettings->serverIp;
    target.nPort = pSettings->nServerPort;
    target.nMostQueued = kMostWaiting;
    pPush->pLink = LinkOpen(pLoop, &target, &g_linkProcs, pPush);
    if (!pPush->pLink) {
        delete pPush;
        return nullptr;
    }
    return pPush;
}

void PushClose(PushLink *pPush, int bTeardown)
{
    if (!pPush)
        return;
    LoopClearTimer(pPush->pLoop, &pPush->tick);
    if (pPush->pLink && bTeardown && pPush->step != Step::Connecting) {
        Ask(pPush, "TEARDOWN", pPush->url, "");
        LinkFinish(pPush->pLink);
    } else {
        LinkClose(pPush->pLink);
    }
    delete pPush;
}

int PushIsReady(const PushLink *pPush)
{
    return pPush->pLink && pPush->step == Step::Ready;
}

const Announcement *PushAnnouncement(const PushLink *pPush)
{
    return &pPush->announcement;
}

// --- Packets ---

static void BeginSkipping(PushLink *pPush)
{
    if (!pPush->bSkips)
        pPush->watch = KeyWatch();
    pPush->bSkips = 1;
}

void PushJoin(PushLink *pPush)
{
    LineJoin(&pPush->line);
}

void PushPause(PushLink *pPush, int bPause)
{
    pPush->bPaused = bPause;
    if (bPause)
        BeginSkipping(pPush);
}

static void SayBehind(PushLink *pPush)
{
    uint64_t nNow = LoopNowMs();
    if (pPush->nSaidMs == 0 || nNow - pPush->nSaidMs >= kSaidAgainMs)
        pPush->pProcs->pfnSay(pPush->pUser, "Orx takes too little, packets are left out");
    pPush->nSaidMs = nNow;
}

// Whether a packet is still left out. A program without pictures goes on at any.
static int StillSkips(PushLink *pPush, size_t nTrack, int bRtcp, const uint8_t *pData, size_t nBytes)
{
    const Codec *pVideo = pPush->announcement.tracks[nTrack].pVideo;
    int bPictures = std::any_of(pPush->announcement.tracks.begin(), pPush->announcement.tracks.end(),
                                [](auto &track) { return track.pVideo != nullptr; });
    RtpPacket packet;
    int bStart = !bPictures;
    if (pVideo && !bRtcp && RtpPacketParse(pData, static_cast<uint32_t>(nBytes), &packet))
        bStart = pVideo->pfnIsKey(&pPush->watch, &packet);
    if (bStart && !pPush->bPaused && LinkQueued(pPush->pLink) < kFewWaiting)
        pPush->bSkips = 0;
    return pPush->bSkips;
}

// What is larger than its receive buffer would end the connection.
static int FitsOrx(PushLink *pPush, size_t nBytes)
{
    if (nBytes + kFrameHead <= pPush->pSettings->nMostFrame)
        return 1;
    std::string text =
        "packets of " + std::to_string(nBytes) + " bytes do not fit SessionBufSize and are left out";
    if (!pPush->bSaidLarge)
        pPush->pProcs->pfnSay(pPush->pUser, text.c_str());
    pPush->bSaidLarge = 1;
    return 0;
}

void PushPacket(PushLink *pPush, size_t nTrack, int bRtcp, const uint8_t *pData, size_t nBytes)
{
    if (!pPush->pLink || !FitsOrx(pPush, nBytes))
        return;
    if (pPush->bSkips && StillSkips(pPush, nTrack, bRtcp, pData, nBytes))
        return;
    if (pPush->burst.size() + nBytes + kFrameHead > kMostWaiting) {
        BeginSkipping(pPush);
        return;
    }
    size_t nAt = pPush->burst.size();
    pPush->burst.resize(nAt + kFrameHead + nBytes);
    auto *pFrame = reinterpret_cast<uint8_t *>(pPush->burst.data() + nAt);
    memcpy(pFrame + kFrameHead, pData, nBytes);
    size_t nKept = bRtcp ? LineRtcp(&pPush->line, nTrack, pFrame + kFrameHead, nBytes, LoopNowMs())
                   : LineRtp(&pPush->line, nTrack, pFrame + kFrameHead, nBytes, LoopNowMs()) ? nBytes
                                                                                             : 0;
    int nChannel = pPush->step == Step::Ready ? pPush->channels[nTrack] : static_cast<int>(2 * nTrack);
    PutBe(pFrame, 1, '$');
    PutBe(pFrame + 1, 1, static_cast<uint32_t>(nChannel + (bRtcp != 0)));
    PutBe(pFrame + 2, 2, static_cast<uint32_t>(nKept));
    pPush->burst.resize(nKept ? nAt + kFrameHead + nKept : nAt);
}

void PushBurst(PushLink *pPush)
{
    if (!pPush->pLink || pPush->step != Step::Ready || pPush->burst.empty())
        return;
    iovec piece{pPush->burst.data(), pPush->burst.size()};
    if (LinkSend(pPush->pLink, &piece, 1)) {
        pPush->nSentMs = LoopNowMs();
    } else {
        BeginSkipping(pPush);
        SayBehind(pPush);
    }
    if (pPush->burst.capacity() > kKeptBuffer)
        std::string().swap(pPush->burst);
    else
        pPush->burst.clear();
}

}  // namespace orx
