#include "system/orxprocess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>

#include "client/rtppacket.h"

namespace orx {

// Ports are taken in blocks below those that the kernel hands out by itself. The last UDP port of a block
// stays bound while a test has it.
constexpr int kFirstBlock = 10240;
constexpr int kBlockPorts = 1024;
constexpr int kBlocks = 22;
constexpr int kFirstMediaPort = 16;

static int BindUdp(int nPort)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0)
        return fd;
    close(fd);
    return -1;
}

PortBlock::PortBlock()
{
    static int nTurn = getpid();
    auto take = [&] {
        for (int i = 0; i < kBlocks && fdReserved < 0; i++) {
            nFirst = kFirstBlock + (nTurn++ % kBlocks) * kBlockPorts;
            fdReserved = BindUdp(nFirst + kBlockPorts - 1);
        }
        return fdReserved >= 0;
    };
    WaitFor(take, 60000);
}

PortBlock::~PortBlock()
{
    close(fdReserved);
}

OrxProcess::OrxProcess()
{
    signal(SIGPIPE, SIG_IGN);  // that the program has gone is found out by other means
    nPort = ports.nFirst;
    nSparePort = nPort + 8;
    nUdpStart = nPort + kFirstMediaPort;
    Set("SERVER", "AuthType", "0");
    Set("SERVER", "ListenIp", "127.0.0.1");
    Set("SERVER", "ListenPort", std::to_string(nPort));
    Set("SERVER", "UdpStartPort", std::to_string(nUdpStart));
    Set("SERVER", "UdpEndPort", std::to_string(nPort + kBlockPorts - 4));
    Set("GUARD", "RunUnprivileged", "1");
}

void OrxProcess::WriteConfig()
{
    std::string config;
    std::string section;
    for (const auto &[name, value] : settings) {
        if (name.first != section)
            config += "[" + (section = name.first) + "]\n";
        config += name.second + "=" + value + "\n";
    }
    for (const char *szFolder : {"bin", "cfg", "log"})
        std::filesystem::create_directories(dir.File(szFolder));
    WriteFile(ConfigPath(), config);
    // the program finds its directory by its own executable, so that has to lie there itself
    std::error_code error;
    std::string program = dir.File("bin/orx");
    if (!std::filesystem::exists(program))
        std::filesystem::create_hard_link(ORX_PROGRAM, program, error);
    if (error)
        std::filesystem::copy_file(ORX_PROGRAM, program);
}

// The words of a command line for execve.
static std::vector<char *> Pointers(std::vector<std::string> *pWords)
{
    std::vector<char *> pointers;
    for (std::string &word : *pWords)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

// The emulator in front when the program was built for another machine.
static std::vector<std::string> CommandLine(const std::string &program,
                                            const std::vector<std::string> &arguments)
{
    std::vector<std::string> words;
    std::istringstream emulator(ORX_EMULATOR);
    for (std::string word; emulator >> word;)
        words.push_back(word);
    words.push_back(program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

void OrxProcess::LaunchWith(const std::vector<std::string> &arguments)
{
    ASSERT_LT(pid, 0);
    ASSERT_GE(ports.fdReserved, 0) << "all ports are taken";
    WriteConfig();
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
    std::vector<std::string> words = CommandLine(dir.File("bin/orx"), arguments);
    std::vector<char *> argv = Pointers(&words);
    std::string output = dir.File("output");
    std::filesystem::remove(output);
    text.clear();
    pid = fork();
    if (pid == 0) {
        int fdOut = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        dup2(fds[0], 0);
        dup2(fdOut, 1);
        dup2(fdOut, 2);
        for (const auto &[name, value] : environment)
            setenv(name.c_str(), value.c_str(), 1);
        signal(SIGPIPE, SIG_DFL);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(fds[0]);
    fdInput = fds[1];
    ASSERT_GT(pid, 0);
}

// Whether somebody accepts connections there.
static bool Connects(int nPort)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    bool bConnected = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0;
    close(fd);
    return bConnected;
}

void OrxProcess::Launch(bool bDaemon)
{
    std::vector<std::string> arguments = {"-c", ConfigPath()};
    if (bDaemon)
        arguments.push_back("-daemond");
    LaunchWith(arguments);
}

void OrxProcess::Start(bool bDaemon)
{
    ASSERT_NO_FATAL_FAILURE(Launch(bDaemon));
    bool bReady = bDaemon ? WaitFor([&] { return Connects(nPort); }) : WaitOutput("Enter command:");
    ASSERT_TRUE(bReady) << Output();
    ASSERT_EQ(0, CountText(Output(), "Listen error")) << Output();
}

void OrxProcess::TypeBytes(const std::string &bytes)
{
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fdInput, bytes.data(), bytes.size()));
}

void OrxProcess::EndInput()
{
    close(fdInput);
    fdInput = -1;
}

void OrxProcess::Signal(int nSignal) const
{
    if (pid > 0)
        kill(pid, nSignal);
}

int OrxProcess::WaitExit(int nMs)
{
    int nStatus = 0;
    if (pid < 0 || !WaitFor([&] { return waitpid(pid, &nStatus, WNOHANG) == pid; }, nMs))
        return -1;
    pid = -1;
    EndInput();
    return WIFSIGNALED(nStatus) ? 256 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus);
}

