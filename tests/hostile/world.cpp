#include "hostile/world.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "system/mediakit.h"

namespace orx {

// Bounds, not times to be kept: each is far from what a busy machine needs.
constexpr int kAnswerMs = kSanitized ? 20000 : 10000;
constexpr int kEndMs = 3000;      // a report of what ended it takes so long to print
constexpr int kLeaveMs = 100000;  // until the last timer of somebody who has gone is over
constexpr unsigned kTasksPerSocket = 3;
constexpr uint64_t kTimersUs = 10000000;  // a connection that has gone leaves tasks for some seconds
constexpr int kMostDescriptors = 1000;    // two for each relay of the web port
constexpr int kFilesAside = 6;            // recordings of the program that others may begin, and what is opened once
constexpr long kMostKb = 600 << 10;       // above what it began with
// A sanitizer's heap keeps what was freed, and notes on every address that was used.
constexpr long kGrowthKb = kSanitized ? 300 << 10 : 24 << 10;
constexpr unsigned kPictureMs = 40;  // of the camera's clip
constexpr size_t kOutputBytes = 4 << 20;

const std::vector<Scene> &Scenes()
{
    static const char accounts[] =
        "SuperUser=admin\nSuperPwd=secret\nNumUsers=1\nUserName0=ann\nUserPwd0=annpw\nUserLevel0=2";
    static const std::vector<Scene> scenes = {
        {"shipped", {}},
        {"basic",
         {{"SERVER", "AuthType=1"}, {"USERS", accounts}, {"GUARD", "AnnounceFrom=127.0.0.1\nAnnounceAuth=1"}},
         true},
        {"digest", {{"SERVER", "AuthType=2\nEnableRtcp=1"}, {"USERS", accounts}, {"GUARD", "AnnounceAuth=1"}}, true},
    };
    return scenes;
}

World::World(const Scene &scene) : bAccounts(scene.bAccounts)
{
    std::ifstream shipped(ORX_SHIPPED_CONFIG);
    std::string line, section;
    const std::string kept[] = {"ListenPort=", "UdpStartPort=", "UdpEndPort="};  // of the test's own ports
    while (std::getline(shipped, line)) {
        if (line.starts_with("["))
            section = line.substr(1, line.find(']') - 1);
        else if (!line.empty() && line[0] != ';' &&
                 std::none_of(std::begin(kept), std::end(kept), [&](auto &key) { return line.starts_with(key); }))
            server.Set(section, line);
    }
    server.Set("SERVER", "EnableUnet=1\nEnableHttpProxy=1\nHttpProxyListenPort=" + std::to_string(ports.nWeb) +
                             "\nHttpProxyTargetPort=" + std::to_string(web.nPort));
    for (const Scene::Change &change : scene.changes)
        server.Set(change.szSection, change.szLines);
    std::filesystem::create_directories(recordings);
    // what is freed is not kept back for long, or memory would seem to grow
    setenv("ASAN_OPTIONS", "quarantine_size_mb=16", 0);
}

bool World::Hold(bool bOk, const std::string &what)
{
    if (!bOk && failure.empty())
        failure = what;
    return failure.empty();
}

bool World::Start()
{
    server.Start();
    const std::string url = "rtsp://" + User() + server.Url("/cam").substr(7);
    const std::vector<std::string> load = {"--strict", "--silence", "10", "--duration", "1000000", url};
    camera = std::make_unique<ToolProcess>(
        "orxpush", std::vector<std::string>{"--loop", "--audio", "tone", "--data", "200", "--rtcp", url});
    if (!Hold(camera->WaitOutput("1 program started"), "the camera cannot push: " + camera->Output()))
        return false;
    auto open = [&](std::vector<std::string> players) {
        players.insert(players.end(), load.begin(), load.end());
        return std::make_unique<ToolProcess>("orxload", players);
    };
    streams = open({"--tcp", "8", "--tunnel", "6"});
    datagrams = open({"--udp", "6"});
    control.sourceIp = "127.0.0.1";
    RtspMessage reply;
    Hold(RtspConnect(&control, url.c_str()) && RtspDescribe(&control) &&
             RtspRequest(&control, "RECORDEX", nullptr,
                         ("ActionParam: EventType=1&FileName=" + recordings + "/camera.zmf\r\n").c_str(), "", &reply) &&
             reply.nStatus == 200,
         "no recording: " + control.error + reply.reason);
    Hold(WaitFor([&] { return server.Stat().nClients == 21; }), "20 players cannot watch");
    atStart = server.Stat();
    nFdsAtStart = server.Descriptors();
    return failure.empty();
}

bool World::Settle()
{
    if (!failure.empty())
        return false;
    RtspMessage reply;
    uint64_t nStartUs = RtspNowUs();
    bool bAnswered = RtspRequest(&control, "OPTIONS", nullptr, nullptr, "", &reply, kAnswerMs) != 0;
    nSlowestMs = std::max(nSlowestMs, static_cast<int>((RtspNowUs() - nStartUs) / 1000));
    return Hold(server.WaitExit(bAnswered ? 0 : kEndMs) < 0, "the server has ended") &&
           Hold(bAnswered, RtspPoll(&control) ? "the server does not answer" : "the recording's client was cut off");
}

void World::LookForReports()
{
    for (const char *szReport : {"Sanitizer", "runtime error:"})
        Hold(CountText(server.Output(), szReport) == 0, std::string("the server reports: ") + szReport);
}

bool World::Check()
{
    constexpr unsigned kAttacksPerLook = 16;  // the console is slow to answer
    if (!Settle() || nChecks++ % kAttacksPerLook != 0)
        return failure.empty();
    now = server.Stat();
    nFds = server.Descriptors();
    nHighestKb = server.ResidentKb("VmHWM:");
    for (const auto &pTool : {&camera, &streams, &datagrams})
        Hold((*pTool)->WaitExit(0) < 0 && CountText((*pTool)->Output(), "lost:") == 0,
             "a player or the camera was lost: " + (*pTool)->Output());
    if (RtspNowUs() > nWindowUs + kTimersUs) {
        nBefore = nRecent;
        nRecent = LinesOpened();
        nWindowUs = RtspNowUs();
    }
    unsigned nSockets = now.nMonitors + LinesOpened() - nBefore;  // with those that have just gone
    Hold(now.nTasks < kTasksPerSocket * nSockets + 50, "too many tasks");
    Hold(nFds < kMostDescriptors, "too many descriptors");
    Hold(nHighestKb < kMostKb, "too much memory");
    LookForReports();
    if (server.Output().size() > kOutputBytes)
        server.ForgetOutput();
    return failure.empty();
}

std::string World::Describe() const
{
    return std::to_string(now.nTasks) + " tasks, " + std::to_string(now.nClients) + " sessions, " +
           std::to_string(now.nMonitors) + " sockets, " + std::to_string(nFds) + " descriptors, at most " +
           std::to_string(nHighestKb >> 10) + " MB, slowest answer " + std::to_string(nSlowestMs) + " ms";
}

bool World::HoldsWhatItHeld()
{
    nChecks = 0;
    return Check() && now.nTasks <= atStart.nTasks + 2 && now.nLives <= atStart.nLives &&
           now.nClients <= atStart.nClients && now.nMonitors <= atStart.nMonitors && nFds <= nFdsAtStart + kFilesAside;
}

bool World::Recover()
{
    bool bLeft = WaitFor([&] { return HoldsWhatItHeld() || !failure.empty(); }, kLeaveMs);
    Hold(bLeft, "something is left of the attackers: " + Describe() + "; it began with " +
                    std::to_string(atStart.nTasks) + " tasks, " + std::to_string(atStart.nClients) + " sessions, " +
                    std::to_string(atStart.nMonitors) + " sockets, " + std::to_string(nFdsAtStart) + " descriptors");
    long nKb = server.ResidentKb();
    if (nFirstKb == 0)
        nFirstKb = nKb;
    return Hold(nKb - nFirstKb < kGrowthKb,
                "memory grew from " + std::to_string(nFirstKb) + " to " + std::to_string(nKb) + " kB");
}

// Every picture that came is there, which their times tell: a missing one leaves twice the distance. The server takes
// the line to where the camera's reports put it, by an eighth of the time that goes by, and reports that are late on a
// busy machine move it.
bool World::RecordingIsWhole()
{
    for (const std::string &name : FilesBelow(recordings)) {
        if (!name.starts_with("camera"))
            continue;
        ToolProcess check("orxzmf", {"check", recordings + "/" + name});
        Hold(check.WaitExit() == 0, "the recording: " + check.Output());
        std::vector<uint32_t> times = PictureTimes(ReadFile(recordings + "/" + name));
        auto hole = std::adjacent_find(times.begin(), times.end(),
                                       [](uint32_t nOne, uint32_t nNext) { return nNext - nOne > kPictureMs * 3 / 2; });
        return Hold(times.size() > 1, "the recording has no pictures") &&
               Hold(hole == times.end(), "a picture is missing in the recording");
    }
    return Hold(false, "there is no recording");
}

bool World::Finish()
{
    ToolProcess newcomer("orxload", {"--tcp", "1", "--udp", "1", "--tunnel", "1", "--strict", "--duration", "1",
                                     "rtsp://" + User() + server.Url("/cam").substr(7)});
    Hold(newcomer.WaitExit() == 0, "newcomers: " + newcomer.Output());
    for (const auto &pTool : {&streams, &datagrams, &camera}) {
        (*pTool)->Signal(SIGINT);
        Hold((*pTool)->WaitExit() == 0, "somebody lost something: " + (*pTool)->Output());
    }
    Hold(WaitFor([&] { return server.Stat().nLives == 0; }), "the program stays");
    RecordingIsWhole();
    for (const auto &entry : std::filesystem::recursive_directory_iterator(server.dir.path)) {
        std::string path = entry.path().lexically_relative(server.dir.path);
        Hold(!path.ends_with(".zmf") || path.starts_with("bin/rec/"), "a file was made where none may be: " + path);
    }
    Hold(server.Quit() == 0, "the server did not end in order");
    LookForReports();
    return failure.empty();
}

}  // namespace orx
