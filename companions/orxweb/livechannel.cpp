#include "orxweb/livechannel.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "orxweb/livestill.h"
#include "orxweb/livestream.h"
#include "orxweb/webtext.h"
#include "shared/link.h"
#include "shared/rtspplay.h"

namespace orx {

constexpr size_t kMostHeldBytes = 16 << 20;  // of a program's fragments
constexpr int kGroupsHeld = 2;
constexpr size_t kMostChannels = 128;
constexpr int kMostPeeks = 4;             // sessions at a time that are there for a still picture alone
constexpr uint64_t kStillFreshMs = 5000;  // how long a still picture is good
constexpr size_t kMostStills = 500;
constexpr uint64_t kLeaveLookMs = 20;

namespace {

// Who is told once there is more.
struct More {
    void (*pfnMore)(void *pUser) = nullptr;
    void *pContext = nullptr;
};

struct Fragment {
    std::shared_ptr<const std::string> bytes;
    int bKey = 0;
};

// A program that somebody watches. What several threads use is under the lock.
struct Channel {
    std::string program;
    LiveUser user;
    // The loop's thread's.
    RtspPlay *pPlay = nullptr;      // owned
    LiveStream *pStream = nullptr;  // owned
    LoopTimer linger;
    // Under the lock.
    int bOpen = 1;  // not yet taken out of the map
    int nViewers = 0;
    int bWatched = 0;  // somebody has joined
    int bStill = 0;    // somebody waits for a still picture of it
    int bDescribed = 0;
    int bJpeg = 0;
    LiveResult end = LiveResult::Ok;  // why it is over, once it is
    std::shared_ptr<const std::string> head;
    std::string codecs;
    unsigned nEpoch = 0;             // grows with each head
    std::deque<Fragment> fragments;  // the last groups
    uint64_t nFirst = 0;             // number of the first one held
    uint64_t nLatestKey = 0;         // where a newcomer begins; below nFirst: nowhere
    int bKey = 0;                    // there is one
    size_t nHeldBytes = 0;
    const Codec *pPictureCodec = nullptr;
    std::shared_ptr<const std::string> picture;  // the latest that can be shown alone
    std::vector<More> waiting;
};
using ChannelPtr = std::shared_ptr<Channel>;

struct Still {
    std::string jpeg;  // empty: there was none
    LiveResult result = LiveResult::Later;
    uint64_t nMadeMs = 0;  // or asked for
    int bAsked = 0;        // one is on its way
    std::vector<More> waiting;
};
struct StillJob {
    std::string program;
    int nWidth = 0;
    const Codec *pCodec = nullptr;
    std::shared_ptr<const std::string> picture;
};

}  // namespace

struct LiveViewer {
    ChannelPtr channel;
    LiveForm form = LiveForm::Mp4;
    More more;
    unsigned nEpoch = 0;  // of the head that it has; 0: none yet
    uint64_t nNext = 0;
    std::shared_ptr<const std::string> bytes;  // that are being given
    size_t nGiven = 0;
};

static struct Live {
    LiveSettings settings;
    Loop *pLoop = nullptr;
    std::thread loop, maker;
    std::mutex lock;
    std::condition_variable work;  // for the maker of still pictures
    int bStop = 0;
    std::map<std::string, ChannelPtr> channels;
    std::map<std::string, Still> stills;  // by program and width
    std::deque<StillJob> jobs;
    std::vector<More> peekers;  // who wait for one of the sessions that are there for a still picture to end
} g_live;

using Lock = std::unique_lock<std::mutex>;

// Those that are told are told without the lock: they may ask at once.
static void Tell(const std::vector<More> &all)
{
    for (const More &more : all)
        more.pfnMore(more.pContext);
}

static void Take(std::vector<More> *pFrom, std::vector<More> *pTo)
{
    pTo->insert(pTo->end(), pFrom->begin(), pFrom->end());
    pFrom->clear();
}

static std::string StillKey(const std::string &program, int nWidth)
{
    return std::to_string(nWidth) + " " + program;
}

// --- Fragments: the loop's thread ---

static void DropFirst(Channel *p)
{
    p->nHeldBytes -= p->fragments.front().bytes->size();
    p->fragments.pop_front();
    p->nFirst++;
}

static int CountKeys(const Channel *p)
{
    return static_cast<int>(
        std::count_if(p->fragments.begin(), p->fragments.end(), [](const Fragment &f) { return f.bKey; }));
}

static void Append(Channel *p, std::string bytes, int bKey)
{
    std::vector<More> told;
    {
        Lock lock(g_live.lock);
        if (bKey) {
            p->nLatestKey = p->nFirst + p->fragments.size();
            p->bKey = 1;
        }
        p->nHeldBytes += bytes.size();
        p->fragments.push_back({std::make_shared<const std::string>(std::move(bytes)), bKey});
        int nKeys = bKey ? CountKeys(p) : 0;
        while (nKeys > kGroupsHeld || p->nHeldBytes > kMostHeldBytes) {
            nKeys -= p->fragments.front().bKey;
            DropFirst(p);
        }
        // a group begins with its key frame
        while (bKey && !p->fragments.front().bKey)
            DropFirst(p);
        Take(&p->waiting, &told);
    }
    Tell(told);
}

static void OnHead(void *pUser, std::string head, const std::string &codecs)
{
    auto *p = static_cast<Channel *>(pUser);
    Lock lock(g_live.lock);
    p->head = std::make_shared<const std::string>(std::move(head));
    p->codecs = codecs;
    p->nEpoch++;
    while (!p->fragments.empty())
        DropFirst(p);
    p->bKey = 0;
}

static void OnFragment(void *pUser, std::string fragment, int bKey)
{
    Append(static_cast<Channel *>(pUser), std::move(fragment), bKey);
}

static void AskStill(Channel *p)
{
    for (auto &[key, still] : g_live.stills) {
        size_t nBlank = key.find(' ');
        if (!still.bAsked || key.compare(nBlank + 1, std::string::npos, p->program) != 0)
            continue;
        g_live.jobs.push_back({p->program, atoi(key.c_str()), p->pPictureCodec, p->picture});
        g_live.work.notify_one();
    }
    p->bStill = 0;
}

static void CheckIdle(Channel *p);

static void OnPicture(void *pUser, const Codec *pCodec, std::string picture)
{
    auto *p = static_cast<Channel *>(pUser);
    auto held = std::make_shared<const std::string>(std::move(picture));
    int bDone = 0;
    {
        Lock lock(g_live.lock);
        p->pPictureCodec = pCodec;
        p->picture = held;
        bDone = p->bStill;
        if (p->bStill)
            AskStill(p);
    }
    if (p->bJpeg)
        Append(p,
               std::string("--") + kMjpegBoundary + "\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                   std::to_string(held->size()) + "\r\n\r\n" + *held + "\r\n",
               1);
    if (bDone)
        CheckIdle(p);
}

static const LiveStreamProcs g_streamProcs = {OnHead, OnFragment, OnPicture};

// --- The session: the loop's thread ---

// The channel is over: nobody finds it any more, who watches reads its end.
static void EndChannel(Channel *p, LiveResult result)
{
    std::vector<More> told;
    ChannelPtr held;  // it goes with the last who has it
    {
        Lock lock(g_live.lock);
        if (!p->bOpen)
            return;
        p->bOpen = 0;
        p->end = result;
        Take(&p->waiting, &told);
        Take(&g_live.peekers, &told);
        for (auto &[key, still] : g_live.stills)
            if (p->bStill && still.bAsked &&
                key.compare(key.find(' ') + 1, std::string::npos, p->program) == 0) {
                still.bAsked = 0;
                still.result = result == LiveResult::Ended ? LiveResult::Unavailable : result;
                Take(&still.waiting, &told);
            }
        auto found = g_live.channels.find(p->program);
        if (found != g_live.channels.end() && found->second.get() == p) {
            held = found->second;
            g_live.channels.erase(found);
        }
    }
    LoopClearTimer(g_live.pLoop, &p->linger);
    RtspPlayStop(std::exchange(p->pPlay, nullptr));
    LiveStreamClose(std::exchange(p->pStream, nullptr));
    Tell(told);
}

static void OnLinger(void *pUser)
{
    auto *p = static_cast<Channel *>(pUser);
    ChannelPtr held;
    {
        Lock lock(g_live.lock);
        auto found = g_live.channels.find(p->program);
        if (p->nViewers > 0 || p->bStill || found == g_live.channels.end() || found->second.get() != p)
            return;
        held = found->second;
        g_live.channels.erase(found);  // who joins from now on gets a session of his own
    }
    EndChannel(p, LiveResult::Ended);
}

// One that nobody uses any more stays for a while; one that was there for a still picture alone does not.
static void CheckIdle(Channel *p)
{
    int bIdle = 0, bWatched = 0;
    {
        Lock lock(g_live.lock);
        bIdle = p->bOpen && p->nViewers == 0 && !p->bStill;
        bWatched = p->bWatched;
    }
    if (bIdle)
        LoopSetTimer(g_live.pLoop, &p->linger,
                     bWatched ? static_cast<uint64_t>(g_live.settings.nLingerMs) : 0);
}

static int OnDescribed(void *pUser, PlayDescription *pDescription)
{
    auto *p = static_cast<Channel *>(pUser);
    p->pStream = LiveStreamOpen(pDescription, &g_streamProcs, p);
    if (!p->pStream)
        return 0;
    Lock lock(g_live.lock);
    p->bDescribed = 1;
    p->bJpeg = LiveStreamIsJpeg(p->pStream);
    return 1;
}

static void OnPlaying(void *) {}

static void OnPacket(void *pUser, int nTrack, int bRtcp, const uint8_t *pData, size_t nBytes)
{
    auto *p = static_cast<Channel *>(pUser);
    LiveStreamPacket(p->pStream, nTrack, bRtcp, pData, nBytes, LoopNowMs());
}

static LiveResult ResultOf(PlayFault fault)
{
    switch (fault) {
        case PlayFault::Password:
            return LiveResult::Forbidden;
        case PlayFault::NotFound:
            return LiveResult::NotFound;
        case PlayFault::Codec:
            return LiveResult::Codec;
        case PlayFault::Closed:
            return LiveResult::Ended;
        default:
            return LiveResult::Unavailable;
    }
}

static void OnEnded(void *pUser, PlayFault fault, const char *)
{
    EndChannel(static_cast<Channel *>(pUser), ResultOf(fault));
}

static const PlayProcs g_playProcs = {OnDescribed, OnPlaying, OnPacket, nullptr, OnEnded};

static void OpenSession(void *pContext)
{
    std::unique_ptr<ChannelPtr> channel(static_cast<ChannelPtr *>(pContext));
    Channel *p = channel->get();
    PlaySettings settings;
    settings.url = g_live.settings.rtspBase + UrlEncode(p->program, 0);
    settings.user = p->user.name;
    settings.password = p->user.password;
    settings.agent = "orxweb";
    p->linger.pfnDue = OnLinger;
    p->linger.pUser = p;
    p->pPlay = RtspPlayStart(g_live.pLoop, &settings, &g_playProcs, p);
    if (!p->pPlay)
        EndChannel(p, LiveResult::Unavailable);
}

static void CheckIdleLater(void *pContext)
{
    std::unique_ptr<ChannelPtr> channel(static_cast<ChannelPtr *>(pContext));
    CheckIdle(channel->get());
}

// Under the lock. Null when there are too many.
static ChannelPtr ChannelOf(const std::string &program, const LiveUser *pUser)
{
    auto found = g_live.channels.find(program);
    if (found != g_live.channels.end())
        return found->second;
    if (g_live.channels.size() >= kMostChannels || g_live.bStop)
        return nullptr;
    auto channel = std::make_shared<Channel>();
    channel->program = program;
    channel->user = *pUser;
    g_live.channels[program] = channel;
    LoopPost(g_live.pLoop, OpenSession, new ChannelPtr(channel));
    return channel;
}

// --- Viewers ---

LiveViewer *LiveJoin(const char *szProgram, const LiveUser *pUser, LiveForm form,
                     void (*pfnMore)(void *pUser), void *pContext)
{
    Lock lock(g_live.lock);
    ChannelPtr channel = ChannelOf(szProgram, pUser);
    if (!channel)
        return nullptr;
    channel->nViewers++;
    channel->bWatched = 1;
    auto *pViewer = new LiveViewer;
    pViewer->channel = channel;
    pViewer->form = form;
    pViewer->more = {pfnMore, pContext};
    return pViewer;
}

void LiveLeave(LiveViewer *pViewer)
{
    if (!pViewer)
        return;
    {
        Lock lock(g_live.lock);
        pViewer->channel->nViewers--;
        if (!g_live.bStop)
            LoopPost(g_live.pLoop, CheckIdleLater, new ChannelPtr(pViewer->channel));
    }
    delete pViewer;
}

// What a viewer gets next, into its bytes. Under the lock.
static LiveResult NextBytes(LiveViewer *p)
{
    Channel *pChannel = p->channel.get();
    int bJpeg = p->form == LiveForm::Mjpeg;
    if (pChannel->bDescribed && pChannel->bJpeg != bJpeg)
        return LiveResult::Codec;
    if (pChannel->end != LiveResult::Ok)
        return p->nEpoch ? LiveResult::Ended : pChannel->end;
    if (g_live.bStop || (p->nEpoch && !bJpeg && p->nEpoch != pChannel->nEpoch))
        return LiveResult::Ended;
    uint64_t nBehind = pChannel->nFirst + pChannel->fragments.size();
    int bJumps = !p->nEpoch || p->nNext < pChannel->nFirst || (bJpeg && p->nNext < pChannel->nLatestKey);
    // a long group's begin may be gone: who has seen it goes on, the others wait for the next
    if (bJumps ? !pChannel->bKey || pChannel->nLatestKey < pChannel->nFirst : p->nNext >= nBehind) {
        pChannel->waiting.push_back(p->more);
        return LiveResult::Later;
    }
    if (bJumps)
        p->nNext = pChannel->nLatestKey;
    if (!p->nEpoch && !bJpeg) {
        p->nEpoch = pChannel->nEpoch;
        p->bytes = pChannel->head;
    } else {
        p->nEpoch = std::max(p->nEpoch, 1U);
        p->bytes = pChannel->fragments[p->nNext++ - pChannel->nFirst].bytes;
    }
    p->nGiven = 0;
    return LiveResult::Ok;
}

LiveResult LiveRead(LiveViewer *pViewer, char *pOut, size_t nSize, size_t *pnBytes)
{
    *pnBytes = 0;
    while (*pnBytes < nSize) {
        if (!pViewer->bytes) {
            Lock lock(g_live.lock);
            LiveResult result = NextBytes(pViewer);
            if (result != LiveResult::Ok)
                return *pnBytes > 0 ? LiveResult::Ok : result;
        }
        size_t nPart = std::min(nSize - *pnBytes, pViewer->bytes->size() - pViewer->nGiven);
        pViewer->bytes->copy(pOut + *pnBytes, nPart, pViewer->nGiven);
        *pnBytes += nPart;
        pViewer->nGiven += nPart;
        if (pViewer->nGiven == pViewer->bytes->size())
            pViewer->bytes.reset();
    }
    return LiveResult::Ok;
}

std::string LiveCodecs(const LiveViewer *pViewer)
{
    Lock lock(g_live.lock);
    return pViewer->channel->codecs;
}

// --- Still pictures ---

// Under the lock: sessions that are there for a still picture alone.
static int CountPeeks()
{
    return static_cast<int>(
        std::count_if(g_live.channels.begin(), g_live.channels.end(),
                      [](const auto &item) { return item.second->nViewers == 0 && item.second->bStill; }));
}

// Under the lock: has one made of a channel's latest picture, or waits for one.
static LiveResult BeginStill(Still *pStill, const std::string &program, const LiveUser *pUser, int nWidth,
                             const More &more)
{
    if (!g_live.channels.contains(program) && CountPeeks() >= kMostPeeks) {
        g_live.peekers.push_back(more);
        return LiveResult::Later;
    }
    ChannelPtr channel = ChannelOf(program, pUser);
    if (!channel)
        return LiveResult::Unavailable;
    pStill->bAsked = 1;
    pStill->result = LiveResult::Later;
    pStill->waiting.push_back(more);
    if (!channel->picture) {
        channel->bStill = 1;
        return LiveResult::Later;
    }
    g_live.jobs.push_back({program, nWidth, channel->pPictureCodec, channel->picture});
    g_live.work.notify_one();
    return LiveResult::Later;
}

// Pictures that nobody has asked for lately go.
static void ForgetStills(uint64_t nNowMs)
{
    if (g_live.stills.size() < kMostStills)
        return;
    std::erase_if(g_live.stills, [=](const auto &item) {
        return !item.second.bAsked && nNowMs - item.second.nMadeMs >= kStillFreshMs;
    });
}

LiveResult LiveStill(const char *szProgram, const LiveUser *pUser, int nWidth, std::string *pJpeg,
                     void (*pfnMore)(void *pUser), void *pContext)
{
    Lock lock(g_live.lock);
    uint64_t nNowMs = LoopNowMs();
    ForgetStills(nNowMs);
    Still *pStill = &g_live.stills[StillKey(szProgram, nWidth)];
    if (pStill->bAsked) {
        pStill->waiting.push_back({pfnMore, pContext});
        return LiveResult::Later;
    }
    if (pStill->result != LiveResult::Later && nNowMs - pStill->nMadeMs < kStillFreshMs) {
        *pJpeg = pStill->jpeg;
        return pStill->result;
    }
    pStill->nMadeMs = nNowMs;
    return BeginStill(pStill, szProgram, pUser, nWidth, {pfnMore, pContext});
}

static void TakeStill(const StillJob &job, int bMade, std::string jpeg)
{
    std::vector<More> told;
    {
        Lock lock(g_live.lock);
        Still *pStill = &g_live.stills[StillKey(job.program, job.nWidth)];
        pStill->bAsked = 0;
        pStill->result = bMade ? LiveResult::Ok : LiveResult::Codec;
        pStill->jpeg = std::move(jpeg);
        pStill->nMadeMs = LoopNowMs();
        Take(&pStill->waiting, &told);
    }
    Tell(told);
}

static void MakeStills()
{
    for (;;) {
        StillJob job;
        {
            Lock lock(g_live.lock);
            g_live.work.wait(lock, [] { return g_live.bStop || !g_live.jobs.empty(); });
            if (g_live.bStop)
                return;
            job = std::move(g_live.jobs.front());
            g_live.jobs.pop_front();
        }
        std::string jpeg;
        int bMade = LiveStillMake(job.pCodec, *job.picture, job.nWidth, &jpeg);
        TakeStill(job, bMade, std::move(jpeg));
    }
}

// --- Start and stop ---

int LiveStart(const LiveSettings *pSettings)
{
    g_live.settings = *pSettings;
    g_live.bStop = 0;
    g_live.pLoop = LoopOpen();
    if (!g_live.pLoop)
        return 0;
    g_live.loop = std::thread([] { LoopRun(g_live.pLoop); });
    g_live.maker = std::thread(MakeStills);
    return 1;
}

// Sessions take their leave before the loop ends.
static void OnLeft(void *pTimer)
{
    if (LinksLeaving() == 0)
        LoopStop(g_live.pLoop);
    else
        LoopSetTimer(g_live.pLoop, static_cast<LoopTimer *>(pTimer), kLeaveLookMs);
}

static void EndAll(void *pTimer)
{
    std::vector<ChannelPtr> all;
    {
        Lock lock(g_live.lock);
        for (const auto &[program, channel] : g_live.channels)
            all.push_back(channel);
    }
    for (const ChannelPtr &channel : all)
        EndChannel(channel.get(), LiveResult::Ended);
    OnLeft(pTimer);
}

void LiveStop()
{
    LoopTimer leaving;
    leaving.pfnDue = OnLeft;
    leaving.pUser = &leaving;
    {
        Lock lock(g_live.lock);
        g_live.bStop = 1;
        g_live.work.notify_all();
    }
    LoopPost(g_live.pLoop, EndAll, &leaving);
    g_live.loop.join();
    g_live.maker.join();
    LoopClose(std::exchange(g_live.pLoop, nullptr));
    g_live.stills.clear();
    g_live.jobs.clear();
    g_live.peekers.clear();
}

}  // namespace orx
