#include "catalogue.h"

#include <fcntl.h>

#include <cstring>
#include <ctime>

#include "base/fdguard.h"
#include "record/daywalk.h"
#include "record/recordwalk.h"
#include "record/storage.h"
#include "record/zmfile.h"

namespace orx {

constexpr size_t kTimeName = 7;  // of M120000

static int EndsWith(const char *szName, const char *szEnding)
{
    size_t nName = strlen(szName), nEnding = strlen(szEnding);
    return nName > nEnding && strcasecmp(szName + nName - nEnding, szEnding) == 0;
}

// A day, also one that was set aside.
static int IsDay(const char *szName)
{
    std::string name = szName;
    return IsDate(name.substr(0, name.find('.')).c_str());
}

// "20260101/M120000.zmf" tells when it was begun. Returns 1, or 0 for another name.
static int TimeFromName(const std::string &path, std::string *pOut)
{
    size_t nSlash = path.rfind('/');
    if (nSlash == std::string::npos ||
        path.find_first_not_of("0123456789", nSlash + 2) != nSlash + 1 + kTimeName)
        return 0;
    size_t nDay = path.rfind('/', nSlash - 1) + 1;  // 0 without another slash
    if (!IsDay(path.substr(nDay, nSlash - nDay).c_str()))
        return 0;
    *pOut = path.substr(nDay, 8) + "-" + path.substr(nSlash + 2, kTimeName - 1);
    return 1;
}

static std::string TimeFromFile(const std::string &file, const struct stat &info)
{
    FdGuard fd{open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    uint8_t bytes[kZmfHeadBytes];
    ZMFileHeader head;
    if (fd.fd >= 0 && ReadAt(fd.fd, 0, bytes, sizeof(bytes)) == sizeof(bytes) &&
        ZMFileHeaderDecode(bytes, sizeof(bytes), &head))
        return {head.szStartTime, strnlen(head.szStartTime, sizeof(head.szStartTime))};
    char szTime[16] = "";
    tm local{};
    localtime_r(&info.st_mtime, &local);
    strftime(szTime, sizeof(szTime), "%Y%m%d-%H%M%S", &local);
    return szTime;
}

struct Walk {
    const Catalogue &catalogue;
    const CatalogueItem &last;
    std::set<CatalogueItem> items{};
};

static void TakeFile(Walk *pWalk, const std::string &path, const struct stat &info)
{
    CatalogueItem item{"", path};
    if (!TimeFromName(path, &item.begun))
        item.begun = TimeFromFile(pWalk->catalogue.root + path, info);
    if (item <= pWalk->last)
        return;
    pWalk->items.insert(item);
    if (pWalk->items.size() > pWalk->catalogue.nMost)
        pWalk->items.erase(std::prev(pWalk->items.end()));
}

// szDir: below the root, with '/' at its end unless it is the root.
static void TakeDirectory(Walk *pWalk, const std::string &dir, int nDepth)
{
    struct stat info {};
    DirReader reader((pWalk->catalogue.root + dir).c_str());
    while (const char *szName = reader.Next(&info)) {
        int bOpen = EndsWith(szName, ".zmf.tm!");
        if (S_ISREG(info.st_mode) && (bOpen || (EndsWith(szName, ".zmf") && !pWalk->catalogue.bOpenOnly)))
            TakeFile(pWalk, dir + szName, info);
        if (S_ISDIR(info.st_mode) && szName[0] != '.' && nDepth < kMaxDirDepth &&
            (pWalk->catalogue.program.empty() || (nDepth == 0 && IsDay(szName))))
            TakeDirectory(pWalk, dir + szName + "/", nDepth + 1);
    }
}

static std::string Top(const Catalogue &catalogue)
{
    return catalogue.program.empty() ? "" : catalogue.program + "/";
}

int CatalogueIsThere(const Catalogue &catalogue)
{
    return DirReader((catalogue.root + Top(catalogue)).c_str()).pDir != nullptr;
}

std::set<CatalogueItem> CatalogueAfter(const Catalogue &catalogue, const CatalogueItem &last)
{
    Walk walk{catalogue, last};
    TakeDirectory(&walk, Top(catalogue), 0);
    return std::move(walk.items);
}

}  // namespace orx
