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

static void ShowProgress(Recording *pRecording, const char *szWork)
{
    int64_t nNow = NowMs();
    if (pRecording->nNextShown == 0)
        pRecording->nNextShown = nNow + kProgressMs;
    if (nNow < pRecording->nNextShown)
        return;
    uint64_t nTotal = pRecording->pReader->nFileBytes;
    fprintf(stderr, "\r%s %s: %3d%%", szWork, pRecording->path.c_str(),
            static_cast<int>(pRecording->nPos * 100 / (nTotal ? nTotal : 1)));
    pRecording->bShown = 1;
    pRecording->nNextShown = nNow + kProgressMs;
}

int RecordingNext(Recording *pRecording, Sample *pOut, const char *szWork)
{
    int nBytes = 0;
    const uint8_t *p = ZMFReaderNextSample(pRecording->pReader, &nBytes);
    if (!p) {
        pRecording->nEnd = nBytes;
        if (pRecording->bShown)
            fprintf(stderr, "\r%s %s: done\n", szWork, pRecording->path.c_str());
        pRecording->bShown = 0;
        return 0;
    }
    ZMFRecordHeadDecode(p, &pOut->head);
    pOut->nPos = pRecording->nPos;
    pOut->pData = p + kZmfRecordHeadBytes;
    pOut->nBytes = pOut->head.nLength - kZmfRecordHeadBytes;
    pRecording->nPos += pOut->head.nLength;
    ShowProgress(pRecording, szWork);
    return 1;
}

}  // namespace orx
