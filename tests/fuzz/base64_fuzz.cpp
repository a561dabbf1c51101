// Base64 both ways: what is encoded decodes to itself, and any text decodes within the room it is promised.
#include "base/base64.h"

#include <cstdint>
#include <cstring>

#include <memory>
#include <string>

#include "base/assertion.h"

using namespace orx;

namespace {

// Room of a very size, so that the address sanitizer sees a step past its end.
std::unique_ptr<char[]> Room(size_t nSize)
{
    return std::unique_ptr<char[]>(new char[nSize]);
}

void CheckRoundTrip(const uint8_t *pData, size_t nBytes)
{
    size_t nSize = Base64EncodedSize(nBytes);
    auto text = Room(nSize), bytes = Room(nBytes + 1);
    ORX_ASSERT(Base64EncodeCount(text.get(), pData, nBytes) == nSize, "the size is the one foretold");
    ORX_ASSERT(Base64PaddedLength(text.get()) == nSize - 1, "all of it is of the alphabet");
    char *pEnd = Base64Decode(text.get(), bytes.get(), 0);
    ORX_ASSERT(pEnd == bytes.get() + nBytes && memcmp(bytes.get(), pData, nBytes) == 0, "decoded as encoded");
    ORX_ASSERT(
        Base64DecodeStrict(bytes.get(), text.get()) == nBytes && memcmp(bytes.get(), pData, nBytes) == 0,
        "strictly, too");
}

void CheckAnyText(const std::string &text)
{
    auto copy = Room(text.size() + 1), out = Room(text.size() / 4 * 3 + 4);
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    Base64DecodeStrict(out.get(), copy.get());
    const char *pEnd = Base64Decode(copy.get(), out.get(), text.size());
    const char *pEndInPlace = Base64Decode(copy.get(), copy.get(), text.size());
    ORX_ASSERT(!pEnd == !pEndInPlace, "refused alike in place");
    if (!pEnd)
        return;
    auto nLen = size_t(pEnd - out.get());
    ORX_ASSERT(pEndInPlace == copy.get() + nLen && memcmp(out.get(), copy.get(), nLen + 1) == 0,
               "the same in place");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    AssertSurvivePeerFaults(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    CheckRoundTrip(pData, nBytes);
    CheckAnyText(std::string(reinterpret_cast<const char *>(pData), nBytes));
    return 0;
}
