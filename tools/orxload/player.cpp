#include "orxload/player.h"

#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/bytes.h"
#include "client/h264file.h"
#include "client/mediastamp.h"
#include "client/rtppacket.h"

namespace orx {

constexpr size_t kReadBytes = 512 * 1024;
constexpr size_t kTailBytes = 128 * 1024;  // a message longer than this is none
constexpr size_t kDatagramBytes =
    65536 + 192;                     // not a power of two, so that the buffers do not share cache sets
constexpr unsigned kDatagrams = 32;  // taken with one call
constexpr int kSendTimeoutMs = 1000;
constexpr uint64_t kSecondUs = 1000000;
constexpr uint32_t kOwnSsrc = 0x6F72786C;

static uint8_t g_stream[kTailBytes + kReadBytes];  // one thread reads all connections
static uint8_t g_datagrams[kDatagrams][kDatagramBytes];

static void Fail(LoadPlayer *pPlayer, const char *szWhy)
{
    pPlayer->client.error = szWhy;
    pPlayer->state = pPlayer->state == LOAD_PLAYING ? LOAD_CUT : LOAD_FAILED;
}

static int OpenSteps(LoadPlayer *pPlayer, const LoadOptions *pOptions, const std::string &url)
{
    RtspClient *pClient = &pPlayer->client;
    pClient->user = pOptions->user;
    pClient->password = pOptions->password;
    int bConnected = pPlayer->transport == RTSP_OVER_TUNNEL
                         ? RtspConnectTunnel(pClient, url.c_str(), pOptions->nTimeoutMs)
                         : RtspConnect(pClient, url.c_str(), pOptions->nTimeoutMs);
    if (!bConnected || !RtspDescribe(pClient, nullptr, pOptions->nTimeoutMs))
        return 0;
    for (size_t i = 0; i < pClient->tracks.size() && i < kLoadTracks; i++) {
        RtspTrack *pTrack = &pClient->tracks[i];
        if (!RtspSetup(pClient, i, pPlayer->transport, nullptr, pOptions->nTimeoutMs))
            return 0;
        pPlayer->tracks[i].nPayloadType = pTrack->sdp.nPayloadType;
        pPlayer->tracks[i].bVideo = pTrack->sdp.media == "video";
        if (pOptions->bTogether && pTrack->udp.fdRtp >= 0)
            setsockopt(pTrack->udp.fdRtp, SOL_UDP, UDP_GRO, &pOptions->bTogether, sizeof(int));
    }
    return 1;
}

int LoadPlayerOpen(LoadPlayer *pPlayer, const LoadOptions *pOptions, const std::string &url)
{
    if (OpenSteps(pPlayer, pOptions, url))
        return 1;
    pPlayer->state = LOAD_FAILED;
    return 0;
}

void LoadPlayerStart(LoadPlayer *pPlayer)
{
    pPlayer->nPlayUs = RtspNowUs();
    pPlayer->state = LOAD_STARTED;
    pPlayer->nPlayCSeq =
        RtspSend(&pPlayer->client, "PLAY", nullptr, "Range: npt=0.000-\r\n", std::string(), kSendTimeoutMs);
    if (!pPlayer->nPlayCSeq)
        Fail(pPlayer, "PLAY could not be sent");
}

// Whether a payload begins a key frame: its parameter sets, the first piece of an IDR slice, or the start of
// a JPEG.
static int BeginsKeyFrame(const RtpHead *pHead, const uint8_t *pPayload, size_t nBytes)
{
    if (nBytes < 4)
        return 0;
    if (pHead->nPayloadType == 26)
        return GetBe(pPayload + 1, 3) == 0;
    int nType = pPayload[0] & 0x1F;
    if (nType == 24)
        nType = pPayload[3] & 0x1F;
    else if (nType == 28)
        nType = pPayload[1] & 0x80 ? pPayload[1] & 0x1F : 0;
    return nType == H264_IDR || (nType >= H264_SEI && nType <= H264_AUD);
}

static void CheckSequence(LoadPlayer *pPlayer, LoadTrack *pTrack, uint16_t nSequence)
{
    auto nJump = static_cast<int16_t>(nSequence - pTrack->nNext);
    if (pTrack->bSeen && nJump < 0) {
        pPlayer->counts.nLate++;
        return;
    }
    if (pTrack->bSeen)
        pPlayer->counts.nLost += static_cast<uint16_t>(nJump);
    pTrack->bSeen = 1;
    pTrack->nNext = static_cast<uint16_t>(nSequence + 1);
}

static void OnPictureEnd(LoadPlayer *pPlayer, LoadTrack *pTrack, uint64_t nNowUs)
{
    if (pTrack->bVideo && !pPlayer->nFirstPictureUs)
        pPlayer->nFirstPictureUs = nNowUs - pPlayer->nPlayUs;
    if (pPlayer->bMeasuring && pPlayer->nAnsweredUs && pTrack->nStampUs > pPlayer->nAnsweredUs)
        HistogramAdd(pPlayer->pLatency, nNowUs - pTrack->nStampUs);
    pTrack->nStampUs = 0;
}

static void OnRtp(LoadPlayer *pPlayer, const uint8_t *pPacket, size_t nBytes, uint64_t nNowUs)
{
    RtpHead head;
    LoadTrack *pTrack = nullptr;
    pPlayer->counts.nPackets++;
    pPlayer->counts.nBytes += nBytes;
    if (RtpParseHead(pPacket, nBytes, &head))
        for (LoadTrack &track : pPlayer->tracks)
            if (track.nPayloadType == head.nPayloadType)
                pTrack = &track;
    if (!pTrack || (pPlayer->pDump && !PacketDumpHolds(pPlayer->pDump, pPacket, nBytes))) {
        pPlayer->counts.nWrong++;
        return;
    }
    const uint8_t *pPayload = pPacket + head.nHeadBytes;
    size_t nPayload = nBytes - head.nHeadBytes;
    if (pTrack->bVideo && !pTrack->bSeen)
        pPlayer->bKeyStart = BeginsKeyFrame(&head, pPayload, nPayload);
    CheckSequence(pPlayer, pTrack, head.nSequence);
    pTrack->nHeardUs = nNowUs;
    if (uint64_t nStampUs = StampFind(pPayload, nPayload))
        pTrack->nStampUs = nStampUs;
    if (head.bMarker)
        OnPictureEnd(pPlayer, pTrack, nNowUs);
}

static void OnReply(LoadPlayer *pPlayer, const RtspMessage *pReply, uint64_t nNowUs)
{
    if (pPlayer->state != LOAD_STARTED || pReply->kind != RTSP_REPLY ||
        RtspHeaderNumber(pReply, "CSeq", pPlayer->nPlayCSeq) != pPlayer->nPlayCSeq)
        return;
    pPlayer->nAnsweredUs = nNowUs;
    pPlayer->state = LOAD_PLAYING;
    if (pReply->nStatus != 200) {
        pPlayer->state = LOAD_FAILED;
        pPlayer->client.error = "PLAY: " + std::to_string(pReply->nStatus) + " " + pReply->reason;
    }
}

// Takes the messages out of p. Returns the bytes that they cover, or -1 for what can be no message.
static long TakeMessages(LoadPlayer *pPlayer, const uint8_t *p, size_t nBytes, uint64_t nNowUs)
{
    size_t nAt = 0;
    RtspMessage message;
    while (nAt < nBytes) {
        const uint8_t *pNext = p + nAt;
        size_t nLeft = nBytes - nAt;
        if (*pNext != '$') {
            long n = RtspParse(reinterpret_cast<const char *>(pNext), nLeft, &message);
            if (n < 0)
                return -1;
            if (n == 0)
                break;
            OnReply(pPlayer, &message, nNowUs);
            nAt += static_cast<size_t>(n);
            continue;
        }
        size_t nFrame = nLeft < kFrameHeadBytes ? SIZE_MAX : kFrameHeadBytes + GetBe(pNext + 2, 2);
        if (nFrame > nLeft)
            break;
        if (pNext[1] & 1)
            pPlayer->counts.nReports++;
        else
            OnRtp(pPlayer, pNext + kFrameHeadBytes, nFrame - kFrameHeadBytes, nNowUs);
        nAt += nFrame;
    }
    return static_cast<long>(nAt);
}

// One read and what it brings. Returns 1 when there may be more.
static int ReadOnce(LoadPlayer *pPlayer)
{
    size_t nTail = pPlayer->tail.size();
    ssize_t n = recv(pPlayer->client.fd, g_stream + nTail, kReadBytes, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return 0;
    if (n <= 0) {
        Fail(pPlayer, n == 0 ? "the server closed the connection" : "the server reset the connection");
        return 0;
    }
    std::copy(pPlayer->tail.begin(), pPlayer->tail.end(), g_stream);
    size_t nHeld = nTail + static_cast<size_t>(n);
    long nTaken = TakeMessages(pPlayer, g_stream, nHeld, RtspNowUs());
    size_t nLeft = nTaken < 0 ? SIZE_MAX : nHeld - static_cast<size_t>(nTaken);
    if (nLeft > kTailBytes) {
        Fail(pPlayer, "what arrives is neither a message nor a frame");
        return 0;
    }
    pPlayer->tail.assign(reinterpret_cast<const char *>(g_stream) + nTaken, nLeft);
    return static_cast<size_t>(n) == kReadBytes;
}

void LoadPlayerReadStream(LoadPlayer *pPlayer)
{
    while (ReadOnce(pPlayer))
        continue;
}

// The size of the datagrams that a read brought together, all but the last: what came without it is one.
static size_t SegmentSize(msghdr *pHead, size_t nBytes)
{
    cmsghdr *p = CMSG_FIRSTHDR(pHead);
    int nSize = 0;
    if (p && p->cmsg_level == SOL_UDP && p->cmsg_type == UDP_GRO)
        memcpy(&nSize, CMSG_DATA(p), sizeof(nSize));
    return nSize > 0 ? static_cast<size_t>(nSize) : nBytes;
}

static void TakeDatagrams(LoadPlayer *pPlayer, const uint8_t *pData, mmsghdr *pMessage, int bRtcp)
{
    uint64_t nNowUs = RtspNowUs();
    size_t nLeft = pMessage->msg_len;
    size_t nSize = SegmentSize(&pMessage->msg_hdr, nLeft);
    do {
        size_t nBytes = std::min(nSize, nLeft);
        if (bRtcp)
            pPlayer->counts.nReports++;
        else
            OnRtp(pPlayer, pData, nBytes, nNowUs);
        pData += nBytes;
        nLeft -= nBytes;
    } while (nLeft > 0);
}

void LoadPlayerReadDatagrams(LoadPlayer *pPlayer, int fd, int bRtcp)
{
    alignas(cmsghdr) char control[kDatagrams][CMSG_SPACE(sizeof(int))];
    mmsghdr messages[kDatagrams] = {};
    iovec pieces[kDatagrams];
    int n = kDatagrams;
    while (n == static_cast<int>(kDatagrams)) {
        for (unsigned i = 0; i < kDatagrams; i++) {
            pieces[i] = {g_datagrams[i], kDatagramBytes};
            msghdr *pHead = &messages[i].msg_hdr;
            pHead->msg_iov = &pieces[i];
            pHead->msg_iovlen = 1;
            pHead->msg_control = control[i];
            pHead->msg_controllen = sizeof(control[i]);
        }
        n = recvmmsg(fd, messages, kDatagrams, MSG_DONTWAIT, nullptr);
        for (int i = 0; i < n; i++)
            TakeDatagrams(pPlayer, g_datagrams[i], &messages[i], bRtcp);
    }
}

void LoadPlayerTick(LoadPlayer *pPlayer, const LoadOptions *pOptions, uint64_t nNowUs)
{
    if (pPlayer->state != LOAD_PLAYING)
        return;
    for (const LoadTrack &track : pPlayer->tracks)
        if (pOptions->nSilence && track.bSeen &&
            nNowUs > track.nHeardUs + static_cast<uint64_t>(pOptions->nSilence) * kSecondUs)
            return Fail(pPlayer, "a track has gone silent");
    if (pOptions->nKeepAlive && nNowUs >= pPlayer->nNextKeepAliveUs) {
        if (pPlayer->nNextKeepAliveUs)
            RtspSend(&pPlayer->client, "OPTIONS", nullptr, nullptr, std::string(), kSendTimeoutMs);
        pPlayer->nNextKeepAliveUs = nNowUs + static_cast<uint64_t>(pOptions->nKeepAlive) * kSecondUs;
    }
    if (pOptions->nReports && pPlayer->transport == RTSP_OVER_UDP && nNowUs >= pPlayer->nNextReportUs) {
        pPlayer->nNextReportUs = nNowUs + static_cast<uint64_t>(pOptions->nReports) * kSecondUs;
        for (size_t i = 0; i < pPlayer->client.tracks.size() && i < kLoadTracks; i++)
            RtspUdpSendReport(&pPlayer->client.tracks[i], kOwnSsrc, pPlayer->tracks[i].nNext - 1U);
    }
}

}  // namespace orx
