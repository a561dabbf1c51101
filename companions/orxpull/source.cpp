#include "orxpull/source.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>
#include <string>

#include "orxpull/announcement.h"
#include "orxpull/pushlink.h"
#include "shared/rtspplay.h"

namespace orx {

constexpr uint64_t kRetryMs[] = {1000, 2000, 5000, 10000, 30000};
constexpr int kSilentMs = 10000;
constexpr const char *kPlaying = "playing";

struct Source {
    Loop *pLoop = nullptr;
    const PullSettings *pSettings = nullptr;
    const PullSource *pSource = nullptr;
    RtspPlay *pCamera = nullptr;  // owned
    PushLink *pPush = nullptr;    // owned; stays for a while when the camera has gone
    std::vector<int> tracks;      // of the camera, by their place in the push; -1: not wanted
    int bMedia = 0;               // something came in this session of the camera
    int bAsleep = 0;              // Orx said SLEEP
    size_t nRetries = 0;          // since media came
    std::string state;            // what was said last: one line for every change
    LoopTimer retry, hold;
};

// One line, in one piece: other sources say theirs.
static void Say(const Source *pSource, const std::string &text)
{
    std::string line = pSource->pSource->program + ": " + text;
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 127; }, '?');
    fprintf(stderr, "%s\n", line.c_str());
}

// Says where it stands now, unless that was said last.
static void SayState(Source *pSource, const std::string &state, const std::string &text)
{
    if (pSource->state == state)
        return;
    pSource->state = state;
    Say(pSource, text);
}

// --- Trying again ---

static void TryLater(Source *pSource)
{
    size_t nLast = std::size(kRetryMs) - 1;
    LoopSetTimer(pSource->pLoop, &pSource->retry, kRetryMs[std::min(pSource->nRetries, nLast)]);
    pSource->nRetries++;
}

static void LeaveCamera(Source *pSource)
{
    RtspPlayStop(pSource->pCamera);
    pSource->pCamera = nullptr;
    pSource->bMedia = 0;
}

static void ClosePush(Source *pSource, int bTeardown)
{
    PushClose(pSource->pPush, bTeardown);
    pSource->pPush = nullptr;
    pSource->bAsleep = 0;
    LoopClearTimer(pSource->pLoop, &pSource->hold);
}

// The camera is away for longer than its players are to wait.
static void OnHeld(void *pUser)
{
    ClosePush(static_cast<Source *>(pUser), 1);
}

// What the camera did. The push stays for a while, so that it can go on where the camera comes back.
static void CameraFailed(Source *pSource, const char *szWord, const std::string &why)
{
    LeaveCamera(pSource);
    SayState(pSource, szWord, std::string(szWord) + ", " + why + "; trying again");
    if (pSource->pPush && pSource->hold.nPlace == 0)
        LoopSetTimer(pSource->pLoop, &pSource->hold,
                     static_cast<uint64_t>(pSource->pSettings->nHoldSeconds) * 1000);
    TryLater(pSource);
}

// --- What Orx says ---

static void OnPushEnded(void *pUser, const char *szWord, const char *szWhy)
{
    auto *pSource = static_cast<Source *>(pUser);
    std::string word = szWord, why = szWhy;  // both may be the push's own
    ClosePush(pSource, 0);
    LeaveCamera(pSource);
    SayState(pSource, "Orx " + word, "Orx: " + word + ", " + why + "; trying again");
    TryLater(pSource);
}

static void BeginCamera(Source *pSource);

static void OnSleep(void *pUser, int bSleep)
{
    auto *pSource = static_cast<Source *>(pUser);
    if (pSource->bAsleep == bSleep)
        return;
    pSource->bAsleep = bSleep;
    PushPause(pSource->pPush, bSleep);
    if (!pSource->pSource->bOnDemand)
        return;
    LoopClearTimer(pSource->pLoop, &pSource->retry);
    LoopClearTimer(pSource->pLoop, &pSource->hold);
    if (bSleep) {
        LeaveCamera(pSource);
        SayState(pSource, "asleep", "nobody watches, the camera rests");
    } else {
        pSource->nRetries = 0;
        BeginCamera(pSource);
    }
}

static void OnPushSay(void *pUser, const char *szText)
{
    Say(static_cast<Source *>(pUser), szText);
}

static const PushProcs g_pushProcs = {OnSleep, OnPushSay, OnPushEnded};

// --- What the camera says ---

