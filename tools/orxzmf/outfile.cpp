#include "outfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace orx {

static int Refuse(const std::string &path, const char *szReason)
{
    fprintf(stderr, "%s: %s\n", path.c_str(), szReason);
    return 0;
}

// The file that is being made, for who cancels it; empty: none is.
static char g_szUnfinished[PATH_MAX];

static void OnCancel(int nSignal)
{
    if (*g_szUnfinished)
        unlink(g_szUnfinished);
    signal(nSignal, SIG_DFL);
    raise(nSignal);
}

static void RemoveWhenCancelled(const std::string &path)
{
    g_szUnfinished[path.copy(g_szUnfinished, sizeof(g_szUnfinished) - 1)] = '\0';
    for (int nSignal : {SIGHUP, SIGINT, SIGTERM})
        if (signal(nSignal, OnCancel) == SIG_IGN)
            signal(nSignal, SIG_IGN);
}

// The file that a path leads to, through links.
static std::string Target(const std::string &path)
{
    char *szReal = realpath(path.c_str(), nullptr);
    std::string real = szReal ? szReal : path;
    free(szReal);
    return real;
}

int OutFileBegin(OutFile *pFile, const std::string &path)
{
    struct stat info {};
    pFile->path = Target(path);
    pFile->beside = pFile->path + "." + std::to_string(getpid()) + ".part";
    if (stat(pFile->path.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
        return Refuse(path, "is no regular file");
    RemoveWhenCancelled(pFile->beside);
    int fd = open(pFile->beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        return Refuse(pFile->beside, strerror(errno));
    close(fd);
    return 1;
}

// Before the name is given, so that a power cut leaves the old file or the new one.
static int Sync(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    int bSynced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0)
        close(fd);
    return bSynced;
}

int OutFileEnd(OutFile *pFile, int bGood)
{
    if (bGood && (!Sync(pFile->beside) || rename(pFile->beside.c_str(), pFile->path.c_str()) != 0))
        bGood = Refuse(pFile->path, strerror(errno));
    if (!bGood)
        unlink(pFile->beside.c_str());
    *g_szUnfinished = '\0';
    return bGood;
}

}  // namespace orx
