// From RTP packets of one track to the samples that a recording holds: whole video frames, AMR in storage
// form, AAC in units, G.711 as it comes. One procedure per codec, all of one form. What the packets say is a
// peer's: conditions that they break end the recording, or by its rules cost a picture or a packet. One
// thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/paramsets.h"
#include "record/rtppacket.h"
#include "record/rules.h"
#include "record/zmfile.h"

namespace orx {

constexpr uint32_t kFrameBytes = 131072;  // room for a frame while it is put together
// With WideUnits: what the longest record can hold.
constexpr uint32_t kWideFrameBytes = kZmfMaxWideBytes - kZmfRecordHeadBytes + 1;
constexpr uint32_t kMaxH264PacketBytes = 2048;  // packets of H.264 are shorter than this

// A type word: the media character in bits 8-15, record flags in bits 0-7, and SAMPLE_WIDE.
constexpr uint32_t SampleType(char chMedia, uint8_t nFlags)
{
    return uint32_t{static_cast<uint8_t>(chMedia)} << 8 | nFlags;
}

// Takes a finished sample; the result is passed on.
using SampleProc = int (*)(void *pContext, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                           uint32_t nType);

struct Depacketiser {
    SampleProc pfnSample = nullptr;
    void *pContext = nullptr;
    RecordRules rules;
    int bWideband = 0;          // AMR: frames have the sizes of AMR-WB
    uint32_t nUnitTicks = 0;    // AAC: how far a unit goes on the track's clock
    uint8_t *pFrame = nullptr;  // owned, nTotal bytes, made with the first packet; grows with WideUnits
    uint32_t nTotal = 0;
    uint32_t nBytes = 0;      // held in pFrame; 0 whenever a sample is handed out
    uint32_t nFrameTime = 0;  // ms, of the frame's first packet
    uint32_t nFrameRtp = 0;   // RTP time stamp of the frame that is open
    int bOpen = 0;            // a packet of a frame came, its last one (marker) has not
    int bSkip = 0;            // the open frame is damaged: its other packets are dropped
    int bUntilKey = 0;        // a frame was left out: those that refer to it are, too
    int bWide = 0;            // the frame has a unit with a wide length
    int bSaid = 0;            // a packet that cannot be used was spoken of
    int nOpenUnit = -1;       // H.264, H.265: where in pFrame the unit begins that fragments are added to;
                              // AAC: the size of the unit of which parts came. -1: none
    int bSeqKnown = 0;
    uint16_t nSeq = 0;         // of the last packet
    uint64_t nFirstKinds = 0;  // H.264, H.265: types of units that whole frames have begun with, one bit each
    uint64_t nFirstSlices = 0;  // the same of slices that are the first of their picture
    ParamSets sets;             // of standard encoders; owned
    uint32_t nTicks = 0;        // length of the audio sample that is handed out
    uint32_t nTickRate = 0;     // ticks a second
};

// Gives back the buffer and the parameter sets and forgets what was begun; the record can be used again.
void DepacketiserReset(Depacketiser *pTrack);

// Forgets what was begun, and where the packets were: the next one need not follow the last.
void DepacketiserForget(Depacketiser *pTrack);

// Takes a packet that came at nTimeMs. Returns 1 when it was taken or ignored, otherwise what the sample
// procedure gave, or -1 for a packet that ends the recording.
using DepacketProc = int (*)(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs);
int WriteH264RtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs);
int WriteH265RtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs);
int WriteJpegRtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs);
int WriteAmrRtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs);
int WriteG711RtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs);
int WriteAacRtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs);

// Bytes of one AMR frame in storage form by frame type 0-15, the table-of-contents byte included; 0 for a
// type that has no frame.
uint32_t AmrFrameBytes(int bWideband, uint32_t nFrameType);

}  // namespace orx
