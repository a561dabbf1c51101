#include "soak/box.h"

#include <malloc.h>
#include <sys/wait.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "server/core/registry.h"
#include "system/localserver.h"

namespace orx {

struct BoxOrder {
    char cOrder;  // 'm'ove clocks, 'l'ook, 'q'uit
    uint64_t nAheadMs;
    int64_t nWallSeconds;
};

// --- In the server's process ---

static long CountUsedPorts(const PortMgr *pPorts)
{
    long nUsed = 0;
    for (int i = 0; i < pPorts->nWords; i++)
        nUsed += 32 - std::popcount(pPorts->m_ports[i]);
    return nUsed;
}

static long CountNodes(const AvlNode *pNode)
{
    return pNode ? 1 + CountNodes(pNode->left) + CountNodes(pNode->right) : 0;
}

static void LookInside(LocalServer *pServer, BoxFigures *pOut)
{
    ServerStat stat{};
    ServerGetStat(&stat, 0);
    pOut->nTasks = stat.nTasks;
    pOut->nSockets = stat.nMonitors;
    pServer->server.Run([&] {
        pOut->nSessions = ListCount(&g_server.sessions);
        pOut->nPrograms = ListCount(&g_server.programs);
        pOut->nHandles = CountNodes(g_server.handleMap.root);
        pOut->nUsedPorts = CountUsedPorts(g_server.pPortMgr);
        pOut->nMediaBytes = g_server.nCachedBytes + g_server.nQueuedBytes;
    });
    pOut->nDescriptors = OpenDescriptors();
    pOut->nThreads = std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    malloc_trim(0);
    struct mallinfo2 info = mallinfo2();
    pOut->nHeapBytes = static_cast<long>(info.uordblks + info.hblkhd);
    long nWhole = 0, nResident = 0;
    std::ifstream("/proc/self/statm") >> nWhole >> nResident;
    pOut->nResidentKb = nResident * (sysconf(_SC_PAGESIZE) / 1024);
}

static int Serve(const Sock &line, const std::string &settings, uint32_t nBeforeWrapMs)
{
    LocalServer server(settings);
    const uint64_t nBeginMs = uint64_t{0U - nBeforeWrapMs} - ClockMs() + (uint64_t{1} << 32);
    BoxOrder order{};
    BoxFigures figures;
    figures.nPort = server.ports.nFirst;
    while (recv(line.fd, &order, sizeof(order), MSG_WAITALL) == sizeof(order)) {
        if (order.cOrder == 'q')
            break;
        if (order.cOrder == 'm') {
            server.MoveClock(nBeginMs + order.nAheadMs);
            server.MoveWallClock(order.nWallSeconds);
        } else {
            LookInside(&server, &figures);
        }
        figures.bSound = server.server.bRunning && !testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
        if (send(line.fd, &figures, sizeof(figures), MSG_NOSIGNAL) != sizeof(figures))
            break;
    }
    return figures.bSound ? 0 : 1;
}

// --- In the other one ---

bool Box::Start(uint32_t nBeforeWrapMs)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return false;
    Sock here(fds[0]), there(fds[1]);
    fflush(nullptr);
    pid = fork();
    if (pid == 0) {
        here.Close();
        bool bPrints = freopen(outputPath.c_str(), "a", stdout) && dup2(fileno(stdout), 2) == 2;
        exit(bPrints ? Serve(there, settings, nBeforeWrapMs) : 2);  // the leak checker looks at its end
    }
    line = std::move(here);
    there.Close();
    return pid > 0 && Move(0);
}

bool Box::Order(char cOrder)
{
    BoxOrder order{cOrder, nAheadMs, nWallSeconds};
    return send(line.fd, &order, sizeof(order), MSG_NOSIGNAL) == sizeof(order) && cOrder != 'q' &&
           recv(line.fd, &now, sizeof(now), MSG_WAITALL) == sizeof(now) && now.bSound;
}

bool Box::Move(uint64_t nMs)
{
    nAheadMs += nMs;
    nWallSeconds = nWallSeconds + static_cast<int64_t>(nAheadMs / 1000 - (nAheadMs - nMs) / 1000);
    return Order('m');
}

bool Box::Step(int64_t nSeconds)
{
    nWallSeconds += nSeconds;
    return Order('m');
}

bool Box::Look()
{
    return Order('l');
}

int Box::Stop()
{
    int nStatus = 0;
    if (pid < 0)
        return -1;
    Order('q');
    line.Close();
    waitpid(std::exchange(pid, -1), &nStatus, 0);
    return WIFSIGNALED(nStatus) ? 256 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus);
}

}  // namespace orx
