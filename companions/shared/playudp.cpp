#include "shared/playudp.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include "client/rtppacket.h"
#include "shared/playmedia.h"

namespace orx {

constexpr int kMostAtOnce = 128;  // datagrams, so that one camera does not hold up the others

// Reads one datagram of the server's into the loop's buffer. Returns its bytes; 0 for one that is passed
// over; -1 when there is none.
static ssize_t Receive(const PlayUdp *pUdp, int fd, uint8_t *pBuffer)
{
    NetAddr from;
    socklen_t nSize = sizeof from;
    ssize_t n = recvfrom(fd, pBuffer, kLoopBufferBytes, MSG_DONTWAIT, &from.any, &nSize);
    if (n < 0)
        return errno == ECONNREFUSED || errno == EINTR ? 0 : -1;  // a port of the server's is closed
    AddrUnmap(&from);
    return AddrSameHost(&from, &pUdp->peerRtp) ? n : 0;
}

static void OnDatagrams(PlayUdp *pUdp, int bRtcp)
{
    RtspPlay *pPlay = pUdp->pPlay;
    PlayBusy busy(pPlay);
    int nConnection = pPlay->nConnection;
    int fd = bRtcp ? pUdp->pair.fdRtcp : pUdp->pair.fdRtp;
    uint8_t *pBuffer = LoopBuffer(pPlay->pLoop);
    for (int i = 0; i < kMostAtOnce; i++) {
        ssize_t n = Receive(pUdp, fd, pBuffer);
        if (n < 0)
            break;
        if (n == 0)
            continue;
        pPlay->nSwitchDueMs = 0;  // UDP brings something
        PlayTakePacket(pPlay, pUdp->nMedia, bRtcp, pBuffer, static_cast<size_t>(n));
        if (PlayIsOver(pPlay) || pPlay->nConnection != nConnection)
            return;
    }
    PlayBurstDone(pPlay);
}

static void OnRtp(void *pUser, uint32_t)
{
    OnDatagrams(static_cast<PlayUdp *>(pUser), 0);
}

static void OnRtcp(void *pUser, uint32_t)
{
    OnDatagrams(static_cast<PlayUdp *>(pUser), 1);
}

int PlayUdpOpen(RtspPlay *pPlay, size_t nMedia)
{
    PlayMedia *pMedia = &pPlay->media[nMedia];
    NetAddr own;
    PlayUdpClose(pMedia);
    pMedia->udp = std::make_unique<PlayUdp>();
    PlayUdp *pUdp = pMedia->udp.get();
    pUdp->pPlay = pPlay;
    pUdp->nMedia = nMedia;
    if (!LinkAddresses(pPlay->pLink, &own, &pUdp->peerRtp) || !UdpPairOpen(&pUdp->pair, &own))
        return 0;
    AddrSetPort(&pUdp->peerRtp, 0);
    pUdp->peerRtcp = pUdp->peerRtp;
    pUdp->watchRtp = LoopWatch{pUdp->pair.fdRtp, OnRtp, pUdp};
    pUdp->watchRtcp = LoopWatch{pUdp->pair.fdRtcp, OnRtcp, pUdp};
    return LoopSetWatch(pPlay->pLoop, &pUdp->watchRtp, EPOLLIN) &&
           LoopSetWatch(pPlay->pLoop, &pUdp->watchRtcp, EPOLLIN);
}

void PlayUdpClose(PlayMedia *pMedia)
{
    PlayUdp *pUdp = pMedia->udp.get();
    if (!pUdp)
        return;
    LoopSetWatch(pUdp->pPlay->pLoop, &pUdp->watchRtp, 0);
    LoopSetWatch(pUdp->pPlay->pLoop, &pUdp->watchRtcp, 0);
    UdpPairClose(&pUdp->pair);
    pMedia->udp.reset();
}

void PlayUdpSetPeer(PlayMedia *pMedia, int nRtpPort, int nRtcpPort)
{
    AddrSetPort(&pMedia->udp->peerRtp, nRtpPort);
    AddrSetPort(&pMedia->udp->peerRtcp, nRtcpPort);
}

static void SendTo(int fd, const NetAddr *pPeer, const std::string &packet)
{
    if (pPeer->in4.sin_port != 0)  // what does not go is lost, as datagrams are
        sendto(fd, packet.data(), packet.size(), MSG_DONTWAIT, &pPeer->any, AddrSize(pPeer));
}

void PlayUdpPunch(RtspPlay *pPlay)
{
    std::string packet(kRtpHeadBytes, '\0');
    RtpHead head;
    head.nSsrc = pPlay->nSsrc;
    RtpWriteHead(packet.data(), &head);
    for (PlayMedia &media : pPlay->media) {
        if (!media.udp)
            continue;
        SendTo(media.udp->pair.fdRtp, &media.udp->peerRtp, packet);
        PlayUdpSendRtcp(&media, PlayReport(pPlay, &media));
    }
}

void PlayUdpSendRtcp(PlayMedia *pMedia, const std::string &packet)
{
    SendTo(pMedia->udp->pair.fdRtcp, &pMedia->udp->peerRtcp, packet);
}

}  // namespace orx
