// Clips as ffmpeg sees them: whole, compared with the exports of orxzmf, and over HTTP with ranges.
#include <atomic>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "clipkit.h"
#include "orxzmf/export.h"

namespace orx {

static bool HasFfmpeg()
{
    return system("command -v ffmpeg ffprobe > /dev/null") == 0;
}

// A line per stream: its codec, pictures or frames, and duration in tenths of a second.
static std::string Probe(const std::string &path)
{
    return Output("ffprobe -v error -count_packets -show_entries stream=codec_name,nb_read_packets -of compact " +
                  path);
}
static double Duration(const std::string &path)
{
    return atof(Output("ffprobe -v error -show_entries format=duration -of csv=p=0 " + path).c_str());
}

TEST(ClipPlayers, FfmpegDecodesTheWholeAndFindsWhatExportsHave)
{
    if (!HasFfmpeg())
        GTEST_SKIP() << "no ffmpeg";
    Archive archive;
    for (const Content &content : {Content{"h264", "aac"}, Content{"changing", ""}, Content{"h264", "pcma"},
                                   Content{"h264", "aac", 10, 100}, Content{"h264", "pcma", 10, 0, 75, 1}}) {
        std::string file = archive.Add(content.video + content.audio + ".zmf", Record(content));
        std::string clip = archive.dir.File("clip.mp4"), exported = archive.dir.File("export.mp4");
        WriteFile(clip, Opened(file).All());
        Recording recording;
        ASSERT_EQ(1, RecordingOpen(&recording, archive.PathOf(file)));
        ASSERT_EQ(1, ExportRecording(&recording, exported));
        RecordingClose(&recording);
        if (content.audio != "pcma") {  // of which the first frame is the encoder's own
            EXPECT_EQ(Probe(exported), Probe(clip));
        }
        EXPECT_NEAR(Duration(exported), Duration(clip), 0.15);
        std::string times = "ffprobe -v error -select_streams v -show_entries packet=pts_time -of csv ";
        EXPECT_EQ(Output(times + exported), Output(times + clip));
        if (content.bReordered)  // in name only
            continue;
        EXPECT_EQ("", Output("ffmpeg -v error -xerror -i " + clip + " -f null -")) << file;
        std::string hash = " -map 0:v -f framemd5 - | grep -v '^#' | awk '{print $NF}'";
        EXPECT_EQ(Output("ffmpeg -v error -i " + exported + hash), Output("ffmpeg -v error -i " + clip + hash));
    }
}

// Serves a recording's clip to connections with one request each.
struct RangeServer {
    std::string file;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int nPort = 0;
    std::atomic<uint64_t> nSent{0};
    std::atomic<int> nRequests{0};
    std::vector<std::thread> peers;
    std::thread thread;

    explicit RangeServer(std::string name) : file(std::move(name))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nSize = sizeof(address);
        bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        listen(fd, 8);
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &nSize);
        nPort = ntohs(address.sin_port);
        thread = std::thread([this] {
            for (int fdPeer; (fdPeer = accept(fd, nullptr, nullptr)) >= 0;)
                peers.emplace_back([=, this] { Serve(fdPeer); });
        });
    }
    ~RangeServer()
    {
        shutdown(fd, SHUT_RDWR);
        thread.join();
        for (std::thread &peer : peers)
            peer.join();
        close(fd);
    }
    RangeServer &operator=(RangeServer &&) = delete;

    void Serve(int fdPeer)
    {
        std::string request;
        char szPart[65536];
        Opened clip(file);
        for (ssize_t n = 1; n > 0 && request.find("\r\n\r\n") == std::string::npos;) {
            n = recv(fdPeer, szPart, sizeof(szPart), 0);
            request.append(szPart, n > 0 ? static_cast<size_t>(n) : 0);
        }
        size_t nRange = request.find("bytes=");
        uint64_t nAll = ClipSize(clip.p),
                 nAt = nRange == std::string::npos ? 0 : strtoull(&request[nRange + 6], nullptr, 10);
        std::string head =
            "HTTP/1.1 206 Partial Content\r\nConnection: close\r\nAccept-Ranges: bytes\r\nContent-Range: bytes " +
            std::to_string(nAt) + "-" + std::to_string(nAll - 1) + "/" + std::to_string(nAll) +
            "\r\nContent-Length: " + std::to_string(nAll - nAt) + "\r\n\r\n";
        nRequests++;
        ssize_t nRead = static_cast<ssize_t>(head.size());
        memcpy(szPart, head.data(), head.size());
        while (nRead > 0 && send(fdPeer, szPart, static_cast<size_t>(nRead), MSG_NOSIGNAL) == nRead) {
            nSent += static_cast<uint64_t>(nRead);
            nRead = ClipRead(clip.p, nAt, szPart, sizeof(szPart));
            nAt += nRead > 0 ? static_cast<uint64_t>(nRead) : 0;
        }
        close(fdPeer);
    }
};

TEST(ClipPlayers, SeeksReadFewFragments)
{
    if (!HasFfmpeg())
        GTEST_SKIP() << "no ffmpeg";
    Archive archive;
    const std::string file = archive.Add("long.zmf", Record({"h264", "aac", 2400}));
    ASSERT_LT(50U << 20, ClipSize(Opened(file).p));
    for (int nSecond : {1200, 2390}) {
        RangeServer server(file);
        std::string out = Output("ffmpeg -v error -ss " + std::to_string(nSecond) +
                                 " -i http://127.0.0.1:" + std::to_string(server.nPort) + "/ -t 1 -f framecrc -");
        EXPECT_NE(std::string::npos, out.find("\n0,          0,")) << out;
        EXPECT_GE(6, server.nRequests);
        EXPECT_GE(24U << 20, server.nSent.load());  // what was on the way in buffers of sockets, mostly
    }
}

}  // namespace orx
