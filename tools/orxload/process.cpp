#include "orxload/process.h"

#include <dirent.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/h264file.h"

namespace orx {

static std::string ProcText(int nPid, const std::string &name)
{
    std::string text;
    ReadWholeFile(("/proc/" + std::to_string(nPid) + "/" + name).c_str(), &text);
    return text;
}

// utime and stime, the 14th and 15th field; the second one, the name in parentheses, may hold blanks.
static uint64_t TickUs(int nPid)
{
    std::string text = ProcText(nPid, "stat");
    size_t nAt = text.rfind(')');
    uint64_t nUser = 0, nSystem = 0;
    if (nAt == std::string::npos ||
        sscanf(text.c_str() + nAt, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %" SCNu64 " %" SCNu64,
               &nUser, &nSystem) != 2)
        return 0;
    return (nUser + nSystem) * 1000000U / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
}

uint64_t ProcessCpuUs(int nPid)
{
    DIR *pDir = opendir(("/proc/" + std::to_string(nPid) + "/task").c_str());
    uint64_t nNs = 0;
    if (!pDir)
        return 0;
    while (const dirent *pEntry = readdir(pDir))
        if (pEntry->d_name[0] != '.')
            nNs += strtoull(ProcText(nPid, std::string("task/") + pEntry->d_name + "/schedstat").c_str(),
                            nullptr, 10);
    closedir(pDir);
    return nNs ? nNs / 1000 : TickUs(nPid);
}

uint64_t ProcessResidentKb(int nPid)
{
    std::string text = ProcText(nPid, "status");
    size_t nAt = text.find("VmRSS:");
    return nAt == std::string::npos ? 0 : strtoull(text.c_str() + nAt + 6, nullptr, 10);
}

}  // namespace orx
