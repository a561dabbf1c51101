// The "Transport" line of SETUP: each offer is taken off the list, whatever it says.
#include "server/methods/transport.h"

#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    using namespace orx;
    auto text = Exact<char>(pData, nBytes);
    std::string_view list(text.get(), nBytes);
    TransportOffer offer;
    for (size_t nLeft = nBytes; TransportNext(&list, &offer) != 0; nLeft = list.size()) {
        ORX_ASSERT(list.size() < nLeft || nLeft == 0, "each offer is shorter by itself");
        ORX_ASSERT(offer.nPort >= 0 && offer.nPort < 65535, "there is room for the port of RTCP");
    }
    ORX_ASSERT(list.empty(), "nothing is left");
    return 0;
}
