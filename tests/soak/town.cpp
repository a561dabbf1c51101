#include "soak/town.h"

#include <sys/un.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "system/systemtest.h"

namespace orx {

constexpr int kCameras = 3, kMinutes = 8;
constexpr uint64_t kSecondMs = 1000, kHourMs = 3600 * kSecondMs;
constexpr int kPictures = 10, kPicturesPerSecond = 25;  // that are sent of a second; the first is a key picture
constexpr size_t kServedPictures = 4;
constexpr size_t kMostOutput = 4 << 20;
constexpr int kAnswerMs = kSanitized ? 60000 : 20000;
constexpr char kUser[] = "ann", kPassword[] = "annpw";

bool Town::Hold(bool bOk, const std::string &what)
{
    if (!bOk) {
        if (faults.empty())
            printed = ReadFile(box.outputPath);
        faults.push_back(what);
        printf("%s; today%s\n", what.c_str(), today.c_str());
    }
    return bOk;
}

bool Town::Start(uint32_t nBeforeWrapMs)
{
    std::filesystem::create_directories(recordings);
    box.outputPath = place.File("output");
    box.settings = "AuthType=" + std::to_string(1 + dice.Below(2)) +
                   "\nEnableFilePrg=1\nEnableRtcp=1\nEnableUnet=1\nEnableHttpProxy=1\nHttpProxyListenPort=" +
                   std::to_string(ports.nFirst) +
                   "\n"
                   "AutoDropDataWhenCrowded=" +
                   std::to_string(dice.Below(2)) + "\nHttpProxyTargetPort=" + std::to_string(web.nPort) +
                   "\n[STORAGE]\nRecordEnable=1\nNeverLose=1\nRecordAlways=cam*\nMinutePerFile=1\nKeepDays=2\n"
                   "RecordPath=" +
                   recordings + "\n[USERS]\nSuperUser=admin\nSuperPwd=secret\nNumUsers=1\nUserName0=" + kUser +
                   "\nUserPwd0=" + kPassword +
                   "\nUserLevel0=2\n[INTEROP]\nStandardPushers=1\nStandardPlayers=1\nUdpPushers=1\nHoldPlayers=60\n"
                   "LowDelay=" +
                   std::to_string(dice.Below(2)) + "\nFastWebPort=" + std::to_string(dice.Below(2)) +
                   "\n[STATUS]\nSocket=" + socketPath +
                   "\n[GUARD]\nStateTimeout=90\nAuthFailDelay=500\nFreshNonce=1\nPinMedia=1\nConfineRecordings=1\n";
    return Hold(box.Start(nBeforeWrapMs), "the server does not start");
}

std::vector<std::string> Town::Recordings() const
{
    std::vector<std::string> files = FilesBelow(recordings);
    std::erase_if(files, [](const std::string &name) { return !name.ends_with(".zmf"); });
    return files;
}

// --- Those who come ---

static Guest *Come(Town *pTown, RtspTransport nTransport = RTSP_OVER_TCP)
{
    pTown->guests.push_back(std::make_unique<Guest>(nTransport));
    RtspClient *p = &pTown->guests.back()->viewer.client;
    p->user = kUser;
    p->password = kPassword;
    p->sourceIp = "127.0.0." + std::to_string(2 + pTown->dice.Below(200));
    return pTown->guests.back().get();
}

static void Play(Town *pTown, Guest *pGuest, const std::string &url)
{
    RtspClient *p = &pGuest->viewer.client;
    pTown->Hold(pGuest->viewer.Prepare(url) && RtspPlay(p), "no player gets in at " + url + ": " + p->error);
}

static void Watch(Town *pTown, RtspTransport nTransport)
{
    size_t nCamera = pTown->dice.Below(pTown->cameras.size());
    Guest *pGuest = Come(pTown, nTransport);
    Play(pTown, pGuest, pTown->box.Url(pTown->CameraPath(nCamera)));
    pGuest->nCamera = static_cast<int>(nCamera);
}

static void ComeByTcp(Town *pTown)
{
    Watch(pTown, RTSP_OVER_TCP);
}
static void ComeByUdp(Town *pTown)
{
    Watch(pTown, RTSP_OVER_UDP);
}
static void ComeByTunnel(Town *pTown)
{
    Watch(pTown, RTSP_OVER_TUNNEL);
}

// The web port passes a tunnel on.
static void ComeByWeb(Town *pTown)
{
    size_t nCamera = pTown->dice.Below(pTown->cameras.size());
    Guest *pGuest = Come(pTown, RTSP_OVER_TUNNEL);
    Play(pTown, pGuest, "rtsp://127.0.0.1:" + std::to_string(pTown->ports.nFirst) + pTown->CameraPath(nCamera));
    pGuest->nCamera = static_cast<int>(nCamera);
}

static void ComeByRelay(Town *pTown)
{
    const std::string listen = "127.0.0.1:" + std::to_string(pTown->ports.nFirst + 1);
    if (!pTown->relay) {
        const std::vector<std::string> arguments = {"--listen", listen,
                                                    "127.0.0.1:" + std::to_string(pTown->box.now.nPort)};
        pTown->relay = std::make_unique<ToolProcess>("orxrelay", arguments);
        if (!pTown->Hold(pTown->relay->WaitOutput("open rtsp://"), "no relay: " + pTown->relay->Output()))
            return;
    }
    size_t nCamera = pTown->dice.Below(pTown->cameras.size());
    Guest *pGuest = Come(pTown);
    pGuest->viewer.client.sourceIp.clear();
    Play(pTown, pGuest, "rtsp://" + listen + pTown->CameraPath(nCamera));
    pGuest->nCamera = static_cast<int>(nCamera);
}

static void PlayRecording(Town *pTown)
{
    std::vector<std::string> files = pTown->Recordings();
    if (files.empty())
        return;
    const std::string name = pTown->dice.Pick(files);
    Guest *pGuest = Come(pTown, pTown->dice.OneIn(2) ? RTSP_OVER_TCP : RTSP_OVER_UDP);
    RtspClient *p = &pGuest->viewer.client;
    bool bPlays = pGuest->viewer.Prepare(pTown->box.Url("/" + name)) && RtspPlay(p);
    bPlays = bPlays && (!pTown->dice.OneIn(2) || RtspPlay(p, "Range: npt=0.4-\r\n"));
    pTown->Hold(bPlays || !std::filesystem::exists(pTown->recordings + "/" + name),
                name + " does not play: " + p->error);
    if (bPlays && pTown->dice.OneIn(3))
        RtspSend(p, "PAUSE", nullptr);
    pGuest->bMayStay = false;
}

// Its host has gone, or it has forgotten the player.
static void StopReading(Town *pTown)
{
    Guest *pGuest = Come(pTown, pTown->dice.OneIn(2) ? RTSP_OVER_TCP : RTSP_OVER_TUNNEL);
    pGuest->viewer.client.nReceiveBuffer = 4096;
    Play(pTown, pGuest, pTown->box.Url(pTown->CameraPath(0)));
    pGuest->bReads = false;
}

// A tunnel that loses the half which requests leave on; media goes on.
static void BreakTunnel(Town *pTown)
{
    Watch(pTown, RTSP_OVER_TUNNEL);
    RtspClient *p = &pTown->guests.back()->viewer.client;
    shutdown(pTown->dice.OneIn(2) ? p->fdPost : p->fd, SHUT_RDWR);
    pTown->guests.back()->nCamera = -1;
}

static void HalfTunnel(Town *pTown)
{
    Guest *pGuest = Come(pTown);
    pGuest->raw = Connect(static_cast<int>(pTown->box.now.nPort), 2);
    pGuest->raw.Send((pTown->dice.OneIn(2) ? "GET" : "POST") +
                     (" /cam0 HTTP/1.0\r\nx-sessioncookie: " + std::to_string(pTown->dice.engine())) +
                     "\r\nContent-Type: application/x-rtsp-tunnelled\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n");
}

static void Guess(Town *pTown)
{
    Guest *pGuest = Come(pTown);
    RtspClient *p = &pGuest->viewer.client;
    p->password = "guess" + std::to_string(pTown->dice.Below(1000));
    p->sourceIp = "127.0." + std::to_string(pTown->dice.Below(100)) + ".9";
    bool bAsked = RtspConnect(p, pTown->box.Url("/cam0").c_str()) && RtspSend(p, "DESCRIBE", nullptr) &&
                  RtspWaitReply(p, 0, nullptr, kAnswerMs);
    pTown->Hold(bAsked, "a stranger gets no answer");
    for (unsigned n = pTown->dice.Below(3); n > 0; n--)  // answers that may wait for so many seconds
        RtspSend(p, "DESCRIBE", nullptr, ("Authorization: Basic " + std::string("YW5uOmd1ZXNz") + "\r\n").c_str());
}

static void SayNothing(Town *pTown)
{
    static const std::string texts[] = {"",
                                        "OPT",
                                        "DESCRIBE rtsp://x/cam0 RTSP/1.0\r\nCSeq: 1\r\n",
                                        "$",
                                        "\xFF\xFF\r\n\r\n",
                                        "ANNOUNCE /cam0 RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 4000\r\n\r\nv=0"};
    Guest *pGuest = Come(pTown);
    pGuest->raw = Connect(static_cast<int>(pTown->box.now.nPort), 3);
    pGuest->raw.Send(pTown->dice.Pick(texts));
}

static void OpenPage(Town *pTown)
{
    Guest *pGuest = Come(pTown);
    pGuest->raw = Connect(pTown->ports.nFirst);
    pGuest->raw.Send("GET / HTTP/1.0\r\n\r\n");
    Sock page = pTown->web.Accept(kAnswerMs);
    if (!pTown->dice.OneIn(3))
        page.Send("HTTP/1.0 200 OK\r\n\r\nhello");
}

static void AskStatus(Town *pTown)
{
    static const std::string requests[] = {
        "GET /status",  "GET /metrics", "GET /health", "GET /recordings", "GET /recordings?program=cam0",
        "POST /reload", "GET /nothing"};
    Sock sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    pTown->socketPath.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    bool bThere = connect(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 &&
                  sock.Send(pTown->dice.Pick(requests) + " HTTP/1.1\r\n\r\n");
    pTown->Hold(bThere && (pTown->dice.OneIn(4) || !sock.Read(12).empty()), "the status socket does not answer");
}

// Somebody comes as the same camera: the box has been started anew, and the old connection hangs.
static void RestartCamera(Town *pTown)
{
    size_t nCamera = pTown->dice.Below(pTown->cameras.size());
    if (pTown->dice.OneIn(2))
        RtspReset(&pTown->cameras[nCamera]->client);
    pTown->OpenCamera(nCamera);
}

static void Alarm(Town *pTown)
{
    Camera *pCamera = pTown->dice.Pick(pTown->cameras).get();
    for (const char *szParam : {"EventType=2&LimitLen=10", "EventType=1", "Cmd=stop"})
        if (!pTown->dice.OneIn(3))
            pCamera->Record(szParam);
}

static void PushDatagrams(Town *pTown)
{
    Guest *pGuest = Come(pTown);
    RtspClient *p = &pGuest->viewer.client;
    p->sourceIp.clear();
    RtspUdpPair pair;
    bool bSetUp =
        RtspConnect(p, pTown->box.Url("/guest").c_str()) && RtspAnnounce(p, CameraSdp()) && RtspUdpOpen(&pair, p->fd);
    const std::string ports = std::to_string(pair.nPort) + "-" + std::to_string(pair.nPort + 1);
    std::string reply =
        Ask(p, "SETUP", "/guest/trackID=0", "Transport: RTP/AVP/UDP;unicast;client_port=" + ports + ";mode=record\r\n");
    size_t nAt = reply.find("server_port=");
    bSetUp = bSetUp && nAt != std::string::npos && Ask(p, "RECORD").starts_with("RTSP/1.0 200");
    if (!pTown->Hold(bSetUp, "no camera may push datagrams: " + reply))
        return;
    sockaddr_in to = Loopback(atoi(reply.c_str() + nAt + 12));
    for (uint16_t i = 0; i < 20; i++) {
        std::string packet = CameraPacket(0, static_cast<uint16_t>(i + i / 7), i * 3600U, "\x65picture", true);
        sendto(pair.fdRtp, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    }
}

// While recordings go on.
static void SetWallClock(Town *pTown)
{
    pTown->box.Step(static_cast<int>(pTown->dice.Below(7200)) - 3600);
}

static const struct Scene {
    const char *szName;
    unsigned nWeight;
    void (*pfnCome)(Town *pTown);
} kScenes[] = {
    {"TCP", 6, ComeByTcp},
    {"UDP", 6, ComeByUdp},
    {"tunnel", 4, ComeByTunnel},
    {"web port", 3, ComeByWeb},
    {"relay", 2, ComeByRelay},
    {"recording", 5, PlayRecording},
    {"dead player", 2, StopReading},
    {"broken tunnel", 3, BreakTunnel},
    {"half tunnel", 2, HalfTunnel},
    {"wrong password", 4, Guess},
    {"stranger", 3, SayNothing},
    {"page", 2, OpenPage},
    {"status", 3, AskStatus},
    {"camera again", 3, RestartCamera},
    {"alarm", 3, Alarm},
    {"datagram camera", 2, PushDatagrams},
    {"clock set", 2, SetWallClock},
};

// --- Their day ---

// Whoever was there watches on when it comes again.
void Town::OpenCamera(size_t nCamera)
{
    static const std::vector<Coding> kinds[] = {{Coding::H264, Coding::G711}, {Coding::JPEG}, {Coding::H264}};
    cameras.resize(std::max(cameras.size(), nCamera + 1));
    auto camera = std::make_unique<Camera>(kinds[nCamera % std::size(kinds)]);
    camera->nPicture = static_cast<int>(dice.Below(1 << 24)) * 25;
    Hold(camera->Open(box.Url(CameraPath(nCamera))), "no camera gets in: " + camera->client.error);
    cameras[nCamera] = std::move(camera);
}

// The beginning of a second of pictures, of which now and then eight go by: less than anybody's media may wait. For
// recordings it is a minute.
void Town::Minute()
{
    const int nSeconds = dice.OneIn(8) ? 8 : 1;
    for (std::unique_ptr<Camera> &camera : cameras) {
        camera->Send(kPictures);
        camera->nPicture += nSeconds * kPicturesPerSecond - kPictures;
        for (CameraTrack &track : camera->tracks)
            track.sent.clear();
    }
    ExpectServed();
    box.nWallSeconds += 60;
    Hold(box.Move(static_cast<uint64_t>(nSeconds) * kSecondMs), "the server has ended");
}

// A start over UDP takes its time, and five packets may wait for more. Whoever did not read datagrams in
// time is expected to have got nothing.
void Town::ExpectServed()
{
    auto isServed = [](const std::unique_ptr<Guest> &guest) {
        if (guest->bReads && guest->viewer.client.fd >= 0)
            guest->viewer.Poll();
        if (guest->viewer.Dropped() > 0)
            guest->nCamera = -1;
        return guest->nCamera < 0 || guest->viewer.nPictures >= kServedPictures;
    };
    auto areServed = [&] {
        if (static_cast<size_t>(std::ranges::count_if(guests, isServed)) == guests.size())
            return true;
        for (std::unique_ptr<Camera> &camera : cameras)
            Answers(&camera->client);  // what waits for more leaves with a second read
        return false;
    };
    if (!WaitFor(areServed, kAnswerMs))
        for (const std::unique_ptr<Guest> &guest : guests)
            Hold(isServed(guest), std::string("a player gets ") + std::to_string(guest->viewer.nPictures) +
                                      " pictures: " + guest->szScene + " of " + guest->viewer.client.url.path);
    for (std::unique_ptr<Guest> &guest : guests) {
        RtspClient *p = &guest->viewer.client;
        if (guest->viewer.transport == RTSP_OVER_UDP && p->fd >= 0)
            RtspSend(p, "OPTIONS", nullptr);
        p->inbox.clear();
        guest->viewer.nPictures = 0;
        guest->viewer.reports.clear();
        for (std::vector<std::string> &packets : guest->viewer.packets)
            packets.clear();
    }
}

static void Leave(Town *pTown, Guest *pGuest)
{
    RtspClient *p = &pGuest->viewer.client;
    switch (pTown->dice.Below(4)) {
        case 0:
            if (p->fd >= 0)
                RtspSend(p, "TEARDOWN", nullptr, nullptr, "", 0);
            break;
        case 1:
            RtspReset(p);
            break;
        case 2:
            if (p->fdPost >= 0)
                shutdown(p->fdPost, SHUT_RDWR);
            break;
        default:
            break;
    }
}

// Some leave, and some have gone without saying so: their connections stay until the next morning.
void Town::Evening()
{
    for (std::unique_ptr<Guest> &guest : guests)
        Leave(this, guest.get());
    std::erase_if(guests, [this](const auto &guest) { return !guest->bMayStay || !dice.OneIn(5); });
    for (std::unique_ptr<Guest> &guest : guests)
        guest->nCamera = -1;
    for (std::unique_ptr<Camera> &camera : cameras) {
        if (dice.OneIn(2) && camera->client.fd >= 0)
            RtspSend(&camera->client, "TEARDOWN", nullptr);
        if (!dice.OneIn(3))
            RtspClose(&camera->client);
    }
    if (relay) {
        const bool bDies = bPatient && dice.OneIn(10);  // which its peer finds out after half a minute
        relay->Signal(bDies ? SIGKILL : SIGTERM);
        Hold(relay->WaitExit() == (bDies ? 256 + SIGKILL : 0), "the relay does not end: " + relay->Output());
        relay.reset();
    }
}

void Town::Day()
{
    unsigned nWeights = 0;
    for (const Scene &scene : kScenes)
        nWeights += scene.nWeight;
    guests.clear();
    cameras.clear();
    today.clear();
    if (std::filesystem::file_size(box.outputPath) > kMostOutput)
        std::filesystem::resize_file(box.outputPath, 0);  // it is appended to
    for (size_t i = 0; i < kCameras; i++)
        OpenCamera(i);
    Minute();
    for (int i = 0; i < kMinutes && faults.empty(); i++) {
        for (unsigned n = dice.Below(5); n > 0; n--) {
            unsigned nChosen = dice.Below(nWeights);
            const Scene *pScene = kScenes;
            for (; nChosen >= pScene->nWeight; pScene++)
                nChosen -= pScene->nWeight;
            counts[pScene->szName]++;
            today += std::string(", ") + pScene->szName;
            pScene->pfnCome(this);
            if (!guests.empty() && !guests.back()->szScene)
                guests.back()->szScene = pScene->szName;
        }
        if (!guests.empty() && dice.OneIn(3)) {
            std::swap(guests.front(), dice.Pick(guests));
            Leave(this, guests.front().get());
            guests.pop_front();
        }
        Minute();
        today += ";";
    }
    Evening();
    box.Move((12 + dice.Below(11)) * kHourMs + dice.Below(kHourMs));
    if (dice.OneIn(4))
        SetWallClock(this);
}

void Town::Settle(const BoxFigures &most)
{
    auto isQuiet = [&] {
        if (!box.Move(10 * kSecondMs) || !box.Look())
            return true;
        bool bOver = false;
        for (const BoxRow &row : kBoxRows)
            bOver |= row.nSpare == 0 && box.now.*row.pValue > most.*row.pValue;
        return !bOver && box.now.nSessions == 0 && box.now.nPrograms == 0 &&
               Recordings().size() == FilesBelow(recordings).size();
    };
    if (!WaitFor(isQuiet))
        for (const BoxRow &row : kBoxRows)
            Hold(row.nSpare > 0 || box.now.*row.pValue <= most.*row.pValue,
                 std::string(row.szName) + ": " + std::to_string(box.now.*row.pValue) + ", and were " +
                     std::to_string(most.*row.pValue));
    Hold(box.now.bSound, "the server has ended");
    Hold(box.now.nSessions == 0 && box.now.nPrograms == 0, "somebody is left");
    Hold(Recordings().size() == FilesBelow(recordings).size(), "a recording stays open");
}

}  // namespace orx
