// What is shown of a stream of requests: never more than there is room for, and the same however it is cut.
#include "base/printable.h"

#include "fuzz/fuzz.h"

using namespace orx;

static std::string Shown(const uint8_t *pData, size_t nBytes, size_t nPiece)
{
    CredentialMask mask;
    std::string shown;
    for (size_t nAt = 0; nAt < nBytes; nAt += nPiece) {
        size_t n = std::min(nPiece, nBytes - nAt);
        auto piece = Exact<char>(pData + nAt, n);
        std::unique_ptr<char[]> out(new char[n + 1]);
        shown += Text(out.get(), CredentialMaskCopy(&mask, piece.get(), n, out.get()));
    }
    return shown;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    if (nBytes == 0)
        return 0;
    const std::string whole = Shown(pData, nBytes, nBytes);
    ORX_ASSERT(whole == Shown(pData, nBytes, 1 + pData[0] % 7), "the same in pieces");
    for (char c : std::string(PrintableText(whole.c_str()).sz))
        ORX_ASSERT(static_cast<unsigned char>(c) >= ' ' && c != 127, "no control byte");
    return 0;
}
