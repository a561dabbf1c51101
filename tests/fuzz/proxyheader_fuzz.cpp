// What a front sends before its connections' own bytes: it may come in any pieces.
#include "net/proxyheader.h"

#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    using namespace orx;
    ProxyHeader whole;
    ProxyResult eResult = ProxyHeaderParse(Exact(pData, nBytes).get(), nBytes, &whole);
    ORX_ASSERT(eResult != ProxyResult::More || nBytes < kProxyHeaderMost, "it comes to an end");
    ORX_ASSERT(eResult != ProxyResult::Done || (whole.nBytes > 0 && whole.nBytes <= nBytes), "it is there");
    size_t nFirst = nBytes > 0 ? pData[nBytes / 2] : 0;
    if (nFirst >= nBytes)
        return 0;
    ProxyHeader part;
    ProxyResult ePart = ProxyHeaderParse(Exact(pData, nFirst).get(), nFirst, &part);
    ORX_ASSERT(ePart == ProxyResult::More || ePart == eResult, "what comes behind it changes nothing");
    ORX_ASSERT(ePart != ProxyResult::Done || part.nBytes == whole.nBytes, "nor its length");
    return 0;
}
