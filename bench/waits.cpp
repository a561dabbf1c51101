// waits: how long one client waits for the server while others keep its disk
// busy. The client asks OPTIONS on a connection of its own every 2 ms; beside
// it another thread asks a bare echo in the same way, which tells what the
// machine itself adds. Prints a line for each case with the longest wait and
// that of one in a thousand, in milliseconds. Needs the rights to mount, but
// for the first cases. Arguments: a directory on the disk to be measured,
// megabytes of the interrupted recording (2000), a case by its name (all).
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <thread>

#include <linux/fs.h>
#include <netinet/in.h>

#include "record/zmfile.h"
#include "support/namespaces.h"
#include "system/mediakit.h"
#include "system/systemtest.h"

using namespace orx;

constexpr int kAskUs = 2000;
constexpr int kRecordings = 8;
constexpr int kFiles = 4000;
constexpr size_t kFileBytes = 65536;
constexpr auto kSteady = std::chrono::seconds(10);
constexpr auto kFrozen = std::chrono::seconds(5);

struct Bench {
    std::string dir;  // on the disk
    uint64_t nMegabytes = 2000;
};

// --- Who asks ---

struct Waits {
    std::vector<double> ms;
    double Longest() const { return ms.empty() ? -1 : *std::max_element(ms.begin(), ms.end()); }
    double OneInThousand()
    {
        std::sort(ms.begin(), ms.end());
        return ms.empty() ? -1 : ms[ms.size() - 1 - ms.size() / 1000];
    }
};

// Asks until it is told to end. A reply ends with its empty line.
static void KeepAsking(int fd, const std::string &question, Waits *pWaits, const std::atomic<bool> *pEnd)
{
    setpriority(PRIO_PROCESS, 0, -20);
    auto next = std::chrono::steady_clock::now();
    while (!*pEnd) {
        next = std::max(next + std::chrono::microseconds(kAskUs), std::chrono::steady_clock::now());
        std::this_thread::sleep_until(next);
        const auto asked = std::chrono::steady_clock::now();
        std::string reply;
        char part[1024];
        ssize_t n = send(fd, question.data(), question.size(), MSG_NOSIGNAL);
        while (n > 0 && !reply.ends_with("\r\n\r\n") && (n = recv(fd, part, sizeof(part), 0)) > 0)
            reply.append(part, size_t(n));
        if (n <= 0)
            return;
        pWaits->ms.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - asked).count());
    }
}

static void Echo(int fd)
{
    setpriority(PRIO_PROCESS, 0, -20);
    char text[1024];
    ssize_t n;
    while ((n = recv(fd, text, sizeof(text), 0)) > 0)
        if (send(fd, text, size_t(n), MSG_NOSIGNAL) != n)
            return;
}

static int ConnectTo(int nPort)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = Loopback(nPort);
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0)
        return fd;
    close(fd);
    return -1;
}

// What was measured while the work was done.
static void Measure(const char *szCase, const OrxProcess &server, const std::function<void()> &work)
{
    Listener listener;
    int fdEcho = ConnectTo(listener.nPort), fdBare = accept4(listener.sock.fd, nullptr, nullptr, SOCK_CLOEXEC);
    int fdServer = ConnectTo(server.nPort);
    Waits waits, bare;
    std::atomic<bool> bEnd{false};
    std::thread echo(Echo, fdBare);
    std::thread asker(KeepAsking, fdServer, "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n", &waits, &bEnd);
    std::thread bareAsker(KeepAsking, fdEcho, "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n", &bare, &bEnd);
    work();
    bEnd = true;
    asker.join();
    bareAsker.join();
    shutdown(fdEcho, SHUT_RDWR);
    echo.join();
    for (int fd : {fdEcho, fdBare, fdServer})
        close(fd);
    printf("%-12s %8zu %8.2f %8.2f   %8.2f %8.2f\n", szCase, waits.ms.size(), waits.Longest(), waits.OneInThousand(),
           bare.Longest(), bare.OneInThousand());
    fflush(stdout);
}

// --- What goes on beside ---

static void Prepare(OrxProcess *pServer, const std::string &root)
{
    pServer->Set("SERVER", "EnableFilePrg=1\nLogFile=1");
    pServer->Set("STORAGE",
                 "RecordEnable=1\nNeverLose=1\nWideUnits="
                 "1\nAutoDelOldFile=1\nRecordPath=" +
                     root);
    std::filesystem::create_directories(root);
}

