// sendloop: the least that any server must spend. Sends the same stream to many sockets and does nothing
// else: over TCP one writev per picture and socket, over UDP one sendto per packet. A second process reads
// everything, in the way that orxload reads. Prints the processor time that sending took for each gigabyte of
// RTP, as one JSON line.
#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "client/rtppacket.h"
#include "client/rtspclient.h"

using namespace orx;

constexpr int kSendBuffer = 163840;  // as the server sets it
constexpr int kReceiveBuffer = 2 << 20;
constexpr size_t kReadBytes = 512 * 1024;
constexpr unsigned kDatagrams = 32;
constexpr size_t kDatagramBytes = 2048 + 192;
constexpr uint64_t kSecondUs = 1000000;
constexpr int kMaxPackets = 64;

struct LoopOptions {
    int bUdp = 0;
    int nSockets = 0;
    double dSeconds = 10;
    int nPackets = 7;   // a picture
    int nBytes = 1400;  // of one RTP packet
    int nFps = 25;
};

static const char kHelp[] =
    "Usage: sendloop --tcp N | --udp N [--seconds S] [--packets P] [--bytes B] [--fps F]\n"
    "Sends P packets of B bytes F times a second to each of N sockets on this machine (7, 1400, 25: 2 "
    "Mbit/s) for\n"
    "S seconds (10), and prints the processor time that it took.\n";

static uint8_t g_stream[kReadBytes];
static uint8_t g_datagrams[kDatagrams][kDatagramBytes];

static void SetOption(int fd, int nLevel, int nOption, int nValue)
{
    if (nOption == SO_RCVBUF && setsockopt(fd, nLevel, SO_RCVBUFFORCE, &nValue, sizeof nValue) == 0)
        return;
    setsockopt(fd, nLevel, nOption, &nValue, sizeof nValue);
}

static int BoundSocket(int nType, sockaddr_in *pAddr)
{
    int fd = socket(AF_INET, nType | SOCK_CLOEXEC, 0);
    socklen_t nLen = sizeof *pAddr;
    *pAddr = {};
    pAddr->sin_family = AF_INET;
    pAddr->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(pAddr), sizeof *pAddr) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(pAddr), &nLen) != 0) {
        perror("sendloop: socket");
        exit(1);
    }
    return fd;
}

static void ReadAll(int fd, int bUdp)
{
    if (!bUdp) {
        while (recv(fd, g_stream, kReadBytes, MSG_DONTWAIT) == static_cast<ssize_t>(kReadBytes))
            continue;
        return;
    }
    mmsghdr messages[kDatagrams] = {};
    iovec pieces[kDatagrams];
    for (unsigned i = 0; i < kDatagrams; i++) {
        pieces[i] = {g_datagrams[i], kDatagramBytes};
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    while (recvmmsg(fd, messages, kDatagrams, MSG_DONTWAIT, nullptr) == static_cast<int>(kDatagrams))
        continue;
}

// The second process: reads until it is killed.
[[noreturn]] static void Sink(const std::vector<int> &sockets, int bUdp)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int fdEpoll = epoll_create1(EPOLL_CLOEXEC);
    for (int fd : sockets) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(fdEpoll, EPOLL_CTL_ADD, fd, &event);
    }
    for (;;) {
        epoll_event events[256];
        int n = epoll_wait(fdEpoll, events, 256, -1);
        for (int i = 0; i < n; i++)
            ReadAll(events[i].data.fd, bUdp);
    }
}

struct Target {
    int fd;
    sockaddr_in addr;
};

