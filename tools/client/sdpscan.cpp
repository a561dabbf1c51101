#include "client/sdpscan.h"

#include <cstdlib>
#include <cstring>

namespace orx {

static const char *After(const std::string &line, const char *szStart)
{
    size_t nLen = strlen(szStart);
    return line.compare(0, nLen, szStart) == 0 ? line.c_str() + nLen : nullptr;
}

// "video 0 RTP/AVP 96"
static SdpTrack ScanMedia(const char *szValue)
{
    SdpTrack track;
    track.media.assign(szValue, strcspn(szValue, " "));
    const char *pLast = strrchr(szValue, ' ');
    track.nPayloadType = pLast ? static_cast<int>(strtol(pLast, nullptr, 10)) : -1;
    return track;
}

// "96 H264/90000"
static void ScanRtpMap(const char *szValue, SdpTrack *pTrack)
{
    char *pEnd = nullptr;
    pTrack->nPayloadType = static_cast<int>(strtol(szValue, &pEnd, 10));
    const char *pName = pEnd + strspn(pEnd, " ");
    pTrack->encoding.assign(pName, strcspn(pName, "/"));
    if (pName[pTrack->encoding.size()])
        pTrack->nClockRate = static_cast<int>(strtol(pName + pTrack->encoding.size() + 1, nullptr, 10));
}

std::vector<SdpTrack> SdpScan(const std::string &sdp)
{
    std::vector<SdpTrack> tracks;
    for (size_t nAt = 0, nEnd; nAt < sdp.size(); nAt = nEnd + 1) {
        nEnd = sdp.find('\n', nAt);
        if (nEnd == std::string::npos)
            nEnd = sdp.size();
        std::string line = sdp.substr(nAt, nEnd - nAt);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (const char *szMedia = After(line, "m="))
            tracks.push_back(ScanMedia(szMedia));
        if (tracks.empty())
            continue;
        if (const char *szControl = After(line, "a=control:"))
            tracks.back().control = szControl;
        if (const char *szMap = After(line, "a=rtpmap:"))
            ScanRtpMap(szMap, &tracks.back());
    }
    return tracks;
}

std::string SdpTrackUrl(const std::string &programUrl, const SdpTrack *pTrack)
{
    if (pTrack->control.find("://") != std::string::npos)
        return pTrack->control;
    return programUrl + (programUrl.empty() || programUrl.back() == '/' ? "" : "/") + pTrack->control;
}

}  // namespace orx