// Cameras that are recorded, by tools of their own.
struct Recordings {
    std::deque<ToolProcess> cameras;
    std::deque<RtspClient> clients;
    Recordings(const OrxProcess &server, int nCount)
    {
        for (int i = 0; i < nCount; i++) {
            const std::string url = server.Url("/cam" + std::to_string(i));
            cameras.emplace_back("orxpush",
                                 std::vector<std::string>{"--wait", "5", "--loop", "--quiet", "--rate", "8000", url});
            RtspClient *pClient = &clients.emplace_back();
            RtspMessage reply;
            EXPECT_TRUE(WaitFor([&] {
                RtspClose(pClient);
                return RtspConnect(pClient, url.c_str()) && RtspDescribe(pClient);
            }));
            EXPECT_EQ(1, RtspRequest(pClient, "RECORDEX", nullptr, "ActionParam: Cmd=start\r\n", "", &reply));
            EXPECT_EQ(200, reply.nStatus);
        }
    }
};

// A recording of small packets that nobody has completed: a key frame in fifty,
// and no index.
static void WriteInterrupted(const std::string &path, uint64_t nMegabytes)
{
    const std::string sdp =
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 "
        "H264/90000\r\na=control:trackID=0\r\n";
    ZMFileHeader head;
    head.nSdpSize = 96;
    std::string file(kZmfHeadBytes + kZmfIdxBytes, '\0');
    ZMFileHeaderEncode(&head, reinterpret_cast<uint8_t *>(file.data()));
    file += sdp + std::string(96 - sdp.size(), '\0');
    std::ofstream out(path, std::ios::binary);
    const std::string unit = Be(1402, 2) + "\x41" + std::string(1399, 'x'), key = Be(1402, 2) + "\x65" + unit.substr(3);
    for (uint32_t i = 0; out && uint64_t{i} * 1410 < nMegabytes * 1000000; i++) {
        uint32_t nFlags = i % 50 == 0 ? uint32_t{ZMF_KEY} : 0;
        file += Be(1410, 2) + "v" + Be(nFlags, 1) + Be(i * 4, 4) + (nFlags ? key : unit);
        if (file.size() > 1000000) {
            out << file;
            file.clear();
        }
    }
    out << file;
}

static void Idle(const Bench *pBench)
{
    OrxProcess server;
    Prepare(&server, pBench->dir + "/idle");
    server.Start();
    Measure("idle", server, [] { std::this_thread::sleep_for(kSteady); });
}

static void Recording(const Bench *pBench)
{
    OrxProcess server;
    Prepare(&server, pBench->dir + "/eight");
    server.Start();
    Recordings recordings(server, kRecordings);
    Measure("8 recorded", server, [] { std::this_thread::sleep_for(kSteady); });
}

// Made behind the start, so that nobody has repaired it; of each opening a new
// one, which is not known yet.
static void Opening(const Bench *pBench)
{
    const std::string root = pBench->dir + "/open";
    OrxProcess server;
    Prepare(&server, root);
    server.Start();
    WriteInterrupted(root + "/long.zmf", pBench->nMegabytes);
    std::deque<RtspClient> clients(3);
    Measure("open", server, [&] {
        for (RtspClient &client : clients) {
            std::filesystem::last_write_time(root + "/long.zmf", std::filesystem::file_time_type::clock::now());
            EXPECT_EQ(1, RtspConnect(&client, server.Url("/long.zmf").c_str()));
            EXPECT_EQ(1, RtspDescribe(&client, nullptr, 600000));
        }
    });
    RtspClient *pClient = &clients[0];
    EXPECT_EQ(1, RtspSetup(pClient, 0, RTSP_OVER_TCP));
    Measure("seek", server, [&] {
        for (int i = 0; i < 200; i++) {
            const std::string range = "Range: npt=" + std::to_string(1 + i * 7919 % 5000) + "-\r\n";
            EXPECT_EQ(1, RtspPlay(pClient, range.c_str(), nullptr, 600000)) << i;
            RtspMessage reply;
            EXPECT_EQ(1, RtspRequest(pClient, "PAUSE", nullptr, nullptr, "", &reply));
        }
    });
}

// A file system of its own on the disk that is measured.
struct Disk {
    std::string dir;
    int fd = -1;
    Disk(const std::string &at, int nMegabytes) : dir(at)
    {
        const std::string image = dir + ".img";
        std::filesystem::create_directories(dir);
        const std::string make = "truncate -s " + std::to_string(nMegabytes) + "M " + image + " && mkfs.ext4 -q " +
                                 image + " && mount -o loop " + image + " " + dir;
        if (system(make.c_str()) == 0)
            fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        else
            printf("%s needs the right to mount\n", dir.c_str());
    }
    ~Disk()
    {
        if (fd < 0)
            return;
        close(fd);
        umount2(dir.c_str(), MNT_DETACH);
    }
    Disk(const Disk &) = delete;
    Disk &operator=(const Disk &) = delete;
};

