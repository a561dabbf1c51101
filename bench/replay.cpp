// replay: what a packet costs, to be counted by callgrind. Hands the made-up reads of pushers to the server one by one,
// in one thread and with a clock that stands still meanwhile, and reads what comes out at the players' sockets, so that
// two runs do the same. All that is to be counted happens below Measured(); nothing of it is the kernel's.
// Prints the case and how many packets were delivered (of a recording: taken; of starts: players). A packet that is
// missing at the end is an error. Arguments: a case, pictures (100), and other numbers than the case has of the players
// of a program, programs, silent ones and idle connections. Without: what it was built with, then all cases.
#include <gnu/libc-version.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include <linux/sock_diag.h>
#include <linux/sockios.h>

#include "base/console.h"
#include "record/zmfwriter.h"
#include "runtime/diskthread.h"
#include "server/core/port.h"
#include "server/core/program.h"
#include "server/core/session.h"
#include "server/front/events.h"
#include "server/front/server.h"
#include "server/media/distribute.h"
#include "support/testcore.h"

using namespace orx;

constexpr size_t kBytes = 1400;  // of a packet
constexpr size_t kFed = 48000;   // bytes at a time: less than one event may read
constexpr uint32_t kPictureMs = 40;
constexpr int kKeyEvery = 50;  // pictures
constexpr int kFill = 60;      // pictures that come first, until the cache gives back what it takes
constexpr int kPlayersBuffer = 4 << 20;
constexpr char kSdp[] = "v=0\r\ns=x\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";

// What is measured of a case.
enum class Of { Packets, Starts, Writer };

struct Case {
    const char *szName;
    const char *szWhat;
    Of eOf;
    int nPrograms;
    int nSilent;   // further ones, of which nothing is pushed
    int nPlayers;  // of each program
    int bUdpPlayers;
    int bUdpPusher;
    int nPackets;  // of a picture
    int nChannel;  // of the players; the pusher's is 0
    const char *szKeys;
    int nIdle = 0;  // connections on which nothing comes
};
constexpr char kPlain[] = "";
constexpr char kGathers[] = "[INTEROP]\nLowDelay=0\n";
constexpr char kRecords[] = "[STORAGE]\nRecordEnable=1\nNeverLose=1\nWideUnits=1\nRecordAlways=*\n";
const Case g_cases[] = {
    {"tcp1", "one player over TCP", Of::Packets, 1, 0, 1, 0, 0, 7, 0, kPlain},
    {"tcp50", "50 players over TCP", Of::Packets, 1, 0, 50, 0, 0, 7, 0, kPlain},
    {"tcp50gathered", "the same with LowDelay 0", Of::Packets, 1, 0, 50, 0, 0, 7, 0, kGathers},
    {"tcp50channels", "50 players on other channels than the pusher's", Of::Packets, 1, 0, 50, 0, 0, 7, 2, kPlain},
    {"tcp50fast", "50 players of 20 Mbit/s", Of::Packets, 1, 0, 50, 0, 0, 72, 0, kPlain},
    {"udp50", "50 players over UDP", Of::Packets, 1, 0, 50, 1, 0, 7, 0, kPlain},
    {"udp50gathered", "the same with LowDelay 0", Of::Packets, 1, 0, 50, 1, 0, 7, 0, kGathers},
    {"udppush50", "a pusher over UDP, 50 players over TCP", Of::Packets, 1, 0, 50, 0, 1, 7, 0, kPlain},
    {"programs20", "20 programs of 10 players over TCP", Of::Packets, 20, 0, 10, 0, 0, 7, 0, kPlain},
    {"silent20", "10 players over TCP beside 20 programs that are silent", Of::Packets, 1, 20, 10, 0, 0, 7, 0, kPlain},
    {"unwatched", "a program that nobody plays", Of::Packets, 1, 0, 0, 0, 0, 7, 0, kPlain},
    {"recorded", "a program that is recorded, up to the thread that writes", Of::Packets, 1, 0, 0, 0, 0, 7, 0,
     kRecords},
    {"written", "the thread that writes", Of::Writer, 1, 0, 0, 0, 0, 7, 0, kPlain},
    {"starts", "players that come, per player", Of::Starts, 1, 0, 100, 0, 0, 7, 0, kPlain},
};

// --- The clock ---

