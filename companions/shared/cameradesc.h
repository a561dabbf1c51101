// Session descriptions (RFC 4566) as cameras write them, and the URLs of their tracks: read leniently, for
// what a camera gets wrong every other player has learnt to pass over. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "shared/cameraurl.h"
#include "shared/rtspplay.h"

namespace orx {

constexpr size_t kMostCameraTracks = 16;

// Reads a description: pOut->tracks, title and sdp; *pControl is the control of the session as a whole, empty
// where it has none. Sections that are not RTP, or encrypted (RTP/SAVP), are tracks without a
// payload type. Returns 1, or 0 for one
// without any section.
int CameraDescRead(std::string_view sdp, PlayDescription *pOut, std::string *pControl);

// The URL that controls are relative to: Content-Base, else Content-Location, else the one that was asked
// for. Values may be empty. Without its host's address where that is another's (see CameraUrlAtHome).
std::string CameraDescBase(const CameraUrl *pHome, const std::string &contentBase,
                           const std::string &contentLocation);

// Whether a control is a whole URL.
int CameraDescIsUrl(const std::string &control);

// The URL of a control: the base itself for none and for "*", a whole URL as it is but at our host, anything
// else behind the base and a '/'. Queries stay in front of that, which is how cameras want it.
std::string CameraDescUrl(const CameraUrl *pHome, const std::string &base, const std::string &control);

}  // namespace orx
