// What orxpush sends: the pictures of a file and the sound, with the description that goes with them.
#pragma once

#include <string>
#include <vector>

#include "client/h264file.h"
#include "client/jpegfile.h"
#include "options.h"

namespace orx {

constexpr int kVideoPayload = 96, kAudioPayload = 8, kJpegPayload = 26, kDataPayload = 98;
constexpr int kVideoClock = 90000, kAudioClock = 8000, kDataClock = 1000;

struct PushSource {
    int bJpeg = 0;
    H264File h264;
    std::vector<std::string> jpegFiles;  // their contents
    std::vector<JpegPicture> jpegs;      // views into jpegFiles
    std::string audio;                   // A-law; empty: a tone
    int nWidth = 0, nHeight = 0;
};

// Loads what the options name. Returns 1, or 0 after saying on standard error what is wrong.
int PushLoadSource(const PushOptions *pOptions, PushSource *pOut);

size_t PushPictureCount(const PushSource *pSource);
int PushPictureIsKey(const PushSource *pSource, size_t nPicture);

// The session description of a program of that name.
std::string PushDescription(const PushOptions *pOptions, const PushSource *pSource, const std::string &name);

}  // namespace orx
