// Packets of a camera on their way to Orx: records of a byte (lowest bit: RTCP, next: track, next: another session
// begins before it), a length and so many bytes. Nothing outside them is touched, what goes on is no longer, and RTP
// goes on as one source.
#include "orxpull/pushline.h"

#include "base/bytes.h"
#include "fuzz/fuzz.h"

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    PushLine line;
    line.tracks = {LineTrack{90000}, LineTrack{1}};
    ByteReader in{pData, nBytes};
    uint64_t nNowMs = 0;
    uint32_t ssrcs[2] = {}, bSeen[2] = {};
    while (in.nLeft >= 2) {
        unsigned nHow = ReadBe(&in, 1);
        size_t nTrack = nHow >> 1 & 1, nPacket = ReadBe(&in, 1);
        const uint8_t *pPacket = ReadBytes(&in, nPacket);
        if (!pPacket)
            break;
        if (nHow & 4)
            LineJoin(&line);
        nNowMs += nHow;
        auto exact = Exact<uint8_t>(pPacket, nPacket);
        if (nHow & 1) {
            ORX_ASSERT(LineRtcp(&line, nTrack, exact.get(), nPacket, nNowMs) <= nPacket, "no longer than it was");
        } else if (LineRtp(&line, nTrack, exact.get(), nPacket, nNowMs)) {
            uint32_t nSsrc = GetBe(exact.get() + 8, 4);
            ORX_ASSERT(!bSeen[nTrack] || nSsrc == ssrcs[nTrack], "one source");
            ssrcs[nTrack] = nSsrc;
            bSeen[nTrack] = 1;
        }
    }
    return 0;
}
