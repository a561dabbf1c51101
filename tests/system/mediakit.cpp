#include "system/mediakit.h"

#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>

#include "base/bytes.h"
#include "client/rtppacket.h"
#include "support/sockets.h"
#include "support/wait.h"
#include "system/systemtest.h"

namespace orx {

constexpr uint32_t kFirstMs = 1000, kPictureMs = 40;
constexpr int kFuA = 28, kStapA = 24;
const std::string kStartCode("\0\0\0\1", 4);

struct CodecRow {
    uint8_t nPayloadType;
    uint32_t nTicksPerMs;
    uint32_t nPlayedTicks;  // a recording's G.711 is stamped with eight times its time before the clock rate
    const char *szSection;
};

static const CodecRow &RowOf(Coding codec)
{
    static const CodecRow rows[] = {
        {96, 90, 90, "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"},
        {26, 90, 90, "m=video 0 RTP/AVP 26\r\na=rtpmap:26 JPEG/90000\r\n"},
        {8, 8, 64, "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000/1\r\n"},
        {98, 1, 1, "m=data 0 RTP/AVP 98\r\na=rtpmap:98 events/1000\r\n"},
    };
    return rows[static_cast<int>(codec)];
}

std::string JoinData(const MediaUnits &units)
{
    std::string all;
    for (const MediaUnit &unit : units)
        all += unit.data;
    return all;
}

// --- From packets to units ---

static std::string H264Part(std::string_view payload)
{
    std::string part;
    if (H264UnitType(payload) == kStapA) {
        for (size_t nAt = 1; nAt + 2 <= payload.size(); nAt += 2 + GetBe(payload.data() + nAt, 2))
            part += kStartCode + std::string(payload.substr(nAt + 2, GetBe(payload.data() + nAt, 2)));
        return part;
    }
    if (H264UnitType(payload) != kFuA)
        return kStartCode + std::string(payload);
    if (payload[1] & 0x80)
        part = kStartCode + static_cast<char>((payload[0] & 0xE0) | (payload[1] & 0x1F));
    return part + std::string(payload.substr(2));
}

// Packets of one track must follow each other; a picture ends with the marker.
static MediaUnits TakeApart(Coding codec, const std::vector<std::string> &packets, uint32_t nTicksPerMs)
{
    MediaUnits units;
    std::string data;
    RtpHead head;
    for (const std::string &packet : packets) {
        auto nExpected = static_cast<uint16_t>(head.nSequence + 1);
        EXPECT_EQ(1, RtpParseHead(packet.data(), packet.size(), &head));
        EXPECT_TRUE(&packet == &packets[0] || head.nSequence == nExpected) << "a packet is missing";
        std::string_view payload = std::string_view(packet).substr(head.nHeadBytes);
        data += codec == Coding::H264 ? H264Part(payload) : std::string(payload);
        if ((codec == Coding::H264 || codec == Coding::JPEG) && !head.bMarker)
            continue;
        units.push_back({head.nTimestamp / nTicksPerMs, std::move(data)});
        data.clear();
    }
    return units;
}

// --- The camera ---

Camera::Camera(const std::vector<Coding> &codecs)
{
    EXPECT_EQ(1, H264Load(&clip, ORX_TEST_DATA "/clip.h264"));
    for (Coding codec : codecs) {
        RtpStream stream;
        stream.nPayloadType = RowOf(codec).nPayloadType;
        stream.nSsrc = 0x10203040 + static_cast<uint32_t>(tracks.size());
        stream.nSequence = 65530;  // wraps soon
        tracks.push_back({codec, stream, {}});
    }
}

std::string Camera::Sdp() const
{
    std::string sdp = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=camera\r\nt=0 0\r\n";
    for (size_t i = 0; i < tracks.size(); i++)
        sdp += RowOf(tracks[i].codec).szSection + ("a=control:trackID=" + std::to_string(i)) + "\r\n";
    return sdp;
}

int Camera::Open(const std::string &url, const std::string &moreSdp)
{
    return RtspOpenPusher(&client, url.c_str(), Sdp() + moreSdp);
}

static void PackUnit(const Camera &camera, CameraTrack *pTrack, uint32_t nUnit, RtpPackets *pOut)
{
    uint32_t nTime = (kFirstMs + nUnit * kPictureMs) * RowOf(pTrack->codec).nTicksPerMs;
    const auto &clip = camera.clip.pictures;
    if (pTrack->codec == Coding::H264) {
        PackH264(&pTrack->stream, clip[nUnit % clip.size()].units, nTime, 0, pOut);
    } else if (pTrack->codec == Coding::JPEG) {
        std::string scan = Pattern(camera.nJpegBytes + nUnit % 7 * 900, nUnit + 1);
        JpegPicture picture{1, 320, 240, 0, Pattern(128, nUnit), scan};
        PackJpeg(&pTrack->stream, &picture, nTime, pOut);
    } else if (pTrack->codec == Coding::G711) {  // two pieces for each picture
        PackPlain(&pTrack->stream, Pattern(160, 2 * nUnit), 1, nTime, pOut);
        PackPlain(&pTrack->stream, Pattern(160, 2 * nUnit + 1), 1, nTime + 160, pOut);
    }
}

void Camera::Send(int nPictures, bool bWait)
{
    for (int n = 0; n < nPictures; n++, nPicture++) {
        std::string frames;
        for (size_t i = 0; i < tracks.size(); i++) {
            RtpPackets packets;
            PackUnit(*this, &tracks[i], static_cast<uint32_t>(nPicture), &packets);
            for (const std::string &packet : packets)
                frames += Frame(2 * static_cast<int>(i), packet);
            for (MediaUnit &unit : TakeApart(tracks[i].codec, packets, RowOf(tracks[i].codec).nTicksPerMs))
                tracks[i].sent.push_back(std::move(unit));
        }
        ASSERT_EQ(1, RtspSendBytes(&client, frames.data(), frames.size()));
    }
    ASSERT_TRUE(!bWait || Answers(&client));
}

std::string Camera::Record(const std::string &param)
{
    std::string reply = Ask(&client, "RECORDEX", "", "ActionParam: " + param + "\r\n");
    EXPECT_EQ(Reply(reply.substr(9, reply.find('\r') - 9)), reply);
    return reply.substr(9, reply.find('\r') - 9);
}

// --- The player ---

int Viewer::Prepare(const std::string &url)
{
    int bConnected =
        transport == RTSP_OVER_TUNNEL ? RtspConnectTunnel(&client, url.c_str()) : RtspConnect(&client, url.c_str());
    if (!bConnected || !RtspDescribe(&client))
        return 0;
    for (size_t i = 0; i < client.tracks.size(); i++)
        if (!RtspSetup(&client, i, transport))
            return 0;
    packets.resize(client.tracks.size());
    return 1;
}

std::string Viewer::Play(const std::string &range)
{
    return Ask(&client, "PLAY", "", range.empty() ? "" : "Range: npt=" + range + "\r\n");
}

int Viewer::Open(const std::string &url)
{
    return Prepare(url) && Play().starts_with("RTSP/1.0 200 OK\r\n");
}

void Viewer::Poll()
{
    auto take = [this](size_t nChannel, const std::string &packet) {
        (nChannel & 1 ? reports : packets.at(nChannel / 2)).push_back(packet);
        nPictures += nChannel == 0 && packet.size() > 1 && (packet[1] & 0x80);
    };
    RtspMessage frame;
    std::string packet;
    RtspPoll(&client);
    while (RtspWaitFrame(&client, -1, &frame, 0))
        take(static_cast<size_t>(frame.nChannel), frame.body);
    for (size_t i = 0; i < client.tracks.size(); i++) {
        const RtspUdpPair &udp = client.tracks[i].udp;
        for (int fd : {udp.fdRtp, udp.fdRtcp})
            while (fd >= 0 && RtspUdpReceive(fd, &packet, 0))
                take(2 * i + (fd == udp.fdRtcp), packet);
    }
}

MediaUnits Viewer::Units(size_t nTrack, Coding codec) const
{
    return TakeApart(codec, packets[nTrack], RowOf(codec).nPlayedTicks);
}

unsigned Viewer::Dropped() const
{
    unsigned nDropped = 0;
    for (const RtspTrack &track : client.tracks) {
        uint32_t info[SK_MEMINFO_VARS]{};
        socklen_t nSize = sizeof(info);
        if (track.udp.fdRtp >= 0 && getsockopt(track.udp.fdRtp, SOL_SOCKET, SO_MEMINFO, info, &nSize) == 0)
            nDropped += info[SK_MEMINFO_DROPS];
    }
    return nDropped;
}

bool Watch(const std::vector<Viewer *> &viewers, const std::function<bool()> &done, int nMs)
{
    return WaitFor(
        [&] {
            for (Viewer *pViewer : viewers)
                pViewer->Poll();
            return done();
        },
        nMs);
}

bool WatchPictures(const std::vector<Viewer *> &viewers, size_t nPictures)
{
    return Watch(viewers, [&] {
        return std::all_of(viewers.begin(), viewers.end(), [&](const Viewer *pViewer) {
            return pViewer->nPictures >= nPictures || pViewer->Dropped() > 0;
        });
    });
}

void ExpectAllOf(const Camera &camera, Viewer *pViewer)
{
    EXPECT_TRUE(WatchPictures({pViewer}, camera.tracks[0].sent.size()));
    for (size_t i = 0; i < camera.tracks.size() && pViewer->Dropped() == 0; i++) {
        const std::string sent = JoinData(camera.tracks[i].sent);
        MediaUnits got;
        EXPECT_TRUE(Watch({pViewer},
                          [&] {
                              got = pViewer->Units(i, camera.tracks[i].codec);
                              return JoinData(got).size() >= sent.size() || pViewer->Dropped() > 0;
                          }))
            << "track " << i;
        EXPECT_TRUE(sent == JoinData(got)) << "track " << i;  // sound is packed anew
        for (size_t k = 0; i == 0 && k < got.size(); k++)
            ASSERT_EQ(k * kPictureMs, got[k].nTimeMs) << "picture " << k;
    }
}

// --- Recordings ---

std::vector<uint32_t> PictureTimes(const std::string &file)
{
    std::vector<uint32_t> times;
    size_t nAt = 0;
    for (size_t nPart : {4U, 8U, 10U, 12U})
        nAt += GetBe(file.data() + nPart, 2);
    while (nAt + 8 <= file.size()) {
        size_t nRecord = (size_t{GetBe(file.data() + nAt + 3, 1)} & 0x0F) << 16 | GetBe(file.data() + nAt, 2);
        if (file[nAt + 2] == 'v' && nAt + nRecord <= file.size())
            times.push_back(GetBe(file.data() + nAt + 4, 4));
        nAt += nRecord;
    }
    return times;
}

std::vector<std::string> FilesBelow(const std::string &dir)
{
    std::vector<std::string> files;
    std::error_code error;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir, error))
        if (!entry.is_directory())
            files.push_back(entry.path().lexically_relative(dir));
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace orx
