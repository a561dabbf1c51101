#include "net/wifiscan.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/console.h"
#include "base/fdguard.h"
#include "base/textbuf.h"
#include "runtime/clock.h"

namespace orx {

static constexpr char kRamDisk[] = "/mnt/ramdisk0";
static constexpr char kTmp[] = "/tmp";
static constexpr char kListEnd[] = "\r\n\r\n";
static constexpr size_t kListEndSize = sizeof(kListEnd) - 1;
static constexpr size_t kPathSize = 256;
static constexpr size_t kRawMax = 1048576;  // bytes of the tool's text that are looked at: thousands of cells
static constexpr useconds_t kPollUs = 20000;  // between two looks at the tool
static constexpr size_t kLineMax = 127;       // characters looked at in a line of the tool
static constexpr size_t kQualityMax = 8;      // "100/100" and a blank
static constexpr size_t kIeee80211iMax = 5;   // "/WPA2"

struct WifiNetwork {
    char essid[128] = "";       // with the quote that closes it
    char mac[128] = "";         // as printed by the tool
    char quality[128] = "";     // at most kQualityMax characters
    char wpa[128] = "";         // "WPA", or empty
    char ieee80211i[128] = "";  // not empty: the network has IEEE 802.11i information
    char encryption[128] = "";  // "OPEN", "WEP", or as printed by the tool
};
static_assert(sizeof(WifiNetwork) == 768, "six fields of 128 bytes");
static_assert(kLineMax < sizeof(WifiNetwork::essid), "a whole line fits every field");

struct WifiNetworks {
    WifiNetwork *pItems = nullptr;  // owned, from malloc
    size_t nItems = 0;
    int bFailed = 0;  // 1 once memory ran out
    WifiNetworks() = default;
    ~WifiNetworks() { free(pItems); }
    WifiNetworks(WifiNetworks &&) = delete;
    WifiNetworks &operator=(WifiNetworks &&) = delete;
};

// ---------------------------------------------------------------- the tool's text

static WifiNetwork *AddNetwork(WifiNetworks *pNetworks)
{
    void *pGrown = realloc(pNetworks->pItems, (pNetworks->nItems + 1) * sizeof(WifiNetwork));
    if (!pGrown) {
        pNetworks->bFailed = 1;
        return nullptr;
    }
    pNetworks->pItems = static_cast<WifiNetwork *>(pGrown);
    return new (&pNetworks->pItems[pNetworks->nItems++]) WifiNetwork;
}

static void SetEssid(WifiNetwork *pNetwork, const char *szValue)
{
    const char *szQuote = strchr(szValue, '"');  // there is none when the network hides its name
    TextCopy(pNetwork->essid, sizeof(pNetwork->essid), szQuote ? szQuote + 1 : nullptr);
}

static void SetMac(WifiNetwork *pNetwork, const char *szValue)
{
    TextCopy(pNetwork->mac, sizeof(pNetwork->mac), szValue);
}

static void SetQuality(WifiNetwork *pNetwork, const char *szValue)
{
    TextCopy(pNetwork->quality, kQualityMax + 1, szValue);
}

static void SetWpa(WifiNetwork *pNetwork, const char *)
{
    TextCopy(pNetwork->wpa, sizeof(pNetwork->wpa), "WPA");
}

static void SetIeee80211i(WifiNetwork *pNetwork, const char *szValue)
{
    TextCopy(pNetwork->ieee80211i, kIeee80211iMax + 1, szValue);
}

static void SetEncryption(WifiNetwork *pNetwork, const char *szValue)
{
    const char *szText = strcmp(szValue, "off") == 0 ? "OPEN" : strcmp(szValue, "on") == 0 ? "WEP" : szValue;
    TextCopy(pNetwork->encryption, sizeof(pNetwork->encryption), szText);
}

// The first row found in a line takes it. The name comes first, so that one which looks like another row is
// still a name: it is the only text in there that a stranger chooses.
struct WifiField {
    const char *szMark;
    int bStarts;  // begins the next network
    void (*pfnSet)(WifiNetwork *pNetwork, const char *szValue);
};
static const WifiField g_fields[] = {
    {"ESSID:", 0, SetEssid},          {"Address: ", 1, SetMac},   {"Quality=", 0, SetQuality},
    {"IE: WPA Version 1", 0, SetWpa}, {"key:", 0, SetEncryption}, {"IE: IEEE 802.11i", 0, SetIeee80211i},
};

static void ParseLine(const char *szLine, WifiNetworks *pNetworks)
{
    for (const WifiField &field : g_fields) {
        const char *szMark = strstr(szLine, field.szMark);
        if (!szMark)
            continue;
        WifiNetwork *pNewest = pNetworks->nItems ? &pNetworks->pItems[pNetworks->nItems - 1] : nullptr;
        WifiNetwork *pNetwork = field.bStarts ? AddNetwork(pNetworks) : pNewest;
        if (pNetwork)
            field.pfnSet(pNetwork, szMark + strlen(field.szMark));
        return;
    }
}

// What is too much of a line is left out: it is no line of its own, which a name could be made to look like.
static void ParseRaw(const char *pRaw, size_t nRaw, WifiNetworks *pNetworks)
{
    const char *pEnd = pRaw + nRaw;
    while (pRaw < pEnd && !pNetworks->bFailed) {
        const char *pEol = std::find(pRaw, pEnd, '\n');
        char line[kLineMax + 1];
        size_t nLine = std::min(size_t(pEol - pRaw), kLineMax);
        memcpy(line, pRaw, nLine);
        line[nLine] = '\0';
        ParseLine(line, pNetworks);
        pRaw = pEol < pEnd ? pEol + 1 : pEnd;
    }
}

// ---------------------------------------------------------------- the list

// Takes back the last characters of a line, no more than it has.
static void StepBack(TextBuf *pLine, size_t nChars)
{
    pLine->nLen -= std::min(nChars, pLine->nLen);
    pLine->sz[pLine->nLen] = '\0';
}

static void AddQuality(TextBuf *pLine, const char *szQuality)
{
    TextAdd(pLine, "%s", szQuality);
    if (strlen(szQuality) < 7 || szQuality[6] != ' ')
        return;
    StepBack(pLine, szQuality[5] == ' ' ? 2 : 1);  // one blank stays of "70/70  S"
}

// One network as a line. Names and addresses come with one character too much, a quote and a blank; "WPA" and
// "WPA/WPA2" take the place of "WEP", which is all that the key told.
static size_t AddNetworkLine(char *pOut, size_t nRoom, const WifiNetwork *pNetwork)
{
    TextBuf line{pOut, nRoom};
    TextAdd(&line, "%s ", pNetwork->essid);
    StepBack(&line, 2);
    TextAdd(&line, " [%s ", pNetwork->mac);
    StepBack(&line, 1);
    TextAdd(&line, "] ");
    AddQuality(&line, pNetwork->quality);
    TextAdd(&line, "%s", pNetwork->encryption);
    if (pNetwork->wpa[0]) {
        StepBack(&line, 3);
        TextAdd(&line, "%s", pNetwork->wpa);
    }
    if (pNetwork->ieee80211i[0]) {
        StepBack(&line, 3);
        TextAdd(&line, "WPA/WPA2");
    }
    TextAdd(&line, "\n");
    return line.nLen;
}

char *WifiReduce(const char *pRaw, size_t nRaw, size_t *pnLength)
{
    WifiNetworks networks;
    ParseRaw(pRaw, nRaw, &networks);
    size_t nRoom = networks.nItems * sizeof(WifiNetwork) + kListEndSize + 1;
    char *szList = networks.bFailed ? nullptr : static_cast<char *>(malloc(nRoom));
    if (!szList)
        return nullptr;
    size_t nLen = 0;
    for (size_t i = 0; i < networks.nItems; i++)  // a line is shorter than its record
        nLen += AddNetworkLine(szList + nLen, nRoom - nLen, &networks.pItems[i]);
    memcpy(szList + nLen, kListEnd, kListEndSize + 1);
    *pnLength = nLen + kListEndSize;
    return szList;
}

// ---------------------------------------------------------------- the scan

// Makes a working file anew. In /tmp everybody can put something else where it is to be. Returns a descriptor
// for writing and reading, or -1.
static int MakeFile(const char *szPath)
{
    unlink(szPath);
    return open(szPath, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
}

// Waits for the tool, which is killed with all that it has started when its time is over. Returns 1 when it
// ended with status 0.
static int WaitDone(pid_t nPid, uint32_t nLimitMs, const Thread *pThread)
{
    const uint32_t nStart = ClockMs();
    int nStatus = -1;
    for (;;) {
        pid_t nDone = waitpid(nPid, &nStatus, WNOHANG);
        if (nDone == nPid)
            return WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0;
        if (nDone < 0 && errno != EINTR)
            return 0;
        int bLate = ClockMs() - nStart >= nLimitMs || (pThread && ThreadStopping(pThread));
        if (bLate && kill(-nPid, SIGKILL) == 0) {
            waitpid(nPid, &nStatus, 0);
            return 0;
        }
        usleep(kPollUs);
    }
}

// A group of its own lets the tool be killed together with what it started.
static int SetGroup(posix_spawnattr_t *pAttributes)
{
    return posix_spawnattr_setpgroup(pAttributes, 0) == 0 &&
           posix_spawnattr_setflags(pAttributes, POSIX_SPAWN_SETPGROUP) == 0;
}

// Starts the tool with its output into the file fdOut. It gets nothing else of ours: not the console's
// commands, no sockets, and the interface name as one argument that no shell looks at.
static int StartTool(const char *szInterface, int fdOut, pid_t *pPid)
{
    char tool[] = "iwlist", scan[] = "scan";
    char *args[] = {tool, const_cast<char *>(szInterface), scan, nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&actions) != 0)
        return 0;
    posix_spawnattr_init(&attributes);
    int bStarted = SetGroup(&attributes) &&
                   posix_spawn_file_actions_adddup2(&actions, fdOut, STDOUT_FILENO) == 0 &&
                   posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
                   posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1) == 0 &&
                   posix_spawnp(pPid, tool, &actions, &attributes, args, environ) == 0;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return bStarted;
}

