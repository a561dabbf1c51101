// Descriptions of cameras, and the URLs that they and their headers lead to: a line each of Content-Base and
// Content-Location, then the text. Whatever it says, requests stay at the camera and in one line.
#include "shared/cameradesc.h"

#include "fuzz/fuzz.h"

using namespace orx;

static void CheckText(const std::string &text)
{
    ORX_ASSERT(text.find_first_of(std::string("\r\n\0", 3)) == std::string::npos, "in one line");
}

static void CheckTrack(const PlayTrack *pTrack)
{
    for (const std::string *pText : {&pTrack->media, &pTrack->encoding, &pTrack->rtpmap, &pTrack->fmtp})
        CheckText(*pText);
    ORX_ASSERT(pTrack->nPayloadType >= -1 && pTrack->nPayloadType < 128, "a payload type");
    ORX_ASSERT(pTrack->nClockRate >= 0 && pTrack->nChannels >= 1, "a clock and channels");
}

static void CheckUrl(const CameraUrl *pHome, const std::string &url)
{
    CameraUrl parsed;
    CheckText(url);
    ORX_ASSERT(url.find_first_of(" \t") == std::string::npos, "a word of a request");
    ORX_ASSERT(CameraUrlParse(url, &parsed) && parsed.host == pHome->host && parsed.nPort == pHome->nPort &&
                   parsed.user.empty(),
               "at the camera");
}

static std::string TakeLine(std::string *pText)
{
    size_t nEnd = std::min(pText->find('\n'), pText->size());
    std::string line = pText->substr(0, nEnd);
    pText->erase(0, std::min(nEnd + 1, pText->size()));
    return line;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    CameraUrl home;
    PlayDescription description;
    std::string text = Text(pData, nBytes), control;
    std::string contentBase = TakeLine(&text), contentLocation = TakeLine(&text);
    ORX_ASSERT(CameraUrlParse("rtsp://[::1]:8554/live?ch=1", &home), "home");
    auto exact = Exact<char>(text.data(), text.size());
    CameraDescRead({exact.get(), text.size()}, &description, &control);
    ORX_ASSERT(description.tracks.size() <= kMostCameraTracks, "so many tracks");
    std::string base = CameraDescBase(&home, contentBase, contentLocation);
    CheckUrl(&home, base);
    CheckUrl(&home, CameraDescUrl(&home, base, control));
    CheckText(description.title);
    for (const PlayTrack &track : description.tracks) {
        CheckTrack(&track);
        CheckUrl(&home, CameraDescUrl(&home, base, track.control));
    }
    return 0;
}
