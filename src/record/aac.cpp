#include "record/aac.h"

#include <strings.h>

#include <cstring>

#include "base/textnumber.h"
#include "record/sdpreader.h"

namespace orx {

static int IsWord(std::string_view text, const char *szWord)
{
    return text.size() == strlen(szWord) && strncasecmp(text.data(), szWord, text.size()) == 0;
}

static int IsNumber(std::string_view format, const char *szName, int nNumber, int nDefault)
{
    std::string_view value = SdpFormatValue(format, szName);
    return (value.empty() ? nDefault : TextToInt(value)) == nNumber;
}

int AacIsRecorded(std::string_view format)
{
    if (!IsWord(SdpFormatValue(format, "mode"), "AAC-hbr"))
        return 0;
    for (const char *szName : {"CTSDeltaLength", "DTSDeltaLength", "randomAccessIndication",
                               "streamStateIndication", "auxiliaryDataSizeLength"})
        if (!IsNumber(format, szName, 0, 0))
            return 0;
    return IsNumber(format, "sizeLength", 13, 13) && IsNumber(format, "indexLength", 3, 3) &&
           IsNumber(format, "indexDeltaLength", 3, 3);
}

// The first bits of a configuration in hexadecimal digits, up to 32; those that are missing are 0.
static uint32_t LeadingBits(std::string_view hex)
{
    uint32_t nBits = 0;
    for (size_t i = 0; i < 8; i++) {
        char ch = i < hex.size() ? hex[i] : '0';
        const char *szDigits = "0123456789abcdef0123456789ABCDEF";
        const char *p = ch ? strchr(szDigits, ch) : nullptr;
        nBits = nBits << 4 | (p ? static_cast<uint32_t>(p - szDigits) & 0x0F : 0);
    }
    return nBits;
}

// ISO/IEC 14496-3, 1.6.2.1: 5 bits of object type, 4 of the sampling rate, 4 of channels; then, of most
// object types, whether a unit has 960 samples. With a rate that is half of the clock's each sample counts
// twice.
uint32_t AacUnitTicks(std::string_view format, uint32_t nRate)
{
    static const uint32_t rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000,  7350};
    uint32_t nBits = LeadingBits(SdpFormatValue(format, "config"));
    uint32_t nObject = nBits >> 27;
    uint32_t nIndex = nBits >> 23 & 0x0F;
    if (nObject == 0 || nIndex >= sizeof(rates) / sizeof(rates[0]))
        return 1024;
    uint32_t nSamples = nObject <= 4 && (nBits >> 18 & 1) ? 960 : 1024;
    return rates[nIndex] * 2 == nRate ? nSamples * 2 : nSamples;
}

}  // namespace orx
