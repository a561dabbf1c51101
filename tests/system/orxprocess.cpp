#include "system/orxprocess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace orx {

// Blocks lie below the ports that the kernel hands out by itself.

int CountText(const std::string &in, const std::string &text, size_t nFrom)
{
    int n = 0;
    for (size_t i = in.find(text, nFrom); i != std::string::npos; i = in.find(text, i + text.size()))
        n++;
    return n;
}

void ChildProcess::Spawn(const std::string &program, const std::vector<std::string> &arguments)
{
    ASSERT_LT(pid, 0) << "it runs already";
    std::istringstream emulator(ORX_EMULATOR);  // of a program that was built for another machine
    std::vector<std::string> words(std::istream_iterator<std::string>(emulator), {});
    words.push_back(program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    Sock out(open(dir.File("output").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
    output.clear();
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
    Sock in(fds[0]);
    input = Sock(fds[1]);
    pid = fork();
    if (pid == 0) {
        dup2(in.fd, 0);
        dup2(out.fd, 1);
        dup2(out.fd, 2);
        for (int fd : closed)
            close(fd);
        signal(SIGPIPE, SIG_DFL);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    ASSERT_GT(pid, 0);
}

void ChildProcess::TypeBytes(const std::string &bytes)
{
    signal(SIGPIPE, SIG_IGN);  // that it has gone is found out by other means
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(input.fd, bytes.data(), bytes.size()));
}

void ChildProcess::Signal(int nSignal) const
{
    if (pid > 0)
        kill(pid, nSignal);
}

void ChildProcess::Kill()
{
    Signal(SIGKILL);
    WaitExit();
}

int ChildProcess::WaitExit(int nMs)
{
    int nStatus = 0;
    if (pid < 0 || !WaitFor([&] { return waitpid(pid, &nStatus, WNOHANG) == pid; }, nMs))
        return -1;
    pid = -1;
    EndInput();
    return WIFSIGNALED(nStatus) ? 256 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus);
}

const std::string &ChildProcess::Output() const
{
    std::ifstream in(dir.File("output"), std::ios::binary);
    in.seekg(static_cast<std::streamoff>(output.size()));
    std::ostringstream more;
    more << in.rdbuf();
    output += more.str();
    return output;
}

void ChildProcess::ForgetOutput()
{
    std::filesystem::resize_file(dir.File("output"), 0);  // it is appended to
    output.clear();
}

bool ChildProcess::WaitOutput(const std::string &text, int nTimes, size_t nFrom) const
{
    return WaitFor([&] { return CountText(Output(), text, nFrom) >= nTimes; });
}

ToolProcess::ToolProcess(const std::string &name, const std::vector<std::string> &arguments)
{
    Spawn(ORX_TOOLS_DIR "/" + name, arguments);
}

OrxProcess::OrxProcess()
{
    Set("SERVER", "AuthType=0\nListenIp=127.0.0.1\nLiveTime=120\nListenPort=" + std::to_string(nPort) +
                      "\nUdpStartPort=" + std::to_string(nUdpStart) +
                      "\nUdpEndPort=" + std::to_string(nPort + kBlockPorts - 4));
    Set("GUARD", "RunUnprivileged=1");
}

// What a key had before makes way: twice would be a doubt.
void OrxProcess::Set(const std::string &section, const std::string &lines)
{
    std::istringstream given(lines);
    std::string &text = settings[section];
    for (std::string line; std::getline(given, line);) {
        std::string key = "\n" + line.substr(0, line.find('=') + 1);
        size_t nAt = key.size() > 1 ? ("\n" + text).find(key) : std::string::npos;
        if (nAt != std::string::npos)
            text.erase(nAt, text.find('\n', nAt) + 1 - nAt);
    }
    text.insert(0, lines + "\n");
}

void OrxProcess::Launch(const std::vector<std::string> &arguments)
{
    std::string config, program = dir.File("bin/orx");
    for (const auto &[section, lines] : settings)
        config += "[" + section + "]\n" + lines;
    for (const char *szFolder : {"bin", "cfg", "log"})
        std::filesystem::create_directories(dir.File(szFolder));
    WriteFile(ConfigPath(), config);
    // it finds its directory by its own executable, so that has to lie there itself
    if (!std::filesystem::exists(program) && link(ORX_PROGRAM, program.c_str()) != 0)
        std::filesystem::copy_file(ORX_PROGRAM, program);
    Spawn(program, arguments);
}

void OrxProcess::Start(const std::vector<std::string> &arguments)
{
    ASSERT_NO_FATAL_FAILURE(Launch(arguments));
    ASSERT_TRUE(WaitOutput("Enter command:")) << Output();
    ASSERT_EQ(0, CountText(Output(), "Listen error")) << Output();
}

int OrxProcess::Quit()
{
    Type("quit");
    return WaitExit();
}

OrxStat OrxProcess::Stat()
{
    const std::string head = "TaskNum=";
    size_t nFirst = Output().size();
    for (int nTimes : {1, 2}) {  // the second answer shows that the first one, of any length, is complete
        Type("stat");
        EXPECT_TRUE(WaitOutput(head, nTimes, nFirst));
    }
    OrxStat stat;
    nFirst = Output().find(head, nFirst);
    std::istringstream in(Output().substr(nFirst, Output().find(head, nFirst + 1) - nFirst));
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(4, sscanf(line.c_str(), "TaskNum=%u, Lives=%u, Clients=%u, Monitors=%u.\r", &stat.nTasks, &stat.nLives,
                        &stat.nClients, &stat.nMonitors))
        << line;
    while (std::getline(in, line))
        if (line.find('\t') != std::string::npos)  // lines about other events may stand between
            stat.sessions.push_back(line);
    return stat;
}

std::string OrxProcess::Url(const std::string &path) const
{
    return "rtsp://127.0.0.1:" + std::to_string(nPort) + path;
}

int OrxProcess::Descriptors() const
{
    std::error_code error;
    std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", error);
    return error ? -1 : static_cast<int>(std::distance(begin(it), end(it)));
}

long OrxProcess::ResidentKb(const char *szField) const
{
    std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    size_t n = status.find(szField);
    return n == std::string::npos ? -1 : atol(status.c_str() + n + strlen(szField));
}

}  // namespace orx