static thread_local int g_bFrozen;  // this thread reads a clock that nothing but PassTime moves
static timespec g_frozenAt[16];     // by the number of the clock

static int SystemClock(clockid_t nClock, timespec *pAt)
{
#ifdef SYS_clock_gettime64
    return static_cast<int>(syscall(SYS_clock_gettime64, nClock, pAt));
#else
    return static_cast<int>(syscall(SYS_clock_gettime, nClock, pAt));
#endif
}

// In the place of the C library's.
extern "C" int clock_gettime(clockid_t nClock, timespec *pAt) noexcept
{
    if (!g_bFrozen || nClock < 0 || nClock >= 16)
        return SystemClock(nClock, pAt);
    *pAt = g_frozenAt[nClock];
    return 0;
}

static void FreezeTime()
{
    for (clockid_t nClock = 0; nClock < 16; nClock++)
        if (SystemClock(nClock, &g_frozenAt[nClock]) == 0)
            g_frozenAt[nClock].tv_nsec = 0;
    g_bFrozen = 1;
}

static void PassTime(uint32_t nMs)
{
    for (timespec &at : g_frozenAt) {
        at.tv_nsec += int64_t{nMs} * 1000000;
        at.tv_sec += at.tv_nsec / 1000000000;
        at.tv_nsec %= 1000000000;
    }
}

// --- What is counted ---

static int g_bMeasures;  // reads are

// Where the machine is emulated, the plugin of the emulator that counts (bench/countinsns.c) knows the two ends by
// calls that do nothing.
struct Counted {
#ifdef __x86_64__
    Counted() {}
#else
    Counted()
    {
        close(-7777);
    }
    ~Counted()
    {
        close(-7778);
    }
#endif
    Counted &operator=(Counted &&) = delete;
};

extern "C" __attribute__((noinline)) void Measured(int fd)
{
    Counted counted;
    OnRead(fd);
}
extern "C" __attribute__((noinline)) int MeasuredWrite(ZMFWriter *pWriter, const std::string &packet, uint32_t nTimeMs)
{
    Counted counted;
    return ZMFWriterWriteRtpPacket(pWriter, reinterpret_cast<const uint8_t *>(packet.data()),
                                   static_cast<uint32_t>(packet.size()), 'v', nTimeMs);
}

#ifdef __clang__
constexpr char kCompiler[] = "clang-" __clang_version__;
#else
constexpr char kCompiler[] = "gcc-" __VERSION__;
#endif
#if defined(__x86_64__)
constexpr char kMachine[] = "x86_64";
#elif defined(__aarch64__)
constexpr char kMachine[] = "arm64";
#elif defined(__arm__)
constexpr char kMachine[] = "armhf";
#else
constexpr char kMachine[] = "other";
#endif

static int g_fdErrors = STDERR_FILENO;  // the server's remarks on its settings go nowhere

[[noreturn]] static void Fail(const char *szWhat)
{
    dprintf(g_fdErrors, "replay: %s\n", szWhat);
    fflush(stdout);
    _exit(1);
}

static void Read(int fd)
{
    g_bMeasures ? Measured(fd) : void(OnRead(fd));
}

// --- Peers ---

// What is sent over the loopback need not be there at once.
template <typename Condition>
static void Await(Condition bThere)
{
    timespec begun{}, now{};
    for (SystemClock(CLOCK_MONOTONIC, &begun); !bThere(); usleep(100)) {
        SystemClock(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - begun.tv_sec > 20)
            Fail("what was sent does not arrive");
    }
}

// FIONREAD: that wait to be read; SIOCOUTQ: that the peer of the connection does not have yet.
static size_t BytesOf(int fd, unsigned long nRequest)
{
    int nNow = 0;
    return ioctl(fd, nRequest, &nNow) == 0 ? size_t(nNow) : SIZE_MAX;
}

// Memory that what waits in a socket takes.
static uint32_t HeldBy(int fd)
{
    uint32_t held[SK_MEMINFO_VARS] = {};
    socklen_t nSize = sizeof(held);
    getsockopt(fd, SOL_SOCKET, SO_MEMINFO, held, &nSize);
    return held[SK_MEMINFO_RMEM_ALLOC];
}

static void SetOption(int fd, int nLevel, int nOption, int nValue)
{
    setsockopt(fd, nLevel, nOption, &nValue, sizeof(nValue));
}

