// Big-endian numbers and boxes at the end of a text. Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "base/bytes.h"

namespace orx {

inline void ClipPut(std::string *pOut, size_t nBytes, uint64_t nValue)
{
    for (size_t i = nBytes; i-- > 0;)
        *pOut += static_cast<char>(nValue >> (8 * i));
}

// Begins a box (ISO 14496-12, 4.2); its length is put in where it ends.
inline size_t ClipBoxBegin(std::string *pOut, const char *szType)
{
    size_t nAt = pOut->size();
    ClipPut(pOut, 4, 0);
    pOut->append(szType, 4);
    return nAt;
}
inline size_t ClipFullBoxBegin(std::string *pOut, const char *szType, uint32_t nVersion, uint32_t nFlags)
{
    size_t nAt = ClipBoxBegin(pOut, szType);
    ClipPut(pOut, 4, nVersion << 24 | nFlags);
    return nAt;
}
inline void ClipBoxEnd(std::string *pOut, size_t nAt)
{
    PutBe(pOut->data() + nAt, 4, static_cast<uint32_t>(pOut->size() - nAt));
}

}  // namespace orx
