// Namespaces of their own, for tests that would change the machine: networks, mounts, message queues.
#pragma once

#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace orx {

inline bool WriteProc(const char *szPath, const std::string &text)
{
    int fd = open(szPath, O_WRONLY | O_CLOEXEC);
    bool bDone = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
    if (fd >= 0)
        close(fd);
    return bDone;
}

// Moves the process into new namespaces (CLONE_NEW...) and makes it root there, whoever it was, where the
// machine lets it. Mounts made from then on do not leave them. Returns whether it worked.
inline bool EnterNamespaces(int nFlags)
{
    std::string uid = "0 " + std::to_string(getuid()) + " 1", gid = "0 " + std::to_string(getgid()) + " 1";
    if (unshare(nFlags) != 0) {
        if (unshare(nFlags | CLONE_NEWUSER) != 0)
            return false;
        if (!WriteProc("/proc/self/uid_map", uid) || !WriteProc("/proc/self/setgroups", "deny") ||
            !WriteProc("/proc/self/gid_map", gid))
            return false;
    }
    return !(nFlags & CLONE_NEWNS) || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// An empty file system over a directory that is there; szOptions may give its size, as "size=8m".
inline bool MountEmpty(const char *szDir, const char *szOptions = nullptr)
{
    return mount("tmpfs", szDir, "tmpfs", MS_NOSUID | MS_NODEV, szOptions) == 0;
}

// Runs part of a test in a process of its own, which leaves this one as it is; what it expects in vain fails
// the test. The body returns false when it may not do what it has to, and the test is skipped.
template <typename Body>
void InChildProcess(const char *szSkipText, Body body)
{
    constexpr int kSkipped = 77;
    fflush(stdout);
    pid_t nPid = fork();
    ASSERT_GE(nPid, 0);
    if (nPid == 0) {
        bool bDone = body();
        fflush(stdout);
        _exit(testing::Test::HasFailure() ? 1 : bDone ? 0 : kSkipped);
    }
    int nStatus = 0;
    ASSERT_EQ(nPid, waitpid(nPid, &nStatus, 0));
    if (WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == kSkipped)
        GTEST_SKIP() << szSkipText;
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << "status " << nStatus << ", see above";
}

}  // namespace orx
