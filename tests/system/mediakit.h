// Programs of which a test knows every byte: what a camera sends, what players make of what they get, and
// what a recording holds of it.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "client/h264file.h"
#include "client/rtppack.h"
#include "client/rtspclient.h"

namespace orx {

enum class Coding { H264, JPEG, G711, EVENTS };

// A picture or a piece of sound as a decoder is given it: H.264 with start codes, anything else as the
// payloads joined.
struct MediaUnit {
    uint32_t nTimeMs = 0;
    std::string data;
};
using MediaUnits = std::vector<MediaUnit>;

std::string JoinData(const MediaUnits &units);

struct CameraTrack {
    Coding codec;
    RtpStream stream;
    MediaUnits sent;
};

// A camera with a track for each codec, video first. Pictures come 40 ms apart, with sound of 20 ms pieces.
// H.264 is the clip of the test data, over and over, with a key picture every second.
struct Camera {
    explicit Camera(const std::vector<Coding> &codecs);
    std::string Sdp() const;
    int Open(const std::string &url, const std::string &moreSdp = "");
    // Sends the next pictures with the sound between them, as fast as the server takes them; with bWait it
    // has taken them then. Failures are test failures.
    void Send(int nPictures, bool bWait = true);
    // Sends RECORDEX. Returns "200 OK" and the like.
    std::string Record(const std::string &param);

    RtspClient client;
    std::deque<CameraTrack> tracks;
    H264File clip;
    int nPicture = 0;          // sent so far
    size_t nJpegBytes = 2000;  // of the smallest JPEG picture
};

// A player that keeps every packet. Its first track is video.
struct Viewer {
    RtspClient client;
    RtspTransport transport;
    std::vector<std::vector<std::string>> packets;  // of each track
    std::vector<std::string> reports;               // RTCP of all tracks
    size_t nPictures = 0;

    explicit Viewer(RtspTransport nTransport = RTSP_OVER_TCP) : transport(nTransport) {}
    // DESCRIBE and SETUP of all tracks. Returns 1 or 0.
    int Prepare(const std::string &url);
    // PLAY, from where it is asked. Returns the reply.
    std::string Play(const std::string &range = "");
    // Both. Returns 1 or 0.
    int Open(const std::string &url);
    void Poll();  // takes what is there
    // What a decoder gets. A recording's time stamps begin at 0.
    MediaUnits Units(size_t nTrack, Coding codec) const;
    // Datagrams that the machine has dropped because the test did not read in time: nothing can be expected
    // of a player that has lost some.
    unsigned Dropped() const;
};

// Polls players until each has so many pictures, or the condition holds. Returns whether that came.
bool WatchPictures(const std::vector<Viewer *> &viewers, size_t nPictures);
bool Watch(const std::vector<Viewer *> &viewers, const std::function<bool()> &done, int nMs = 60000);

// Whether a player got the camera's pictures and their sound: up to the last ones, whole and in order, at the
// times that the recording gives them. Waits for the rest of the sound.
void ExpectAllOf(const Camera &camera, Viewer *pViewer);

// --- Recordings ---

// The times of the video records that are whole.
std::vector<uint32_t> PictureTimes(const std::string &file);
inline size_t CountPictures(const std::string &file)
{
    return PictureTimes(file).size();
}
// The files below a directory, sorted, by their paths from there.
std::vector<std::string> FilesBelow(const std::string &dir);

}  // namespace orx
