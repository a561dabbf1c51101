#include "server/core/program.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "base/console.h"
#include "base/textbuf.h"
#include "record/sdpreader.h"
#include "runtime/clock.h"
#include "server/core/accounttable.h"
#include "server/core/registry.h"
#include "server/core/settings.h"

namespace orx {

constexpr size_t kMaxPath = 256;  // of a request's decoded URI, NUL included

// Handles are given in order and wrap.
static int ComparePlayers(void *, void *pData, void *pKey)
{
    return ClockDiff(static_cast<Session *>(pData)->nHandle, static_cast<Session *>(pKey)->nHandle);
}

Program *ProgramNew(const char *szPath, const ProgramOps *pOps)
{
    auto *pProg = new (std::nothrow) Program;
    if (!pProg)
        return nullptr;
    pProg->pOps = pOps;
    ListInit(&pProg->players, pProg);
    ListUsedDefMap(&pProg->players, 1);  // a session's second node
    ListDataProc(&pProg->players, nullptr, ComparePlayers);
    BlockListInit(&pProg->cache.Pktq, &pProg->cache.held);
    pProg->cache.held.pTotal = &g_server.nCachedBytes;
    pProg->tBorn = ClockUptime();
    pProg->nBornMs = ClockMs();
    pProg->cache.nCacheLimit = g_settings.nCacheSeconds * 1000;
    pProg->Uri = strdup(szPath);
    if (pProg->Uri)
        return pProg;
    delete pProg;
    return nullptr;
}

static void ProgramFree(void *pRecord)
{
    auto *pProg = static_cast<Program *>(pRecord);
    free(pProg->desc.szSdp);
    free(pProg->Uri);
    free(pProg->camera.szCamCfg);
    AccountTableFree(pProg->camera.pAccounts);
    ListEmpty(&pProg->cache.Pktq);
    ParamSetsFree(&pProg->keyStart.sets);
    while (pProg->keyStart.nHeld > 0)
        FreeDataBlock(pProg->keyStart.held[--pProg->keyStart.nHeld]);
    delete pProg;
}

void ProgramDiscard(Program *pProg)
{
    pProg->pOps->pfnStop(pProg);
    ProgramFree(pProg);
}

int ProgramReady(Program *pProg)
{
    TextBuf name{pProg->szName, sizeof(pProg->szName)};
    TextAdd(&name, "Orx%u", static_cast<unsigned>(time(nullptr)) + static_cast<unsigned>(rand()));
    if (pProg->bLive &&
        (ProgramFind(pProg->Uri) || !AvlInsert(&g_server.programMap, AvlTextKey(pProg->Uri), pProg)))
        return 0;
    pProg->nNumber = ++g_server.counted.nPrograms;
    return ListAppend(&g_server.programs, pProg);
}

unsigned ProgramPrintId(const Program *pProg)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pProg));
}

Program *ProgramFind(const char *szPath)
{
    return static_cast<Program *>(AvlValue(&g_server.programMap, AvlTextKey(szPath)));
}

Program *ProgramFindWithSubstream(const char *szPath)
{
    Program *pProg = ProgramFind(szPath);
    if (pProg || strncmp(szPath, "/ch", 3) != 0 || strchr(szPath, '-'))
        return pProg;
    char path[kMaxPath + 3];
    TextBuf text{path, sizeof(path)};
    return TextAdd(&text, "%s-s1", szPath) ? ProgramFind(path) : nullptr;
}

// Nobody finds the program any more. The name may belong to a later program by now.
static void RemoveName(Program *pProg)
{
    if (ProgramFind(pProg->Uri) == pProg)
        AvlForget(&g_server.programMap, AvlTextKey(pProg->Uri));
}

// The newest one of an asker: it never went out, so that no answer is to be taken for its.
static void ForgetQuestion(Program *pProg, uint32_t nAsker)
{
    PusherQuestions *pAsked = &pProg->asked;
    for (uint32_t i = pAsked->nOpen; i-- > 0;)
        if (pAsked->open[i].nAsker == nAsker) {
            pAsked->nOpen--;
            std::copy(pAsked->open + i + 1, pAsked->open + pAsked->nOpen + 1, pAsked->open + i);
            return;
        }
}

// Takes back what the session asked and the pusher of its program was not sent yet.
static void TakeQuestionsBack(const Session *pSession)
{
    Session *pPusher = pSession->pProg ? pSession->pProg->pPusher : nullptr;
    if (!pPusher)
        return;
    QueueDropIf(&pPusher->out.Outq, 0, kQueueEnd, [=](const BlockRef *p) {
        int bOurs = (RefFlags(p) & DB_QUESTION) && p->pBlock->nSerial == pSession->nHandle && p->nSent == 0;
        if (bOurs)
            ForgetQuestion(pSession->pProg, pSession->nHandle);
        return bOurs;
    });
}

// What the accounts of one program allowed does not count at another: level, name, admission, subscription
// and the questions that still wait for its pusher go.
static void ForgetViewer(Session *pSession)
{
    TakeQuestionsBack(pSession);
    pSession->questions.nOpen = 0;
    pSession->viewer = SessionViewer();
    pSession->nFlags &= ~SESSION_SUBSCRIBER;
}

