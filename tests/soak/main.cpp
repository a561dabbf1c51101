// soak: programs with large pictures are recorded on a small disk that fills, while people watch live and seek
// in what was recorded. Says at the end whether everybody got everything.
#include <sys/statvfs.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>

#include "cli/options.h"
#include "client/h264file.h"
#include "support/namespaces.h"
#include "system/mediakit.h"
#include "system/systemtest.h"

using namespace orx;

constexpr uint64_t kSecondUs = 1000000;
constexpr long kMegabyte = 1024 * 1024;
constexpr int kReserve = 60;          // megabytes that are to stay free
constexpr int kAnswerMs = 10000;      // of a seek, far from what a busy machine needs
constexpr long kGrowthKb = 32 << 10;  // from the first third on
constexpr int kKeyBytes = 300000, kPictureBytes = 60000;
constexpr unsigned kPictureMs = 40;
constexpr size_t kOutputBytes = 100000;

struct SoakOptions {
    int nMinutes = 10, nPrograms = 4, nMegabytes = 2048, nSeed = 1;
};

struct Soak {
    SoakOptions options;
    OrxProcess server{};
    TempDir place{};
    std::string root = place.File("rec");
    std::mt19937 random{static_cast<unsigned>(options.nSeed)};
    std::set<std::string> checked{};  // files that were complete and sound
    std::vector<std::string> faults{};
    int nSeeks = 0, nSlowestMs = 0, nChecked = 0, nAlarms = 0;
    long nLowestMegabytes = 1 << 30, nEarlyKb = 0, nLateKb = 0;
    bool bFilled = false;  // the oldest recordings go

    bool Hold(bool bOk, const std::string &what)
    {
        if (!bOk) {
            faults.push_back(what);
            fprintf(stderr, "soak: %s\n", what.c_str());
        }
        return bOk;
    }
};

// The clip of the test data with pictures of such sizes: a unit of filler data brings them there.
static std::string MakeClip(const std::string &path)
{
    H264File clip;
    std::string out;
    const std::string start("\0\0\0\1", 4);
    H264Load(&clip, ORX_TEST_DATA "/clip.h264");
    for (const H264Picture &picture : clip.pictures) {
        size_t nEnd = out.size() + (picture.bKey ? kKeyBytes : kPictureBytes);
        for (std::string_view unit : picture.units)
            out += start + std::string(unit);
        out += start + static_cast<char>(H264_FILLER);
        out.resize(nEnd - 1, '\xFF');
        out += '\x80';
    }
    WriteFile(path, out);
    return path;
}

static void Configure(Soak *pSoak)
{
    std::ifstream shipped(ORX_SHIPPED_CONFIG);
    std::string line, section;
    while (std::getline(shipped, line)) {
        if (line.starts_with("["))
            section = line.substr(1, line.find(']') - 1);
        else if (!line.empty() && line[0] != ';' && !line.starts_with("ListenPort=") && !line.starts_with("Udp"))
            pSoak->server.Set(section, line);
    }
    pSoak->server.Set("STORAGE", "RecordPath=" + pSoak->root + "\nMinutePerFile=1\nRecordAlways=cam*\n" +
                                     "ReserveMegabytes=" + std::to_string(kReserve));
}

// --- What is done and looked at while it runs ---

static std::vector<std::string> Complete(const Soak &soak)
{
    std::vector<std::string> files = FilesBelow(soak.root);
    std::erase_if(files, [](const std::string &name) { return !name.ends_with(".zmf"); });
    return files;
}

static bool IsThere(const Soak &soak, const std::string &name)
{
    return std::filesystem::exists(soak.root + "/" + name);
}

// Plays a recording, and seeks in it while it plays. It may go meanwhile, to make room.
static void SeekIn(Soak *pSoak, const std::string &name)
{
    RtspClient player;
    if (!RtspOpenPlayer(&player, pSoak->server.Url("/" + name).c_str(), RTSP_OVER_TCP)) {
        pSoak->Hold(!IsThere(*pSoak, name), name + " does not play");
        return;
    }
    // the last seconds are sent at once, before the answer is looked at
    size_t nRange = player.sdp.find("npt=0-");
    int nSeconds = nRange == std::string::npos ? 0 : atoi(player.sdp.c_str() + nRange + 6) - 3;
    for (int i = 0; i < 4 && nSeconds > 0; i++) {
        std::string range = "npt=" + std::to_string(pSoak->random() % static_cast<unsigned>(nSeconds)) + "-";
        uint64_t nStartUs = RtspNowUs();
        player.inbox.clear();
        int bSought = RtspPlay(&player, ("Range: " + range + "\r\n").c_str(), nullptr, kAnswerMs);
        pSoak->Hold(bSought, name + ": no answer to " + range);
        player.inbox.clear();
        if (!pSoak->Hold(RtspWaitFrame(&player, 0, nullptr, kAnswerMs) != 0, name + ": nothing follows " + range))
            return;
        pSoak->nSlowestMs = std::max(pSoak->nSlowestMs, static_cast<int>((RtspNowUs() - nStartUs) / 1000));
        pSoak->nSeeks += bSought;
        pSoak->Hold(!player.bClosed, name + ": the player was cut off at " + range);
    }
}

