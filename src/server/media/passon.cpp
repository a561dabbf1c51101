#include "server/media/passon.h"

#include "base/bytes.h"
#include "record/rtppacket.h"
#include "server/core/settings.h"
#include "server/media/distribute.h"
#include "server/media/reports.h"
#include "server/media/rewrite.h"

namespace orx {

void PassPacketOn(Program *pProg, unsigned nTrack, DataBlock *pBlock)
{
    MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    uint8_t *pRtp = BlockData(pBlock) + kInterleaveBytes;
    size_t nBytes = pBlock->len - kInterleaveBytes;
    RewritePacket(&pInfo->rewrite, pRtp, nBytes);
    if (g_settings.bStandardPushers)
        RewriteNote(&pInfo->rewrite, pRtp);
    if (!pInfo->report.bExpected && pProg->pPusher)
        ReportsExpect(pProg->pPusher, &pInfo->report);
    ReportNotePacket(&pInfo->report, pBlock->nTimestamp, GetBe(pRtp + 8, 4), GetBe(pRtp + 4, 4),
                     nBytes - kRtpHeaderBytes);
    if (pProg->desc.bSharedTypes)
        pBlock->nFlags |= (nTrack + 1) << kBlockTrackShift;
    if (HasLowDelay())
        FlushNote(pProg, pInfo, pRtp);
    CachePacketEx(pProg, pBlock);
}

}  // namespace orx