int OrxProcess::Quit()
{
    Type("quit");
    return WaitExit();
}

OrxProcess::~OrxProcess()
{
    Signal(SIGKILL);
    WaitExit();
}

std::string OrxProcess::Url(const std::string &path) const
{
    return "rtsp://127.0.0.1:" + std::to_string(nPort) + path;
}

const std::string &OrxProcess::Output() const
{
    std::ifstream in(dir.File("output"), std::ios::binary);
    in.seekg(static_cast<std::streamoff>(text.size()));
    text.append(std::istreambuf_iterator<char>(in), {});
    return text;
}

bool OrxProcess::WaitOutput(const std::string &wanted, int nTimes, int nMs, size_t nFrom) const
{
    size_t nAt = nFrom;  // what lies before was looked at, or is not to be
    int nFound = 0;
    return WaitFor(
        [&] {
            const std::string &all = Output();
            for (size_t n; nFound < nTimes && (n = all.find(wanted, nAt)) != std::string::npos; nFound++)
                nAt = n + wanted.size();
            if (all.size() > nAt + wanted.size())
                nAt = all.size() - wanted.size();
            return nFound >= nTimes;
        },
        nMs);
}

// "0: /live/a<TAB>127.0.0.1:4711<TAB>2026-01-31-12:00:00<TAB>0"
static bool ParseLine(const std::string &line, OrxStat::Line *pOut)
{
    static const std::regex form("[0-9]+: ([^\t]*)\t([^\t]*)\t([^\t]*)\t([01])\r");
    std::smatch parts;
    if (!std::regex_match(line, parts, form))
        return false;
    *pOut = {parts[1], parts[2], parts[3], parts[4] == "1"};
    return true;
}

OrxStat OrxProcess::Stat()
{
    OrxStat stat;
    // asked twice: the second answer shows that the first one, of any length, is complete
    size_t nFirst = Output().size();
    Type("stat");
    EXPECT_TRUE(WaitOutput("TaskNum=", 1, 10000, nFirst));
    Type("stat");
    EXPECT_TRUE(WaitOutput("TaskNum=", 2, 10000, nFirst));
    nFirst = Output().find("TaskNum=", nFirst);
    if (nFirst == std::string::npos)
        return stat;
    std::istringstream in(Output().substr(nFirst, Output().find("TaskNum=", nFirst + 1) - nFirst));
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(4, sscanf(line.c_str(), "TaskNum=%u, Lives=%u, Clients=%u, Monitors=%u.\r", &stat.nTasks,
                        &stat.nLives, &stat.nClients, &stat.nMonitors))
        << line;
    OrxStat::Line session;
    while (std::getline(in, line))
        if (ParseLine(line, &session))  // lines about other events may stand between
            stat.sessions.push_back(session);
    return stat;
}

int OrxProcess::Descriptors() const
{
    std::error_code error;
    std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", error);
    return error ? -1 : static_cast<int>(std::distance(begin(it), end(it)));
}

