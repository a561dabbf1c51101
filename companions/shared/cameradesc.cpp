#include "shared/cameradesc.h"

#include <strings.h>

#include <algorithm>

#include "base/textnumber.h"

namespace orx {

constexpr std::string_view kLineEnds("\r\n\0", 3);

// Payload types that need no "a=rtpmap:" (RFC 3551, section 6).
static const struct {
    int nPayloadType;
    const char *szMap;
} kStaticTypes[] = {
    {0, "PCMU/8000"},   {3, "GSM/8000"},   {4, "G723/8000"},   {5, "DVI4/8000"},    {6, "DVI4/16000"},
    {7, "LPC/8000"},    {8, "PCMA/8000"},  {9, "G722/8000"},   {10, "L16/44100/2"}, {11, "L16/44100/1"},
    {12, "QCELP/8000"}, {14, "MPA/90000"}, {15, "G728/8000"},  {18, "G729/8000"},   {26, "JPEG/90000"},
    {31, "H261/90000"}, {32, "MPV/90000"}, {33, "MP2T/90000"}, {34, "H263/90000"},
};

static std::string_view TakeLine(std::string_view *pText)
{
    std::string_view line = pText->substr(0, pText->find_first_of(kLineEnds));
    pText->remove_prefix(line.size());
    pText->remove_prefix(std::min(pText->find_first_not_of(kLineEnds), pText->size()));
    return line;
}

static std::string_view Trim(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return text.substr(0, text.find_last_not_of(" \t") + 1);
}

static std::string_view TakeWord(std::string_view *pText)
{
    *pText = Trim(*pText);
    std::string_view word = pText->substr(0, pText->find_first_of(" \t"));
    pText->remove_prefix(word.size());
    *pText = Trim(*pText);
    return word;
}

// Takes a start such as "a=rtpmap:" off, without regard to case. Returns 1 or 0.
static int TakeStart(std::string_view *pLine, std::string_view start)
{
    if (pLine->size() < start.size() || strncasecmp(pLine->data(), start.data(), start.size()) != 0)
        return 0;
    pLine->remove_prefix(start.size());
    return 1;
}

static int ReadType(std::string_view word)
{
    int bNumber =
        !word.empty() && word.size() <= 3 && word.find_first_not_of("0123456789") == std::string_view::npos;
    int nType = bNumber ? TextToInt(word) : -1;
    return nType <= 127 ? nType : -1;
}

static void TakeMap(std::string_view map, PlayTrack *pTrack)
{
    pTrack->rtpmap = map;
    size_t nSlash = map.find('/');
    pTrack->encoding = Trim(map.substr(0, nSlash));
    if (nSlash == std::string_view::npos)
        return;
    map.remove_prefix(nSlash + 1);
    pTrack->nClockRate = std::max(TextToInt(map), 0);
    nSlash = map.find('/');
    if (nSlash != std::string_view::npos)
        pTrack->nChannels = std::clamp(TextToInt(map.substr(nSlash + 1)), 1, 255);
}

static void BeginTrack(std::string_view line, PlayDescription *pOut)
{
    PlayTrack track;
    track.media = TakeWord(&line);
    TakeWord(&line);  // the port
    std::string_view protocol = TakeWord(&line);
    if (TakeStart(&protocol, "RTP/AVP"))
        track.nPayloadType = ReadType(TakeWord(&line));
    for (const auto &type : kStaticTypes)
        if (type.nPayloadType == track.nPayloadType)
            TakeMap(type.szMap, &track);
    pOut->tracks.push_back(track);
}

// A line of a section.
static void TakeAttribute(std::string_view line, PlayTrack *pTrack)
{
    if (TakeStart(&line, "a=control:")) {
        pTrack->control = Trim(line);
    } else if (TakeStart(&line, "a=rtpmap:")) {
        if (ReadType(TakeWord(&line)) == pTrack->nPayloadType && pTrack->nPayloadType >= 0)
            TakeMap(line, pTrack);
    } else if (TakeStart(&line, "a=fmtp:")) {
        if (ReadType(TakeWord(&line)) == pTrack->nPayloadType && pTrack->fmtp.empty())
            pTrack->fmtp = line;
    }
}

int CameraDescRead(std::string_view sdp, PlayDescription *pOut, std::string *pControl)
{
    pOut->sdp = sdp;
    while (!sdp.empty()) {
        std::string_view line = TakeLine(&sdp);
        if (TakeStart(&line, "m=")) {
            if (pOut->tracks.size() == kMostCameraTracks)
                break;
            BeginTrack(line, pOut);
        } else if (!pOut->tracks.empty()) {
            TakeAttribute(line, &pOut->tracks.back());
        } else if (TakeStart(&line, "s=")) {
            pOut->title = Trim(line);
        } else if (TakeStart(&line, "a=control:")) {
            *pControl = Trim(line);
        }
    }
    return !pOut->tracks.empty();
}

// --- URLs ---

// A URL, or a path from the host's root on; empty for anything else.
static std::string Absolute(const CameraUrl *pHome, std::string_view given)
{
    given = Trim(given);
    CameraUrl url;
    std::string root = CameraUrlRoot(pHome);
    std::string_view start("/", 1);
    if (given.substr(0, 1) == start && given.substr(0, 2) != "//" &&
        CameraUrlParse(root + std::string(given), &url))
        return root + url.path;
    return CameraUrlAtHome(pHome, given);
}

std::string CameraDescBase(const CameraUrl *pHome, const std::string &contentBase,
                           const std::string &contentLocation)
{
    for (const std::string *pGiven : {&contentBase, &contentLocation}) {
        std::string base = Absolute(pHome, *pGiven);
        if (!base.empty())
            return base;
    }
    return CameraUrlPlain(pHome);
}

int CameraDescIsUrl(const std::string &control)
{
    return strncasecmp(control.c_str(), "rtsp://", 7) == 0 ||
           strncasecmp(control.c_str(), "rtsps://", 8) == 0;
}

std::string CameraDescUrl(const CameraUrl *pHome, const std::string &base, const std::string &control)
{
    if (control.empty() || control == "*")
        return base;
    CameraUrl whole, home;
    if (CameraDescIsUrl(control)) {
        std::string url = CameraUrlAtHome(pHome, control);
        return url.empty() ? base : url;
    }
    std::string joined = base;
    if (!CameraUrlParse(base, &home))
        return base;
    if (control[0] == '/' && home.path.size() > 1 && control.compare(0, home.path.size(), home.path) == 0)
        joined = CameraUrlRoot(pHome) + control;  // a path from the root, that of the program included
    else if (joined.back() == '/' || control[0] == '/')
        joined += joined.back() == '/' && control[0] == '/' ? control.substr(1) : control;
    else
        joined += "/" + control;
    return CameraUrlParse(joined, &whole) ? CameraUrlPlain(&whole) : base;  // blanks become "%20"
}

}  // namespace orx
