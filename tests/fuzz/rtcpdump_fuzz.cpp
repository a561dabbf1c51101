// RTCP from peers: whatever the packet's counts and lengths say, the dump reads inside it and ends.
#include "server/media/rtcp.h"

#include "base/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    for (uint32_t nRate : {0U, 1U, 999U, 8000U, 90000U})
        orx::RtcpDump(pData, nBytes, nRate);
    if (nBytes < 8)
        return 0;
    char szTime[64];
    orx::NtpTimeToString(orx::GetBe(pData, 4), orx::GetBe(pData + 4, 4), szTime, sizeof(szTime));
    return 0;
}
