// Heads of HTTP requests, and what is decoded of them.
#include "base/httphead.h"

#include "base/jsontext.h"
#include "fuzz/fuzz.h"

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    const std::string text = Text(pData, nBytes);
    auto copy = Exact<char>(text.c_str(), nBytes);
    HttpHead head;
    char szValue[64];
    if (HttpHeadRead({copy.get(), nBytes}, &head) != HTTP_HEAD_WHOLE)
        return 0;
    ORX_ASSERT(head.nBytes <= nBytes && !head.path.empty() && head.path[0] == '/', "a head that is whole");
    HttpQueryValue(head.query, "program", szValue, sizeof(szValue));
    JsonText json;
    JsonString(&json, nullptr, head.query);
    ORX_ASSERT(json.nLen >= head.query.size() + 2, "nothing is left out");
    JsonFree(&json);
    return 0;
}
