// Reading a session description (RFC 4566) as encoders write it: its media sections, and the
// attributes that this system looks at. Texts come from peers and files; nothing is read outside the view
// that is handed in. Where two readers of one description differ, the difference is an argument. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orx {

// Where a tag such as "m=" or "a=rtpmap:" counts.
enum SdpPlace {
    SDP_LINE,        // at the start of a line, lines ending in LF: the lines of a recording's description
    SDP_LINE_OR_CR,  // the same, and behind a lone CR, with which some pushers end their lines
    SDP_ANYWHERE,    // wherever it occurs: names and attributes of pushers are not held to stand alone
};

// Finds the first tag in a text and takes what follows it, to the end of the text. Returns 1, or 0 without
// one.
int SdpFind(std::string_view text, std::string_view tag, SdpPlace nPlace, std::string_view *pValue);
// The text up to the end of its first line, which CR or LF ends.
std::string_view SdpLine(std::string_view text);

// A media section. A reader that wants attributes of the section alone looks into own; one that lends a
// section without lines of its own those of the next looks into rest.
struct SdpSection {
    std::string_view own;   // from its "m=" to the next section
    std::string_view rest;  // from its "m=" to the end of the description
};
struct SdpWalk {
    std::string_view left;  // from the next section on; empty behind the last
    SdpPlace nPlace;        // of "m="
};
SdpWalk SdpSections(std::string_view sdp, SdpPlace nPlace);
// Steps to the next section. Returns 1, or 0 behind the last.
int SdpNextSection(SdpWalk *pWalk, SdpSection *pOut);

// What is used of "m=<media> <port> <protocol> <format> ...".
struct SdpMedia {
    std::string_view media;
    std::string_view format;  // the first: the payload type
};
enum SdpMediaForm {
    SDP_MEDIA_LINE,  // four words in one line
    SDP_MEDIA_SCAN,  // as scanf reads them: the line may be broken, and the port is a number; what is glued
                     // to it ("0/2") counts as the next word
};
// text begins with "m=". Returns 1 when every field is there, else 0.
int SdpReadMedia(std::string_view text, SdpMediaForm nForm, SdpMedia *pOut);
// What a section describes: MEDIA_VIDEO_OTHER, MEDIA_AUDIO_OTHER, MEDIA_DATA, MEDIA_TEXT, or 0 for anything
// else.
uint32_t SdpMediaKind(std::string_view media);

// "a=rtpmap:<type> <name>/<rate>[/<channels>]".
struct SdpRtpMap {
    int nPayloadType = 0;
    std::string_view name;  // may be empty
    int nRate = 0;          // Hz
    int nChannels = 2;      // as it stands; 2 when the line gives none
};
// Returns 1; 0 without such a line; -1 when its blank or its first '/' is missing.
int SdpReadRtpMap(std::string_view text, SdpPlace nPlace, SdpRtpMap *pOut);

// The line of one payload type: a section may list several, such as sound and the keys of a telephone beside
// it. Results as above.
int SdpReadRtpMapOf(std::string_view section, std::string_view format, SdpRtpMap *pOut);

// A copy of a description in which every section whose first payload type is a static one (RFC 3551, section
// 6) has its rtpmap line: encoders leave it out. The caller's, to free; null without memory.
char *SdpWithStaticMaps(const char *szSdp);

// What follows the payload type in the first "a=fmtp:" line; empty without one.
std::string_view SdpReadFormat(std::string_view text);
// The value of a parameter of it, "name=value" between semicolons, the name without regard to case; empty
// when it is not there.
std::string_view SdpFormatValue(std::string_view format, std::string_view name);

// The number in "a=control:trackID=<n>", wherever it occurs. Returns 1, or 0 without one.
int SdpReadTrackId(std::string_view text, int *pTrackId);
// The first control line of a section, to the end of the line; empty without one.
std::string_view SdpReadControl(std::string_view text);
// Whether two sections of sound or pictures have the same control: no SETUP could tell them apart.
int SdpControlsClash(std::string_view sdp);
// The number behind the first '=' of the first control line ("stream=1", "rtsp://host/p/trackID=3"), or -1.
int SdpReadControlNumber(std::string_view text);

// "a=framesize:<type> <width>-<height>", wherever it occurs.
enum SdpFrameSize { SDP_SIZE_NONE, SDP_SIZE_GOOD, SDP_SIZE_NO_WIDTH, SDP_SIZE_NO_HEIGHT };
// bBlanks: more blanks around the width are passed over. Unless good, *pWidth and *pHeight stay.
SdpFrameSize SdpReadFrameSize(std::string_view text, int bBlanks, int *pWidth, int *pHeight);
// The numbers of "a=cliprect:<top>,<left>,<height>,<width>", wherever it occurs; 0 for those that are
// missing. Returns 1, or 0 without the attribute.
int SdpReadClipRect(std::string_view text, int (&numbers)[4]);

// The range of a recording, "a=range:npt=0-<seconds>"; "a=Range:" means the same.
//
// Where the range ends, ms; 0 when szSdp tells none. It counts wherever it occurs.
uint32_t SdpRangeEndMs(const char *szSdp);
// Whether there is a range line.
int SdpHasRange(const char *szSdp);
// Takes every range line out of szSdp.
void SdpRemoveRange(char *szSdp);
// Puts a range line in front of the first "m=" line of the text in a buffer of nSize bytes. Returns 1, or 0,
// text untouched, when there is no such line or no room.
int SdpInsertRange(char *szSdp, size_t nSize, uint32_t nDurationMs);

}  // namespace orx
