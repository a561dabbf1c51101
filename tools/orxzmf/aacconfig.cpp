#include "aacconfig.h"

#include <cstdlib>

#include "base/bytes.h"
#include "record/sdpreader.h"

namespace orx {

constexpr uint32_t kOwnRate = 15;  // the rate itself follows
constexpr uint32_t kOwnType = 31;  // six more bits of object type follow
constexpr uint32_t kTypeSbr = 5;   // the core's type follows the rate with SBR
constexpr uint32_t kTypePs = 29;
constexpr uint32_t kAdtsBytes = 7;
constexpr uint32_t kMostAdtsType = 4;  // two bits
constexpr uint32_t kMostAdtsBytes = 0x1FFF;

namespace {
struct BitReader {
    const std::string *pBytes;
    size_t nBit = 0;
    int bFailed = 0;
};
}  // namespace

static uint32_t ReadBits(BitReader *pIn, size_t nBits)
{
    uint32_t nValue = 0;
    for (; nBits > 0; nBits--, pIn->nBit++) {
        pIn->bFailed |= pIn->nBit / 8 >= pIn->pBytes->size();
        auto nByte = pIn->bFailed ? 0U : static_cast<uint8_t>((*pIn->pBytes)[pIn->nBit / 8]);
        nValue = nValue << 1 | (nByte >> (7 - pIn->nBit % 8) & 1);
    }
    return nValue;
}

static uint32_t ReadType(BitReader *pIn)
{
    uint32_t nType = ReadBits(pIn, 5);
    return nType == kOwnType ? 32 + ReadBits(pIn, 6) : nType;
}

static uint32_t ReadRate(BitReader *pIn)
{
    uint32_t nIndex = ReadBits(pIn, 4);
    if (nIndex == kOwnRate)
        ReadBits(pIn, 24);
    return nIndex;
}

static std::string FromHex(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i + 2 <= text.size(); i += 2) {
        const char sz[3] = {text[i], text[i + 1], '\0'};
        char *pEnd = nullptr;
        out += static_cast<char>(strtoul(sz, &pEnd, 16));
        if (*pEnd != '\0')
            return "";
    }
    return out;
}

int AacConfigRead(const SdpCodec &audio, AacConfig *pOut)
{
    pOut->bytes = FromHex(SdpFormatValue(audio.format, "config"));
    BitReader in{&pOut->bytes};
    pOut->nObjectType = ReadType(&in);
    pOut->nRateIndex = ReadRate(&in);
    pOut->nChannels = ReadBits(&in, 4);
    if (pOut->nObjectType == kTypeSbr || pOut->nObjectType == kTypePs) {
        ReadRate(&in);
        pOut->nObjectType = ReadType(&in);
    }
    return !in.bFailed;
}

std::string AdtsHead(const AacConfig &config, uint32_t nBytes)
{
    uint32_t nAll = nBytes + kAdtsBytes;
    if (config.nObjectType < 1 || config.nObjectType > kMostAdtsType || config.nRateIndex == kOwnRate ||
        config.nChannels > 7 || nAll > kMostAdtsBytes)
        return "";
    uint8_t head[kAdtsBytes] = {0xFF, 0xF1};  // MPEG-4, without a checksum
    PutBe(
        head + 2, 4,
        (config.nObjectType - 1) << 30 | config.nRateIndex << 26 | config.nChannels << 22 | nAll << 5 | 0x1F);
    head[6] = 0xFC;  // a buffer of any fullness, one unit
    return {reinterpret_cast<const char *>(head), sizeof(head)};
}

}  // namespace orx
