// A send time that travels in the media itself, so that whoever receives it on the same machine can tell how
// long it was under way. In H.264 it is user data in a SEI unit (ITU-T H.264, D.1.6), which decoders pass
// over; on a data track it is the packet's payload. The time is written as text, so that no byte sequence
// needs escaping. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orx {

std::string StampUnit(uint64_t nUs);  // a whole SEI unit, without start code
std::string StampData(uint64_t nUs);  // the payload of a data packet

// The stamp in a packet's payload (a SEI unit, one inside a STAP-A, or data), or 0.
uint64_t StampFind(const uint8_t *pPayload, size_t nBytes);

}  // namespace orx
