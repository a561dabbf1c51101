#include "server/media/questions.h"

#include <algorithm>
#include <cstring>

#include "runtime/clock.h"
#include "server/core/program.h"
#include "server/core/settings.h"
#include "server/media/outqueue.h"

namespace orx {

static_assert(kQuestionsWaiting + kQuestionsWritten <= kMaxQuestions, "all that is open has its place");

static int IsOver(uint32_t nAsked)
{
    return ClockMs() - nAsked >= kQuestionMs;
}

// What of an asker waits to be written.
struct Waiting {
    uint32_t nCount = 0;
    size_t nBytes = 0;
};

// Counts it, and drops what nobody waits for any more.
static Waiting CountWaiting(Session *pPusher, const Session *pAsker)
{
    Waiting waiting;
    QueueDropIf(&pPusher->out.Outq, 0, kQueueEnd, [&](const BlockRef *p) {
        if (!(RefFlags(p) & DB_QUESTION) || p->pBlock->nSerial != pAsker->nHandle)
            return 0;
        if (p->nSent == 0 && IsOver(p->pBlock->nTimestamp))
            return 1;
        waiting.nCount++;
        waiting.nBytes += RefLen(p);
        return 0;
    });
    return waiting;
}

static void ForgetOldest(SessionQuestions *pQuestions)
{
    pQuestions->nOpen--;
    memmove(pQuestions->asked, pQuestions->asked + 1, pQuestions->nOpen * sizeof(pQuestions->asked[0]));
}

// The questions are written in their order: what waits are the newest.
static void Note(SessionQuestions *pQuestions, const Waiting *pWaiting)
{
    while (pQuestions->nOpen >= kQuestionsWritten + pWaiting->nCount)
        ForgetOldest(pQuestions);
    pQuestions->asked[pQuestions->nOpen++] = ClockMs();
}

int PusherKnows(const Program *pProg)
{
    const Session *pPusher = pProg->pPusher;  // it may have come back under other settings
    const Standards *pStandards = pPusher ? &pPusher->standards : &pProg->standards;
    if (!pStandards->bPushers || pProg->desc.nDataTrack >= 0)
        return 1;
    return pPusher && pProg->asked.nKnower == pPusher->nHandle;
}

void PusherShows(const Session *pSession)
{
    if (FeedsProgram(pSession))
        pSession->pProg->asked.nKnower = pSession->nHandle;
}

static void ForgetAt(PusherQuestions *pAsked, uint32_t i)
{
    pAsked->nOpen--;
    std::copy(pAsked->open + i + 1, pAsked->open + pAsked->nOpen + 1, pAsked->open + i);
}

// The list of a pusher, without what nobody waits for any more.
static PusherQuestions *QuestionsOf(const Session *pPusher)
{
    PusherQuestions *pAsked = &pPusher->pProg->asked;
    if (pAsked->nPusher != pPusher->nHandle)
        pAsked->nOpen = 0;
    pAsked->nPusher = pPusher->nHandle;
    while (pAsked->nOpen && IsOver(pAsked->open[0].nAskedMs))
        ForgetAt(pAsked, 0);
    return pAsked;
}

void PusherAsked(const Session *pPusher, const Session *pAsker)
{
    if (!pPusher->standards.bPushers || !FeedsProgram(pPusher))
        return;
    PusherQuestions *pAsked = QuestionsOf(pPusher);
    if (pAsked->nOpen == kMaxPusherQuestions)
        ForgetAt(pAsked, 0);
    PusherQuestion *pNew = &pAsked->open[pAsked->nOpen++];
    *pNew = {pPusher->nCSeq, pAsker ? pAsker->nHandle : 0, pAsker ? pAsker->nCSeq : 0, ClockMs()};
}

Session *PusherAnswered(const Session *pPusher, const uint32_t *pCSeq, uint32_t *pAskerCSeq)
{
    if (!FeedsProgram(pPusher))
        return nullptr;
    PusherQuestions *pAsked = QuestionsOf(pPusher);
    uint32_t i = 0;
    while (pCSeq && i < pAsked->nOpen && pAsked->open[i].nCSeq != *pCSeq)
        i++;
    if (i >= pAsked->nOpen)
        return nullptr;
    PusherQuestion answered = pAsked->open[i];
    ForgetAt(pAsked, i);
    *pAskerCSeq = answered.nAskerCSeq;
    Session *pAsker = answered.nAsker ? FindSessionByHandle(answered.nAsker) : nullptr;
    return pAsker && pAsker->pProg == pPusher->pProg ? pAsker : nullptr;
}

void PusherResponded(const Session *pPusher, const Session *pAsker)
{
    if (!FeedsProgram(pPusher))
        return;
    PusherQuestions *pAsked = QuestionsOf(pPusher);
    for (uint32_t i = 0; i < pAsked->nOpen; i++)
        if (pAsked->open[i].nAsker == pAsker->nHandle) {
            ForgetAt(pAsked, i);
            return;
        }
}

Asked QuestionSend(Message *pQuestion, Session *pAsker, const void *pBody, size_t nBody, size_t nMost)
{
    Waiting waiting = CountWaiting(pQuestion->pSession, pAsker);
    size_t nBytes = pQuestion->text.nLen + 2 + nBody;  // the header block is not ended yet
    if (waiting.nCount >= kQuestionsWaiting || waiting.nBytes + nBytes > kQuestionBytesWaiting)
        return Asked::Refused;
    pQuestion->nAsker = pAsker->nHandle;
    uint32_t nCSeq = pQuestion->pSession->nCSeq;
    PusherAsked(pQuestion->pSession, pAsker);
    int nSent = RequestSend(pQuestion, pBody, nBody, nMost);
    if (nSent > 0)
        Note(&pAsker->questions, &waiting);
    else
        PusherAnswered(pQuestion->pSession, &nCSeq, &nCSeq);
    return nSent > 0 ? Asked::Sent : nSent == 0 ? Asked::Refused : Asked::PusherGone;
}

int QuestionIsOpen(Session *pAsker)
{
    SessionQuestions *pQuestions = &pAsker->questions;
    while (pQuestions->nOpen && IsOver(pQuestions->asked[0]))
        ForgetOldest(pQuestions);
    return pQuestions->nOpen > 0;
}

void QuestionAnswered(Session *pAsker)
{
    if (QuestionIsOpen(pAsker))
        ForgetOldest(&pAsker->questions);
}

}  // namespace orx
