// What cameras answer, arriving in any pieces: a player's session on links that are none. Whatever comes, its
// requests are whole, it ends once at most, and nobody reads a password.
//
// An input is a line that says how it plays and where the rest is cut, then the bytes of the camera:
//   "t 10 3\n"   over TCP; pieces of 10 and 3 bytes, then the rest
//   "h"          through HTTP
//   "n"          over TCP, without a user
// Between two pieces a link that was opened comes to stand, and one that has "close" before a piece's end
// ends. A reply without a CSeq is one to the oldest request.
#include "shared/rtspplay.h"

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "client/rtspmessage.h"
#include "fuzz/fuzz.h"
#include "shared/link.h"

using namespace orx;

namespace orx {

// In place of those of link.cpp: what is sent is looked at, and nothing goes anywhere.
struct Link {
    LinkProcs procs;
    void *pUser;
    int bOpen = 0;
    int bTunnel = 0;  // carries HTTP, and base64
};
static std::vector<Link *> g_links;

Link *LinkOpen(Loop *, const LinkTarget *pTarget, const LinkProcs *pProcs, void *pUser)
{
    ORX_ASSERT(pTarget->nPort > 0 && pTarget->nPort < 65536 && !pTarget->host.empty(), "it leads somewhere");
    g_links.push_back(new Link{*pProcs, pUser});
    return g_links.back();
}

void LinkClose(Link *pLink)
{
    std::erase(g_links, pLink);
    delete pLink;
}

void LinkFinish(Link *pLink)
{
    LinkClose(pLink);
}

int LinksLeaving()
{
    return 0;
}

int LinkSendText(Link *pLink, const std::string &text)
{
    pLink->bTunnel |= text.rfind("GET /", 0) == 0 || text.rfind("POST /", 0) == 0;
    RtspMessage message;
    if (pLink->bTunnel)
        return 1;
    ORX_ASSERT(RtspParse(text.data(), text.size(), &message) == static_cast<long>(text.size()), "one message");
    ORX_ASSERT(message.kind != RTSP_OTHER, "of RTSP");
    ORX_ASSERT(RtspCountHeaders(&message, "Forged") == 0, "no line of the camera's");
    return 1;
}

int LinkSend(Link *, const iovec *, int)
{
    return 1;
}

size_t LinkQueued(const Link *)
{
    return 0;
}

int LinkAddresses(const Link *, NetAddr *, NetAddr *)
{
    return 0;
}

std::string LinkPeerName(const std::string &host, int nPort)
{
    return host + ":" + std::to_string(nPort);
}

const char *LinkFaultText(LinkFault)
{
    return "";
}

}  // namespace orx

static const char *const kPassword = "sec\x7fret";  // a byte that no text shows, whoever it came from

struct Watcher {
    RtspPlay *pPlay = nullptr;
    int nDescribed = 0, nPlaying = 0, nEnded = 0;
    size_t nTracks = 0;
};

static int OnDescribed(void *pUser, PlayDescription *pDescription)
{
    auto *pWatcher = static_cast<Watcher *>(pUser);
    ORX_ASSERT(pWatcher->nDescribed++ == 0, "it is described once");
    pWatcher->nTracks = pDescription->tracks.size();
    for (PlayTrack &track : pDescription->tracks)
        track.bWanted = track.media != "text";
    return pDescription->title == "codec" ? 0 : pDescription->title == "leave" ? -1 : 1;
}

static void OnPlaying(void *pUser)
{
    ORX_ASSERT(static_cast<Watcher *>(pUser)->nPlaying++ == 0, "it plays once");
}

static void OnPacket(void *pUser, int nTrack, int, const uint8_t *pData, size_t nBytes)
{
    auto *pWatcher = static_cast<Watcher *>(pUser);
    ORX_ASSERT(pWatcher->nPlaying == 1 && static_cast<size_t>(nTrack) < pWatcher->nTracks, "of a track");
    if (nBytes == 3 && memcmp(pData, "end", 3) == 0)
        RtspPlayStop(std::exchange(pWatcher->pPlay, nullptr));
}

static void OnEnded(void *pUser, PlayFault fault, const char *szWhy)
{
    auto *pWatcher = static_cast<Watcher *>(pUser);
    ORX_ASSERT(fault != PlayFault::None && pWatcher->nEnded++ == 0, "it ends once");
    ORX_ASSERT(!strstr(szWhy, kPassword) && !strchr(szWhy, '\n'), "one line without credentials");
}

// Gives a piece to the first link that is no POST half of a tunnel.
static void Give(const std::string &piece)
{
    for (size_t i = 0; i < g_links.size(); i++)
        if (Link *pLink = g_links[i]; !std::exchange(pLink->bOpen, 1) && pLink->procs.pfnOpen)
            pLink->procs.pfnOpen(pLink->pUser);
    if (g_links.empty())
        return;
    Link *pLink = g_links[0];
    auto bytes = Exact(piece.data(), piece.size());
    int bClose = piece.size() >= 5 && piece.compare(piece.size() - 5, 5, "close") == 0;
    pLink->procs.pfnBytes(pLink->pUser, bytes.get(), piece.size() - (bClose ? 5 : 0));
    if (bClose && !g_links.empty() && g_links[0] == pLink)
        pLink->procs.pfnEnded(pLink->pUser, LinkFault::Closed, "it ended");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    static Loop *pLoop = LoopOpen();
    static const PlayProcs kProcs = {OnDescribed, OnPlaying, OnPacket, nullptr, OnEnded};
    std::string data = Text(pData, nBytes);
    size_t nLine = std::min(data.find('\n'), data.size());
    std::istringstream cuts(nLine > 1 ? data.substr(1, nLine - 1) : "");
    Watcher watcher;
    PlaySettings settings;
    settings.url = "rtsp://cam/a";
    settings.user = data[0] == 'n' ? "" : "user";
    settings.password = data[0] == 'n' ? "" : kPassword;
    settings.over = data[0] == 'h' ? PlayOver::Http : PlayOver::Tcp;
    data.erase(0, std::min(nLine + 1, data.size()));
    watcher.pPlay = RtspPlayStart(pLoop, &settings, &kProcs, &watcher);
    for (size_t n; cuts >> n && !data.empty(); data.erase(0, n))
        Give(data.substr(0, n));
    Give(data);
    RtspPlayStop(watcher.pPlay);
    ORX_ASSERT(g_links.empty(), "no link is left");
    return 0;
}
