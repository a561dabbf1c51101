// What a stranger on the network answers to a probe: whatever it is, a camera is told in one printable line.
#include "orxpull/discoveranswer.h"

#include <algorithm>

#include "fuzz/fuzz.h"

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    std::vector<DiscoveredCamera> cameras;
    auto exact = Exact<char>(pData, nBytes);
    int nNew = DiscoverTake({exact.get(), nBytes}, &cameras);
    ORX_ASSERT(nNew >= 0 && static_cast<size_t>(nNew) == cameras.size(), "it says how many");
    ORX_ASSERT(DiscoverTake({exact.get(), nBytes}, &cameras) == 0, "the same are not new");
    for (const DiscoveredCamera &camera : cameras) {
        std::string line = DiscoverLine(&camera);
        ORX_ASSERT(!line.empty() && line.size() < 3000, "a line");
        ORX_ASSERT(std::none_of(line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 127; }),
                   "printable");
    }
    return 0;
}
