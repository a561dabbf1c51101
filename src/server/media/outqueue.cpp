#include "server/media/outqueue.h"

#include <algorithm>

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
    BlockListAppend(&pSession->out.Outq, pCopy);
    return nTrack;
}

void QueueBefore(Session *pSession, DataBlock *pBlock, DataBlock *pBefore)
{
    if (pBefore)
        BlockListInsert(&pSession->out.Outq, pBlock, pBefore, pBefore->sent > 0);
    else
        BlockListAppend(&pSession->out.Outq, pBlock);
}

int QueueRelieve(Session *pSession)
{
    SessionFlow *pFlow = &pSession->flow;
    if (!g_settings.bAutoDrop || !pSession->pProg || !pSession->pProg->bLive)
        return 0;
    pFlow->nBlockedSends = std::max(pFlow->nBlockedSends, kBlockedSends);
    QueueDropCrowded(pSession);
    print("Player Client(socket=0x%x) has a full queue, its media is dropped!\r\n",
          SessionPeerPort(pSession)->fd);
    return !QueueIsFull(pSession);
}

int RepliesPileUp(const Session *pSession)
{
    const BlockSum *pQueued = &pSession->out.queued;
    int64_t nMost = Megabytes(g_settings.nCacheMegabytes);
    return pQueued->nOthers > kRepliesAbove || (nMost && pQueued->nOtherBytes > nMost);
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
            BlockListFree(&pSession->out.Outq, p);
        }
        p = pNext;
    }
    pSession->flow.nStartHeld = 0;
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
        BlockListFree(&pSession->out.Outq, pHead);
    QueueDropMedia(pSession);
}

}  // namespace orx
