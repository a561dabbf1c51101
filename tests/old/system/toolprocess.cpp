#include "system/toolprocess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include "support/wait.h"

namespace orx {

static std::vector<std::string> CommandLine(const std::string &name,
                                            const std::vector<std::string> &arguments)
{
    std::vector<std::string> words;
    std::istringstream emulator(ORX_EMULATOR);
    for (std::string word; emulator >> word;)
        words.push_back(word);
    words.push_back(ORX_TOOLS_DIR "/" + name);
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

ToolProcess::ToolProcess(const std::string &name, const std::vector<std::string> &arguments)
{
    std::vector<std::string> words = CommandLine(name, arguments);
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    std::string output = dir.File("output");
    int fds[2] = {-1, -1};
    if (pipe2(fds, O_CLOEXEC) != 0)
        return;
    pid = fork();
    if (pid == 0) {
        int fdOut = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        dup2(fds[0], 0);
        dup2(fdOut, 1);
        dup2(fdOut, 2);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(fds[0]);
    fdInput = fds[1];
}

ToolProcess::~ToolProcess()
{
    Signal(SIGKILL);
    WaitExit();
    close(fdInput);
}

void ToolProcess::Type(const std::string &line) const
{
    dprintf(fdInput, "%s\n", line.c_str());
}

void ToolProcess::Signal(int nSignal) const
{
    if (pid > 0)
        kill(pid, nSignal);
}

int ToolProcess::WaitExit(int nMs)
{
    int nStatus = 0;
    if (pid < 0 || !WaitFor([&] { return waitpid(pid, &nStatus, WNOHANG) == pid; }, nMs))
        return -1;
    pid = -1;
    return WIFSIGNALED(nStatus) ? 256 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus);
}

bool ToolProcess::WaitOutput(const std::string &text, int nMs) const
{
    return WaitFor([&] { return Output().find(text) != std::string::npos; }, nMs);
}

}  // namespace orx