static size_t Drain(int fd)
{
    static char bytes[1 << 20];
    size_t nAll = 0;
    for (ssize_t n; (n = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0;)
        nAll += static_cast<size_t>(n);
    return nAll;
}

struct Peer {
    TcpPair pair;
    Sock udp;  // RTP; the socket of its RTCP is not needed

    Peer()
    {
        SetOption(pair.fdPeer, SOL_SOCKET, SO_RCVBUFFORCE, kPlayersBuffer);
        if (!CreateSession(CreateTcpPort(pair.fdServer)))
            Fail("no session");
    }
    void Ask(const std::string &text)
    {
        if (send(pair.fdPeer, text.data(), text.size(), MSG_NOSIGNAL) != ssize_t(text.size()))
            Fail("a request does not leave");
        Await([&] { return BytesOf(pair.fdServer, FIONREAD) == text.size(); });
        Read(pair.fdServer);
        char reply[4096] = "";
        if (recv(pair.fdPeer, reply, sizeof(reply) - 1, MSG_DONTWAIT | MSG_PEEK) <= 0 ||
            strncmp(reply, "RTSP/1.0 200 ", 13) != 0)
            Fail(reply);
    }
    // The server's socket for its media.
    int MediaFd() const { return FindSession(pair.fdServer)->tracks[0].Media->fd; }
    size_t Take() const
    {
        if (udp.fd >= 0)
            return Drain(udp.fd);
        size_t nTaken = 0;
        Await([&] {
            nTaken += Drain(pair.fdPeer);
            SetOption(pair.fdPeer, IPPROTO_TCP, TCP_QUICKACK, 1);
            return BytesOf(pair.fdServer, SIOCOUTQ) == 0;
        });
        return nTaken;
    }
    void SendDatagram(const std::string &packet) const
    {
        const uint32_t nBefore = HeldBy(MediaFd());
        send(udp.fd, packet.data(), packet.size(), 0);
        Await([&] { return HeldBy(MediaFd()) > nBefore; });
    }
};

static sockaddr_in HostOf(int fd)
{
    sockaddr_in addr{};
    socklen_t nSize = sizeof(addr);
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &nSize);
    addr.sin_port = 0;
    return addr;
}

