#include "hostile/attacks.h"

#include <algorithm>
#include <vector>

#include "support/rtp.h"

namespace orx {

constexpr size_t kMostLines = 20;
constexpr const char *kRtspVersion = " RTSP/1.0\r\nCSeq: ";

// --- Texts: a template in which '#' is a number, '@' a pair of UDP ports and '~' a word ---

static const std::string kNumbers[] = {"0",
                                       "1",
                                       "1",
                                       "2",
                                       "3",
                                       "4",
                                       "7",
                                       "8",
                                       "2.5",
                                       "1e9",
                                       "-1",
                                       "255",
                                       "65535",
                                       "65536",
                                       "2147483648",
                                       "4294967297",
                                       "18446744073709551616",
                                       "0x10",
                                       ""};
static const std::string kWords[] = {"cam",
                                     "own1",
                                     "ch01",
                                     "",
                                     "%00",
                                     "\x1B[2J",
                                     "a\rb",
                                     "..%2F..%2Fetc",
                                     "YW5uOmFubnB3",
                                     "%n%s",
                                     std::string(300, 'w'),
                                     std::string(5000, 'W'),
                                     "\xC3\xA4=[]",
                                     "'; reboot; '"};
static const std::string kPaths[] = {"/cam",
                                     "/cam",
                                     "/cam",
                                     "/own0",
                                     "/own1",
                                     "/ch01",
                                     "/good.zmf",
                                     "/bad0.zmf",
                                     "/bad1.zmf",
                                     "/tiny.zmf",
                                     "//cam/",
                                     "/cam/trackID=0",
                                     "/%2e%2e/cfg/orx.cfg",
                                     "/x%1B[2J",
                                     "/none",
                                     "*",
                                     "/" + std::string(260, 'p')};
static const char kAccounts[] = "[USERS]\r\nNumUsers=1024\r\nSuperUser=eve\r\nSuperPwd=eve\r\nUserName0=ann\r\n";

static std::string Fill(Dice *pDice, const std::string &text)
{
    std::string out;
    for (char c : text) {
        uint32_t nPort = 20000 + 2 * pDice->Below(20000);
        if (c == '#')
            out += pDice->Pick(kNumbers);
        else if (c == '@')
            out += std::to_string(nPort) + "-" + std::to_string(nPort + 1);
        else if (c == '~')
            out += pDice->Pick(kWords);
        else
            out += c;
    }
    return out;
}

struct RequestRow {
    const char *szMethod, *szSuffix, *szHeaders;  // templates, but for the method
    int nBody = 0;                                // bytes of a configuration text
};
static const RequestRow kOverTcp = {"SETUP", "/trackID=#", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"};
static const RequestRow kOverUdp = {"SETUP", "/trackID=#", "Transport: RTP/AVP;unicast;client_port=@\r\n"};
static const RequestRow kDescribe = {"DESCRIBE", "", "Authorization: Basic YW5uOmFubnB3\r\nBandwidth: #\r\n"};
static const RequestRow kPlay = {"PLAY", "", ""}, kSeek = {"PLAY", "", "Range: npt=#-#\r\n"};
static const RequestRow kPause = {"PAUSE", "", ""}, kTeardown = {"TEARDOWN", "", ""};
static const RequestRow kGetCamInfo = {"GETCAMINFO", "", "GetInfoType: ~\r\n"};
static const RequestRow kPutCamCfg = {"PUTCAMCFG", "", "Content-Type: text/plain\r\n", 16000};
static const RequestRow kRespond = {"RESPOND", "", "ClientSsId: #\r\nForward: 200 ~\r\n"};
static const RequestRow kRecord = {"RECORDEX", "", "ActionParam: FileName=~/~.zmf\r\n"};
static const RequestRow kPusherRequests[] = {kPutCamCfg, kPutCamCfg, kRespond, kRecord};
static const RequestRow kRequests[] = {
    kDescribe,
    kOverTcp,
    kOverUdp,
    kPlay,
    kSeek,
    kPause,
    kTeardown,
    kGetCamInfo,
    {"OPTIONS", "", "~: ~\r\n"},
    {"QUICKPLAY", "", "Authorization: ~\r\n"},
    {"SET_PARAMETER", "", "", 1},
    {"RECORD", "", ""},
    {"SETUP", "~", "Transport: ~\r\n"},
    {"SETUP", "/trackID=#", "Transport: RTP/AVP/UDP;unicast;client_port=#-#\r\n"},
    {"DESCRIBE", "", "Authorization: Digest username=\"~\", realm=\"Orx\", nonce=\"~\", uri=\"~\", response=\"~\"\r\n"},
    {"ANNOUNCE", "", "Content-Type: application/sdp\r\n", 200},
    {"GET", "", "x-sessioncookie: ~\r\n"},
    {"POST", "", "x-sessioncookie: ~\r\nContent-Type: application/x-rtsp-tunnelled\r\n"},
    {"GETCAMINFO", "", "GetInfoType: getcamcfg\r\n"},
    {"CAMCONTROL", "", "CamAction: ~\r\nActionParam: ~\r\n", 10},
    {"PUTVOICE", "", "Content-Type: audio/amr\r\n", 1500},
    kPutCamCfg,
    kRespond,
    {"SUBSCRIBE", "", "UserName: ann\r\nUserAuth: 7c3d2720b7581eea\r\n"},
    {"SUBSCRIBE", "", "UserName: ~\r\nUserAuth: ~\r\n"},
    {"REGISTER", "", "Guid: guid-#\r\n"},
    {"REGISTER", "", "Guid: ~\r\n"},
    {"GETPLAYLIST", "", "UserName: ~\r\nUserAuth: ~\r\nScreen-Size: #x#\r\n"},
    {"GETCFGDIRECT", "", "UserAuth: 7c3d2720b7581eea\r\n"},
    {"SETCFGDIRECT", "", "UserAuth: ~\r\n", 100},
    {"GETWIFIROUTERS", "", ""},
    {"RECORDEX", "", "ActionParam: EventType=#&LimitLen=#\r\n"},
    kRecord,
    {"RECORDEX", "", "ActionParam: FileName=../outside.zmf&Cmd=~\r\n"},
    {"RECORDEX", "", "ActionParam: Cmd=stop\r\n"},
    {"SLEEP", "", ""},
    {"WAKE", "", ""},
    {"~", "~", "~: ~\r\n"}};

static std::string Ask(Attack *p, const RequestRow &row, const std::string &path)
{
    std::string body = (kAccounts + std::string(static_cast<size_t>(row.nBody), 'u')).substr(0, row.nBody);
    std::string text = Fill(&p->dice, row.szMethod) + " rtsp://127.0.0.1" + path + Fill(&p->dice, row.szSuffix) +
                       kRtspVersion + std::to_string(++p->nCSeq) + "\r\n" + Fill(&p->dice, row.szHeaders);
    if (!body.empty())
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

static Line Open(Attack *p)
{
    static const Way ways[] = {Way::DIRECT, Way::DIRECT, Way::TUNNEL, Way::WEB, Way::RELAY};
    return OpenLine(p->dice.Pick(ways), p->ip, p->ports, &p->dice);
}

// The line ends now, or is left to those who look after what stays.
static void Finish(Attack *p, Line &&line)
{
    if (p->pLines->size() < kMostLines && p->dice.OneIn(3))
        p->pLines->push_back(std::move(line));
    else
        line.Leave(&p->dice);
}

// --- Media ---

// Heads of payloads that a codec looks into: units, aggregates and fragments of H.264, JPEG.
static const std::string kPayloads[] = {"\x67\x42",
                                        "\x68",
                                        "\x65\x88",
                                        "\x41\x9A",
                                        {"\x78\0\2\x67\x42\0\1\x68", 8},
                                        {"\x78\xFF\xFF\x65", 4},
                                        "\x7C\x85",
                                        "\x7C\x05",
                                        "\x7C\x45",
                                        "\x1D",
                                        {"\0\0\0\0\1\xFF\x28\x1E\0\0\0\x80", 12},
                                        {"\0\xFF\xFF\xFF\x41\1\0\0", 8},
                                        ""};

static std::string AnyPacket(Dice *pDice, uint16_t nSequence, uint32_t nTicks = 1800)
{
    RtpFields head;
    static const uint32_t types[] = {96, 26, 8, 98, 97, 0},
                          flags[] = {0x80, 0x80, 0x80, 0x80, 0x80, 0x90, 0xA0, 0x8F, 0};
    head.nType = pDice->Pick(types);
    head.nSequence = pDice->OneIn(32) ? static_cast<uint16_t>(pDice->engine()) : nSequence;
    head.nTime = pDice->OneIn(32) ? pDice->engine() : nSequence * nTicks;
    head.bMarker = pDice->OneIn(2);
    head.nFlags = pDice->Pick(flags);
    return MakeRtp(head, pDice->Pick(kPayloads) + Pattern(pDice->Below(pDice->OneIn(40) ? 60000 : 1400), nSequence));
}

static std::string AnyFrames(Dice *pDice, uint32_t nFrames)
{
    std::string frames;
    auto nSequence = static_cast<uint16_t>(pDice->engine());
    uint32_t nTicks = pDice->OneIn(2) ? 1800 : 0;  // a time that stands still is kept for ever
    for (uint32_t i = 0; i < nFrames; i++)
        frames +=
            Frame(pDice->OneIn(3000) ? 255 : static_cast<int>(pDice->Below(8)), AnyPacket(pDice, nSequence++, nTicks));
    return frames;
}

static std::string AnySdp(Dice *pDice, uint32_t nTracks)
{
    static const char *const sections[] = {
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=framesize:96 #-#\r\n",
        "m=video 0 RTP/AVP 26\r\na=rtpmap:26 JPEG/90000\r\na=cliprect:0,0,#,#\r\n",
        "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000/1\r\n",
        "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000\r\na=fmtp:97 octet-align=#\r\n",
        "m=data 0 RTP/AVP 98\r\na=rtpmap:98 events/1000\r\n",
        "m=text 0 RTP/AVP #\r\na=rtpmap:# ~/#\r\n"};
    std::string sdp = "v=0\r\ns=own\r\na=NickName:~\r\na=range:npt=0-#\r\n";
    for (uint32_t i = 0; i < nTracks; i++)
        sdp += sections[i && !pDice->OneIn(3) ? 2 + 2 * pDice->Below(2) : pDice->Below(6)] +
               ("a=control:trackID=" + std::to_string(i) + "\r\n");
    return pDice->OneIn(6) ? pDice->Spoil(Fill(pDice, sdp)) : Fill(pDice, sdp);
}

// --- Recordings ---

static const std::string kRecordedSdp = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";

// A recording that was interrupted: key pictures of a few bytes, as many as the file has room for.
static std::string MakeRecording(size_t nRecords, size_t nPayload)
{
    std::string file = "zmf@" + Be(168, 2) + Be(100, 2) + Be(1600, 2) + Be(64, 2) + std::string(156 + 1600, '\0');
    std::string sdp = kRecordedSdp;
    sdp.resize(64, '\0');
    file += sdp;
    for (uint32_t i = 0; i < nRecords; i++)
        file += Be(static_cast<uint32_t>(8 + nPayload), 2) + "v\x40" + Be(i * 40, 4) +
                (Be(static_cast<uint32_t>(nPayload), 2) + "\x67" + std::string(nPayload, 'k')).substr(0, nPayload);
    return file;
}

// --- The attacks ---

static void Walk(Attack *p)
{
    Line line = Open(p);
    std::string text, path = p->dice.Pick(kPaths);
    for (uint32_t n = 1 + p->dice.Below(30); n > 0; n--) {
        text += Ask(p, p->dice.Pick(kRequests), p->dice.OneIn(4) ? p->dice.Pick(kPaths) : path);
        if (p->dice.OneIn(10))
            text += AnyFrames(&p->dice, 3);
    }
    line.Send(p->dice.OneIn(3) ? p->dice.Spoil(text) : text);
    Finish(p, std::move(line));
}

// What a player sends, a request each, in the order that leads somewhere.
static std::vector<std::string> PlayerSteps(Attack *p, const std::string &path)
{
    const RequestRow &setup = p->dice.OneIn(2) ? kOverUdp : kOverTcp;
    std::vector<std::string> steps = {Ask(p, kDescribe, path)};
    for (uint32_t n = 1 + p->dice.Below(2), i = 0; i < n; i++)
        steps.push_back(Ask(p, {"SETUP", i ? "/trackID=1" : "/trackID=0", setup.szHeaders}, path));
    steps.push_back(Ask(p, kPlay, path));
    for (uint32_t n = p->dice.Below(4); n > 0; n--)
        steps.push_back(Ask(p, p->dice.OneIn(3) ? kPause : kSeek, path));
    if (p->dice.OneIn(3))
        steps.push_back(Ask(p, kTeardown, path));
    return steps;
}

static void Watch(Attack *p)
{
    Line line = Open(p);
    for (const std::string &step : PlayerSteps(p, p->dice.Pick(kPaths))) {
        line.Send(p->dice.OneIn(20) ? p->dice.Spoil(step) : step);
        if (p->dice.OneIn(8))
            line.Send(AnyFrames(&p->dice, 10));
        if (p->dice.OneIn(8))
            p->settle();
    }
    Finish(p, std::move(line));
}

// A letter for what happens to the halves: opened ("G", "P"), closed ("g", "p"), ended in one direction ("f"), a
// second one of the name ("q"), and "R" for the next request.
static void Tunnel(Attack *p)
{
    int nPort = p->dice.OneIn(3) ? p->ports.nWeb : p->ports.nRtsp;
    std::string order = "GP", cookie = std::to_string(p->dice.engine());
    auto steps = PlayerSteps(p, p->dice.OneIn(4) ? p->dice.Pick(kPaths) : "/cam");
    order += std::string(steps.size(), 'R');
    for (uint32_t n = 1 + p->dice.Below(3); n > 0; n--)
        order.insert(p->dice.Below(order.size() + 1), 1, "ggpfqG"[p->dice.Below(6)]);
    if (p->dice.OneIn(6))
        std::swap(order[0], p->dice.Pick(order));
    Line line, other;
    line.bTunnel = true;
    size_t nStep = 0;
    for (char c : order) {
        Sock *pSock = c == 'G' || c == 'g' ? &line.sock : &line.post;
        if (c == 'G' || c == 'P' || c == 'q') {
            Sock sock = ConnectFrom(p->ip, nPort);
            sock.Send(TunnelHead(c == 'G' ? "GET" : "POST", cookie));
            std::swap(c == 'q' ? other.sock : *pSock, sock);
        } else if (c == 'R') {
            line.Send(steps[nStep++]);
        } else {
            shutdown(pSock->fd, c == 'f' ? SHUT_WR : SHUT_RDWR);
        }
        if (!p->dice.OneIn(4))
            p->settle();
    }
    Finish(p, std::move(line));
}

// One request very often, where it counts, in one go.
static void Flood(Attack *p)
{
    Line line = OpenLine(p->dice.OneIn(4) ? Way::RELAY : Way::DIRECT, p->ip, p->ports, &p->dice);
    std::string path = p->dice.OneIn(2) ? "/cam" : p->dice.Pick(kPaths);
    auto steps = PlayerSteps(p, path);
    steps.resize(p->dice.Below(steps.size()) + 1);
    const RequestRow &row = p->dice.OneIn(3) ? kGetCamInfo : p->dice.Pick(kRequests);
    std::string text;
    for (const std::string &step : steps)
        text += step;
    for (uint32_t n = p->dice.Below(p->dice.OneIn(4) ? 4000 : 200); n > 0; n--)
        text += Ask(p, row, path);
    line.Send(text);
    p->settle();
    Finish(p, std::move(line));
}

static void Push(Attack *p)
{
    Line line = Open(p);
    std::string path = p->dice.OneIn(5) ? p->dice.Pick(kPaths) : "/own" + std::to_string(p->dice.Below(6));
    uint32_t nTracks = 1 + p->dice.Below(4);
    std::string sdp = AnySdp(&p->dice, nTracks);
    std::string text = "ANNOUNCE rtsp://127.0.0.1" + path + kRtspVersion + std::to_string(++p->nCSeq) +
                       "\r\nContent-Type: application/sdp\r\nContent-Length: " + std::to_string(sdp.size()) +
                       "\r\n\r\n" + sdp;
    for (uint32_t i = 0; i < (p->dice.OneIn(8) ? 4 : nTracks); i++)
        text += Ask(p, {"SETUP", ("/trackID=" + std::to_string(i)).c_str(), kOverTcp.szHeaders}, path);
    text += Ask(p, p->dice.OneIn(2) ? kPlay : RequestRow{"RECORD", "", ""}, path);
    if (p->dice.OneIn(2))
        text += Ask(p, {"RECORDEX", "", "ActionParam: EventType=3\r\n"}, path);
    for (uint32_t n = p->dice.OneIn(2) ? p->dice.Below(4) : 0; n > 0; n--)
        text += Ask(p, p->dice.Pick(kPusherRequests), path);
    line.Send(text);
    for (uint32_t n = p->dice.Below(p->dice.OneIn(10) ? 40 : 4); n > 0; n--)
        line.Send(AnyFrames(&p->dice, 100));
    text = AnyFrames(&p->dice, 100);
    for (uint32_t n = p->dice.OneIn(6) ? p->dice.Below(400) : 0; n > 0 && line.Send(text); n--)
        continue;
    Finish(p, std::move(line));
}

// A program in order but for its time, which stands still, and players of it that do not read.
static void Swell(Attack *p)
{
    const std::string path = "/swell" + std::to_string(p->dice.Below(3)),
                      sdp = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n",
                      head = "ANNOUNCE rtsp://127.0.0.1" + path + kRtspVersion + std::to_string(++p->nCSeq) +
                             "\r\nContent-Type: application/sdp\r\nContent-Length: " + std::to_string(sdp.size());
    Line line = OpenLine(Way::DIRECT, p->ip, p->ports, &p->dice), players[3];
    line.Send(head + "\r\n\r\n" + sdp + Ask(p, {"SETUP", "/trackID=0", kOverTcp.szHeaders}, path) +
              Ask(p, kPlay, path));
    uint32_t nBlocks = p->dice.Below(100);
    for (uint32_t n = 0; n < nBlocks; n++) {
        std::string frames;
        for (uint16_t i = 0; i < 400; i++) {
            RtpFields fields;
            fields.nSequence = static_cast<uint16_t>(400 * n + i);
            fields.nTime = 90;
            frames += Frame(0, MakeRtp(fields, (i == 0 && p->dice.OneIn(20) ? "\x65" : "\x41") + Pattern(1300, i)));
        }
        if (!line.Send(frames))
            break;
        if (n % 20 != 19 || n / 20 >= std::size(players))
            continue;
        players[n / 20] = OpenLine(Way::DIRECT, p->ip, p->ports, &p->dice);
        for (const RequestRow &row : {kDescribe, RequestRow{"SETUP", "/trackID=0", kOverTcp.szHeaders}, kPlay})
            players[n / 20].Send(Ask(p, row, path));
    }
    Finish(p, std::move(line));
    for (Line &player : players)
        player.Leave(&p->dice);
}

// Files that somebody left in the directory of recordings, played and searched.
static void Recording(Attack *p)
{
    static const char *const names[] = {"/good.zmf", "/bad0.zmf", "/bad1.zmf", "/tiny.zmf"};
    uint32_t nFile = p->dice.Below(4);
    std::string file =
        nFile == 3 ? MakeRecording(800000, 1) : MakeRecording(p->dice.Below(3000), 3 + p->dice.Below(2000));
    WriteFile(p->recordings + names[nFile], nFile % 3 ? p->dice.Spoil(file) : file);
    Line line = Open(p);
    std::string text;
    for (const std::string &step : PlayerSteps(p, names[nFile]))
        text += step;
    for (uint32_t n = p->dice.Below(40); n > 0; n--)
        text += Ask(p, p->dice.OneIn(2) ? kPause : kSeek, names[nFile]);
    line.Send(text);
    p->settle();
    Finish(p, std::move(line));
}

// Datagrams for the ports of other people's media, and for the relay.
static void Datagrams(Attack *p)
{
    Sock sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in from = Loopback(0);
    inet_pton(AF_INET, p->ip.c_str(), &from.sin_addr);
    bind(sock.fd, reinterpret_cast<sockaddr *>(&from), sizeof(from));
    // an ENet CONNECT with one channel, up to its identifier
    const std::string connect = "\x8F\xFF" + Be(0, 2) + "\x82\xFF" + Be(1, 2) + Be(0, 2) + "\xFF\xFF" + Be(1392, 4) +
                                Be(32768, 4) + Be(1, 4) + Be(0, 4) + Be(0, 4) + Be(5000, 4) + Be(2, 4) + Be(2, 4);
    for (uint32_t n = p->dice.Below(100); n > 0; n--) {
        bool bRelay = p->dice.OneIn(2);
        std::string bytes = bRelay && p->dice.OneIn(2) ? connect + Be(p->dice.engine(), 4) + Be(0, 4)
                            : p->dice.OneIn(2)         ? AnyPacket(&p->dice, static_cast<uint16_t>(n))
                                                       : Pattern(p->dice.Below(64), n);
        sockaddr_in to = Loopback(bRelay ? p->ports.nRtsp : p->nMediaPort + static_cast<int>(p->dice.Below(80)));
        bytes = p->dice.OneIn(3) ? p->dice.Spoil(bytes) : bytes;
        sendto(sock.fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    }
}

// Peers of the relay that send packets of no or few bytes, whatever the box makes of them.
static void Relay(Attack *p)
{
    for (uint32_t n = 1 + p->dice.Below(3); n > 0; n--) {
        Line line = OpenLine(Way::RELAY, p->ip, p->ports, &p->dice);
        std::string text = Ask(p, p->dice.Pick(kRequests), p->dice.Pick(kPaths));
        size_t nPiece = 1 + p->dice.Below(20);
        for (size_t i = 0; i < text.size() && p->dice.OneIn(2); i += nPiece)
            line.relay->Send(line.pPeer, text.substr(i, nPiece));
        for (uint32_t k = p->dice.Below(p->dice.OneIn(4) ? 5000 : 50); k > 0; k--)
            line.relay->Send(line.pPeer, std::string(p->dice.Below(2), 'x'));
        line.Send(p->dice.OneIn(3) ? std::string("\0\0\0d", 4) : text);
        Finish(p, std::move(line));
    }
}

static void Web(Attack *p)
{
    for (uint32_t n = 1 + p->dice.Below(10); n > 0; n--) {
        Line line;
        line.sock = ConnectFrom(p->ip, p->ports.nWeb);
        std::string text = Fill(&p->dice, "GET /~ HTTP/1.1\r\nHost: ~\r\nX-SessionCookie: #\r\n~: ~\r\n\r\n");
        line.sock.Send(p->dice.OneIn(2) ? p->dice.Spoil(text) : "GET / HTTP/1.0\r\n\r\n");
        Sock server = p->pWebServer->Readable(0) ? Sock(accept(p->pWebServer->fd, nullptr, nullptr)) : Sock();
        if (p->dice.OneIn(2))
            send(server.fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        Finish(p, std::move(line));
    }
}

// Connections that say little and go in every way.
static void Connections(Attack *p)
{
    static const std::string words[] = {"",
                                        "O",
                                        "$",
                                        {"$\0\xFF\xFF", 4},
                                        "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n",
                                        "X" + std::string(4100, 'x'),
                                        "\r\n\r\n\r\n",
                                        "OPTIONS * RTSP/1.0\r\n\r\n"};
    for (uint32_t n = 1 + p->dice.Below(30); n > 0; n--) {
        Line line;
        line.sock = ConnectFrom(p->ip, p->dice.OneIn(4) ? p->ports.nWeb : p->ports.nRtsp);
        line.sock.Send(p->dice.Pick(words));
        if (p->dice.OneIn(4))
            shutdown(line.sock.fd, SHUT_WR);
        n > 1 ? line.Leave(&p->dice) : Finish(p, std::move(line));
    }
}

std::span<const AttackRow> Attacks()
{
    static const AttackRow rows[] = {{"walk", 6, "requests of all methods in any order", Walk},
                                     {"watch", 4, "players that seek, pause, do not read, and go", Watch},
                                     {"tunnel", 6, "halves of a tunnel that come and go in any order", Tunnel},
                                     {"flood", 2, "one request thousands of times", Flood},
                                     {"push", 4, "programs with any description, frames of any content", Push},
                                     {"swell", 1, "a program that is kept for ever, and who does not read it", Swell},
                                     {"recording", 1, "crafted recordings, played and searched", Recording},
                                     {"datagrams", 3, "datagrams to media ports and to the relay", Datagrams},
                                     {"relay", 2, "peers of the relay with tiny packets", Relay},
                                     {"web", 2, "requests to the web port", Web},
                                     {"connections", 2, "connections that say little and go", Connections}};
    return rows;
}

}  // namespace orx