static int CountFiles(const std::string &dir)
{
    std::error_code error;
    return int(std::distance(std::filesystem::directory_iterator(dir, error), {}));
}

// A full disk: most of the oldest recordings have to go before the next one
// begins.
static void Deleting(const Bench *pBench)
{
    const std::string root = pBench->dir + "/full", day = root + "/cam0/20200101";
    Disk disk(root, 400);
    if (disk.fd < 0)
        return;
    std::filesystem::create_directories(day);
    for (int i = 0; i < kFiles; i++) {
        char name[32];
        snprintf(name, sizeof(name), "/M%02d%02d%02d.zmf", i / 3600, i / 60 % 60, i % 60);
        WriteFile(day + name, std::string(kFileBytes, 'x'));
    }
    {
        OrxProcess server;
        Prepare(&server, root);
        server.Set("STORAGE", "ReserveMegabytes", "340");
        server.Start();
        Measure("delete", server, [&] {
            Recordings recordings(server, 1);
            EXPECT_TRUE(WaitFor([&] { return CountFiles(day) < kFiles / 4; }));
        });
    }
}

// The disk with recordings, log and configuration stands still.
static void Freezing(const Bench *pBench)
{
    const std::string dir = pBench->dir + "/disk";
    Disk disk(dir, 1500);
    if (disk.fd < 0)
        return;
    {
        OrxProcess server;
        Prepare(&server, dir + "/rec");
        server.Set("USERS", "SuperUser=root\nSuperPwd=rootpw");
        for (const char *szFolder : {"log", "cfg"}) {
            std::filesystem::create_directories(dir + "/" + szFolder);
            std::filesystem::create_directory_symlink(dir + "/" + szFolder, server.dir.File(szFolder));
        }
        server.Start();
        Recordings recordings(server, kRecordings);
        RtspClient other;
        Measure("freeze", server, [&] {
            EXPECT_EQ(0, ioctl(disk.fd, FIFREEZE, 0));
            const auto end = std::chrono::steady_clock::now() + kFrozen;
            while (std::chrono::steady_clock::now() < end) {  // lines of the log, passwords
                EXPECT_EQ(1, RtspConnect(&other, server.Url("/cam0").c_str()));
                RtspSend(&other, "GETPLAYLIST", nullptr, UserHeaders("root", "rootpw").c_str());
                std::string list;
                EXPECT_EQ(1, RtspWaitBytes(&other, 9, &list));
                EXPECT_EQ("PlayList:", list);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                RtspClose(&other);
            }
            EXPECT_EQ(0, ioctl(disk.fd, FITHAW, 0));
            std::this_thread::sleep_for(std::chrono::seconds(2));
        });
    }
}

struct Case {
    const char *szName;
    void (*pfnRun)(const Bench *pBench);
};
static constexpr Case g_cases[] = {
    {"idle", Idle}, {"record", Recording}, {"open", Opening}, {"delete", Deleting}, {"freeze", Freezing}};

// In a session of its own, which the kernel schedules before all others: what
// else the machine does shall not count.
static void GoFirst()
{
    if (setsid() > 0)
        WriteProc("/proc/self/autogroup", "-20");
}

int main(int argc, char **argv)
{
    if (argc > 1 && argv[1][0] == '-') {
        printf(
            "Usage: waits [DIRECTORY [MEGABYTES [CASE]]]\n"
            "How long an uninvolved client waits at most, in ms, beside a busy disk.\n"
            "Cases: idle, record, open, delete, freeze (default: all).\n");
        return strcmp(argv[1], "--help") == 0 ? 0 : 2;
    }
    testing::InitGoogleTest(&argc, argv);
    Bench bench;
    bench.dir = std::filesystem::absolute(argc > 1 ? argv[1] : ".").string() + "/waits." + std::to_string(getpid());
    if (argc > 2)
        bench.nMegabytes = strtoull(argv[2], nullptr, 10);
    std::filesystem::create_directories(bench.dir);
    GoFirst();
    EnterNamespaces(CLONE_NEWNS);
    printf("%-12s %8s %8s %8s   %8s %8s\n", "beside", "asked", "longest", "99.9 %", "bare", "99.9 %");
    for (const Case &one : g_cases)
        if (argc < 4 || strcmp(argv[3], one.szName) == 0)
            one.pfnRun(&bench);
    std::filesystem::remove_all(bench.dir);
    return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
}
