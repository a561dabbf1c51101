// sendloop: the least that any server must spend. Sends the same stream to many sockets and does nothing
// else: one gathered call per picture and socket, which over UDP the kernel cuts into packets. A second process
// reads everything. Prints the processor time that sending took for each gigabyte of RTP, as one JSON line.
// Arguments: tcp or udp, the number of sockets, seconds, kbit/s of the stream (1960).
#include <netinet/tcp.h>
#include <netinet/udp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <sys/wait.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "support/sockets.h"

using namespace orx;

// A picture: packets of RTP, over TCP behind the head of an interleaved frame.
constexpr int kFps = 25, kHead = 4, kBytes = 1400;
constexpr int kKbits = kFps * kBytes * 8 / 1000;  // of a packet in each picture
static int g_nPackets = 7;                        // of a picture; set before anything is sent
constexpr size_t kDatagrams = 46;                 // of a call: below 64 kB
constexpr int kSendBuffer = 163840;               // as the server sets it
constexpr int kReceiveBuffer = 2 << 20;

struct Pair {
    Sock from, to;
};

static void SetOption(int fd, int nLevel, int nOption, int nValue)
{
    setsockopt(fd, nLevel, nOption, &nValue, sizeof nValue);
}

static Pair MakePair(bool bUdp, const Listener &listener)
{
    Pair pair;
    if (bUdp) {
        pair.from = Sock(socket(AF_INET, SOCK_DGRAM, 0));
        pair.to = Sock(socket(AF_INET, SOCK_DGRAM, 0));
        sockaddr_in any = Loopback(0);
        bind(pair.to.fd, reinterpret_cast<sockaddr *>(&any), sizeof any);
        SetOption(pair.to.fd, SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBuffer);
        sockaddr_in addr = Loopback(PortOf(pair.to.fd));
        connect(pair.from.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        SetOption(pair.from.fd, SOL_UDP, UDP_SEGMENT, kBytes);
    } else {
        pair.to = Connect(listener.nPort);
        pair.from = listener.Accept();
        SetOption(pair.from.fd, IPPROTO_TCP, TCP_NODELAY, 1);
    }
    SetOption(pair.from.fd, SOL_SOCKET, SO_SNDBUF, kSendBuffer);
    return pair;
}

// The second process: reads until it is killed.
[[noreturn]] static void Sink(const std::vector<Pair> &pairs)
{
    static char bytes[1 << 18];
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int fdEpoll = epoll_create1(0);
    for (const Pair &pair : pairs) {
        epoll_event event{EPOLLIN, {.fd = pair.to.fd}};
        epoll_ctl(fdEpoll, EPOLL_CTL_ADD, pair.to.fd, &event);
    }
    for (;;) {
        epoll_event events[256];
        int n = epoll_wait(fdEpoll, events, 256, -1);
        for (int i = 0; i < n; i++)
            while (recv(events[i].data.fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
            }
    }
}

static void SendPicture(const std::vector<Pair> &pairs, bool bUdp)
{
    static std::string picture(size_t(g_nPackets) * (kHead + kBytes), 'x');
    std::vector<iovec> pieces(static_cast<size_t>(g_nPackets));
    for (size_t i = 0; i < pieces.size(); i++) {
        char *pHead = &picture[i * (kHead + kBytes)];
        pieces[i] = bUdp ? iovec{pHead + kHead, kBytes} : iovec{pHead, kHead + kBytes};
    }
    const size_t nStep = bUdp ? kDatagrams : pieces.size();
    for (const Pair &pair : pairs)
        for (size_t i = 0; i < pieces.size(); i += nStep) {
            const size_t nPieces = std::min(nStep, pieces.size() - i);
            if (writev(pair.from.fd, &pieces[i], int(nPieces)) != ssize_t(nPieces * pieces[0].iov_len))  // waits
                exit(1);
        }
}

int main(int argc, char **argv)
{
    const bool bUdp = argc >= 4 && strcmp(argv[1], "udp") == 0;
    const int nSockets = argc >= 4 ? atoi(argv[2]) : 0, nPictures = argc >= 4 ? atoi(argv[3]) * kFps : 0;
    if (argc == 5)
        g_nPackets = std::clamp(atoi(argv[4]) / kKbits, 1, IOV_MAX);
    if (nPictures <= 0 || nSockets <= 0 || (!bUdp && strcmp(argv[1], "tcp") != 0)) {
        fprintf(stderr, "Usage: sendloop tcp|udp SOCKETS SECONDS [KBITS]\n");
        return 2;
    }
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    Listener listener;
    std::vector<Pair> pairs;
    for (int i = 0; i < nSockets; i++)
        pairs.push_back(MakePair(bUdp, listener));
    pid_t nSink = fork();
    if (nSink == 0)
        Sink(pairs);
    const clock_t nCpuBefore = clock();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < nPictures; i++) {
        std::this_thread::sleep_until(start + std::chrono::microseconds(int64_t{i} * 1000000 / kFps));
        SendPicture(pairs, bUdp);
    }
    const double dCpu = double(clock() - nCpuBefore) / CLOCKS_PER_SEC;
    const double dBytes = double(nPictures) * g_nPackets * kBytes * nSockets;
    printf("{\"transport\":\"%s\",\"sockets\":%d,\"bytes\":%.0f,\"cpu_s\":%.4f,\"cpu_s_per_gb\":%.4f}\n", argv[1],
           nSockets, dBytes, dCpu, dCpu * 1e9 / dBytes);
    kill(nSink, SIGKILL);
    waitpid(nSink, nullptr, 0);
    return 0;
}
