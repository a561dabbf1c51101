// Where a key picture of a live H.264 or H.265 track begins, and that it has its parameter sets: a player may
// start with any. Encoders send them as they like, with each key picture, once, or in the description alone.
// Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// To be called when the program's description was read, and when another pusher brings another, before its
// first packet and before the track is rewritten in another way: takes the parameter sets that it tells, and
// lets go of what is held. Only with StandardPushers, and for a video codec made of units, anything is done.
void KeyStartInit(Program *pProg);

// Whether the program's video packets go through KeyStartTake.
inline int KeyStartWanted(const Program *pProg)
{
    return pProg->keyStart.pForm != nullptr;
}

// Takes over a packet of the video track as it was pushed, behind its '$' head, in order. What comes before
// the first slice of a picture is held until that slice says whether it can be decoded alone. What is not
// held goes through RewritePacket into the cache.
void KeyStartTake(Program *pProg, DataBlock *pBlock);

}  // namespace orx
