// The repair of recordings: an input is a whole file.
#include "record/zmfrepair.h"

#include <unistd.h>

#include "fuzz/fuzz.h"
#include "record/zmfreader.h"

using namespace orx;

// In memory, too, but with a name of its own: a repair follows no link.
static const std::string &RepairedFile()
{
    static const std::string path = "/dev/shm/orx-repair-" + std::to_string(getpid());
    return path;
}

static ZMFRepairResult Repair(size_t nBytes, ZMFRepair *pRepair)
{
    ZMFRepairResult nResult = ZMF_REPAIR_MORE;
    if (!ZMFRepairOpen(pRepair, RepairedFile().c_str()))
        nResult = ZMF_REPAIR_BROKEN;
    for (size_t nSteps = 0; nResult == ZMF_REPAIR_MORE; nSteps++) {
        nResult = ZMFRepairStep(pRepair);
        ORX_ASSERT(nSteps < 10 + nBytes && pRepair->nDone <= nBytes, "an end");
    }
    ZMFRepairClose(pRepair);
    return nResult;
}

// What was repaired is whole, and has lost no record.
static void CheckRepaired(const ZMFRepair *pRepair, size_t nBytes)
{
    ORX_ASSERT(pRepair->nCut + pRepair->nLost + ZMFileDataOffset(&pRepair->head) <= nBytes, "they are of the file");
    ORX_ASSERT(ReadFile(RepairedFile()).size() == nBytes - pRepair->nCut, "what is cut off, and no more");
    if (pRepair->head.uDuration == 0)
        return;
    ZMFRepair again;
    ORX_ASSERT(Repair(nBytes, &again) == ZMF_REPAIR_WHOLE, "once");
    ZMFReader *pReader = ZMFReaderOpen(RepairedFile().c_str(), 4096);
    ORX_ASSERT(pReader && !pReader->bInterrupted, "it can be read");
    uint32_t nVideo = 0;
    int nRead = 0;
    while (const uint8_t *p = ZMFReaderNextSample(pReader, &nRead))
        nVideo += p[2] == 'v';
    ORX_ASSERT(nVideo == pRepair->head.uVideoSamples, "as many as it says");
    ZMFReaderClose(pReader);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    const std::string before = Text(pData, nBytes);
    WriteFile(RepairedFile(), before);
    ZMFRepair repair;
    if (Repair(nBytes, &repair) == ZMF_REPAIR_DONE)
        CheckRepaired(&repair, nBytes);
    else
        ORX_ASSERT(ReadFile(RepairedFile()) == before, "left alone");
    unlink(RepairedFile().c_str());
    return 0;
}
