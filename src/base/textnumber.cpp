#include "base/textnumber.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace orx {

int TextToInt(std::string_view text)
{
    size_t i = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    int bMinus = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        i++;
    int64_t nValue = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9' && nValue <= INT_MAX; i++)
        nValue = nValue * 10 + (text[i] - '0');
    return static_cast<int>(std::clamp<int64_t>(bMinus ? -nValue : nValue, INT_MIN, INT_MAX));
}

uint32_t NptToMs(const char *sz)
{
    constexpr float kLongest = 2000000;  // 23 days; more milliseconds than that leave 31 bits
    float fSeconds = std::clamp(strtof(sz, nullptr), 0.0F, kLongest);
    auto nSeconds = static_cast<uint32_t>(fSeconds);
    return nSeconds * 1000 + static_cast<uint32_t>(fSeconds * 1000) % 1000;
}

}  // namespace orx
