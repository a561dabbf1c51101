// People who watch while something goes wrong around them, and the figures to which the server has to come back.
#pragma once

#include <csignal>
#include <functional>
#include <memory>
#include <string>

#include <sys/resource.h>

#include "system/mediakit.h"
#include "system/systemtest.h"

namespace orx {

struct FaultTest : testing::Test {
    OrxProcess server;
    TempDir place;  // of recordings
    std::string root = place.File("rec");
    std::unique_ptr<ToolProcess> camera, players;
    Viewer witness;
    size_t nSeen = 0;  // pictures that the witness had to have so far
    OrxStat before;
    int nDescriptors = 0;
    long nKb = 0;

    // A camera in real time is recorded and watched by four players that may miss no packet, and by the witness.
    void Begin(int nLiveTime = 10)
    {
        server.Set("SERVER", "CacheLimit=5\nAutoDropDataWhenCrowded=1\nConnectLimit=400");
        server.Set("SERVER", "LiveTime", std::to_string(nLiveTime));
        server.Set("STORAGE", "RecordEnable=1\nNeverLose=1\nMinutePerFile=0\nRecordAlways=cam\nRecordPath=" + root);
        server.Set("INTEROP", "StandardPushers=1\nStandardPlayers=1\nHoldPlayers", "120");
        server.Set("GUARD", "SurvivePeerFaults=1\nCacheMegabytes=1\nCacheMegabytesTotal", "4");
        ASSERT_NO_FATAL_FAILURE(server.Start());
        const std::string url = server.Url("/cam");
        camera = std::make_unique<ToolProcess>("orxpush", std::vector<std::string>{"--loop", "--audio", "tone", url});
        ASSERT_TRUE(camera->WaitOutput("1 program started")) << camera->Output();
        players = std::make_unique<ToolProcess>(
            "orxload",
            std::vector<std::string>{"--tcp", "2", "--tunnel", "2", "--strict", "--duration", "100000", url});
        ASSERT_EQ(1, witness.Open(url)) << witness.client.error;
        ASSERT_TRUE(WaitFor([&] { return server.Stat().nClients == 5; })) << players->Output();
        Serve(25);
        before = server.Stat();
        nDescriptors = server.Descriptors();
        nKb = server.ResidentKb();
    }
    // Goes on until the witness has got so many pictures more, 25 of which are a second.
    void Serve(
        size_t nPictures, const std::function<void()> &meanwhile = [] {})
    {
        nSeen = witness.nPictures + nPictures;
        auto done = [&] {
            meanwhile();
            return witness.nPictures >= nSeen;
        };
        EXPECT_TRUE(Watch({&witness}, done, 60000 + static_cast<int>(nPictures) * 40)) << "the others are not served";
    }
    void Limit(__rlimit_resource eWhat, rlim_t nMost) const
    {
        rlimit limit{};
        ASSERT_EQ(0, prlimit(server.pid, eWhat, nullptr, &limit));
        limit.rlim_cur = std::min(nMost, limit.rlim_max);
        ASSERT_EQ(0, prlimit(server.pid, eWhat, &limit, nullptr));
    }
    // Once those who were at fault have gone, the server holds what it held, and newcomers get in.
    void ExpectAsBefore()
    {
        constexpr long kSpareKb = 8 << 10;
        OrxStat now;
        EXPECT_TRUE(WaitFor([&] {
            witness.Poll();
            now = server.Stat();
            return now.nClients == before.nClients && now.nLives == before.nLives &&
                   now.nMonitors == before.nMonitors && now.nTasks <= before.nTasks &&
                   server.Descriptors() <= nDescriptors;
        })) << now.nClients
            << " sessions, " << now.nLives << " programs, " << now.nMonitors << " sockets, " << now.nTasks
            << " tasks instead of " << before.nTasks << ", " << server.Descriptors() << " descriptors instead of "
            << nDescriptors;
        EXPECT_TRUE(kSanitized || kEmulated || server.ResidentKb() <= nKb + kSpareKb)
            << nKb << " kB became " << server.ResidentKb();
        Viewer newcomer;
        ASSERT_EQ(1, newcomer.Open(server.Url("/cam"))) << newcomer.client.error;
        EXPECT_TRUE(WatchPictures({&newcomer}, 10));
        Serve(10);
    }
    // Nobody has missed anything, and the recording is sound and whole.
    void TearDown() override
    {
        if (!players)
            return;
        players->Signal(SIGINT);
        EXPECT_EQ(0, players->WaitExit()) << players->Output();
        camera->Signal(SIGINT);
        EXPECT_EQ(0, camera->WaitExit()) << camera->Output();
        EXPECT_EQ(0, server.Quit());
        for (const char *szReport : {"Sanitizer", "runtime error:"})
            EXPECT_EQ(0, CountText(server.Output(), szReport));
        size_t nFiles = 0;
        for (const std::string &name : FilesBelow(root)) {
            std::vector<uint32_t> times = PictureTimes(ReadFile(root + "/" + name));
            for (size_t i = 1; i < times.size(); i++)
                EXPECT_NEAR(40, times[i] - times[i - 1], 20) << name << ", picture " << i;
            nFiles += name.ends_with(".zmf");
        }
        EXPECT_EQ(1U, nFiles);
        if (HasFailure())
            fprintf(stderr, "--- output of the server ---\n%s\n--- end ---\n", server.Output().c_str());
    }
};

}  // namespace orx
