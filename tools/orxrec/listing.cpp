#include "listing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/configfile.h"
#include "base/fdguard.h"
#include "catalogue.h"
#include "client/rtspclient.h"
#include "record/openfile.h"
#include "record/recordwalk.h"
#include "record/storage.h"
#include "record/zmfreader.h"
#include "server/core/request.h"
#include "server/core/settings.h"

namespace orx {

static int Fail(int nExit, const std::string &text)
{
    fprintf(stderr, "orxrec: %s\n", text.c_str());
    return nExit;
}

// --- What is looked at ---

// As the server finds its configuration: a name alone lies in cfg/, beside the directory of the program.
static std::string ConfigPath(const std::string &name)
{
    char szExe[kStoragePathSize] = "";
    if (name.find('/') != std::string::npos || readlink("/proc/self/exe", szExe, sizeof(szExe) - 1) < 0)
        return name;
    std::string exe = szExe;
    for (int i = 0; i < 2; i++)
        exe.erase(std::min(exe.rfind('/'), exe.size()));
    return exe + "/cfg/" + name;
}

// Where the recordings are. Returns an exit code.
static int FindRecordings(const RecOptions &options, const RtspUrl &url, Catalogue *pOut)
{
    const std::string config = ConfigPath(options.config);
    if (access(config.c_str(), R_OK) != 0)
        return Fail(REC_UNREADABLE,
                    config + ": " + strerror(errno) + ": give the server's configuration with -c FILE");
    SettingsRead(&g_settings, config.c_str());
    if (!g_settings.szRecordPath)
        return Fail(REC_UNREADABLE, config + " cannot be used");
    char szPath[kStoragePathSize], szProgram[kStoragePathSize];
    if (UriDecode(url.path, szPath, sizeof(szPath)) < 0 || !StorageIsInside(szPath) ||
        !StorageProgramPath(szProgram, sizeof(szProgram), szPath))
        return Fail(REC_NOT_FOUND, url.path + " is no name of a program");
    pOut->root = g_settings.szRecordPath;
    pOut->program = szProgram;
    pOut->bOpenOnly = options.eCommand == REC_STATUS;
    if (CatalogueIsThere(*pOut) || (errno == ENOENT && access(pOut->root.c_str(), X_OK) == 0))
        return REC_OK;
    return Fail(REC_UNREADABLE, pOut->root + pOut->program + ": " + strerror(errno) +
                                    ": run this on the server's box, as its user, and with its configuration "
                                    "(-c FILE; RecordPath says where recordings are)");
}

// --- One recording ---

struct RecordingFacts {
    ZMFileHeader head;
    uint64_t nBytes = 0;
    time_t tChanged = 0;
    uint32_t nLengthMs = 0;
    const char *szState = "unreadable";
};

// What a walk through a file tells that has no duration in its header.
static void MeasureFile(const std::string &file, RecordingFacts *pOut)
{
    ZMFReader *pReader = ZMFReaderOpen(file.c_str(), 0);
    if (!pReader)
        return;
    pOut->nLengthMs = pReader->uDuration;
    pOut->szState = pReader->bInterrupted ? "interrupted" : "complete";
    ZMFReaderClose(pReader);
}

static time_t BegunAt(const ZMFileHeader &head)
{
    char szText[sizeof(head.szStartTime) + 1] = "";
    memcpy(szText, head.szStartTime, sizeof(head.szStartTime));
    tm local{};
    local.tm_isdst = -1;
    return strptime(szText, "%Y%m%d-%H%M%S", &local) ? mktime(&local) : time(nullptr);
}

// Returns 1, or 0 when the file has gone.
static int LookAt(const std::string &file, RecordingFacts *pOut)
{
    struct stat info {};
    uint8_t bytes[kZmfHeadBytes];
    FdGuard fd{open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (fd.fd < 0)
        return errno != ENOENT;
    if (fstat(fd.fd, &info) != 0 || ReadAt(fd.fd, 0, bytes, sizeof(bytes)) != sizeof(bytes) ||
        !ZMFileHeaderDecode(bytes, sizeof(bytes), &pOut->head))
        return 1;
    pOut->nBytes = static_cast<uint64_t>(info.st_size);
    pOut->nLengthMs = pOut->head.uDuration;
    pOut->szState = "complete";
    if (file.ends_with(kOpenSuffix) && IsBeingWritten(file.c_str())) {
        pOut->nLengthMs =
            static_cast<uint32_t>(std::max<time_t>(time(nullptr) - BegunAt(pOut->head), 0) * 1000);
        pOut->szState = "writing";
    } else if (pOut->nLengthMs == 0) {
        pOut->szState = "unreadable";
        MeasureFile(file, pOut);
    }
    return 1;
}

// --- Printing ---

// What may not stand in a URL as it is, or not in a shell's line, becomes %XX, which the server decodes.
static std::string UrlPath(const std::string &path)
{
    std::string out;
    for (char c : path) {
        char szHex[4];
        snprintf(szHex, sizeof(szHex), "%%%02X", static_cast<unsigned char>(c));
        out += c > ' ' && c < 127 && !strchr("%?#\"<>\\^`{|}&';()*$!", c) ? std::string(1, c) : szHex;
    }
    return out;
}

static std::string Begun(const std::string &begun)
{
    if (begun.size() != 15 || begun.find_first_not_of("0123456789-") != std::string::npos)
        return "-";
    return begun.substr(0, 4) + "-" + begun.substr(4, 2) + "-" + begun.substr(6, 2) + "T" +
           begun.substr(9, 2) + ":" + begun.substr(11, 2) + ":" + begun.substr(13, 2);
}

static std::string Length(uint32_t nMs)
{
    char sz[32];
    uint32_t n = nMs / 1000;
    snprintf(sz, sizeof(sz), "%u:%02u:%02u", n / 3600, n / 60 % 60, n % 60);
    return sz;
}

static const char *KindName(unsigned nKind)
{
    static const char *const names[] = {"-", "scheduled", "alarm", "manual"};
    return names[nKind <= RECORD_MANUAL ? nKind : 0];
}

struct Listing {
    const RecOptions &options;
    Catalogue catalogue{};
    std::string base{};  // of play URLs, "rtsp://host:port/"
    uint64_t nPrinted = 0;
};

static void PrintRow(Listing *pListing, const CatalogueItem &item)
{
    int bStatus = pListing->options.eCommand == REC_STATUS;
    std::string path = item.path;
    RecordingFacts facts;
    if (!LookAt(pListing->catalogue.root + path, &facts)) {
        size_t nFinal = path.size() - strlen(kOpenSuffix);  // it may have been completed by now
        if (bStatus || !path.ends_with(kOpenSuffix) ||
            !LookAt(pListing->catalogue.root + path.erase(nFinal), &facts))
            return;
    }
    if (bStatus && strcmp(facts.szState, "writing") != 0)
        return;
    if (pListing->nPrinted++ == 0)
        printf("%-19s %9s %12s %-9s %-11s %s\n", "BEGUN", "LENGTH", "BYTES", "KIND", "STATE",
               bStatus ? "FILE" : "URL");
    std::string begun(facts.head.szStartTime,
                      strnlen(facts.head.szStartTime, sizeof(facts.head.szStartTime)));
    std::string where = path.ends_with(kOpenSuffix) ? "-" : pListing->base + UrlPath(path);
    printf("%-19s %9s %12" PRIu64 " %-9s %-11s %s\n", Begun(begun).c_str(), Length(facts.nLengthMs).c_str(),
           facts.nBytes, KindName(facts.head.nRecordKind), facts.szState,
           bStatus ? path.c_str() : where.c_str());
}

static void PrintAll(Listing *pListing)
{
    CatalogueItem last;
    size_t nFound;
    do {
        auto items = CatalogueAfter(pListing->catalogue, last);
        nFound = items.size();
        for (const CatalogueItem &item : items)
            PrintRow(pListing, item);
        if (nFound > 0)
            last = *items.rbegin();
    } while (nFound == pListing->catalogue.nMost);
}

int RecListing(const RecOptions &options)
{
    RtspUrl url;
    RtspParseUrl(options.url.c_str(), &url);
    Listing listing{options};
    int nExit = FindRecordings(options, url, &listing.catalogue);
    if (nExit != REC_OK)
        return nExit;
    listing.base = url.plain.substr(0, url.plain.size() - url.path.size()) + "/";
    if (!g_settings.bFilePrograms && options.eCommand == REC_LIST)
        fprintf(stderr, "orxrec: the server plays none of these: set EnableFilePrg=1 in [SERVER]\n");
    PrintAll(&listing);
    if (listing.nPrinted > 0)
        return REC_OK;
    std::string of = listing.catalogue.program.empty() ? "" : " of " + listing.catalogue.program;
    return Fail(REC_NOT_FOUND, (options.eCommand == REC_STATUS ? "nothing" + of + " is being recorded below "
                                                               : "there is no recording" + of + " below ") +
                                   listing.catalogue.root);
}

}  // namespace orx
