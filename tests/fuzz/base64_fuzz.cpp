// Base64 both ways: what is encoded decodes to itself, and any text decodes within the room it is promised.
#include "base/base64.h"

#include "fuzz/fuzz.h"

using namespace orx;

static void CheckRoundTrip(const uint8_t *pData, size_t nBytes)
{
    size_t nSize = Base64EncodedSize(nBytes);
    std::unique_ptr<char[]> text(new char[nSize]), bytes(new char[nBytes + 1]);
    ORX_ASSERT(Base64EncodeCount(text.get(), pData, nBytes) == nSize, "the size is the one foretold");
    ORX_ASSERT(Base64PaddedLength(text.get()) == nSize - 1, "all of it is of the alphabet");
    char *pEnd = Base64Decode(text.get(), bytes.get(), 0);
    ORX_ASSERT(pEnd == bytes.get() + nBytes && memcmp(bytes.get(), pData, nBytes) == 0, "decoded as encoded");
    ORX_ASSERT(Base64DecodeStrict(bytes.get(), text.get()) == nBytes && memcmp(bytes.get(), pData, nBytes) == 0,
               "strictly, too");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    CheckRoundTrip(pData, nBytes);
    const std::string text = Text(pData, nBytes);
    auto copy = Exact<char>(text.c_str(), nBytes + 1);
    std::unique_ptr<char[]> out(new char[nBytes / 4 * 3 + 4]);
    Base64DecodeStrict(out.get(), copy.get());
    const char *pEnd = Base64Decode(copy.get(), out.get(), nBytes);
    const char *pEndInPlace = Base64Decode(copy.get(), copy.get(), nBytes);
    ORX_ASSERT(!pEnd == !pEndInPlace, "refused alike in place");
    ORX_ASSERT(!pEnd || Text(out.get(), size_t(pEnd - out.get()) + 1) ==
                            Text(copy.get(), size_t(pEndInPlace - copy.get()) + 1),
               "the same in place");
    return 0;
}
