// Programs of which a test knows every byte: what a camera sends, and what players make of what they get.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "client/h264file.h"
#include "client/rtppack.h"
#include "client/rtspclient.h"

namespace orx {

enum class Codec { H264, JPEG, G711, AMR_NB, AMR_WB, EVENTS };

// A picture, a piece of sound or a message, as a decoder is given it: H.264 and JPEG as units or payloads
// that are each preceded by a 4-byte length, AMR as storage-format frames.
struct MediaUnit {
    uint32_t nTimeMs = 0;
    bool bKey = false;
    std::string data;
    bool operator==(const MediaUnit &other) const { return data == other.data; }
};

std::ostream &operator<<(std::ostream &out, const MediaUnit &unit);

using MediaUnits = std::vector<MediaUnit>;

std::string JoinData(const MediaUnits &units);

// What a decoder gets out of the RTP packets of one track. Units that are not whole are left out.
// nTicksPerMs: of the track's RTP clock. pnLost, when not null: packets whose numbers are missing.
MediaUnits TakeApart(Codec codec, const std::vector<std::string> &packets, uint32_t nTicksPerMs,
                     int *pnLost = nullptr);

// The packets of one channel in a dump of '$' frames.
std::vector<std::string> ReadDump(const std::string &dump, int nChannel);

struct CameraTrack {
    Codec codec;
    RtpStream stream;
    uint32_t nTicksPerMs = 0;
    int nChannel = 0;
    MediaUnits sent;
};

// A camera with a track for each codec, video first. Pictures come 40 ms apart, a key picture every 25; with
// sound every 20 ms. H.264 is the clip of the test data, over and over.
struct Camera {
    explicit Camera(const std::vector<Codec> &codecs);
    std::string Sdp() const;
    int Open(const std::string &url, const std::string &moreSdp = "");
    // Sends the next pictures with the sound between them, as fast as the server takes them. Failures are
    // test failures.
    void Send(int nPictures);
    // An event of the last track.
    void SendEvent(const std::string &text);
    // Waits until the server has taken all of it.
    void Flush();

    RtspClient client;
    std::deque<CameraTrack> tracks;
    H264File clip;
    int nPicture = 0;          // sent so far
    size_t nJpegBytes = 2000;  // of the smallest JPEG picture
    uint32_t nFirstMs = 1000;  // media time of the first picture
};

// A player that keeps every packet.
struct Viewer {
    RtspClient client;
    RtspTransport transport;
    std::vector<std::vector<std::string>> packets;  // of each track
    std::vector<std::vector<uint64_t>> arrivals;    // monotonic us, of each packet
    std::vector<std::string> reports;               // RTCP of all tracks

    explicit Viewer(RtspTransport nTransport = RTSP_OVER_TCP) : transport(nTransport) {}
    // DESCRIBE and SETUP of all tracks. Returns 1 or 0.
    int Prepare(const std::string &url);
    // A request that is answered by 200; the reply without what differs from run to run, "" for no reply.
    std::string Request(const std::string &method, const std::string &headers = "");
    void Poll();  // takes what is there
    void Forget();
    size_t Packets() const;  // of all tracks
    MediaUnits Units(size_t nTrack, Codec codec, int *pnLost = nullptr) const;
};

// Polls the players until the condition holds; returns whether it does in nMs.
bool Watch(const std::vector<Viewer *> &viewers, const std::function<bool()> &done, int nMs);
// Polls them until none has got anything for nMs.
void WatchToTheEnd(const std::vector<Viewer *> &viewers, int nMs = 1500);

// Sends RECORDEX on a connection that has a program. Returns "200 OK" and the like.
std::string RecordEx(RtspClient *pClient, const std::string &param);

// The files below a directory, sorted, by their paths from there.
std::vector<std::string> FilesBelow(const std::string &dir);

}  // namespace orx
