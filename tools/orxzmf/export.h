// Recordings in forms that other programs read.
#pragma once

#include <cstdint>
#include <string>

#include "recording.h"

namespace orx {

// Writes the recording as the ending of szOut says: those that the table of codecs names (.h264, .amr, ...)
// are the bare media, .mp4 and .mkv files with time stamps, key frames and audio. Returns 1, or 0 with the
// reason on standard error; no file is left then.
int ExportRecording(Recording *pRecording, const std::string &out);

// The picture of a sample as a byte stream with start codes (FORM_UNITS) or as a JFIF image (FORM_JPEG).
// Returns 1, or 0 when it is broken.
int ExportPicture(SampleForm nForm, const Sample &sample, std::string *pOut);

// Pictures that an export leaves out.
struct Damage {
    uint32_t nPictures = 0;
    uint32_t nFirstMs = 0;  // when the first of them was recorded
};
void NoteDamage(Damage *pDamage, const Sample &sample);
// Says on standard error what of a recording that was read to its end is missing in the export.
void SayDamage(const Recording *pRecording, const Damage &damage);

// The .mp4 and .mkv half: present when Debian's libavformat was there at build time, a message otherwise.
int ExportContainer(Recording *pRecording, const std::string &out);

}  // namespace orx
