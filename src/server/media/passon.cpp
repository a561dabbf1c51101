#include "server/media/passon.h"

#include "base/bytes.h"
#include "record/rtppacket.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/media/distribute.h"
#include "server/media/reports.h"
#include "server/media/rewrite.h"

namespace orx {

// For who watches the server: once per packet that comes in.
static void MeterNote(MediaInfo *pInfo, const DataBlock *pBlock, uint32_t nRtpTime)
{
    TrackMeter *pMeter = &pInfo->meter;
    g_server.counted.nPackets++;
    pMeter->nPictures += nRtpTime != pInfo->report.nRtpTime;
    if (!(pBlock->nFlags & DB_KEY))
        return;
    if (pMeter->nKeys++ > 0)
        pMeter->nKeyDistanceMs = pBlock->nTimestamp - pMeter->nKeyMs;
    pMeter->nKeyMs = pBlock->nTimestamp;
}

void PassPacketOn(Program *pProg, unsigned nTrack, DataBlock *pBlock)
{
    MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    uint8_t *pRtp = BlockData(pBlock) + kInterleaveBytes;
    size_t nBytes = pBlock->len - kInterleaveBytes;
    RewritePacket(&pInfo->rewrite, pRtp, nBytes);
    if (pProg->standards.bPushers)
        RewriteNote(&pInfo->rewrite, pRtp);
    if (!pInfo->report.bExpected && pProg->pPusher)
        ReportsExpect(pProg->pPusher, &pInfo->report);
    MeterNote(pInfo, pBlock, static_cast<uint32_t>(GetBe(pRtp + 4, 4)));
    ReportNotePacket(&pInfo->report, pBlock->nTimestamp, GetBe(pRtp + 8, 4), GetBe(pRtp + 4, 4),
                     nBytes - kRtpHeaderBytes);
    if (pProg->desc.bSharedTypes)
        pBlock->nFlags |= (nTrack + 1) << kBlockTrackShift;
    if (HasLowDelay(pProg))
        FlushNote(pProg, pInfo, pRtp);
    CachePacketEx(pProg, pBlock);
}

}  // namespace orx