void ProgramAttach(Session *pSession, Program *pProg)
{
    if (pSession->pProg == pProg)
        return;
    ProgramDetach(pSession);
    ForgetViewer(pSession);
    pProg->nRefs++;
    pSession->pProg = pProg;
    if (pProg->pPusher == pSession)
        return;
    auto *pLast = static_cast<Session *>(ListLast(&pProg->players, 0));
    if (pLast && ComparePlayers(nullptr, pLast, pSession) > 0)
        ListSortInsert(&pProg->players, pSession);
    else
        ListAppend(&pProg->players, pSession);  // as nearly all, and without a walk past thousands
    pProg->bTimesQueues |= pSession->standards.bPlayers;
}

void ProgramDetach(Session *pSession)
{
    Program *pProg = pSession->pProg;
    if (!pProg)
        return;
    ForgetViewer(pSession);
    pSession->pProg = nullptr;
    pSession->start.pNext = nullptr;
    if (pProg->pPusher == pSession) {
        pProg->pPusher = nullptr;
        RemoveName(pProg);
        pProg->pOps->pfnStop(pProg);  // players may stay on, but nothing more comes
    } else {
        if (pProg->flush.pNext == pSession)
            pProg->flush.pNext = NextPlayer(pSession);
        ListRemove(&pProg->players, pSession, 0);
    }
    pProg->nRefs--;
    if (pProg->nRefs == 0)
        ProgramEnd(pProg);
    else if (pProg->nRefs == 1 && pProg->pPusher)
        pProg->sleep.tIdleSince = ClockUptime();
}

int ProgramKeep(Session *pPusher)
{
    Program *pProg = FeedsProgram(pPusher) ? pPusher->pProg : nullptr;
    if (!pProg || !pProg->pOps->pfnKeep || !pProg->pOps->pfnKeep(pProg))
        return 0;
    ForgetViewer(pPusher);
    pPusher->pProg = nullptr;
    pProg->pPusher = nullptr;  // what held the program for it holds it for the wait
    return 1;
}

void ProgramReturn(Session *pPusher, Program *pProg)
{
    pProg->hold.nNumber = 0;
    pProg->pPusher = pPusher;
    ProgramAttach(pPusher, pProg);
    pProg->nRefs--;
}

void ProgramGiveUp(Program *pProg)
{
    pProg->hold.nNumber = 0;
    RemoveName(pProg);
    pProg->pOps->pfnStop(pProg);
    if (--pProg->nRefs == 0)
        ProgramEnd(pProg);
}

void ProgramCallHook(const Program *pProg, const char *szRemote, int bUp)
{
    if (!g_server.pfnProgramHook)
        return;
    char nick[128];
    char text[512];
    ProgramNames(pProg, nullptr, 0, nick, sizeof(nick));
    TextBuf out{text, sizeof(text)};
    TextAdd(&out, "%s:%s", pProg->Uri, nick);
    g_server.pfnProgramHook(g_server.pProgramHookContext, text, szRemote, bUp);
}

void ProgramEnd(Program *pProg)
{
    ListRemove(&g_server.programs, pProg, 0);
    RemoveName(pProg);
    print("OnFreeProgram(Uri=%s), pointer=0x%x.\r\n", pProg->Uri, ProgramPrintId(pProg));
    ProgramCallHook(pProg, nullptr, 0);
    pProg->pOps->pfnStop(pProg);
    Retire(&pProg->retired, pProg, ProgramFree);
}

void ProgramEndAll()
{
    while (Program *p = FirstProgram())
        ProgramEnd(p);
}

void ProgramClearCache(Program *pProg)
{
    ListEmpty(&pProg->cache.Pktq);
    pProg->cache.pCacheCursor = nullptr;
    pProg->cache.pLastKey = nullptr;
    pProg->cache.nKeptKeys = 0;
    pProg->cache.nWhole = pProg->cache.nSerial;
}

const char *ProgramSdp(const Program *pProg)
{
    return pProg->pOps->pfnSdp(pProg);
}

// Copies what follows a tag in the description up to the end of the line. Returns 1, or 0 with an empty
// buffer.
static int CopyAttribute(const char *szSdp, std::string_view tag, char *szOut, size_t nSize)
{
    std::string_view value;
    szOut[0] = '\0';
    if (!szSdp || !SdpFind(szSdp, tag, SDP_ANYWHERE, &value))
        return 0;
    TextCopy(szOut, nSize, SdpLine(value));
    return 1;
}

int ProgramNames(const Program *pProg, char *szGroup, size_t nGroup, char *szNick, size_t nNick)
{
    const char *szSdp = ProgramSdp(pProg);
    int bGroup = !szGroup || CopyAttribute(szSdp, "a=GroupName:", szGroup, nGroup);
    int bNick = !szNick || CopyAttribute(szSdp, "a=NickName:", szNick, nNick);
    return szSdp && bGroup && bNick;
}

int ProgramPassword(const Program *pProg, char *szOut)
{
    constexpr size_t kPasswordBytes = 32;
    std::string_view value;
    const char *szSdp = ProgramSdp(pProg);
    if (!szSdp || !SdpFind(szSdp, "a=ProgramAuth:", SDP_ANYWHERE, &value))
        return 0;
    TextCopy(szOut, kPasswordBytes + 1, value);  // of that many characters, whatever ends its line
    return 1;
}

unsigned ProgramCountLive()
{
    unsigned nLives = 0;
    for (const Program *p = FirstProgram(); p; p = NextProgram(p))
        nLives += p->bLive && p->pPusher;
    return nLives;
}

}  // namespace orx
