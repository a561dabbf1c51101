#include "system/mediakit.h"

#include <algorithm>
#include <filesystem>

#include <gtest/gtest.h>

#include "base/bytes.h"
#include "client/rtppacket.h"
#include "support/sockets.h"
#include "support/wait.h"
#include "system/orxprocess.h"

namespace orx {

constexpr int kPictureMs = 40;
constexpr int kSoundMs = 20;
constexpr int kKeyInterval = 25;
constexpr int kFuA = 28;
constexpr int kStapA = 24;

struct CodecRow {
    Codec codec;
    int nPayloadType;
    int nTicksPerMs;
    const char *szSection;  // of a description, with the place of the track's number left out
};

static const CodecRow kCodecs[] = {
    {Codec::H264, 96, 90, "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"},
    {Codec::JPEG, 26, 90, "m=video 0 RTP/AVP 26\r\na=rtpmap:26 JPEG/90000\r\n"},
    {Codec::G711, 8, 8, "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000/1\r\n"},
    {Codec::AMR_NB, 97, 8, "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/1\r\na=fmtp:97 octet-align=1\r\n"},
    {Codec::AMR_WB, 97, 16,
     "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR-WB/16000/1\r\na=fmtp:97 octet-align=1\r\n"},
    {Codec::EVENTS, 98, 1, "m=data 0 RTP/AVP 98\r\na=rtpmap:98 events/1000\r\n"},
};

static const CodecRow *FindCodec(Codec codec)
{
    return std::find_if(std::begin(kCodecs), std::end(kCodecs),
                        [codec](const CodecRow &row) { return row.codec == codec; });
}

std::ostream &operator<<(std::ostream &out, const MediaUnit &unit)
{
    return out << (unit.bKey ? "key " : "") << unit.data.size() << " bytes @" << unit.nTimeMs;
}

std::string JoinData(const MediaUnits &units)
{
    std::string all;
    for (const MediaUnit &unit : units)
        all += unit.data;
    return all;
}

// --- From packets to units ---

static void AddPart(std::string *pOut, std::string_view part)
{
    char length[4];
    PutBe(length, 4, static_cast<uint32_t>(part.size()));
    pOut->append(length, 4);
    pOut->append(part);
}

namespace {

// What a decoder's front end does with the packets of one track.
struct Assembler {
    Codec codec;
    std::string data;
    size_t nOpen = 0;  // where the length of the unit in fragments stands, 1 higher; 0: none
    bool bBroken = false;

