// The tracks of a session description, as a player needs them for its SETUP requests (RFC 2327). Any thread.
// Written apart from the server's own, which it helps to test (see rtspclient.h).
#pragma once

#include <string>
#include <vector>

namespace orx {

struct SdpTrack {
    std::string media;     // "video", "audio", "data"
    std::string encoding;  // "H264"; from "a=rtpmap:"
    int nPayloadType = -1;
    int nClockRate = 0;
    std::string control;  // the value of "a=control:", such as "trackID=0"
};

// The media sections in the order of the text. Attributes count for the section that they stand in.
std::vector<SdpTrack> SdpScan(const std::string &sdp);

// The URL of a track's SETUP: the control as it is when it is a whole URL, else behind the program's URL.
std::string SdpTrackUrl(const std::string &programUrl, const SdpTrack *pTrack);

}  // namespace orx