long OrxProcess::ResidentKb() const
{
    std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    size_t n = status.find("VmRSS:");
    return n == std::string::npos ? -1 : atol(status.c_str() + n + 6);
}

void SystemTest::TearDown()
{
    if (server.pid >= 0) {
        EXPECT_EQ(0, server.Quit());
        EXPECT_THAT(server.Output(), testing::EndsWith("main() exit OK.\n"));
        if (std::filesystem::exists(server.LogPath())) {
            EXPECT_THAT(ReadFile(server.LogPath()), testing::EndsWith(": End\r\n"));
        }
    }
    std::string output = server.Output();
    for (const char *szReport : {"Sanitizer", "runtime error:"})
        EXPECT_EQ(0, CountText(output, szReport));
    if (HasFailure())
        fprintf(stderr, "--- output of the server ---\n%s\n--- end ---\n", output.c_str());
}

int CountText(const std::string &in, const std::string &text)
{
    int n = 0;
    for (size_t i = in.find(text); i != std::string::npos; i = in.find(text, i + text.size()))
        n++;
    return n;
}

std::string Normalized(const std::string &reply)
{
    static const std::regex date(
        "\r\nDate: (Sun|Mon|Tue|Wed|Thu|Fri|Sat), (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
        "[1-9][0-9]? 20[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} GMT\r\n");
    static const std::regex session("\r\nSession: 0x[1-9a-f][0-9a-f]{0,7}\r\n");
    return std::regex_replace(std::regex_replace(reply, date, "\r\nDate: DATE\r\n"), session,
                              "\r\nSession: SESSION\r\n");
}

std::string Exchange(RtspClient *pClient, const std::string &request)
{
    RtspMessage reply;
    if (!RtspSendRaw(pClient, request.data(), request.size()) || !RtspWaitReply(pClient, 0, &reply))
        return "";
    return Normalized(reply.raw);
}

std::string MakeRequest(const std::string &method, const std::string &url, int nCSeq,
                        const std::string &headers, const std::string &body)
{
    std::string text = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(nCSeq) + "\r\n" + headers;
    if (!body.empty())
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

std::string StatusReply(const std::string &status, int nCSeq)
{
    return "RTSP/1.0 " + status + "\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n" +
           kNoCache + "\r\n";
}

std::string CameraSdp(int nTracks)
{
    static const char *const sections[] = {
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n",
        "m=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000/1\r\na=control:trackID=1\r\n",
        "m=data 0 RTP/AVP 98\r\na=rtpmap:98 event/1000\r\na=control:trackID=2\r\n",
        "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/1\r\na=control:trackID=3\r\n",
    };
    std::string sdp = "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=camera\r\nt=0 0\r\n";
    for (int i = 0; i < nTracks; i++)
        sdp += sections[i];
    return sdp;
}

std::string CameraPacket(int nTrack, uint16_t nSequence, uint32_t nTime, const std::string &payload,
                         bool bMarker)
{
    static const uint8_t types[] = {96, 0, 98};
    RtpHead head;
    head.bMarker = bMarker;
    head.nPayloadType = types[nTrack];
    head.nSequence = nSequence;
    head.nTimestamp = nTime;
    head.nSsrc = 0x1234ABCD;
    std::string packet(kRtpHeadBytes, '\0');
    RtpWriteHead(packet.data(), &head);
    return packet + payload;
}

void SendPictures(RtspClient *pPusher, int nFirst, int nCount)
{
    constexpr uint32_t kTicks = 3600;  // 40 ms at 90 kHz
    for (int i = nFirst; i < nFirst + nCount; i++) {
        auto nTime = static_cast<uint32_t>(i) * kTicks;
        auto nSequence = static_cast<uint16_t>(2 * i);
        std::string sps = CameraPacket(0, nSequence, nTime, "\x67sps");
        std::string idr = CameraPacket(0, static_cast<uint16_t>(nSequence + 1), nTime, "\x65picture", true);
        ASSERT_EQ(1, RtspSendFrame(pPusher, 0, sps.data(), sps.size()));
        ASSERT_EQ(1, RtspSendFrame(pPusher, 0, idr.data(), idr.size()));
    }
}

}  // namespace orx
