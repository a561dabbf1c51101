#include "client/mediastamp.h"

#include <cstring>

#include "base/bytes.h"

namespace orx {

constexpr char kMark[] = "orx-send-time-us";  // 16 bytes, the identifier of the user data
constexpr size_t kMarkBytes = 16;
constexpr size_t kDigits = 16;
constexpr uint8_t kSei = 6, kUserData = 5, kStapA = 24;
static_assert(sizeof kMark == kMarkBytes + 1);

std::string StampData(uint64_t nUs)
{
    static const char digits[] = "0123456789abcdef";
    std::string out = kMark;
    for (int nShift = 60; nShift >= 0; nShift -= 4)
        out += digits[nUs >> nShift & 15];
    return out;
}

std::string StampUnit(uint64_t nUs)
{
    std::string out{kSei, kUserData, static_cast<char>(kMarkBytes + kDigits)};
    return out + StampData(nUs) + '\x80';
}

static uint64_t ReadStamp(const uint8_t *p, size_t nBytes)
{
    uint64_t nUs = 0;
    if (nBytes < kMarkBytes + kDigits || memcmp(p, kMark, kMarkBytes) != 0)
        return 0;
    for (size_t i = kMarkBytes; i < kMarkBytes + kDigits; i++)
        nUs = nUs << 4 | (p[i] <= '9' ? p[i] - '0' : p[i] - 'a' + 10U);
    return nUs;
}

static uint64_t ReadUnit(const uint8_t *p, size_t nBytes)
{
    return nBytes > 3 && (p[0] & 0x1F) == kSei && p[1] == kUserData ? ReadStamp(p + 3, nBytes - 3) : 0;
}

uint64_t StampFind(const uint8_t *pPayload, size_t nBytes)
{
    if (nBytes == 0)
        return 0;
    if ((pPayload[0] & 0x1F) != kStapA)
        return pPayload[0] == kMark[0] ? ReadStamp(pPayload, nBytes) : ReadUnit(pPayload, nBytes);
    ByteReader in{pPayload + 1, nBytes - 1};
    while (in.nLeft > 2) {
        size_t nUnit = ReadBe(&in, 2);
        const uint8_t *pUnit = ReadBytes(&in, nUnit);
        uint64_t nUs = pUnit ? ReadUnit(pUnit, nUnit) : 0;
        if (nUs || !pUnit)
            return nUs;
    }
    return 0;
}

}  // namespace orx
