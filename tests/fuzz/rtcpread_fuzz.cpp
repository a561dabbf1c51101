// RTCP of pushers and players: what is read of it lies inside it, and what is passed on reads again alike.
#include "server/media/rtcpread.h"

#include <cstdlib>

#include "server/media/rewrite.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    orx::SenderReport before, after;
    orx::ReceiverReport receiver;
    uint8_t out[96];
    orx::RtcpReadReceiver(pData, nBytes, &receiver);
    int bSender = orx::RtcpReadSender(pData, nBytes, &before);
    size_t n = orx::RtcpCopySender(pData, nBytes, out, sizeof(out));
    if (bSender != (n > 0) || n > sizeof(out))
        abort();
    orx::TrackRewrite rewrite;
    rewrite.nStampShift = 1000;
    orx::RewriteChanged(&rewrite);
    orx::RewriteReport(&rewrite, out, n);
    if (n > 0 && (!orx::RtcpReadSender(out, n, &after) || after.nRtpTime != before.nRtpTime + 1000U))
        abort();
    return 0;
}
