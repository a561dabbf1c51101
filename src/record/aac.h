// AAC as standard encoders send it: RFC 3640, mode AAC-hbr. Any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace orx {

constexpr uint32_t kAacHeadersBytes = 2;  // before the headers of a packet: their length in bits
constexpr uint32_t kAacHeaderBytes = 2;   // of one unit: 13 bits of size, 3 of index
constexpr uint32_t kMaxAacUnit = 0x1FFF;

// Whether a format line promises packets of that form.
int AacIsRecorded(std::string_view format);
// How far one unit goes on the track's clock of nRate Hz: 1024 samples, or as its configuration says.
uint32_t AacUnitTicks(std::string_view format, uint32_t nRate);

}  // namespace orx