// What the tool has written, as far as anybody's networks go. Returns an owned block, or null.
static char *ReadRaw(int fd, size_t *pnBytes)
{
    struct stat info {};
    if (fstat(fd, &info) != 0)
        return nullptr;
    size_t nSize = std::min(static_cast<size_t>(info.st_size), kRawMax);
    auto *pBytes = static_cast<char *>(malloc(nSize + 1));
    ssize_t n = pBytes ? pread(fd, pBytes, nSize, 0) : -1;
    *pnBytes = n > 0 ? static_cast<size_t>(n) : 0;
    return pBytes;
}

// Runs the tool and keeps its text in a file. Returns that text as an owned block, or null.
static char *RunTool(const WifiScanPlace *pPlace, const char *szInterface, const char *szRawPath,
                     const Thread *pThread, size_t *pnBytes)
{
    FdGuard raw{MakeFile(szRawPath)};
    pid_t nPid = 0;
    if (raw.fd >= 0 && StartTool(szInterface, raw.fd, &nPid) && WaitDone(nPid, pPlace->nLimitMs, pThread))
        return ReadRaw(raw.fd, pnBytes);
    print("cmd=iwlist %s scan > %s failed!\n", szInterface, szRawPath);
    return nullptr;
}

// Keeps the list for who looks into the file. A full disk costs the file its end, not the caller the list.
static int WriteList(const char *szPath, const char *pList, size_t nBytes)
{
    FdGuard list{MakeFile(szPath)};
    if (list.fd < 0) {
        print("Could NOT open file %s!\n", szPath);
        return 0;
    }
    return write(list.fd, pList, nBytes) >= 0 || errno == ENOSPC;
}