    void AddH264(std::string_view payload)
    {
        int nType = payload[0] & 0x1F;
        if (nType == kStapA) {
            for (size_t nAt = 1; nAt + 2 <= payload.size();) {
                size_t nBytes = GetBe(payload.data() + nAt, 2);
                AddPart(&data, payload.substr(nAt + 2, nBytes));
                nAt += 2 + nBytes;
            }
        } else if (nType == kFuA) {
            AddFragment(payload);
        } else {
            AddPart(&data, payload);
        }
    }
    void AddFragment(std::string_view payload)
    {
        if (payload[1] & 0x80) {
            nOpen = data.size() + 1;
            AddPart(&data, std::string(1, static_cast<char>((payload[0] & 0xE0) | (payload[1] & 0x1F))));
        }
        bBroken |= nOpen == 0;
        if (bBroken)
            return;
        data.append(payload.substr(2));
        PutBe(data.data() + nOpen - 1, 4, static_cast<uint32_t>(data.size() - nOpen - 3));
        if (payload[1] & 0x40)
            nOpen = 0;
    }
    // Octet-aligned, as in RFC 4867, into storage format; all frames of a packet are of one size.
    void AddAmr(std::string_view payload)
    {
        size_t nFrames = 1;
        while (payload[nFrames] & 0x80)
            nFrames++;
        size_t nSpeech = (payload.size() - 1 - nFrames) / nFrames;
        for (size_t i = 0; i < nFrames; i++) {
            data += static_cast<char>(payload[1 + i] & 0x7F);
            data.append(payload.substr(1 + nFrames + i * nSpeech, nSpeech));
        }
    }
    void Add(std::string_view payload)
    {
        if (codec == Codec::H264)
            AddH264(payload);
        else if (codec == Codec::JPEG)
            AddPart(&data, payload);
        else if (codec == Codec::AMR_NB || codec == Codec::AMR_WB)
            AddAmr(payload);
        else
            data.append(payload);
    }
    void Reset()
    {
        data.clear();
        nOpen = 0;
        bBroken = false;
    }
};

}  // namespace

MediaUnits TakeApart(Codec codec, const std::vector<std::string> &packets, uint32_t nTicksPerMs, int *pnLost)
{
    MediaUnits units;
    Assembler assembler{codec, {}};
    RtpHead last;
    int nLost = 0;
    bool bPictures = codec == Codec::H264 || codec == Codec::JPEG;
    for (size_t i = 0; i < packets.size(); i++) {
        RtpHead head;
        if (!RtpParseHead(packets[i].data(), packets[i].size(), &head) ||
            head.nHeadBytes >= packets[i].size()) {
            ADD_FAILURE() << "no RTP packet";
            continue;
        }
        int nMissing = i == 0 ? 0 : static_cast<uint16_t>(head.nSequence - last.nSequence - 1);
        nLost += nMissing;
        if (nMissing || head.nTimestamp != last.nTimestamp)
            assembler.Reset();
        assembler.Add(std::string_view(packets[i]).substr(head.nHeadBytes));
        last = head;
        if (bPictures && !head.bMarker)
            continue;
        if (!assembler.bBroken)
            units.push_back({head.nTimestamp / nTicksPerMs,
                             codec == Codec::JPEG || (bPictures && (assembler.data[4] & 0x1F) == H264_SPS),
                             assembler.data});
        assembler.Reset();
    }
    if (pnLost)
        *pnLost = nLost;
    return units;
}

std::vector<std::string> ReadDump(const std::string &dump, int nChannel)
{
    std::vector<std::string> packets;
    for (size_t nAt = 0; nAt + kFrameHeadBytes <= dump.size();) {
        size_t nBytes = GetBe(dump.data() + nAt + 2, 2);
        if (dump[nAt + 1] == nChannel)
            packets.push_back(dump.substr(nAt + kFrameHeadBytes, nBytes));
        nAt += kFrameHeadBytes + nBytes;
    }
    return packets;
}

// --- The camera ---

Camera::Camera(const std::vector<Codec> &codecs)
{
    EXPECT_EQ(1, H264Load(&clip, ORX_TEST_DATA "/clip.h264"));
    for (Codec codec : codecs) {
        const CodecRow *pRow = FindCodec(codec);
        CameraTrack *pTrack = &tracks.emplace_back();
        pTrack->codec = codec;
        pTrack->stream.nPayloadType = static_cast<uint8_t>(pRow->nPayloadType);
        pTrack->stream.nSsrc = 0x10203040 + static_cast<uint32_t>(tracks.size());
        pTrack->stream.nSequence = 65530;  // wraps soon
        pTrack->nTicksPerMs = static_cast<uint32_t>(pRow->nTicksPerMs);
        pTrack->nChannel = 2 * static_cast<int>(tracks.size() - 1);
    }
}

std::string Camera::Sdp() const
{
    std::string sdp = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=camera\r\nt=0 0\r\n";
    for (size_t i = 0; i < tracks.size(); i++)
        sdp += FindCodec(tracks[i].codec)->szSection + ("a=control:trackID=" + std::to_string(i)) + "\r\n";
    return sdp;
}

int Camera::Open(const std::string &url, const std::string &moreSdp)
{
    return RtspOpenPusher(&client, url.c_str(), Sdp() + moreSdp);
}

static JpegPicture MakeJpeg(size_t nBytes, uint32_t nSeed, std::string *pScan)
{
    JpegPicture picture;
    picture.nType = 1;
    picture.nWidth = 320;
    picture.nHeight = 240;
    picture.tables = Pattern(128, nSeed);
    *pScan = Pattern(nBytes + nSeed % 7 * 900, nSeed + 1);
    picture.scan = *pScan;
    return picture;
}

static void PackUnit(const Camera *pCamera, CameraTrack *pTrack, uint32_t nSeed, uint32_t nTimestamp,
                     RtpPackets *pOut)
{
    RtpStream *pStream = &pTrack->stream;
    std::string scan;
    JpegPicture picture;
    switch (pTrack->codec) {
        case Codec::H264:
            PackH264(pStream, pCamera->clip.pictures[nSeed % pCamera->clip.pictures.size()].units, nTimestamp,
                     0, pOut);
            break;
        case Codec::JPEG:
            picture = MakeJpeg(pCamera->nJpegBytes, nSeed, &scan);
            PackJpeg(pStream, &picture, nTimestamp, pOut);
            break;
        case Codec::G711:
            PackPlain(pStream, Pattern(160, nSeed), 1, nTimestamp, pOut);
            break;
        case Codec::AMR_NB:  // 12.2 kbit/s
            PackPlain(pStream, "\xF0\x3C" + Pattern(31, nSeed), 1, nTimestamp, pOut);
            break;
        case Codec::AMR_WB:  // 12.65 kbit/s
            PackPlain(pStream, "\xF0\x14" + Pattern(32, nSeed), 1, nTimestamp, pOut);
            break;
        case Codec::EVENTS:
            break;
    }
}

static void SendPackets(Camera *pCamera, CameraTrack *pTrack, const RtpPackets &packets)
{
    std::string frames;
    for (const std::string &packet : packets) {
        FrameAddHead(&frames, pTrack->nChannel, packet.size());
        frames += packet;
    }
    ASSERT_EQ(1, RtspSendBytes(&pCamera->client, frames.data(), frames.size()));
    MediaUnits units = TakeApart(pTrack->codec, packets, pTrack->nTicksPerMs);
    pTrack->sent.insert(pTrack->sent.end(), units.begin(), units.end());
}

static void SendUnit(Camera *pCamera, CameraTrack *pTrack, uint32_t nSeed, uint32_t nMs)
{
    RtpPackets packets;
    PackUnit(pCamera, pTrack, nSeed, nMs * pTrack->nTicksPerMs, &packets);
    SendPackets(pCamera, pTrack, packets);
}

void Camera::Send(int nPictures)
{
    for (int n = 0; n < nPictures && !testing::Test::HasFatalFailure(); n++, nPicture++) {
        uint32_t nMs = nFirstMs + static_cast<uint32_t>(nPicture * kPictureMs);
        for (CameraTrack &track : tracks) {
            bool bPictures = track.codec == Codec::H264 || track.codec == Codec::JPEG;
            if (bPictures)
                SendUnit(this, &track, static_cast<uint32_t>(nPicture), nMs);
            for (int i = 0; !bPictures && track.codec != Codec::EVENTS && i < kPictureMs / kSoundMs; i++)
                SendUnit(this, &track, static_cast<uint32_t>(2 * nPicture + i),
                         nMs + static_cast<uint32_t>(i * kSoundMs));
        }
    }
}

void Camera::SendEvent(const std::string &text)
{
    RtpPackets packets;
    uint32_t nMs = nFirstMs + static_cast<uint32_t>(nPicture * kPictureMs);
    PackPlain(&tracks.back().stream, text, 1, nMs, &packets);
    SendPackets(this, &tracks.back(), packets);
}

void Camera::Flush()
{
    RtspMessage reply;
    ASSERT_EQ(1, RtspRequest(&client, "OPTIONS", nullptr, nullptr, "", &reply));
}

// --- The player ---

int Viewer::Prepare(const std::string &url)
{
    int bConnected = transport == RTSP_OVER_TUNNEL ? RtspConnectTunnel(&client, url.c_str())
                                                   : RtspConnect(&client, url.c_str());
    if (!bConnected || !RtspDescribe(&client))
        return 0;
    for (size_t i = 0; i < client.tracks.size(); i++)
        if (!RtspSetup(&client, i, transport))
            return 0;
    packets.resize(client.tracks.size());
    arrivals.resize(client.tracks.size());
    return 1;
}

std::string Viewer::Request(const std::string &method, const std::string &headers)
{
    RtspMessage reply;
    Poll();
    if (!RtspRequest(&client, method.c_str(), nullptr, headers.c_str(), "", &reply))
        return "";
    return Normalized(reply.raw);
}

static void Take(Viewer *pViewer, size_t nTrack, bool bReport, const std::string &packet, uint64_t nArrivalUs)
{
    if (bReport) {
        pViewer->reports.push_back(packet);
    } else if (nTrack < pViewer->packets.size()) {
        pViewer->packets[nTrack].push_back(packet);
        pViewer->arrivals[nTrack].push_back(nArrivalUs);
    }
}

void Viewer::Poll()
{
    RtspMessage frame;
    std::string packet;
    RtspPoll(&client);
    while (RtspWaitFrame(&client, -1, &frame, 0))
        Take(this, static_cast<size_t>(frame.nChannel) / 2, frame.nChannel & 1, frame.body, frame.nArrivalUs);
    for (size_t i = 0; i < client.tracks.size(); i++) {
        const RtspUdpPair &udp = client.tracks[i].udp;
        while (udp.fdRtp >= 0 && RtspUdpReceive(udp.fdRtp, &packet, 0))
            Take(this, i, false, packet, RtspNowUs());
        while (udp.fdRtcp >= 0 && RtspUdpReceive(udp.fdRtcp, &packet, 0))
            Take(this, i, true, packet, RtspNowUs());
    }
}

void Viewer::Forget()
{
    for (auto &track : packets)
        track.clear();
    for (auto &track : arrivals)
        track.clear();
    reports.clear();
}

size_t Viewer::Packets() const
{
    size_t n = 0;
    for (const auto &track : packets)
        n += track.size();
    return n;
}

MediaUnits Viewer::Units(size_t nTrack, Codec codec, int *pnLost) const
{
    // a recording's G.711 is stamped with eight times its time before the clock rate is applied
    auto nTicks = static_cast<uint32_t>(FindCodec(codec)->nTicksPerMs * (codec == Codec::G711 ? 8 : 1));
    return TakeApart(codec, packets[nTrack], nTicks, pnLost);
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

void WatchToTheEnd(const std::vector<Viewer *> &viewers, int nMs)
{
    auto count = [&] {
        size_t n = 0;
        for (const Viewer *pViewer : viewers)
            n += pViewer->Packets();
        return n;
    };
    for (size_t nBefore = count();; nBefore = count())
        if (!Watch(
                viewers, [&] { return count() != nBefore; }, nMs))
            return;
}

std::string RecordEx(RtspClient *pClient, const std::string &param)
{
    RtspMessage reply;
    std::string headers = "ActionParam: " + param + "\r\n";
    if (!RtspRequest(pClient, "RECORDEX", nullptr, headers.c_str(), "", &reply))
        return "";
    return std::to_string(reply.nStatus) + " " + reply.reason;
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
