#include "orxweb/clip.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <thread>
#include <vector>

#include "base/assertion.h"
#include "base/fdguard.h"
#include "base/md5.h"
#include "orxweb/cliplayout.h"
#include "orxweb/clipread.h"
#include "orxweb/clipsound.h"
#include "record/confine.h"
#include "record/daywalk.h"
#include "record/zmfile.h"

namespace orx {

constexpr char kEnding[] = ".zmf";
constexpr size_t kNameDigits = 16;    // of digests in the names of cache files
constexpr int64_t kAwaitedMs = 3000;  // who waits asks again sooner
constexpr int64_t kForgottenMs = 60000;
constexpr int64_t kRetryMs = 10000;  // after a layout could not be written
constexpr size_t kMostWishes = 64;
constexpr size_t kMostRefused = 1000;
constexpr size_t kMostHeld = 8;    // layouts in memory that nobody uses
constexpr size_t kMostNested = 3;  // layouts in the making
constexpr int kNice = 5;           // live pictures come first

namespace {

using LayoutPtr = std::shared_ptr<const ClipLayout>;

// A recording by its names, which were checked.
struct Target {
    std::string directory;  // of the program
    std::string file;       // in it, by its final name
    std::string key;        // names both in the cache
};

struct Opened {
    int fd = -1;
    ClipOrigin origin;
    int bGrowing = 0;
    std::string tag;
};

// Somebody asked for a layout that is not there.
struct Wish {
    Target target;
    int64_t nFirstMs = 0;
    int64_t nLastMs = 0;
};

struct Latest {
    std::string tag;
    ClipOrigin origin;
    int64_t nMadeMs = 0;
};

struct Clips {
    ClipSettings settings;
    std::thread maker;
    std::atomic<int> bStop{0};
    std::atomic<int> bWishes{0};  // there may be some
    std::mutex lock;              // of all that follows
    std::condition_variable wake;
    std::vector<Wish> wishes;
    std::vector<std::string> making;         // keys of the wishes that are being fulfilled
    std::map<std::string, Latest> latest;    // by key, of recordings that go on
    std::map<std::string, int64_t> refused;  // cache files that cannot be made, and until when
    std::deque<std::pair<std::string, LayoutPtr>> held;
    int bSaid = 0;  // that layouts cannot be written
};

}  // namespace

struct Clip {
    LayoutPtr pLayout;
    ClipReader reader;  // with the recording's descriptor, owned
};

static Clips *g_pClips = nullptr;  // from ClipsStart to ClipsStop

static int64_t NowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// --- Names ---

static int IsPlainPath(std::string_view path)
{
    if (path.empty() || path.find('\0') != std::string_view::npos)
        return 0;
    while (!path.empty()) {
        std::string_view part = path.substr(0, path.find('/'));
        if (part.empty() || part == "." || part == "..")
            return 0;
        path.remove_prefix(std::min(path.size(), part.size() + 1));
    }
    return 1;
}

static std::string Digest(const std::string &text)
{
    char szHex[kMd5HexSize];
    if (text.empty())
        return std::string(kNameDigits, '0');
    Md5Hex(text.data(), text.size(), szHex);
    return std::string(szHex).substr(0, kNameDigits);
}

// "DAY/NAME.zmf", with the suffix of open files or without.
static int ReadTarget(const char *szProgram, const char *szFile, Target *pOut)
{
    std::string_view program = szProgram, file = szFile;
    if (program.starts_with('/'))
        program.remove_prefix(1);
    if (file.starts_with(program) && file.substr(program.size()).starts_with('/'))
        file.remove_prefix(program.size() + 1);
    if (file.ends_with(kOpenSuffix))
        file.remove_suffix(strlen(kOpenSuffix));
    if (!IsPlainPath(program) || !IsPlainPath(file) || program.ends_with('/') || !file.ends_with(kEnding))
        return 0;
    size_t nDay = file.find('/');
    if (nDay == std::string_view::npos || file.find('/', nDay + 1) != std::string_view::npos ||
        !IsDate(std::string(file.substr(0, nDay)).c_str()))
        return 0;
    pOut->directory = g_pClips->settings.recordPath + "/" + std::string(program);
    pOut->file = file;
    pOut->key = Digest(std::string(program) + "\n" + pOut->file);
    return 1;
}

static std::string PathOf(const std::string &key, const std::string &tag)
{
    return g_pClips->settings.cachePath + "/" + key + "-" + tag + ".clip";
}

// Opens the recording, which lies below the directory of its program. Returns 1 or 0.
static int OpenTarget(const Target &target, Opened *pOut)
{
    struct stat info {};
    std::string path = target.directory + "/" + target.file;
    FdGuard dir{ConfineOpenDir(g_pClips->settings.recordPath.c_str(), target.directory.c_str())};
    if (dir.fd < 0)
        return 0;
    pOut->fd = ConfineOpenFile(target.directory.c_str(), path.c_str());
    if (pOut->fd < 0) {
        pOut->fd = ConfineOpenFile(target.directory.c_str(), (path + kOpenSuffix).c_str());
        pOut->bGrowing = 1;
    }
    if (pOut->fd < 0)
        return 0;
    if (fstat(pOut->fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(pOut->fd);
        return 0;
    }
    pOut->origin = {static_cast<uint64_t>(info.st_size), info.st_mtim.tv_sec,
                    static_cast<uint32_t>(info.st_mtim.tv_nsec)};
    pOut->tag = Digest(std::string(kClipForm) + " " + ClipSoundMaker() + " " + target.key + " " +
                       std::to_string(pOut->origin.nBytes) + " " + std::to_string(pOut->origin.nSeconds) +
                       " " + std::to_string(pOut->origin.nNanos));
    return 1;
}

// --- Layouts that are there ---

static LayoutPtr Held(const std::string &path)
{
    std::lock_guard guard(g_pClips->lock);
    for (const auto &[heldPath, pLayout] : g_pClips->held)
        if (heldPath == path)
            return pLayout;
    return nullptr;
}

// The layout of a cache file, or null when there is none.
static LayoutPtr Load(const std::string &path)
{
    LayoutPtr pHeld = Held(path);
    if (pHeld) {
        ClipFileTouch(path);
        return pHeld;
    }
    auto free = [](const ClipLayout *p) {
        auto *pLayout = const_cast<ClipLayout *>(p);
        ClipLayoutFree(pLayout);
        delete pLayout;
    };
    auto *pLayout = new (std::nothrow) ClipLayout;
    if (!pLayout || !ClipFileRead(path, pLayout)) {
        delete pLayout;
        return nullptr;
    }
    LayoutPtr pRead(pLayout, free);
    ClipFileTouch(path);
    std::lock_guard guard(g_pClips->lock);
    g_pClips->held.emplace_front(path, pRead);
    if (g_pClips->held.size() > kMostHeld)
        g_pClips->held.pop_back();
    return pRead;
}

// A layout that gives no bytes is made anew.
static void Forget(const LayoutPtr &pLayout)
{
    std::lock_guard guard(g_pClips->lock);
    std::erase_if(g_pClips->held, [&](const auto &entry) {
        if (entry.second == pLayout)
            unlink(entry.first.c_str());
        return entry.second == pLayout;
    });
}

// The newest layout of a recording that goes on, while it is fresh enough.
static LayoutPtr LoadLatest(const Target &target, const Opened &opened)
{
    Latest latest;
    {
        std::lock_guard guard(g_pClips->lock);
        auto found = g_pClips->latest.find(target.key);
        if (found == g_pClips->latest.end())
            return nullptr;
        latest = found->second;
    }
    int64_t nFreshMs = g_pClips->settings.nFreshMs;
    int64_t nGrownMs = (opened.origin.nSeconds - latest.origin.nSeconds) * 1000 +
                       (int64_t{opened.origin.nNanos} - int64_t{latest.origin.nNanos}) / 1000000;
    if (latest.origin.nBytes > opened.origin.nBytes || nGrownMs < 0 ||
        (nGrownMs > nFreshMs && NowMs() - latest.nMadeMs >= nFreshMs))
        return nullptr;
    return Load(PathOf(target.key, latest.tag));
}

static int IsTag(const char *szTag)
{
    return strlen(szTag) == kNameDigits && strspn(szTag, "0123456789abcdef") == kNameDigits;
}

static LayoutPtr Find(const Target &target, const Opened &opened, const char *szTag)
{
    if (szTag && opened.tag != szTag && IsTag(szTag)) {
        LayoutPtr pLayout = Load(PathOf(target.key, szTag));
        if (pLayout && pLayout->nEnd <= opened.origin.nBytes)
            return pLayout;
    }
    LayoutPtr pLayout = opened.bGrowing ? LoadLatest(target, opened) : nullptr;
    return pLayout ? pLayout : Load(PathOf(target.key, opened.tag));
}

// --- Layouts that are to be made ---

static int IsRefused(const std::string &path)
{
    std::lock_guard guard(g_pClips->lock);
    auto found = g_pClips->refused.find(path);
    return found != g_pClips->refused.end() && NowMs() < found->second;
}

static void AddWish(const Target &target)
{
    std::lock_guard guard(g_pClips->lock);
    std::vector<Wish> &wishes = g_pClips->wishes;
    int64_t nNow = NowMs();
    if (std::count(g_pClips->making.begin(), g_pClips->making.end(), target.key) > 0)
        return;
    for (Wish &wish : wishes)
        if (wish.target.key == target.key) {
            wish.nLastMs = nNow;
            return;
        }
    if (wishes.size() >= kMostWishes)
        wishes.erase(std::min_element(wishes.begin(), wishes.end(),
                                      [](const Wish &a, const Wish &b) { return a.nLastMs < b.nLastMs; }));
    wishes.push_back({target, nNow, nNow});
    g_pClips->bWishes = 1;
    g_pClips->wake.notify_one();
}

// What somebody waits for comes first, in the order of asking; then what was asked for last. Returns 0 when
// there is nothing.
static int TakeWish(Wish *pOut)
{
    std::vector<Wish> &wishes = g_pClips->wishes;
    int64_t nNow = NowMs();
    std::erase_if(wishes, [=](const Wish &wish) { return nNow - wish.nLastMs > kForgottenMs; });
    auto best = wishes.end();
    for (auto it = wishes.begin(); it != wishes.end(); ++it) {
        int bAwaited = nNow - it->nLastMs < kAwaitedMs;
        int bBestAwaited = best != wishes.end() && nNow - best->nLastMs < kAwaitedMs;
        if (best == wishes.end() || (bAwaited && !bBestAwaited) ||
            (!bBestAwaited && it->nLastMs > best->nLastMs))
            best = it;
    }
    int bAny = best != wishes.end();
    if (bAny) {
        *pOut = *best;
        wishes.erase(best);
    }
    g_pClips->bWishes = !wishes.empty();
    return bAny;
}

static void NoteMade(const Wish &wish, const Opened &opened, ClipMade eMade)
{
    std::lock_guard guard(g_pClips->lock);
    if (eMade == ClipMade::Done) {
        if (opened.bGrowing)
            g_pClips->latest[wish.target.key] = {opened.tag, opened.origin, NowMs()};
        else
            g_pClips->latest.erase(wish.target.key);
        g_pClips->bSaid = 0;
        return;
    }
    if (g_pClips->bStop)
        return;
    if (g_pClips->refused.size() >= kMostRefused)
        g_pClips->refused.clear();
    int bUnwritten = eMade == ClipMade::Unwritten;
    g_pClips->refused[PathOf(wish.target.key, opened.tag)] = bUnwritten ? NowMs() + kRetryMs : INT64_MAX;
    if (bUnwritten && !g_pClips->bSaid)
        fprintf(stderr, "orxweb: %s: layouts of recordings cannot be written\n",
                g_pClips->settings.cachePath.c_str());
    g_pClips->bSaid |= bUnwritten;
}

static void Meanwhile();

// With those above it.
static int MakeDirectory(const std::string &path)
{
    size_t nSlash = path.rfind('/');
    if (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST)
        return 1;
    return errno == ENOENT && nSlash != std::string::npos && nSlash > 0 &&
           MakeDirectory(path.substr(0, nSlash)) && mkdir(path.c_str(), 0700) == 0;
}

static void Fulfil(const Wish &wish)
{
    Opened opened;
    if (!OpenTarget(wish.target, &opened))
        return;
    FdGuard fd{opened.fd};
    ClipLayoutJob job;
    job.fd = opened.fd;
    job.origin = opened.origin;
    job.tag = opened.tag;
    job.path = PathOf(wish.target.key, opened.tag);
    job.pbStop = &g_pClips->bStop;
    job.pfnMeanwhile = Meanwhile;
    MakeDirectory(g_pClips->settings.cachePath);  // somebody may have deleted it with what was in it
    ClipMade eMade = ClipLayoutMake(&job);
    NoteMade(wish, opened, eMade);
    if (eMade == ClipMade::Done)
        ClipFilesTrim(g_pClips->settings.cachePath, g_pClips->settings.nMostCached, job.path);
}

// Fulfils the next wish. Returns 0 when there is none.
static int FulfilNext(std::unique_lock<std::mutex> *pGuard)
{
    Wish wish;
    if (!TakeWish(&wish))
        return 0;
    g_pClips->making.push_back(wish.target.key);
    pGuard->unlock();
    Fulfil(wish);
    pGuard->lock();
    g_pClips->making.pop_back();
    return 1;
}

// Who asks for one recording does not wait while the sound of another is encoded, which takes a minute.
static void Meanwhile()
{
    if (!g_pClips->bWishes || g_pClips->bStop)
        return;
    std::unique_lock guard(g_pClips->lock);
    if (g_pClips->making.size() < kMostNested)
        FulfilNext(&guard);
}

static void RunMaker()
{
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kNice);
    std::unique_lock guard(g_pClips->lock);
    while (!g_pClips->bStop)
        if (!FulfilNext(&guard))
            g_pClips->wake.wait(guard);
}

// --- Start and stop ---

int ClipsStart(const ClipSettings *pSettings)
{
    if (!MakeDirectory(pSettings->cachePath)) {
        fprintf(stderr, "orxweb: %s: %s\n", pSettings->cachePath.c_str(), strerror(errno));
        return 0;
    }
    AssertSurvivePeerFaults(1);
    g_pClips = new (std::nothrow) Clips;
    if (!g_pClips)
        return 0;
    g_pClips->settings = *pSettings;
    ClipFilesClean(pSettings->cachePath);
    ClipFilesTrim(pSettings->cachePath, pSettings->nMostCached, "");
    g_pClips->maker = std::thread(RunMaker);
    return 1;
}

void ClipsStop()
{
    if (!g_pClips)
        return;
    {
        std::lock_guard guard(g_pClips->lock);
        g_pClips->bStop = 1;
        g_pClips->wake.notify_one();
    }
    g_pClips->maker.join();
    delete g_pClips;
    g_pClips = nullptr;
}

// --- Clips ---

ClipState ClipOpen(const char *szProgram, const char *szFile, Clip **ppClip, const char *szTag)
{
    Target target;
    Opened opened;
    *ppClip = nullptr;
    if (!g_pClips || !ReadTarget(szProgram, szFile, &target) || !OpenTarget(target, &opened))
        return ClipState::None;
    FdGuard fd{opened.fd};
    LayoutPtr pLayout = Find(target, opened, szTag);
    if (!pLayout && IsRefused(PathOf(target.key, opened.tag)))
        return ClipState::Broken;
    if (!pLayout) {
        AddWish(target);
        return ClipState::Making;
    }
    auto *pClip = new (std::nothrow) Clip;
    if (!pClip)
        return ClipState::Broken;
    pClip->reader.pLayout = pLayout.get();
    pClip->reader.fd = fd.Release();
    pClip->pLayout = std::move(pLayout);
    *ppClip = pClip;
    return ClipState::Ready;
}

void ClipClose(Clip *pClip)
{
    if (!pClip)
        return;
    close(pClip->reader.fd);
    delete pClip;
}

uint64_t ClipSize(const Clip *pClip)
{
    return ClipLayoutSize(pClip->pLayout.get());
}

std::string ClipTag(const Clip *pClip)
{
    return pClip->pLayout->tag;
}

std::string ClipCodecs(const Clip *pClip)
{
    return pClip->pLayout->codecs;
}

ssize_t ClipRead(Clip *pClip, uint64_t nOffset, char *pOut, size_t nSize)
{
    ssize_t nRead = ClipReaderRead(&pClip->reader, nOffset, pOut, nSize);
    if (nRead < 0)
        Forget(pClip->pLayout);
    return nRead;
}

}  // namespace orx
