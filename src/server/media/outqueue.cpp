#include "server/media/outqueue.h"

#include "base/console.h"
#include "server/core/program.h"

namespace orx {

int QueueCopy(Session *pSession, const DataBlock *pBlock)
{
    uint8_t nPayloadType = BlockData(pBlock)[kInterleaveBytes + 1] & 0x7F;
    int nTrack = TrackOfPayload(pSession, nPayloadType, TrackChoice::First);
    if (nTrack < 0)
        return -1;
    if (pSession->flow.nBlockedSends >= kBlockedSends && !(pBlock->nFlags & DB_VIDEO))
        return -1;
    uint32_t nSkip = pSession->out.bInterleaved ? 0 : kInterleaveBytes;
    DataBlock *pCopy = MakeDataBlock2(BlockData(pBlock) + nSkip, pBlock->len - nSkip, pBlock->nFlags);
    if (!pCopy) {
        print("MakeDataBlock() failed!\r\n");
        return -1;
    }
    pCopy->nTimestamp = pBlock->nTimestamp;
    ListAppend(&pSession->out.Outq, pCopy);
    return nTrack;
}

void QueueBefore(Session *pSession, DataBlock *pBlock, DataBlock *pBefore)
{
    if (pBefore)
        ListInsert(&pSession->out.Outq, pBlock, pBefore, pBefore->sent > 0);
    else
        ListAppend(&pSession->out.Outq, pBlock);
}

int RepliesPileUp(const Session *pSession)
{
    if (ListCount(&pSession->out.Outq) <= kRepliesAbove)
        return 0;
    uint32_t nReplies = 0;
    for (auto *p = ListFirstOf<DataBlock>(&pSession->out.Outq); p; p = NextBlock(p))
        nReplies += !(p->nFlags & (DB_MEDIA | DB_QUESTION));
    return nReplies > kRepliesAbove;
}

// Whoever plays a recording sees numbers without a hole across pauses and jumps (RFC 2326, appendix B), and
// so does not wait for packets that never come.
static void GiveNumberBack(Session *pSession, const DataBlock *pBlock)
{
    if (!(pBlock->nFlags & DB_MEDIA) || !pSession->pProg || pSession->pProg->bLive)
        return;
    int nTrack = TrackOfBlock(pSession, pBlock);
    if (nTrack >= 0)
        pSession->tracks[nTrack].nNextSeq--;
}

// Drops the blocks that have all of the flags.
static void DropWaiting(Session *pSession, uint32_t nFlags)
{
    auto *p = ListFirstOf<DataBlock>(&pSession->out.Outq);
    while (p) {
        DataBlock *pNext = NextBlock(p);
        if (p->sent == 0 && (p->nFlags & nFlags) == nFlags) {
            GiveNumberBack(pSession, p);
            ListRemove(&pSession->out.Outq, p, 1);
        }
        p = pNext;
    }
}

void QueueDropAll(Session *pSession)
{
    DropWaiting(pSession, 0);
}

void QueueDropMedia(Session *pSession)
{
    DropWaiting(pSession, DB_MEDIA);
}

void QueueDropCrowded(Session *pSession)
{
    auto *pHead = ListFirstOf<DataBlock>(&pSession->out.Outq);
    if (pHead && pHead->sent == 0)
        ListRemove(&pSession->out.Outq, pHead, 1);
    QueueDropMedia(pSession);
}

}  // namespace orx
