#include "server/media/ingest.h"

#include "base/bytes.h"
#include "base/console.h"
#include "server/core/sessionevents.h"
#include "server/core/settings.h"
#include "server/media/distribute.h"
#include "server/media/keystart.h"
#include "server/media/mediatime.h"
#include "server/media/passon.h"
#include "server/media/resume.h"

namespace orx {

constexpr uint32_t kHeadBytes = kInterleaveBytes + kRtpHeaderBytes;

// Says whether a '$' frame of the program's video track starts a key frame.
static int IsKeyFrame(Program *pProg, const uint8_t *pFrame, uint32_t nBytes)
{
    RtpPacket packet;
    return pProg->desc.pfnIsKeyFrame &&
           RtpPacketParse(pFrame + kInterleaveBytes, nBytes - kInterleaveBytes, &packet) &&
           pProg->desc.pfnIsKeyFrame(&pProg->keyWatch, &packet);
}

int FeedProgram(Session *pSession, unsigned nTrack, const uint8_t *pFrame, uint32_t nBytes, Chunk *pChunk)
{
    Program *pProg = pSession->pProg;
    int bUsable = (pSession->nFlags & SESSION_PUSHER) && pProg &&
                  static_cast<int>(nTrack) < pProg->desc.nTrackCount && nBytes >= kHeadBytes;
    if (!bUsable)
        return 1;
    uint32_t nTime;
    uint32_t nJump;
    TrackRewrite *pRewrite = &pProg->desc.mediaInfos[nTrack].rewrite;
    if (pRewrite->bContinues)
        ResumeTrack(pProg, nTrack, pFrame + kInterleaveBytes);
    if (!PacketTime(pProg, nTrack, GetBe(pFrame + 8, 4) + pRewrite->nStampShift, &nTime, &nJump)) {
        SessionNoteMalformed(pSession, "a track's clock rate cannot be used");
        return 0;
    }
    int bVideo = static_cast<int>(nTrack) == pProg->desc.nVideoTrack;
    int bStart = bVideo && KeyStartWanted(pProg);
    int bKey = bVideo && !bStart && IsKeyFrame(pProg, pFrame, nBytes);
    uint32_t nFlags = DB_MEDIA | nJump | (bVideo ? DB_VIDEO : 0U) | (bKey ? DB_KEY : 0U);
    DataBlock *pBlock =
        pChunk ? MakeChunkBlock(pChunk, static_cast<uint32_t>(pFrame - ChunkBytes(pChunk)), nBytes, nFlags)
               : MakeDataBlock2(pFrame, nBytes, nFlags);
    if (!pBlock) {
        print("MakeDataBlock() failed and Destroy the Session!\r\n");
        SessionNoteEnd(pSession, "no memory is left");
        return 0;
    }
    pBlock->nTimestamp = nTime;
    if (bStart)
        KeyStartTake(pProg, pBlock);
    else
        PassPacketOn(pProg, nTrack, pBlock);
    return 1;
}

void FlushAfterRead(Session *pSession, size_t nBytes)
{
    if (!(pSession->nFlags & SESSION_PUSHER) || pSession->nState != STATE_PLAYING || !pSession->pProg)
        return;
    if (HasLowDelay(pSession->pProg)) {
        FlushWhole(pSession->pProg);
        return;
    }
    // Every second time: a picture often comes in two reads, and one write for both halves the cost of
    // sending. The first read counts, so that a player does not wait for a slow pusher's second.
    pSession->flow.nReads++;
    if (pSession->flow.nReads & 1)
        FlushPlayers(pSession->pProg);
    else if (nBytes >= pSession->input.nTotal)  // a burst, of which nothing more may come for long
        FlushLater(pSession->pProg);
}

}  // namespace orx
