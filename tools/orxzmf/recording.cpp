#include "recording.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/console.h"

namespace orx {

constexpr uint32_t kBuffer = 2U << 20;  // more than the largest record
constexpr int64_t kProgressMs = 1000;

static int64_t NowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void ProgressShow(Progress *pProgress, const char *szWork, const std::string &path, uint64_t nDone,
                  uint64_t nTotal)
{
    int64_t nNow = NowMs();
    if (pProgress->nNext == 0)
        pProgress->nNext = nNow + kProgressMs;
    if (nNow < pProgress->nNext)
        return;
    fprintf(stderr, "\r%s %s: %3d%%", szWork, path.c_str(),
            static_cast<int>(nDone * 100 / (nTotal ? nTotal : 1)));
    pProgress->bShown = 1;
    pProgress->nNext = nNow + kProgressMs;
}

void ProgressEnd(Progress *pProgress, const char *szWork, const std::string &path)
{
    if (pProgress->bShown)
        fprintf(stderr, "\r%s %s: done\n", szWork, path.c_str());
    pProgress->bShown = 0;
}

int RecordingOpen(Recording *pRecording, const std::string &path)
{
    *pRecording = Recording{};
    pRecording->path = path;
    pRecording->pReader = ZMFReaderOpen(path.c_str(), kBuffer);
    if (!pRecording->pReader) {
        int nError = access(path.c_str(), R_OK) == 0 ? 0 : errno;
        fprintf(stderr, "%s: %s\n", path.c_str(), nError ? strerror(nError) : "not a recording, or broken");
        return 0;
    }
    SdpScanCodecs(ZMFReaderSdp(pRecording->pReader), &pRecording->codecs);
    pRecording->nPos = pRecording->pReader->uDataBeginOffset;
    return 1;
}

void RecordingClose(Recording *pRecording)
{
    ZMFReaderClose(pRecording->pReader);
    pRecording->pReader = nullptr;
}

int RecordingRewind(Recording *pRecording)
{
    std::string path = pRecording->path;
    RecordingClose(pRecording);
    return RecordingOpen(pRecording, path);
}

int RecordingNext(Recording *pRecording, Sample *pOut, const char *szWork)
{
    int nBytes = 0;
    const uint8_t *p = ZMFReaderNextSample(pRecording->pReader, &nBytes);
    if (!p) {
        pRecording->nEnd = nBytes;
        ProgressEnd(&pRecording->progress, szWork, pRecording->path);
        return 0;
    }
    ZMFRecordHeadDecode(p, &pOut->head);
    pOut->nPos = pRecording->nPos;
    pOut->pData = p + kZmfRecordHeadBytes;
    pOut->nBytes = pOut->head.nLength - kZmfRecordHeadBytes;
    pRecording->nPos += pOut->head.nLength;
    ProgressShow(&pRecording->progress, szWork, pRecording->path, pRecording->nPos,
                 pRecording->pReader->nFileBytes);
    return 1;
}

}  // namespace orx
