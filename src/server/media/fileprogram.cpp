#include "server/media/fileprogram.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/console.h"
#include "base/textbuf.h"
#include "record/sdpreader.h"
#include "record/storage.h"
#include "server/core/sdp.h"
#include "server/core/settings.h"
#include "server/media/filereader.h"
#include "server/media/filesend.h"

namespace orx {

constexpr size_t kShortestPath = 6;  // "/a.zmf"
// Between two key frames where only such are played: where each picture is one, no player could show them
// all.
constexpr uint32_t kKeyGapMs = 20;

static const char *FileSdp(const Program *pProg)
{
    return pProg->reader ? pProg->reader->szSdp : nullptr;
}

static void CloseReader(Program *pProg)
{
    FileReaderClose(std::exchange(pProg->reader, nullptr));
}

static const ProgramOps g_fileOps = {FileSdp, FillBufferFromFile, CloseReader};

uint32_t FileProgramDuration(const Program *pProg)
{
    return pProg->reader ? pProg->reader->uDuration : 0;
}

int FileProgramScale(const Session *pSession, float fWanted)
{
    static constexpr int scales[] = {1, 2, 4, 8, 16, -1, -2, -4, -8, -16};
    int nVideo = pSession->pProg->desc.nVideoTrack;
    if (!PlaysStandard(pSession) || nVideo < 0 || nVideo >= kMaxTracks || !pSession->tracks[nVideo].bSetUp)
        return 1;
    auto isNearer = [fWanted](int a, int b) {
        return std::fabs(fWanted - static_cast<float>(a)) < std::fabs(fWanted - static_cast<float>(b));
    };
    return *std::min_element(std::begin(scales), std::end(scales), isNearer);
}

int FileProgramSeek(Session *pSession, uint32_t nMs, int nScale, uint32_t *pReached)
{
    FileReader *pReader = pSession->pProg->reader;
    HeldJob *pHeld = HeldJobTake(pSession);
    if (!pHeld) {
        FileSeek seek = {nMs, PlaysStandard(pSession), (nScale > 1) - (nScale < 0),
                         static_cast<uint32_t>(std::abs(nScale)) * kKeyGapMs};
        HeldJob *pSeeking = pReader ? FileReaderSeeking(pReader, &seek) : nullptr;
        if (!pSeeking)
            return 0;
        pHeld = HeldJobPost(pSession, &pReader->lane, pSeeking);
    }
    return pHeld ? FileReaderSought(pHeld, pReached) : -1;
}

// Whether a path may be that of a recording: with ConfineRecordings slashes at its end do not count.
static int NamesRecording(const char *szPath)
{
    size_t nPath = strlen(szPath);
    while (g_settings.bConfineRecordings && nPath > 0 && szPath[nPath - 1] == '/')
        nPath--;
    return nPath >= kShortestPath && strncasecmp(szPath + nPath - 4, ".zmf", 4) == 0;
}

// Builds the path of the file that a recording's path stands for. Returns 1, or 0 when it is too long.
static int FilePath(char *szOut, size_t nSize, const char *szPath)
{
    TextBuf file{szOut, nSize};
    if (!TextAdd(&file, "%s", g_settings.szRecordPath))
        return 0;
    if (g_settings.bConfineRecordings)
        return StorageProgramPath(szOut + file.nLen, nSize - file.nLen, szPath);
    return TextAdd(&file, "%s", PathName(szPath));
}

// Has the file of a recording's path opened. Returns the job when that is done already; *pbMore: it is not.
static HeldJob *Open(Session *pSession, const char *szPath, int *pbMore)
{
    char file[512];
    if (!NamesRecording(szPath) || !g_settings.bFilePrograms || !g_settings.szRecordPath ||
        !*g_settings.szRecordPath || !StorageIsInside(szPath) || !FilePath(file, sizeof(file), szPath))
        return nullptr;
    const char *szBelow = g_settings.bConfineRecordings ? g_settings.szRecordPath : nullptr;
    DiskLane *pLane = nullptr;
    HeldJob *pOpening = FileReaderOpening(file, szBelow, &pLane);
    if (!pOpening)
        return nullptr;
    HeldJob *pHeld = HeldJobPost(pSession, pLane, pOpening);
    *pbMore = !pHeld;
    return pHeld;
}

// Cameras leave the rtpmap lines of static payload types out (RFC 3551, section 6), and so do recordings of
// theirs.
static int ReadDescription(Program *pProg, const FileReader *pReader)
{
    char *szSdp = pProg->standards.bPlayers ? SdpWithStaticMaps(pReader->szSdp) : nullptr;
    int bRead = SdpParse(&pProg->desc, szSdp ? szSdp : pReader->szSdp, 0, pReader->uDuration,
                         pProg->standards.bPushers);
    free(szSdp);
    return bRead;
}

// A program of an open recording, whose owner it becomes. Null, with it closed, without a usable description.
static Program *MakeProgram(const char *szPath, FileReader *pReader)
{
    Program *pProg = ProgramNew(szPath, &g_fileOps);
    if (!pProg) {
        FileReaderClose(pReader);
        return nullptr;
    }
    pProg->reader = pReader;
    pReader->pProg = pProg;
    pReader->pfnArrived = FileRecordsArrived;
    if (pReader->szSdp && ReadDescription(pProg, pReader) && ProgramReady(pProg))
        return pProg;
    ProgramDiscard(pProg);
    return nullptr;
}

Program *CreateFileProgram(Session *pSession, const char *szPath, int *pbMore)
{
    *pbMore = 0;
    HeldJob *pHeld = HeldJobTake(pSession);
    if (!pHeld)
        pHeld = Open(pSession, szPath, pbMore);
    FileReader *pReader = pHeld ? FileReaderOpened(pHeld) : nullptr;
    Program *pProg = pReader ? MakeProgram(szPath, pReader) : nullptr;
    if (pProg)
        print("CreateFileProgram(Uri=%s), pointer=0x%x.\r\n", pProg->Uri, ProgramPrintId(pProg));
    return pProg;
}

}  // namespace orx
