#include "repair.h"

#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "record/openfile.h"
#include "record/zmfrepair.h"
#include "recording.h"
#include "report.h"
#include "survey.h"

namespace orx {

static int Refuse(const std::string &path, const char *szReason)
{
    fprintf(stderr, "%s: %s\n", path.c_str(), szReason);
    return VERDICT_UNREADABLE;
}

// The name of a file whose writer ended, unless another has it.
static std::string FinalName(const std::string &path)
{
    if (!path.ends_with(kOpenSuffix))
        return "";
    std::string name = path.substr(0, path.size() - strlen(kOpenSuffix));
    if (link(path.c_str(), name.c_str()) == 0) {
        unlink(path.c_str());
        return name;
    }
    // the file systems of memory cards know no links
    int bFree = errno != EEXIST && access(name.c_str(), F_OK) != 0;
    return bFree && rename(path.c_str(), name.c_str()) == 0 ? name : "";
}

static int Say(const std::string &path, const ZMFRepair &repair)
{
    std::string name = FinalName(path);
    printf("%s: repaired: %u pictures, %u key frames, %u.%03u s", path.c_str(), repair.head.uVideoSamples,
           repair.head.uKeyFrames, repair.head.uDuration / 1000, repair.head.uDuration % 1000);
    if (repair.nCut > 0)
        printf("; %" PRIu64 " bytes of an unfinished record were cut off", repair.nCut);
    if (!name.empty())
        printf("; it is now %s", name.c_str());
    putchar('\n');
    if (repair.nLost == 0)
        return repair.head.uVideoSamples > 0 ? VERDICT_SOUND : VERDICT_EMPTY;
    printf("  fault: the last %" PRIu64 " bytes are no records and were left as they are\n", repair.nLost);
    return VERDICT_DAMAGED;
}

static int RunRepair(const std::string &path, ZMFRepair *pRepair)
{
    Progress progress;
    if (!ZMFRepairOpen(pRepair, path.c_str()))
        return Refuse(path, errno ? strerror(errno) : "not a recording that can be repaired");
    ZMFRepairResult nResult = ZMF_REPAIR_MORE;
    while (nResult == ZMF_REPAIR_MORE) {
        nResult = ZMFRepairStep(pRepair);
        ProgressShow(&progress, "repairing", path, pRepair->nDone, pRepair->nBytes);
    }
    ProgressEnd(&progress, "repairing", path);
    if (nResult == ZMF_REPAIR_BROKEN)
        return Refuse(path, pRepair->szReason);
    if (nResult == ZMF_REPAIR_DONE)
        return Say(path, *pRepair);
    printf("%s: whole, and left alone\n", path.c_str());
    return ReportCheck(path);  // whether it is sound is another matter
}

int RepairRecording(const std::string &path)
{
    char *szReal = realpath(path.c_str(), nullptr);
    std::string real = szReal ? szReal : path;
    free(szReal);
    if (IsBeingWritten(real.c_str()))
        return Refuse(path, "is being written");
    ZMFRepair repair;
    int nStatus = RunRepair(real, &repair);
    ZMFRepairClose(&repair);
    return nStatus >= 0 ? nStatus
                        : ReportCheck(path);  // nothing to repair: whether it is sound is another matter
}

}  // namespace orx