// The push that there is goes on where it was announced with the same; else Orx gets a new one, and lets
// players wait for it as HoldPlayers says.
static int ProvidePush(Source *pSource, const Announcement *pAnnouncement)
{
    if (pSource->pPush && PushAnnouncement(pSource->pPush)->sdp == pAnnouncement->sdp) {
        PushJoin(pSource->pPush);
        return 1;
    }
    ClosePush(pSource, 0);
    pSource->pPush = PushOpen(pSource->pLoop, pSource->pSettings, pSource->pSource->program, pAnnouncement,
                              &g_pushProcs, pSource);
    return pSource->pPush != nullptr;
}

static int OnDescribed(void *pUser, PlayDescription *pDescription)
{
    auto *pSource = static_cast<Source *>(pUser);
    AnnounceRules rules{pSource->pSource->bAudio, pSource->pSettings->bStandardPushers};
    if (ChooseTracks(pDescription, &rules) == 0)
        return 0;
    Announcement announcement = MakeAnnouncement(pDescription, pSource->pSource->program);
    pSource->tracks.assign(pDescription->tracks.size(), -1);
    for (size_t i = 0; i < announcement.tracks.size(); i++)
        pSource->tracks[static_cast<size_t>(announcement.tracks[i].nSource)] = static_cast<int>(i);
    return ProvidePush(pSource, &announcement);
}

// The first packet of a session that Orx takes.
static void MediaCame(Source *pSource)
{
    pSource->bMedia = 1;
    pSource->nRetries = 0;
    LoopClearTimer(pSource->pLoop, &pSource->hold);
    SayState(pSource, kPlaying, kPlaying);
}

static void OnPacket(void *pUser, int nTrack, int bRtcp, const uint8_t *pData, size_t nBytes)
{
    auto *pSource = static_cast<Source *>(pUser);
    if (!pSource->pPush || static_cast<size_t>(nTrack) >= pSource->tracks.size())
        return;
    int nPushed = pSource->tracks[static_cast<size_t>(nTrack)];
    if (nPushed < 0)
        return;
    if (!pSource->bMedia && !bRtcp && PushIsReady(pSource->pPush))
        MediaCame(pSource);
    PushPacket(pSource->pPush, static_cast<size_t>(nPushed), bRtcp, pData, nBytes);
}

static void OnBurst(void *pUser)
{
    auto *pSource = static_cast<Source *>(pUser);
    if (pSource->pPush)
        PushBurst(pSource->pPush);
}

static void OnPlaying(void *) {}

static void OnCameraEnded(void *pUser, PlayFault fault, const char *szWhy)
{
    std::string why = szWhy;
    CameraFailed(static_cast<Source *>(pUser), PlayFaultText(fault), why);
}

static const PlayProcs g_playProcs = {OnDescribed, OnPlaying, OnPacket, OnBurst, OnCameraEnded};

// --- Life ---

static void BeginCamera(Source *pSource)
{
    PlaySettings settings;
    settings.url = pSource->pSource->url;
    settings.over = pSource->pSource->over;
    settings.agent = "orxpull";
    settings.pinFile = pSource->pSettings->pinFile;
    settings.nSilentMs = kSilentMs;
    pSource->pCamera = RtspPlayStart(pSource->pLoop, &settings, &g_playProcs, pSource);
    if (!pSource->pCamera)
        CameraFailed(pSource, "memory", "none is left");
}

static void OnRetry(void *pUser)
{
    BeginCamera(static_cast<Source *>(pUser));
}

Source *SourceStart(Loop *pLoop, const PullSettings *pSettings, const PullSource *pPulled, uint64_t nDelayMs)
{
    auto *pSource = new (std::nothrow) Source;
    if (!pSource)
        return nullptr;
    pSource->pLoop = pLoop;
    pSource->pSettings = pSettings;
    pSource->pSource = pPulled;
    pSource->retry.pfnDue = OnRetry;
    pSource->hold.pfnDue = OnHeld;
    pSource->retry.pUser = pSource->hold.pUser = pSource;
    LoopSetTimer(pLoop, &pSource->retry, nDelayMs);
    return pSource;
}

void SourceStop(Source *pSource)
{
    if (!pSource)
        return;
    LoopClearTimer(pSource->pLoop, &pSource->retry);
    LeaveCamera(pSource);
    ClosePush(pSource, 1);
    delete pSource;
}

}  // namespace orx
