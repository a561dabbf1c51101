#include "orxpull/pullsettings.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "base/inifile.h"
#include "base/installdir.h"

namespace orx {

constexpr size_t kMostProgram = 200;

namespace {

struct Value {
    std::string text;
    int nLine = 0;
};

// A section with the first line of each key, as the server reads it.
struct Section {
    std::string path, name;
    std::map<std::string, Value, std::less<>> values;
    PullDoubts *pDoubts;
};

struct ProfileFreer {
    void operator()(Profile *pProfile) const { ProfileFree(pProfile); }
};

}  // namespace

static std::string Trimmed(const char *pText, size_t nBytes)
{
    std::string text(pText, nBytes);
    size_t nFirst = text.find_first_not_of(" \t");
    if (nFirst == std::string::npos)
        return std::string();
    return text.substr(nFirst, text.find_last_not_of(" \t") + 1 - nFirst);
}

static Section ReadSection(const Profile *pProfile, const std::string &path, const char *szName,
                           PullDoubts *pDoubts)
{
    Section section{path, szName, {}, pDoubts};
    ProfileWalk walk{pProfile->text, szName};
    ProfileLine line;
    const char *pCounted = pProfile->text;
    int nLine = 1;
    while (ProfileWalkNext(&walk, &line)) {
        nLine += static_cast<int>(std::count(pCounted, line.pKey, '\n'));
        pCounted = line.pKey;
        section.values.try_emplace(Trimmed(line.pKey, line.nKey),
                                   Value{std::string(line.pValue, line.nValue), nLine});
    }
    return section;
}

static void Doubt(const Section *pSection, const std::string &key, int nLine, const std::string &what)
{
    std::string place = nLine ? pSection->path + ":" + std::to_string(nLine) : pSection->path;
    pSection->pDoubts->push_back(place + ": [" + pSection->name + "] " + key + ": " + what);
}

// As it stands, blanks and all.
static std::string Raw(const Section *pSection, const std::string &key)
{
    auto found = pSection->values.find(key);
    return found == pSection->values.end() ? std::string() : found->second.text;
}

static std::string Text(const Section *pSection, const std::string &key)
{
    std::string raw = Raw(pSection, key);
    return Trimmed(raw.data(), raw.size());
}

static int LineOf(const Section *pSection, const std::string &key)
{
    auto found = pSection->values.find(key);
    return found == pSection->values.end() ? 0 : found->second.nLine;
}

// A whole number within limits, as it is meant in [PULL]; what is none is said.
static int Number(const Section *pSection, const std::string &key, int nDefault, int nLowest, int nHighest)
{
    std::string text = Text(pSection, key);
    if (text.empty())
        return nDefault;
    char *pEnd = nullptr;
    errno = 0;
    long nValue = strtol(text.c_str(), &pEnd, 10);
    if (errno == 0 && !*pEnd && nValue >= nLowest && nValue <= nHighest)
        return static_cast<int>(nValue);
    Doubt(pSection, key, LineOf(pSection, key),
          "a number from " + std::to_string(nLowest) + " to " + std::to_string(nHighest) + ": " +
              std::to_string(nDefault) + " is taken");
    return nDefault;
}

// A number as the server takes it.
static int ServerNumber(const Section *pSection, const char *szKey, int nDefault)
{
    std::string text = Text(pSection, szKey);
    long long nValue = text.empty() ? nDefault : strtoll(text.c_str(), nullptr, 10);
    return static_cast<int>(std::clamp<long long>(nValue, INT_MIN, INT_MAX));
}

static void ReadServer(const Section *pServer, const Section *pInterop, PullSettings *pOut)
{
    std::string ip = Text(pServer, "ListenIp");
    int nPort = ServerNumber(pServer, "ListenPort", 554) & 0xFFFF;
    int nLiveTime = ServerNumber(pServer, "LiveTime", 10);
    int nBuffer = ServerNumber(pServer, "SessionBufSize", 16384);
    if (!ip.empty() && ip != "0.0.0.0" && ip != "::")
        pOut->serverIp = ip;
    pOut->nServerPort = nPort ? nPort : 554;
    pOut->nLiveTime = nLiveTime < 0 ? 120 : std::clamp(nLiveTime, 1, 120);
    pOut->nMostFrame = static_cast<size_t>(nBuffer < 0 ? 65536 : std::clamp(nBuffer, 4096, 65536)) - 1;
    pOut->bStandardPushers = ServerNumber(pInterop, "StandardPushers", 0) != 0;
}

int PullOverRead(const std::string &text, PlayOver *pOut)
{
    static const struct {
        const char *szName;
        PlayOver over;
    } names[] = {{"tcp", PlayOver::Tcp}, {"udp", PlayOver::Udp}, {"http", PlayOver::Http}};
    for (const auto &name : names)
        if (strcasecmp(name.szName, text.c_str()) == 0) {
            *pOut = name.over;
            return 1;
        }
    return 0;
}

int PullUrlIsGood(const std::string &url)
{
    size_t nHost = strncasecmp(url.c_str(), "rtsp://", 7) == 0    ? 7
                   : strncasecmp(url.c_str(), "rtsps://", 8) == 0 ? 8
                                                                  : std::string::npos;
    auto isOther = [](unsigned char c) { return c <= ' ' || c == 127; };
    return nHost < url.size() && url[nHost] != '/' && !std::any_of(url.begin(), url.end(), isOther);
}

int PullProgramRead(const std::string &text, std::string *pOut)
{
    auto isOther = [](unsigned char c) { return c <= ' ' || c == 127 || strchr("?#%\"<>\\", c); };
    std::string name = text.substr(std::min(text.find_first_not_of('/'), text.size()));
    while (!name.empty() && name.back() == '/')
        name.pop_back();
    if (name.empty() || name.size() > kMostProgram || std::any_of(name.begin(), name.end(), isOther))
        return 0;
    *pOut = name;
    return 1;
}

// One source. Returns 1, or 0 where it cannot be used, which is said.
static int ReadSource(const Section *pPull, int nNumber, PullSource *pOut)
{
    std::string number = std::to_string(nNumber);
    std::string urlKey = "Url" + number, programKey = "Program" + number, overKey = "Transport" + number;
    int bGood = 1;
    pOut->url = Text(pPull, urlKey);
    if (!PullUrlIsGood(pOut->url)) {
        Doubt(pPull, urlKey, LineOf(pPull, urlKey),
              pOut->url.empty() ? "is missing" : "is no URL as rtsp://[user:password@]host[:port]/path");
        bGood = 0;
    }
    if (!PullProgramRead(Text(pPull, programKey), &pOut->program)) {
        Doubt(pPull, programKey, LineOf(pPull, programKey),
              Text(pPull, programKey).empty() ? "is missing" : "is no name of a program, such as live/cam1");
        bGood = 0;
    }
    std::string over = Text(pPull, overKey);
    if (!over.empty() && !PullOverRead(over, &pOut->over)) {
        Doubt(pPull, overKey, LineOf(pPull, overKey), "is tcp, udp or http");
        bGood = 0;
    }
    pOut->bOnDemand = Number(pPull, "OnDemand" + number, 0, 0, 1);
    pOut->bAudio = Number(pPull, "Audio" + number, 1, 0, 1);
    return bGood;
}

// Whether a source before it has the program, of which names do not look at case.
static int IsTaken(const PullSettings *pSettings, const std::string &program)
{
    return std::any_of(pSettings->sources.begin(), pSettings->sources.end(), [&](const PullSource &other) {
        return strcasecmp(other.program.c_str(), program.c_str()) == 0;
    });
}

static void ReadSources(const Section *pPull, PullSettings *pOut)
{
    int nSources = Number(pPull, "NumSources", 0, 0, kMostSources);
    for (int i = 0; i < nSources; i++) {
        PullSource source;
        std::string key = "Program" + std::to_string(i);
        if (!ReadSource(pPull, i, &source))
            continue;
        if (IsTaken(pOut, source.program))
            Doubt(pPull, key, LineOf(pPull, key), "another source has this name");
        else
            pOut->sources.push_back(source);
    }
    std::string next = "Url" + std::to_string(nSources);
    if (LineOf(pPull, next))
        Doubt(pPull, next, LineOf(pPull, next), "is not read: NumSources counts " + std::to_string(nSources));
}

std::string PullConfigPath(const std::string &name)
{
    char szPath[PATH_MAX];
    if (name.find('/') != std::string::npos || !InstallPath(szPath, sizeof szPath, ("cfg/" + name).c_str()))
        return name;
    return szPath;
}

int PullSettingsRead(const std::string &path, PullSettings *pOut, PullDoubts *pDoubts)
{
    std::unique_ptr<Profile, ProfileFreer> profile(ProfileInit(path.c_str()));
    if (!profile) {
        pDoubts->push_back(path + ": cannot be read, or is empty");
        return 0;
    }
    Section server = ReadSection(profile.get(), path, "SERVER", pDoubts);
    Section interop = ReadSection(profile.get(), path, "INTEROP", pDoubts);
    Section pull = ReadSection(profile.get(), path, "PULL", pDoubts);
    ReadServer(&server, &interop, pOut);
    pOut->nHoldSeconds = Number(&pull, "HoldSeconds", 60, 0, 86400);
    pOut->user = Raw(&pull, "User");
    pOut->password = Raw(&pull, "Password");
    ReadSources(&pull, pOut);
    return 1;
}

}  // namespace orx
