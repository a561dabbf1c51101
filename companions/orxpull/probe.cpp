#include "orxpull/probe.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>

#include "base/bytes.h"
#include "orxpull/announcement.h"
#include "record/picturesize.h"

namespace orx {

constexpr uint64_t kMostMs = 12000;  // behind the first packet
constexpr uint64_t kLeastMs = 2000;  // for the rate of what has no key frames to wait for
constexpr size_t kEnoughKeys = 3;
constexpr size_t kMostStamps = 10000;
constexpr int kSilentMs = 10000;

// --- One track ---

ProbeTrack ProbeTrackOf(const PlayTrack *pTold)
{
    ProbeTrack track;
    track.told = *pTold;
    track.pCodec = TrackCodec(pTold);
    FormatPictureSize(pTold, &track.nWidth, &track.nHeight);
    return track;
}

static void TakeSequence(ProbeTrack *pTrack, const uint8_t *pUnit, size_t nBytes)
{
    const NalForm *pForm = pTrack->pCodec->pNal;
    if (nBytes > pForm->nHead && pForm->pfnKind(NalType(pForm, *pUnit)) == NAL_IS_SEQUENCE_SET)
        PictureSizeOfSequence(pForm, pUnit, static_cast<uint32_t>(nBytes), &pTrack->nWidth, &pTrack->nHeight);
}

// The size, where a packet tells it: in a unit of its own, or among several.
static void TakeSize(ProbeTrack *pTrack, const RtpPacket *pPacket)
{
    const NalForm *pForm = pTrack->pCodec->pNal;
    if (pTrack->pCodec->nForm == FORM_JPEG)
        PictureSizeOfJpeg(pPacket->pPayload, pPacket->nPayload, &pTrack->nWidth, &pTrack->nHeight);
    if (!pForm || pPacket->nPayload <= pForm->nHead)
        return;
    if (NalType(pForm, *pPacket->pPayload) != pForm->nAggregate) {
        TakeSequence(pTrack, pPacket->pPayload, pPacket->nPayload);
        return;
    }
    ByteReader in{pPacket->pPayload, pPacket->nPayload};
    ReadBytes(&in, pForm->nAggregate == NAL_STAP_A ? 1 : pForm->nHead);
    while (in.nLeft > 2 && !in.bFailed) {
        size_t nUnit = ReadBe(&in, 2);
        if (const uint8_t *pUnit = ReadBytes(&in, nUnit))
            TakeSequence(pTrack, pUnit, nUnit);
    }
}

void ProbePacket(ProbeTrack *pTrack, const uint8_t *pData, size_t nBytes)
{
    RtpPacket packet;
    if (!RtpPacketParse(pData, static_cast<uint32_t>(nBytes), &packet))
        return;
    if (pTrack->nPackets++ == 0)
        pTrack->nFirst = packet.nRtpTime;
    auto nStamp = static_cast<int32_t>(packet.nRtpTime - pTrack->nFirst);
    if (pTrack->pictures.size() < kMostStamps)
        pTrack->pictures.insert(nStamp);
    if (!pTrack->pCodec || !pTrack->pCodec->pfnIsKey)
        return;
    if (pTrack->nWidth == 0)
        TakeSize(pTrack, &packet);
    if (pTrack->pCodec->pfnIsKey(&pTrack->watch, &packet) && pTrack->keys.size() < kMostStamps)
        pTrack->keys.insert(nStamp);
}

// From the first to the last of them.
static double Seconds(const ProbeTrack *pTrack, const std::set<int32_t> &stamps)
{
    if (stamps.empty() || pTrack->told.nClockRate <= 0)
        return 0;
    return (static_cast<double>(*stamps.rbegin()) - *stamps.begin()) / pTrack->told.nClockRate;
}

int ProbeIsSure(const ProbeTrack *pTrack)
{
    double dSeconds = Seconds(pTrack, pTrack->pictures);
    int bPictures = pTrack->pCodec && pTrack->pCodec->pfnIsKey;
    return dSeconds * 1000 >= kLeastMs && (!bPictures || pTrack->keys.size() >= kEnoughKeys);
}

static std::string Decimal(double dValue, int nPlaces)
{
    char szText[32];
    snprintf(szText, sizeof szText, "%.*f", nPlaces, dValue);
    return szText;
}

static std::string PictureText(const ProbeTrack *pTrack)
{
    std::string text;
    double dSeconds = Seconds(pTrack, pTrack->pictures);
    if (pTrack->nWidth)
        text += " " + std::to_string(pTrack->nWidth) + "x" + std::to_string(pTrack->nHeight);
    if (dSeconds > 0) {
        double dRate = static_cast<double>(pTrack->pictures.size() - 1) / dSeconds;
        int bWhole = std::fabs(dRate - std::round(dRate)) < 0.05;
        text += ", " + Decimal(dRate, bWhole ? 0 : 1) + " pictures a second";
    }
    if (pTrack->keys.size() > 1)
        text += ", " +
                Decimal(Seconds(pTrack, pTrack->keys) / static_cast<double>(pTrack->keys.size() - 1), 1) +
                " s between key frames";
    else if (pTrack->pCodec->pNal)
        text += ", more than " + Decimal(dSeconds, 0) + " s between key frames";
    return text;
}

std::string ProbeLine(const ProbeTrack *pTrack)
{
    const PlayTrack *pTold = &pTrack->told;
    std::string text = pTold->media + ": " + (pTrack->pCodec ? pTrack->pCodec->szName : pTold->encoding);
    if (pTrack->nPackets == 0)
        text += ", nothing comes";
    else if (pTrack->pCodec && pTrack->pCodec->pfnIsKey)
        text += PictureText(pTrack);
    if (strcasecmp(pTold->media.c_str(), "audio") == 0)
        text += ", " + std::to_string(pTold->nClockRate) + " Hz, " + std::to_string(pTold->nChannels) +
                (pTold->nChannels == 1 ? " channel" : " channels");
    if (!pTrack->pCodec && (pTold->media == "video" || pTold->media == "audio"))
        text += " (not known to Orx)";
    return text;
}

// --- The question ---

namespace {

struct Probe {
    Loop *pLoop = nullptr;
    RtspPlay *pPlay = nullptr;
    std::vector<ProbeTrack> tracks;
    int nExit = 1;
    int bBegun = 0;
    LoopTimer limit;
};

}  // namespace

static void Finish(Probe *pProbe, int nExit)
{
    pProbe->nExit = nExit;
    LoopStop(pProbe->pLoop);
}

static int OnDescribed(void *pUser, PlayDescription *pDescription)
{
    auto *pProbe = static_cast<Probe *>(pUser);
    int nWanted = 0;
    for (PlayTrack &track : pDescription->tracks) {
        track.bWanted = track.media == "video" || track.media == "audio";
        nWanted += track.bWanted;
        pProbe->tracks.push_back(ProbeTrackOf(&track));
    }
    return nWanted > 0;
}

static void OnPacket(void *pUser, int nTrack, int bRtcp, const uint8_t *pData, size_t nBytes)
{
    auto *pProbe = static_cast<Probe *>(pUser);
    if (bRtcp || static_cast<size_t>(nTrack) >= pProbe->tracks.size())
        return;
    if (!pProbe->bBegun)
        LoopSetTimer(pProbe->pLoop, &pProbe->limit, kMostMs);
    pProbe->bBegun = 1;
    ProbePacket(&pProbe->tracks[static_cast<size_t>(nTrack)], pData, nBytes);
    auto isWanted = [](auto &track) { return track.told.bWanted != 0; };
    if (std::all_of(pProbe->tracks.begin(), pProbe->tracks.end(),
                    [&](auto &track) { return !isWanted(track) || ProbeIsSure(&track); }))
        Finish(pProbe, 0);
}

static void OnLimit(void *pUser)
{
    Finish(static_cast<Probe *>(pUser), 0);
}

static void OnPlaying(void *) {}

static void OnEnded(void *pUser, PlayFault fault, const char *szWhy)
{
    auto *pProbe = static_cast<Probe *>(pUser);
    if (!pProbe->bBegun)
        fprintf(stderr, "orxpull: %s, %s\n", PlayFaultText(fault), szWhy);
    Finish(pProbe, pProbe->bBegun ? 0 : 1);
}

static const PlayProcs g_procs = {OnDescribed, OnPlaying, OnPacket, nullptr, OnEnded};

int ProbeRun(Loop *pLoop, const PullSource *pSource)
{
    Probe probe;
    probe.pLoop = pLoop;
    PlaySettings settings;
    settings.url = pSource->url;
    settings.over = pSource->over;
    settings.agent = "orxpull";
    settings.nSilentMs = kSilentMs;
    probe.limit.pfnDue = OnLimit;
    probe.limit.pUser = &probe;
    probe.pPlay = RtspPlayStart(pLoop, &settings, &g_procs, &probe);
    if (!probe.pPlay)
        return 1;
    LoopRun(pLoop);
    LoopClearTimer(pLoop, &probe.limit);
    RtspPlayStop(probe.pPlay);
    for (const ProbeTrack &track : probe.tracks)
        if (probe.nExit == 0)
            printf("%s\n", ProbeLine(&track).c_str());
    return probe.nExit;
}

}  // namespace orx