// Sets the peer's track up; what its first datagram opens is open then.
static void Setup(Peer *pPeer, const std::string &url, int bUdp, int nChannel)
{
    std::string transport =
        "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(nChannel) + "-" + std::to_string(nChannel + 1);
    if (bUdp) {
        sockaddr_in addr = HostOf(pPeer->pair.fdPeer);
        pPeer->udp = Sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        bind(pPeer->udp.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
        SetOption(pPeer->udp.fd, SOL_SOCKET, SO_RCVBUFFORCE, kPlayersBuffer);
        const int nPort = PortOf(pPeer->udp.fd);
        transport = "RTP/AVP;unicast;client_port=" + std::to_string(nPort) + "-" + std::to_string(nPort + 1);
    }
    pPeer->Ask("SETUP " + url + "/trackID=0 RTSP/1.0\r\nCSeq: 2\r\nTransport: " + transport + "\r\n\r\n");
    if (bUdp) {
        sockaddr_in server = HostOf(pPeer->pair.fdServer);
        server.sin_port = htons(static_cast<uint16_t>(PortOf(pPeer->MediaFd())));
        connect(pPeer->udp.fd, reinterpret_cast<sockaddr *>(&server), sizeof(server));
    }
}

static void Push(Peer *pPeer, const Case &is, const std::string &url)
{
    pPeer->Ask("ANNOUNCE " + url + " RTSP/1.0\r\nCSeq: 1\r\nContent-Type: application/sdp\r\nContent-Length: " +
               std::to_string(strlen(kSdp)) + "\r\n\r\n" + kSdp);
    Setup(pPeer, url, is.bUdpPusher, 0);
    pPeer->Ask("RECORD " + url + " RTSP/1.0\r\nCSeq: 3\r\n\r\n");
    Drain(pPeer->pair.fdPeer);
}

static void Play(Peer *pPeer, const Case &is, const std::string &url)
{
    pPeer->Ask("DESCRIBE " + url + " RTSP/1.0\r\nCSeq: 1\r\n\r\n");
    Drain(pPeer->pair.fdPeer);
    Setup(pPeer, url, is.bUdpPlayers, is.nChannel);
    Drain(pPeer->pair.fdPeer);
    if (is.bUdpPlayers) {  // as players do to open a NAT
        pPeer->SendDatagram(MakeRtp({}, ""));
        OnRead(pPeer->MediaFd());
    }
    pPeer->Ask("PLAY " + url + " RTSP/1.0\r\nCSeq: 3\r\n\r\n");
    Drain(pPeer->pair.fdPeer);
    pPeer->Take();
}

// --- Pictures ---

struct Stream {
    RtpFields head;
    uint32_t nPicture = 0;
};

// The packets of the next picture: units in fragments (RFC 6184, section 5.8), in front of a key picture parameter sets
// in a packet of its length.
static std::vector<std::string> NextPicture(Stream *pStream, int nPackets)
{
    std::vector<std::string> packets;
    const bool bKey = pStream->nPicture % kKeyEvery == 0;
    pStream->head.nTime = pStream->nPicture++ * kPictureMs * 90;
    for (int i = 0; i < nPackets; i++) {
        const bool bFirst = i == (bKey ? 1 : 0), bLast = i + 1 == nPackets;
        const uint32_t nUnit = (bFirst ? 0x80u : 0u) | (bLast ? 0x40u : 0u) | (bKey ? 5u : 1u);
        std::string payload = bKey && i == 0 ? std::string(1, 0x67) : Be(0x7C, 1) + Be(nUnit, 1) + Be(0x88, 1);
        payload.resize(kBytes - kRtpHeaderBytes, 'x');
        pStream->head.bMarker = bLast;
        packets.push_back(MakeRtp(pStream->head, payload));
        pStream->head.nSequence++;
    }
    return packets;
}

struct Pushed {
    Peer peer;
    Stream stream;
    std::vector<std::unique_ptr<Peer>> players;
    size_t nTaken = 0;  // bytes, by its players

    void Take()
    {
        for (auto &pPlayer : players)
            nTaken += pPlayer->Take();
    }
    void Feed(const std::string &bytes)
    {
        if (send(peer.pair.fdPeer, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) != ssize_t(bytes.size()))
            Fail("the server takes nothing");
        Await([&] { return BytesOf(peer.pair.fdServer, FIONREAD) == bytes.size(); });
        Read(peer.pair.fdServer);
        Take();
    }
    void FeedPicture(const Case &is)
    {
        std::string bytes;
        for (const std::string &packet : NextPicture(&stream, is.nPackets)) {
            if (is.bUdpPusher) {
                peer.SendDatagram(packet);
                continue;
            }
            if (bytes.size() + packet.size() > kFed)
                Feed(std::exchange(bytes, ""));
            bytes += Frame(0, packet);
        }
        if (is.bUdpPusher) {
            Read(peer.MediaFd());
            Take();
        } else {
            Feed(bytes);
        }
    }
};

// --- Cases ---

using Programs = std::vector<std::unique_ptr<Pushed>>;

// The pushers, the silent ones last, and their players.
static Programs Begin(const Case &is)
{
    Programs all;
    for (int i = 0; i < is.nPrograms + is.nSilent; i++) {
        const std::string url = "rtsp://h/cam" + std::to_string(i);
        all.push_back(std::make_unique<Pushed>());
        Push(&all.back()->peer, is, url);
        for (int k = 0; k < is.nPlayers && is.eOf == Of::Packets; k++) {
            all.back()->players.push_back(std::make_unique<Peer>());
            Play(all.back()->players.back().get(), is, url);
        }
    }
    return all;
}

static void FeedPictures(const Case &is, const Programs &all, int nPictures)
{
    for (int i = 0; i < nPictures; i++) {
        PassTime(kPictureMs);
        for (int k = 0; k < is.nPrograms; k++)
            all[size_t(k)]->FeedPicture(is);
        Await([] { return DiskBytesWaiting() == 0; });  // so that the other thread does not meet this one
    }
}

// Everything that was pushed has come to every player. What waits for a further read of the pusher leaves without it.
static void AwaitAll(const Case &is, const Programs &all, int nPictures)
{
    for (Program *p = FirstProgram(); p; p = NextProgram(p))
        FlushPlayers(p);
    const size_t nBytes = kBytes + (is.bUdpPlayers ? 0 : kInterleaveBytes);
    for (int k = 0; k < is.nPrograms; k++)
        Await([&] {
            all[size_t(k)]->Take();
            return all[size_t(k)]->nTaken ==
                   all[size_t(k)]->players.size() * size_t(nPictures) * size_t(is.nPackets) * nBytes;
        });
}

static size_t Replay(const Case &is, int nPictures)
{
    FreezeTime();
    const std::vector<Peer> idle(size_t(is.nIdle));
    const Programs all = Begin(is);
    FeedPictures(is, all, kFill);
    g_bMeasures = is.eOf == Of::Packets;
    FeedPictures(is, all, nPictures);
    AwaitAll(is, all, kFill + nPictures);
    g_bMeasures = 1;
    std::vector<std::unique_ptr<Peer>> come;
    for (int i = 0; i < is.nPlayers && is.eOf == Of::Starts; i++) {
        come.push_back(std::make_unique<Peer>());
        Play(come.back().get(), is, "rtsp://h/cam0");
    }
    g_bFrozen = 0;
    if (is.eOf == Of::Starts)
        return come.size();
    return size_t(nPictures) * size_t(is.nPackets) * size_t(is.nPrograms) * size_t(std::max(is.nPlayers, 1));
}

static size_t Write(const Case &is, int nPictures, const std::string &path)
{
    ZMFWriter *pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, "replay");
    if (!pWriter || !ZMFWriterSetSdp(pWriter, kSdp) || !ZMFWriterWriteHead(pWriter))
        Fail("no recording");
    Stream stream;
    for (int i = 0; i < nPictures; i++)
        for (const std::string &packet : NextPicture(&stream, is.nPackets))
            if (MeasuredWrite(pWriter, packet, uint32_t(i) * kPictureMs) != 1)
                Fail("the recording has ended");
    ZMFWriterFree(pWriter);
    return size_t(nPictures) * size_t(is.nPackets);
}