// Each file is checked once, when it is complete: sound, and without a hole.
static void CheckFile(Soak *pSoak, const std::string &name)
{
    const std::string file = pSoak->root + "/" + name;
    ToolProcess check("orxzmf", {"check", file});
    bool bSound = check.WaitExit() == 0;
    std::vector<uint32_t> times = PictureTimes(ReadFile(file));
    auto hole = std::adjacent_find(times.begin(), times.end(),
                                   [](uint32_t nOne, uint32_t nNext) { return nNext - nOne > kPictureMs + 1; });
    if (!IsThere(*pSoak, name))
        return;
    pSoak->nChecked++;
    pSoak->Hold(bSound, "no sound file: " + check.Output());
    pSoak->Hold(hole == times.end(),
                name + " misses a picture after " + std::to_string(hole == times.end() ? 0 : *hole));
}

static void CheckFiles(Soak *pSoak)
{
    std::set<std::string> there;
    for (const std::string &name : Complete(*pSoak)) {
        there.insert(name);
        if (!pSoak->checked.count(name))
            CheckFile(pSoak, name);
    }
    for (const std::string &name : pSoak->checked)
        pSoak->bFilled |= !there.count(name);
    pSoak->checked = there;
}

static void LookAtRoom(Soak *pSoak)
{
    struct statvfs info {};
    statvfs(pSoak->root.c_str(), &info);
    pSoak->nLowestMegabytes =
        std::min(pSoak->nLowestMegabytes, static_cast<long>(info.f_bavail * info.f_frsize) / kMegabyte);
}

static void RaiseAlarm(Soak *pSoak)
{
    std::string url =
        pSoak->server.Url("/cam" + std::to_string(pSoak->random() % static_cast<unsigned>(pSoak->options.nPrograms)));
    ToolProcess alarm("orxrec", {"alarm", "--limit", "10", url});
    pSoak->Hold(alarm.WaitExit() == 0, alarm.Output());
    pSoak->nAlarms++;
}

// What its progress says; with what the server has said in the last seconds.
static bool LostNothing(Soak *pSoak, ToolProcess *pTool)
{
    const std::string &said = pTool->Output();
    size_t nLost = said.rfind(" lost, ");
    if (nLost == std::string::npos || said.substr(0, nLost).ends_with(" 0"))
        return true;
    return pSoak->Hold(false, "players lost something: " + said.substr(said.find_last_of("\r\n", nLost) + 1) +
                                  "the server said: " + pSoak->server.Output());
}

static bool RunFor(Soak *pSoak, const std::vector<ToolProcess *> &tools)
{
    const uint64_t nStartUs = RtspNowUs(), nWholeUs = static_cast<uint64_t>(pSoak->options.nMinutes) * 60 * kSecondUs;
    uint64_t nAlarmUs = nStartUs + 15 * kSecondUs, nShowUs = nStartUs;
    while (RtspNowUs() < nStartUs + nWholeUs && pSoak->faults.size() < 10) {
        std::vector<std::string> files = Complete(*pSoak);
        if (!files.empty())
            SeekIn(pSoak, files[pSoak->random() % files.size()]);
        CheckFiles(pSoak);
        LookAtRoom(pSoak);
        uint64_t nNowUs = RtspNowUs();
        long *pKb = nNowUs < nStartUs + nWholeUs / 3 ? &pSoak->nEarlyKb : &pSoak->nLateKb;
        *pKb = std::max(*pKb, pSoak->server.ResidentKb());
        if (nNowUs > nAlarmUs && (nAlarmUs += 15 * kSecondUs))
            RaiseAlarm(pSoak);
        for (ToolProcess *pTool : tools)
            if (!LostNothing(pSoak, pTool) ||
                !pSoak->Hold(pTool->WaitExit(0) < 0, "a player or camera has ended: " + pTool->Output()))
                return false;
        if (nNowUs > nShowUs && (nShowUs += 10 * kSecondUs))
            fprintf(stderr, "%llu s: %zu files, %ld MB free at least, %ld kB, %d seeks, slowest %d ms\n",
                    static_cast<unsigned long long>((nNowUs - nStartUs) / kSecondUs), files.size(),
                    pSoak->nLowestMegabytes, *pKb, pSoak->nSeeks, pSoak->nSlowestMs);
        WaitFor([&] { return pSoak->server.WaitExit(0) >= 0; }, 200);
        if (!pSoak->Hold(pSoak->server.WaitExit(0) < 0, "the server has ended"))
            return false;
        if (pSoak->server.Output().size() > kOutputBytes)
            pSoak->server.ForgetOutput();
    }
    return true;
}