char *WifiScanIn(const WifiScanPlace *pPlace, const char *szInterface, size_t *pnLength,
                 const Thread *pThread)
{
    char rawPath[kPathSize], listPath[kPathSize];
    TextBuf raw{rawPath, sizeof(rawPath)}, list{listPath, sizeof(listPath)};
    if (!TextAdd(&raw, "%s/wifi.txt", pPlace->szDir) || !TextAdd(&list, "%s/wifilist.txt", pPlace->szDir))
        return nullptr;
    size_t nRaw = 0;
    char *pRaw = RunTool(pPlace, szInterface, rawPath, pThread, &nRaw);
    char *szList = pRaw ? WifiReduce(pRaw, nRaw, pnLength) : nullptr;
    free(pRaw);
    if (!szList || WriteList(listPath, szList, *pnLength - kListEndSize))
        return szList;
    free(szList);
    return nullptr;
}

char *WifiScan(const char *szInterface, size_t *pnLength, const Thread *pThread)
{
    struct stat info {};
    int bRamDisk = stat(kRamDisk, &info) == 0 && S_ISDIR(info.st_mode);
    WifiScanPlace place;
    place.szDir = bRamDisk ? kRamDisk : kTmp;
    return WifiScanIn(&place, szInterface, pnLength, pThread);
}

}  // namespace orx
