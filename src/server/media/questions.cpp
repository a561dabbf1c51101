#include "server/media/questions.h"

#include <cstring>

#include "runtime/clock.h"
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
    DataBlock *pNext;
    for (auto *p = ListFirstOf<DataBlock>(&pPusher->out.Outq); p; p = pNext) {
        pNext = NextBlock(p);
        if (!(p->nFlags & DB_QUESTION) || p->nSerial != pAsker->nHandle)
            continue;
        if (p->sent == 0 && IsOver(p->nTimestamp)) {
            BlockListFree(&pPusher->out.Outq, p);
            continue;
        }
        waiting.nCount++;
        waiting.nBytes += p->len;
    }
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

Asked QuestionSend(Message *pQuestion, Session *pAsker, const void *pBody, size_t nBody, size_t nMost)
{
    Waiting waiting = CountWaiting(pQuestion->pSession, pAsker);
    size_t nBytes = pQuestion->text.nLen + 2 + nBody;  // the header block is not ended yet
    if (waiting.nCount >= kQuestionsWaiting || waiting.nBytes + nBytes > kQuestionBytesWaiting)
        return Asked::Refused;
    pQuestion->nAsker = pAsker->nHandle;
    int nSent = RequestSend(pQuestion, pBody, nBody, nMost);
    if (nSent > 0)
        Note(&pAsker->questions, &waiting);
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