// --- The whole ---

static void Verdict(Soak *pSoak)
{
    const long nBuffered = 10L * pSoak->options.nPrograms;  // what comes in until room is looked at again
    pSoak->Hold(pSoak->nLowestMegabytes >= kReserve - nBuffered,
                "only " + std::to_string(pSoak->nLowestMegabytes) + " MB were kept free");
    pSoak->Hold(pSoak->nLateKb <= pSoak->nEarlyKb + kGrowthKb, "memory grew from " + std::to_string(pSoak->nEarlyKb) +
                                                                   " to " + std::to_string(pSoak->nLateKb) + " kB");
    printf(
        "soak: %d files sound, %d seeks, slowest %d ms, %d alarms, at least %ld MB free%s, at most %ld kB, then %ld "
        "kB\n",
        pSoak->nChecked, pSoak->nSeeks, pSoak->nSlowestMs, pSoak->nAlarms, pSoak->nLowestMegabytes,
        pSoak->bFilled ? " (the oldest went)" : "", pSoak->nEarlyKb, pSoak->nLateKb);
    printf("soak: %s\n", pSoak->faults.empty() ? "PASSED" : "FAILED");
    for (const std::string &fault : pSoak->faults)
        printf("  %s\n", fault.c_str());
}

static void RunSoak(Soak *pSoak)
{
    Configure(pSoak);
    pSoak->server.Start();
    const std::string url = pSoak->server.Url("/cam%d"), count = std::to_string(pSoak->options.nPrograms);
    const std::string clip = MakeClip(pSoak->place.File("clip.h264"));
    ToolProcess cameras("orxpush",
                        {"--loop", "--audio", "tone", "--file", clip, "--count", count, "--first", "0", url});
    if (!pSoak->Hold(cameras.WaitOutput("programs started") || cameras.WaitOutput("program started"),
                     "cameras: " + cameras.Output()))
        return;
    ToolProcess players(
        "orxload", {"--programs", count, "--first", "0", "--tcp", std::to_string(pSoak->options.nPrograms), "--tunnel",
                    "2", "--strict", "--silence", "10", "--duration", "1000000", url});
    RunFor(pSoak, {&cameras, &players});
    for (ToolProcess *pTool : {&players, &cameras}) {
        pTool->Signal(SIGINT);
        pSoak->Hold(pTool->WaitExit() == 0, "somebody lost something: " + pTool->Output());
    }
    pSoak->Hold(WaitFor([&] { return Complete(*pSoak) == FilesBelow(pSoak->root); }), "files stay open");
    CheckFiles(pSoak);
    pSoak->Hold(pSoak->server.Quit() == 0, "the server did not end in order");
    Verdict(pSoak);
}

int main(int argc, char **argv)
{
    SoakOptions options;
    const CommandLine line{
        "soak",
        "Records programs of large pictures on a small disk (a tmpfs) that fills, with players and seeks.",
        {{"", "", 0, 0, ""}},
        {
            {"minutes", "N", "for how long", OptionWhole{&options.nMinutes, 1, 100000}},
            {"programs", "N", "25 pictures a second of 60 kB, and of 300 kB each second, with sound",
             OptionWhole{&options.nPrograms, 1, 16}},
            {"disk", "MB", "size of the disk", OptionWhole{&options.nMegabytes, 200, 1000000}},
            {"seed", "N", "where is sought", OptionWhole{&options.nSeed, 0, 1 << 30}},
        },
        "Exit code: 0 nothing was lost, 1 something was, 2 the command line cannot be used, 77 no tmpfs may be "
        "mounted."};
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    Soak soak{options};
    std::filesystem::create_directories(soak.root);
    std::string size = "size=" + std::to_string(options.nMegabytes) + "m";
    if (!EnterNamespaces(CLONE_NEWNS) || !MountEmpty(soak.root.c_str(), size.c_str()))
        return 77;
    RunSoak(&soak);
    umount2(soak.root.c_str(), MNT_DETACH);
    return soak.faults.empty() ? 0 : 1;
}
