// What the scanning tool prints, names of strangers' networks included, reduces to a list of whole lines.
#include "net/wifiscan.h"

#include <cstdlib>

#include "fuzz/fuzz.h"

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    auto raw = Exact<char>(pData, nBytes);
    size_t nLength = 0;
    char *szList = WifiReduce(raw.get(), nBytes, &nLength);
    ORX_ASSERT(szList, "szList");
    ORX_ASSERT(strlen(szList) == nLength, "nothing cuts the list short");
    std::string list(szList, nLength);
    free(szList);

    ORX_ASSERT(nLength >= 4 && list.substr(nLength - 4) == "\r\n\r\n", "the list's end");
    list.resize(nLength - 4);
    ORX_ASSERT(list.empty() || list.back() == '\n', "whole lines");
    auto nLines = size_t(std::count(list.begin(), list.end(), '\n'));
    ORX_ASSERT(nLines <= nBytes / strlen("Address: "), "no line without a network");
    ORX_ASSERT(list.size() <= nLines * 512, "no line longer than its parts");
    return 0;
}
