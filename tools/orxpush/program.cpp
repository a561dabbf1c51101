#include "program.h"

#include <unistd.h>

#include <algorithm>
#include <random>

#include "cli/options.h"
#include "client/mediastamp.h"
#include "client/rtppacket.h"

namespace orx {

constexpr int kSendTimeoutMs = 10000;
constexpr useconds_t kRetryUs = 50000;
constexpr size_t kAudioBlock = 160;  // 20 ms
constexpr int kToneHertz = 440;

static const int kClocks[PUSH_TRACK_KINDS] = {kVideoClock, kAudioClock, kDataClock};

PushProgram::~PushProgram()
{
    if (pDump)
        fclose(pDump);
}

static void PrepareStreams(PushProgram *pProgram)
{
    const PushOptions *pOptions = pProgram->pOptions;
    static std::minstd_rand random(std::random_device{}());
    int nChannel = 0;
    int bUsed[PUSH_TRACK_KINDS] = {1, !pOptions->audio.empty(), pOptions->nDataMs > 0};
    int types[PUSH_TRACK_KINDS] = {pProgram->pSource->bJpeg ? kJpegPayload : kVideoPayload, kAudioPayload,
                                   kDataPayload};
    for (int i = 0; i < PUSH_TRACK_KINDS; i++) {
        RtpStream *pStream = &pProgram->streams[i];
        pStream->nPayloadType = static_cast<uint8_t>(types[i]);
        pStream->nSsrc = static_cast<uint32_t>(random());
        pStream->nMaxPacket = static_cast<size_t>(pOptions->nPacketBytes);
        pStream->bSingle = pOptions->bSingle;
        pStream->nSequence = static_cast<uint16_t>(
            pOptions->nFirstSequence >= 0 ? static_cast<uint64_t>(pOptions->nFirstSequence) : random());
        pProgram->nFirstTimes[i] = static_cast<uint32_t>(
            pOptions->nFirstTime >= 0 ? static_cast<uint64_t>(pOptions->nFirstTime) : random() * 2);
        if (bUsed[i]) {
            pProgram->nChannels[i] = nChannel;
            nChannel += 2;
        }
    }
}

static int OpenDump(PushProgram *pProgram)
{
    if (pProgram->pOptions->dump.empty())
        return 1;
    std::string path = WithNumber(pProgram->pOptions->dump, pProgram->nNumber);
    pProgram->pDump = fopen(path.c_str(), "wb");
    if (!pProgram->pDump)
        fprintf(stderr, "orxpush: %s cannot be written\n", path.c_str());
    return pProgram->pDump != nullptr;
}

static int SendCamConfig(PushProgram *pProgram)
{
    std::string text;
    if (pProgram->pOptions->camConfig.empty())
        return 1;
    if (!ReadWholeFile(pProgram->pOptions->camConfig.c_str(), &text)) {
        pProgram->client.error = pProgram->pOptions->camConfig + " cannot be read";
        return 0;
    }
    return RtspSend(&pProgram->client, "PUTCAMCFG", nullptr, "Content-Type: text/plain\r\n", text) != 0;
}

// Connects and starts; a server that is not there yet is given time.
static int Open(PushProgram *pProgram, const std::string &url, const std::string &sdp)
{
    const PushOptions *pOptions = pProgram->pOptions;
    uint64_t nUntilUs = RtspNowUs() + static_cast<uint64_t>(pOptions->nWaitSeconds) * 1000000U;
    while (RtspNowUs() < nUntilUs && !RtspConnect(&pProgram->client, url.c_str()))
        usleep(kRetryUs);
    return RtspOpenPusher(&pProgram->client, url.c_str(), sdp, pOptions->bRecord ? "RECORD" : "PLAY");
}

int PushProgramStart(PushProgram *pProgram, const PushOptions *pOptions, const PushSource *pSource,
                     int nNumber)
{
    pProgram->pOptions = pOptions;
    pProgram->pSource = pSource;
    pProgram->nNumber = nNumber;
    pProgram->client.user = pOptions->user;
    pProgram->client.password = pOptions->password;
    PrepareStreams(pProgram);
    std::string url = WithNumber(pOptions->url, nNumber);
    std::string sdp = PushDescription(pOptions, pSource, url.substr(url.find_last_of('/') + 1));
    if (!OpenDump(pProgram))
        return 0;
    if (!Open(pProgram, url, sdp) || !SendCamConfig(pProgram)) {
        fprintf(stderr, "orxpush: %s: %s\n", pProgram->client.url.plain.c_str(),
                pProgram->client.error.c_str());
        return 0;
    }
    return 1;
}

static uint32_t RtpTime(const PushProgram *pProgram, PushTrackKind kind, uint64_t nMediaUs)
{
    // seconds and the rest apart, so that the product stays small
    uint64_t nClock = static_cast<uint64_t>(kClocks[kind]);
    uint64_t nTicks = nMediaUs / 1000000 * nClock + nMediaUs % 1000000 * nClock / 1000000;
    return pProgram->nFirstTimes[kind] + static_cast<uint32_t>(nTicks);
}

static void MakePicture(PushProgram *pProgram, uint32_t nTime, RtpPackets *pOut)
{
    const PushSource *pSource = pProgram->pSource;
    RtpStream *pStream = &pProgram->streams[PUSH_VIDEO];
    size_t nPicture = pProgram->nPicture;
    pProgram->nPicture = (nPicture + 1) % PushPictureCount(pSource);
    if (pSource->bJpeg) {
        PackJpeg(pStream, &pSource->jpegs[nPicture], nTime, pOut);
        return;
    }
    std::vector<std::string_view> units = pSource->h264.pictures[nPicture].units;
    std::string stamp;
    if (pProgram->pOptions->bStamp) {
        stamp = StampUnit(RtspNowUs());
        auto slice = std::find_if(units.begin(), units.end(),
                                  [](std::string_view unit) { return H264UnitType(unit) <= H264_IDR; });
        units.insert(slice, stamp);
    }
    pProgram->nCredit += static_cast<long>(pProgram->pOptions->nKbits * 125.0 / pProgram->pOptions->dFps);
    PackH264(pStream, units, nTime, static_cast<size_t>(std::max(pProgram->nCredit, 0L)), pOut);
    for (const std::string &packet : *pOut)
        pProgram->nCredit -= static_cast<long>(packet.size());
}

static std::string AudioBlock(const PushProgram *pProgram)
{
    const std::string &audio = pProgram->pSource->audio;
    uint64_t nFirst = pProgram->nUnits[PUSH_AUDIO] * kAudioBlock;
    if (audio.empty())
        return ToneALaw(nFirst, kAudioBlock, kToneHertz);
    std::string block;
    for (size_t i = 0; i < kAudioBlock; i++)
        block += audio[(nFirst + i) % audio.size()];
    return block;
}

static void MakeUnit(PushProgram *pProgram, PushTrackKind kind, uint32_t nTime, RtpPackets *pOut)
{
    uint64_t nUnit = pProgram->nUnits[kind];
    switch (kind) {
        case PUSH_VIDEO:
            MakePicture(pProgram, nTime, pOut);
            break;
        case PUSH_AUDIO:
            // every packet is marked, as the cameras do that the server's recorder was made for
            PackPlain(&pProgram->streams[kind], AudioBlock(pProgram), 1, nTime, pOut);
            break;
        case PUSH_DATA: {
            std::string text = pProgram->pOptions->bStamp ? StampData(RtspNowUs()) : "";
            PackPlain(&pProgram->streams[kind], text + "event " + std::to_string(nUnit) + "\r\n", 1, nTime,
                      pOut);
            break;
        }
        case PUSH_TRACK_KINDS:
            break;
    }
    pProgram->nUnits[kind]++;
}

static void Fail(PushProgram *pProgram, const char *szWhat)
{
    fprintf(stderr, "orxpush: %s: %s\n", pProgram->client.url.plain.c_str(), szWhat);
    pProgram->bFailed = 1;
}

void PushProgramSend(PushProgram *pProgram, PushTrackKind kind, uint64_t nMediaUs)
{
    if (pProgram->bFailed || pProgram->bSleeping || pProgram->nChannels[kind] < 0)
        return;
    RtpPackets packets;
    std::string frames;
    MakeUnit(pProgram, kind, RtpTime(pProgram, kind, nMediaUs), &packets);
    for (const std::string &packet : packets) {
        FrameAddHead(&frames, pProgram->nChannels[kind], packet.size());
        frames += packet;
    }
    // on disk first: who compares finds every packet that it has received
    if (pProgram->pDump && (fwrite(frames.data(), 1, frames.size(), pProgram->pDump) != frames.size() ||
                            fflush(pProgram->pDump) != 0))
        Fail(pProgram, "the dump cannot be written");
    else if (!RtspSendBytes(&pProgram->client, frames.data(), frames.size(), kSendTimeoutMs))
        Fail(pProgram, "the server takes no more");
    pProgram->nPackets += packets.size();
    pProgram->nBytes += frames.size();
}

void PushProgramReport(PushProgram *pProgram, uint64_t nMediaUs)
{
    for (int i = 0; i < PUSH_TRACK_KINDS; i++) {
        const RtpStream *pStream = &pProgram->streams[i];
        if (pProgram->nChannels[i] < 0 || pProgram->bFailed || pProgram->bSleeping)
            continue;
        std::string report =
            RtcpSenderReport(pStream->nSsrc, RtpTime(pProgram, static_cast<PushTrackKind>(i), nMediaUs),
                             pStream->nPackets, pStream->nOctets, "orxpush");
        RtspSendFrame(&pProgram->client, pProgram->nChannels[i] + 1, report.data(), report.size(),
                      kSendTimeoutMs);
    }
}

// Players can start only at a key frame: go back to the last one.
static void Wake(PushProgram *pProgram)
{
    pProgram->bSleeping = 0;
    while (pProgram->nPicture > 0 && !PushPictureIsKey(pProgram->pSource, pProgram->nPicture))
        pProgram->nPicture--;
}

static void Serve(PushProgram *pProgram, const RtspMessage *pRequest)
{
    const char *szAction = RtspFindHeader(pRequest, "CamAction");
    const char *szParam = RtspFindHeader(pRequest, "ActionParam");
    const char *szInfo = RtspFindHeader(pRequest, "GetInfoType");
    if (!pProgram->pOptions->bQuiet)
        printf("%s: server asks: %s%s%s%s%s%s%s\n", pProgram->client.url.path.c_str(),
               pRequest->method.c_str(), szAction ? " " : "", szAction ? szAction : "", szParam ? " " : "",
               szParam ? szParam : "", szInfo ? " " : "", szInfo ? szInfo : "");
    fflush(stdout);
    if (pRequest->method == "SLEEP")
        pProgram->bSleeping = 1;
    else if (pRequest->method == "WAKE")
        Wake(pProgram);
    else
        RtspRespond(&pProgram->client, pRequest, pProgram->pOptions->forward.c_str());
}

void PushProgramServe(PushProgram *pProgram)
{
    if (pProgram->bFailed)
        return;
    int bOpen = RtspPoll(&pProgram->client);
    RtspMessage request;
    while (RtspWaitRequest(&pProgram->client, nullptr, &request, 0))
        Serve(pProgram, &request);
    pProgram->client.inbox.clear();  // reports of the server and late replies
    if (!bOpen)
        Fail(pProgram, pProgram->client.bClosed == 2 ? "the server reset the connection"
                                                     : "the server closed the connection");
}

void PushProgramStop(PushProgram *pProgram)
{
    RtspMessage reply;
    if (!pProgram->bFailed && pProgram->client.fd >= 0)
        RtspRequest(&pProgram->client, "TEARDOWN", nullptr, nullptr, "", &reply, 1000);
}

}  // namespace orx
