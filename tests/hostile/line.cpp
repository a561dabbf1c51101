#include "hostile/line.h"

#include <netinet/in.h>
#include <sys/time.h>

#include "base/base64.h"

namespace orx {

constexpr int kSettleMs = 200, kJoinMs = 50;  // for an answer that the next step needs
constexpr suseconds_t kSendUs = 200000;       // what the server does not take by then is not sent

static unsigned g_nOpened = 0;  // main thread

unsigned LinesOpened()
{
    return g_nOpened;
}

Sock ConnectFrom(const std::string &ip, int nPort)
{
    Sock sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    g_nOpened++;
    int nOn = 1;
    timeval wait{0, kSendUs};
    setsockopt(sock.fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &nOn, sizeof(nOn));
    setsockopt(sock.fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof(wait));
    sockaddr_in from = Loopback(0), to = Loopback(nPort);
    inet_pton(AF_INET, ip.c_str(), &from.sin_addr);
    if (bind(sock.fd, reinterpret_cast<sockaddr *>(&from), sizeof(from)) != 0 ||
        connect(sock.fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) != 0)
        sock.Close();
    return sock;
}

std::string Encoded(const std::string &bytes)
{
    std::string text(Base64EncodedSize(bytes.size()), '\0');
    text.resize(Base64EncodeCount(text.data(), bytes.data(), bytes.size()) - 1);  // without the NUL
    return text;
}

std::string TunnelHead(const char *szMethod, const std::string &cookie)
{
    const std::string type = "application/x-rtsp-tunnelled\r\n";
    return std::string(szMethod) + " /cam HTTP/1.0\r\nx-sessioncookie: " + cookie + "\r\nAccept: " + type +
           "Content-Type: " + type + "\r\n";
}

Line OpenLine(Way way, const std::string &ip, const Ports &ports, Dice *pDice)
{
    Line line;
    line.bTunnel = way == Way::TUNNEL || way == Way::WEB;
    if (way == Way::RELAY) {
        g_nOpened++;
        line.relay = std::make_unique<EnetSide>(ip.c_str());
        line.pPeer = line.relay->Connect(ports.nRtsp);
        line.relay->Pump([&] { return !line.relay->connected.empty(); }, kJoinMs);
        return line;
    }
    int nPort = way == Way::WEB ? ports.nWeb : ports.nRtsp;
    line.sock = ConnectFrom(ip, nPort);
    if (!line.bTunnel)
        return line;
    std::string cookie = std::to_string(pDice->engine());
    line.sock.Send(TunnelHead("GET", cookie));
    line.sock.Readable(kSettleMs);
    line.post = ConnectFrom(ip, nPort);
    line.post.Send(TunnelHead("POST", cookie));
    return line;
}

bool Line::Send(const std::string &bytes)
{
    if (!relay)
        return (bTunnel ? post : sock).Send(bTunnel ? Encoded(bytes) : bytes);
    constexpr size_t kPacketBytes = 1 << 14;
    for (size_t i = 0; i < bytes.size(); i += kPacketBytes)
        relay->Send(pPeer, bytes.substr(i, kPacketBytes));
    relay->Pump([] { return false; }, 1);
    return true;
}

void Line::Read()
{
    char bytes[65536];
    for (const Sock *pSock : {&sock, &post})
        for (int i = 0; i < 16 && recv(pSock->fd, bytes, sizeof(bytes), MSG_DONTWAIT) > 0; i++)
            continue;
    if (relay) {
        relay->Pump([] { return false; }, 1);
        relay->received.clear();
    }
}

void Line::Leave(Dice *pDice)
{
    bool bReset = pDice->OneIn(2);
    if (relay) {
        if (pDice->OneIn(3))
            relay->Send(pPeer, std::string("\0\0\0c", 4));
        else if (bReset)
            enet_peer_disconnect_now(pPeer, 0);
        relay.reset();
    }
    linger reset{1, 0};
    for (Sock *pSock : {&sock, &post}) {
        if (bReset)
            setsockopt(pSock->fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        pSock->Close();
    }
}

}  // namespace orx