static size_t Run(const Case &is, int nPictures)
{
    TempDir dir;
    ConsoleSetDaemon(1);
    g_fdErrors = dup(STDERR_FILENO);
    freopen("/dev/null", "w", stderr);
    if (is.eOf == Of::Writer)
        return Write(is, nPictures, dir.File("replay.zmf"));
    const std::string lowDelay = is.szKeys == kGathers ? "" : "LowDelay=1\n";
    WriteFile(dir.File("orx.cfg"),
              std::string("[SERVER]\nAuthType=0\nListenIp=none\nConnectLimit=20000\nCacheLimit=2\n"
                          "AutoDropDataWhenCrowded=1\nUdpStartPort=10000\nUdpEndPort=29000\n") +
                  (is.szKeys == kRecords ? kRecords + ("RecordPath=" + dir.path + "\n") : "") +
                  "[INTEROP]\nStandardPushers=1\nStandardPlayers=1\nUdpPushers=1\nHoldPlayers=5\n" + lowDelay +
                  "[GUARD]\nRunUnprivileged=1\nSurvivePeerFaults=1\nPinMedia=1\nCacheMegabytes=32\n"
                  "CacheMegabytesTotal=256\n");
    if (!ServerStart(dir.File("orx.cfg").c_str()))
        Fail("the server does not start");
    size_t nDone = 0;
    RunOnScheduler([&] { nDone = Replay(is, nPictures); });
    ServerStop();
    return nDone;
}

int main(int argc, char **argv)
{
    const int nPictures = argc > 2 ? atoi(argv[2]) : 100;
    if (argc < 2)
        printf("%s glibc-%s %s\n", kCompiler, gnu_get_libc_version(), kMachine);
    for (Case is : g_cases) {
        if (argc < 2)
            printf("%-14s %s\n", is.szName, is.szWhat);
        if (argc < 2 || strcmp(is.szName, argv[1]) != 0)
            continue;
        int *const numbers[] = {&is.nPlayers, &is.nPrograms, &is.nSilent, &is.nIdle};
        for (int i = 3; i < argc && i < 7; i++)
            *numbers[i - 3] = atoi(argv[i]);
        const size_t nDone = Run(is, nPictures);
        printf("%s %zu\n", is.szName, nDone);
        return 0;
    }
    return argc < 2 ? 0 : 2;
}
