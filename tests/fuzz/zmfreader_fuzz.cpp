// The recording reader: an input is a whole file. It is read to its end, sought in, and stepped through.
#include "record/zmfreader.h"

#include "fuzz/fuzz.h"

using namespace orx;

// Reads a record whole. Its length must be the one it names.
static void CheckRecord(const uint8_t *pRecord, uint32_t nBytes)
{
    ZMFRecordHead head;
    ZMFRecordHeadDecode(pRecord, &head);
    ORX_ASSERT(head.nLength == nBytes && nBytes >= kZmfRecordHeadBytes, "its own length");
    Exact(pRecord, nBytes);
}

static uint64_t ReadToEnd(ZMFReader *pReader)
{
    uint64_t nTotal = 0;
    int nBytes = 0;
    while (const uint8_t *p = ZMFReaderNextSample(pReader, &nBytes)) {
        CheckRecord(p, static_cast<uint32_t>(nBytes));
        nTotal += static_cast<uint64_t>(nBytes);
    }
    ORX_ASSERT(nBytes == 0 || nBytes == -1, "an end");
    return nTotal;
}

static void Seek(ZMFReader *pReader)
{
    uint32_t nEnd = ZMFReaderDuration(pReader);
    for (uint32_t nTimeMs : {0U, 1U, nEnd / 3, nEnd / 2, nEnd - 1, nEnd, UINT32_MAX}) {
        uint32_t nReached = 0;
        const uint8_t *p = ZMFReaderSeek(pReader, nTimeMs, &nReached);
        int nBytes = 0;
        ORX_ASSERT(!p || GetBe(p + 4, 4) == nReached, "the time reached");
        const uint8_t *pNext = ZMFReaderNextSample(pReader, &nBytes);
        ORX_ASSERT(!p || (pNext && GetBe(pNext + 4, 4) == nReached), "it is handed out next");
    }
}

static void Step(ZMFReader *pReader)
{
    for (int nDirection : {1, -1}) {
        if (!ZMFReaderSetupKeyFrameMode(pReader, nDirection))
            return;
        for (int nStep : {1, 2, -1, 100, 1, -100, -1, 1}) {
            uint32_t nTimeMs = 0;
            const uint8_t *p = ZMFReaderSeek2KeyFrame(pReader, nStep, &nTimeMs);
            ORX_ASSERT(!p || (p[2] == 'v' && (p[3] & ZMF_KEY) && GetBe(p + 4, 4) == nTimeMs), "a key frame");
        }
    }
}

// Any number of steps comes to an end.
static void GoByKeys(ZMFReader *pReader, size_t nFile)
{
    for (int nDirection : {1, -1}) {
        uint32_t nReached = 0;
        ZMFReaderSeek(pReader, ZMFReaderDuration(pReader) / 2, &nReached);
        ZMFReaderBeginKeys(pReader);
        int nBytes = 0, bMore = 0;
        size_t nSteps = 0;
        const uint8_t *p;
        while ((p = ZMFReaderNextKey(pReader, nDirection, nSteps % 3 * 50, 40, &nBytes, &bMore)) || bMore) {
            if (p)
                CheckRecord(p, static_cast<uint32_t>(nBytes));
            ORX_ASSERT(nSteps++ < 4 * nFile, "an end");
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    WriteFile(ScratchFile(), Text(pData, nBytes));
    ZMFReader *pReader = ZMFReaderOpen(ScratchFile().c_str(), 4096);
    if (!pReader)
        return 0;
    ORX_ASSERT(ReadToEnd(pReader) <= nBytes, "no more than the file");
    ORX_ASSERT(pReader->nBuffer <= kZmfMaxWideBytes, "the buffer has a bound");
    Seek(pReader);
    Step(pReader);
    GoByKeys(pReader, nBytes);
    ReadToEnd(pReader);
    std::unique_ptr<uint8_t[]> data(new uint8_t[65536]);
    ZMFReaderAppData(pReader, data.get(), 65536);
    ZMFReaderStartTime(pReader);
    ORX_ASSERT(strlen(ZMFReaderSdp(pReader)) <= pReader->head.nSdpSize + 32U, "and a range line");
    ZMFReaderClose(pReader);
    return 0;
}
