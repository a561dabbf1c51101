#include "server/media/fileprogram.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"
#include "record/recordwalk.h"
#include "record/storage.h"
#include "record/zmfreader.h"
#include "server/core/sdp.h"
#include "server/core/settings.h"
#include "server/media/filesend.h"

namespace orx {

constexpr uint32_t kReadBuffer = 204800;  // bytes that the reader of a recording keeps
constexpr size_t kShortestPath = 6;       // "/a.zmf"

static const char *FileSdp(const Program *pProg)
{
    return pProg->reader ? ZMFReaderSdp(pProg->reader) : nullptr;
}

static void CloseReader(Program *pProg)
{
    ZMFReaderClose(pProg->reader);
    pProg->reader = nullptr;
}

static const ProgramOps g_fileOps = {FileSdp, FillBufferFromFile, CloseReader};

uint32_t FileProgramDuration(const Program *pProg)
{
    return pProg->reader ? ZMFReaderDuration(pProg->reader) : 0;
}

int FileProgramSeek(Program *pProg, uint32_t nMs, uint32_t *pReached)
{
    int bMore = 0;
    if (!pProg->reader)
        return 0;
    const uint8_t *pRecord = ZMFReaderSeekStep(pProg->reader, nMs, kStepWork, pReached, &bMore);
    return bMore ? -1 : pRecord != nullptr;
}

// Opens the recording of a program whose Uri is set and reads its description. Returns 1 or 0.
static int OpenReader(Program *pProg, const char *szFile, int *pbMore)
{
    const char *szBelow = g_settings.bConfineRecordings ? g_settings.szRecordPath : nullptr;
    pProg->reader = ZMFReaderOpenStep(szFile, kReadBuffer, kStepWork, pbMore, szBelow);
    if (!pProg->reader)
        return 0;
    const char *szSdp = FileSdp(pProg);
    return szSdp && SdpParse(&pProg->desc, szSdp, 0, FileProgramDuration(pProg));
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

Program *CreateFileProgram(const char *szPath, int *pbMore)
{
    *pbMore = 0;
    char file[512];
    if (!NamesRecording(szPath) || !g_settings.bFilePrograms || !g_settings.szRecordPath ||
        !*g_settings.szRecordPath || !StorageIsInside(szPath) || !FilePath(file, sizeof(file), szPath))
        return nullptr;
    Program *pProg = ProgramNew(szPath, &g_fileOps);
    if (!pProg)
        return nullptr;
    if (!OpenReader(pProg, file, pbMore) || !ProgramReady(pProg)) {
        ProgramDiscard(pProg);
        return nullptr;
    }
    print("CreateFileProgram(Uri=%s), pointer=0x%x.\r\n", pProg->Uri, ProgramPrintId(pProg));
    return pProg;
}

}  // namespace orx
