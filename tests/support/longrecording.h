// A recording of very many small records, which takes long to look through.
#pragma once

#include <string>

#include "record/recordwalk.h"
#include "support/files.h"
#include "support/rtp.h"

namespace orx {

constexpr uint32_t kLongMs = 999000;  // its end, with the second key frame; the first is its begin

// bClosed: its header tells the duration. Nothing in it says where to look for a time.
inline void WriteLongRecording(const std::string &path, uint32_t nRecords, int bClosed)
{
    const std::string sdp = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
    const std::string picture("\0\4\x67\0", 4);
    auto record = [](char chMedia, uint8_t nFlags, uint32_t nTimeMs, const std::string &data) {
        return Be(static_cast<uint32_t>(data.size()) + 8, 2) + chMedia + Be(nFlags, 1) + Be(nTimeMs, 4) + data;
    };
    ZMFileHeader head;
    head.nSdpSize = 96;
    head.uDuration = bClosed ? kLongMs + 1 : 0;
    std::string file(kZmfHeadBytes + kZmfIdxBytes, '\0');
    ZMFileHeaderEncode(&head, reinterpret_cast<uint8_t *>(file.data()));
    file += sdp + std::string(96 - sdp.size(), '\0') + record('v', ZMF_KEY, 0, picture);
    for (uint32_t i = 0; i < nRecords; i++)
        file += record('u', 0, 1, "");
    WriteFile(path, file + record('v', ZMF_KEY, kLongMs, picture));
}

}  // namespace orx
