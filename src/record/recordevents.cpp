#include "record/recordevents.h"

#include <cstring>

#include <sys/statvfs.h>

#include "base/textbuf.h"
#include "record/storage.h"

namespace orx {

int64_t RecordFreeMegabytes(const char *szPath)
{
    char szDir[kStoragePathSize];
    struct statvfs info {};
    if (!TextCopy(szDir, sizeof(szDir), szPath))
        return -1;
    while (statvfs(szDir, &info) != 0) {  // a directory above it is there
        char *pSlash = strrchr(szDir, '/');
        if (!pSlash || pSlash == szDir)
            return -1;
        *pSlash = '\0';
    }
    uint64_t nBlockBytes = info.f_frsize ? info.f_frsize : info.f_bsize;
    return static_cast<int64_t>(uint64_t{info.f_bavail} * nBlockBytes >> 20);
}

void RecordSay(EventLevel eLevel, const char *szEvent, const RecordEvent &event)
{
    if (!EventWanted(eLevel))
        return;
    char szProgram[kStoragePathSize] = "";
    TextBuf program{szProgram, sizeof(szProgram)};
    if (event.szProgram && event.szProgram[0])
        TextAdd(&program, "%s%s", event.szProgram[0] == '/' ? "" : "/", event.szProgram);
    int64_t nFree = event.szFile ? RecordFreeMegabytes(event.szFile) : -1;
    EventSay(
        eLevel, szEvent,
        {EventText("program", szProgram), EventText("file", event.szFile),
         EventNumberIf(event.nSeconds >= 0, "seconds", event.nSeconds), EventText("reason", event.szReason),
         EventText("error", event.nErrno ? strerror(event.nErrno) : nullptr),
         EventNumberIf(nFree >= 0, "free_mb", nFree)});
}

}  // namespace orx