static void MakePairs(const LoopOptions *pOptions, std::vector<Target> *pTargets, std::vector<int> *pSinks)
{
    sockaddr_in listenAddr;
    int fdListen = BoundSocket(SOCK_STREAM, &listenAddr);
    listen(fdListen, 128);
    for (int i = 0; i < pOptions->nSockets; i++) {
        sockaddr_in own, addr;
        Target target;
        int fdSink = BoundSocket(pOptions->bUdp ? SOCK_DGRAM : SOCK_STREAM, &addr);
        if (pOptions->bUdp) {
            SetOption(fdSink, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
            target = {BoundSocket(SOCK_DGRAM, &own), addr};
        } else {
            if (connect(fdSink, reinterpret_cast<sockaddr *>(&listenAddr), sizeof listenAddr) != 0) {
                perror("sendloop: connect");
                exit(1);
            }
            target = {accept4(fdListen, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC), addr};
            SetOption(target.fd, IPPROTO_TCP, TCP_NODELAY, 1);
        }
        SetOption(target.fd, SOL_SOCKET, SO_SNDBUF, kSendBuffer);
        pSinks->push_back(fdSink);
        pTargets->push_back(target);
    }
    close(fdListen);
}

// The rest of a picture whose write was cut short.
static void FinishWrite(int fd, const iovec *pPieces, int nPieces, size_t nDone)
{
    std::vector<char> rest;
    for (int i = 0; i < nPieces; i++)
        rest.insert(rest.end(), static_cast<char *>(pPieces[i].iov_base),
                    static_cast<char *>(pPieces[i].iov_base) + pPieces[i].iov_len);
    while (nDone < rest.size()) {
        pollfd wait{fd, POLLOUT, 0};
        poll(&wait, 1, -1);
        ssize_t n = send(fd, rest.data() + nDone, rest.size() - nDone, MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EINTR)
            exit(1);
        nDone += static_cast<size_t>(n > 0 ? n : 0);
    }
}

static void SendPicture(const LoopOptions *pOptions, const std::vector<Target> &targets, char *pPacket)
{
    iovec pieces[kMaxPackets];
    size_t nFrame = kFrameHeadBytes + static_cast<size_t>(pOptions->nBytes);
    for (int i = 0; i < pOptions->nPackets; i++)
        pieces[i] = {pPacket + static_cast<size_t>(i) * nFrame, nFrame};
    for (const Target &target : targets) {
        if (!pOptions->bUdp) {
            ssize_t n = writev(target.fd, pieces, pOptions->nPackets);
            if (n < static_cast<ssize_t>(nFrame) * pOptions->nPackets)
                FinishWrite(target.fd, pieces, pOptions->nPackets, static_cast<size_t>(n > 0 ? n : 0));
            continue;
        }
        for (int i = 0; i < pOptions->nPackets; i++)
            sendto(target.fd, static_cast<char *>(pieces[i].iov_base) + kFrameHeadBytes,
                   static_cast<size_t>(pOptions->nBytes), 0, reinterpret_cast<const sockaddr *>(&target.addr),
                   sizeof target.addr);
    }
}

static uint64_t OwnCpuUs()
{
    timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<uint64_t>(used.tv_sec) * kSecondUs + static_cast<uint64_t>(used.tv_nsec) / 1000;
}

static void Run(const LoopOptions *pOptions, const std::vector<Target> &targets)
{
    size_t nFrame = kFrameHeadBytes + static_cast<size_t>(pOptions->nBytes);
    std::vector<char> picture(nFrame * static_cast<size_t>(pOptions->nPackets), 'x');
    uint64_t nPictures = static_cast<uint64_t>(pOptions->dSeconds * pOptions->nFps);
    uint64_t nCpuUs = OwnCpuUs(), nStartUs = RtspNowUs();
    for (uint64_t i = 0; i < nPictures; i++) {
        uint64_t nDueUs = nStartUs + i * kSecondUs / static_cast<uint64_t>(pOptions->nFps),
                 nNowUs = RtspNowUs();
        if (nNowUs < nDueUs)
            usleep(static_cast<useconds_t>(nDueUs - nNowUs));
        SendPicture(pOptions, targets, picture.data());
    }
    double dCpu = static_cast<double>(OwnCpuUs() - nCpuUs) / static_cast<double>(kSecondUs);
    double dBytes =
        static_cast<double>(nPictures) * pOptions->nPackets * pOptions->nBytes * pOptions->nSockets;
    printf(
        "{\"transport\":\"%s\",\"sockets\":%d,\"seconds\":%.3f,\"bytes\":%.0f,\"cpu_s\":%.4f,\"cpu_s_per_"
        "gb\":%.4f}\n",
        pOptions->bUdp ? "udp" : "tcp", pOptions->nSockets,
        static_cast<double>(RtspNowUs() - nStartUs) / static_cast<double>(kSecondUs), dBytes, dCpu,
        dCpu * 1e9 / dBytes);
}

// Returns 1, or 0 for a command line that makes no sense.
static int ParseOptions(int argc, char **argv, LoopOptions *pOut)
{
    static const option options[] = {
        {"tcp", required_argument, nullptr, 't'},
        {"udp", required_argument, nullptr, 'u'},
        {"seconds", required_argument, nullptr, 's'},
        {"packets", required_argument, nullptr, 'p'},
        {"bytes", required_argument, nullptr, 'b'},
        {"fps", required_argument, nullptr, 'f'},
        {nullptr, 0, nullptr, 0},
    };
    for (int nCode; (nCode = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        double dValue = optarg ? strtod(optarg, nullptr) : 0;
        int nValue = static_cast<int>(dValue);
        switch (nCode) {
            case 't':
            case 'u':
                pOut->bUdp = nCode == 'u';
                pOut->nSockets = nValue;
                break;
            case 's':
                pOut->dSeconds = dValue;
                break;
            case 'p':
                pOut->nPackets = nValue;
                break;
            case 'b':
                pOut->nBytes = nValue;
                break;
            case 'f':
                pOut->nFps = nValue;
                break;
            default:
                return 0;
        }
    }
    return optind == argc && pOut->nSockets > 0 && pOut->dSeconds > 0 && pOut->nPackets > 0 &&
           pOut->nPackets <= kMaxPackets && pOut->nBytes > 0 && pOut->nBytes <= 2048 && pOut->nFps > 0;
}

int main(int argc, char **argv)
{
    LoopOptions options;
    if (!ParseOptions(argc, argv, &options)) {
        fputs(kHelp, stderr);
        return 2;
    }
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    std::vector<Target> targets;
    std::vector<int> sinks;
    MakePairs(&options, &targets, &sinks);
    pid_t nSink = fork();
    if (nSink < 0)
        return 1;
    if (nSink == 0)
        Sink(sinks, options.bUdp);
    for (int fd : sinks)
        close(fd);
    Run(&options, targets);
    kill(nSink, SIGKILL);
    waitpid(nSink, nullptr, 0);
    return 0;
}
