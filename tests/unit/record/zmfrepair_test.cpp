// Recordings that were interrupted become what a clean close would have left, whatever cut them short.
#include "record/zmfrepair.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "unit/record/recordkit.h"

namespace orx {

// What the writer leaves before it closes: no counters, no index, no range line.
static std::string Interrupted(std::string file, size_t nKeep = std::string::npos)
{
    file.resize(std::min(file.size(), nKeep));
    size_t nSdp = GetBe(file.data() + 10, 2);
    std::string sdp = file.substr(1768, nSdp);
    size_t nRange = sdp.find("a=range:");
    if (nRange != std::string::npos)
        sdp.erase(nRange, sdp.find('\n', nRange) + 1 - nRange).resize(nSdp);
    file.replace(1768, nSdp, sdp).replace(168, 1600, std::string(1600, '\0'));
    file.replace(132, 2, Be(1, 2)).replace(128, 4, Be(0, 4));
    return file.replace(40, 20, std::string(20, '\0'));
}

// Steps to the end, and no further when nSteps are done.
static int Repair(const std::string &path, uint64_t *pnCut = nullptr, uint64_t *pnLost = nullptr, int nSteps = 1000)
{
    ZMFRepair repair;
    int nResult = ZMFRepairOpen(&repair, path.c_str()) ? ZMF_REPAIR_MORE : -2;
    for (int i = 0; i < nSteps && nResult == ZMF_REPAIR_MORE; i++) {
        uint64_t nBefore = repair.nDone;
        nResult = ZMFRepairStep(&repair);
        EXPECT_LE(nBefore, repair.nDone);
        EXPECT_LE(repair.nDone, repair.nBytes);
    }
    if (pnCut)
        *pnCut = repair.nCut;
    if (pnLost)
        *pnLost = repair.nLost;
    ZMFRepairClose(&repair);
    return nResult;
}

// A finished file with nKeys key frames, a picture, sound and a message behind each.
static std::string Make(Recorder *pRecorder, uint32_t nKeys, size_t nBytes)
{
    for (uint32_t i = 0; i < nKeys; i++) {
        pRecorder->PutKey(i * 100, nBytes);
        pRecorder->Put('v', 0, i * 100 + 40, Prefixed(Nal(1, nBytes, i)));
        pRecorder->Put('a', 0, i * 100 + 50, Pattern(160, i));
        pRecorder->Put('u', 0, i * 100 + 60, "ALARM:x");
    }
    return pRecorder->Finish();
}

TEST(ZMFRepair, LeavesWhatACloseLeaves)
{
    static const struct {
        uint32_t nKeys;
        size_t nBytes;
    } cases[] = {{1, 50}, {3, 70000}, {200, 100}, {201, 100}, {450, 10000}, {20, 900000}};
    for (const auto &c : cases) {
        Recorder recorder;
        const std::string closed = Make(&recorder, c.nKeys, c.nBytes);
        WriteFile(recorder.path, Interrupted(closed));
        EXPECT_EQ(ZMF_REPAIR_DONE, Repair(recorder.path));
        // sound is recorded in blocks, so that the file's end is where its last picture or message is
        EXPECT_TRUE(closed == ReadFile(recorder.path)) << c.nKeys << " keys of " << c.nBytes;
        EXPECT_EQ(ZMF_REPAIR_WHOLE, Repair(recorder.path));
        EXPECT_TRUE(closed == ReadFile(recorder.path));
    }
}

TEST(ZMFRepair, GoesOnFromWhereverItWasCutShort)
{
    Recorder recorder;
    const std::string closed = Make(&recorder, 40, 40000);
    int nSteps = 0;
    for (int nResult = ZMF_REPAIR_MORE; nResult == ZMF_REPAIR_MORE; nSteps++) {
        WriteFile(recorder.path, Interrupted(closed) + "\x01");
        nResult = Repair(recorder.path, nullptr, nullptr, nSteps);
        EXPECT_EQ(nResult == ZMF_REPAIR_MORE ? ZMF_REPAIR_DONE : ZMF_REPAIR_WHOLE, Repair(recorder.path)) << nSteps;
        EXPECT_TRUE(closed == ReadFile(recorder.path)) << nSteps;
    }
    EXPECT_GE(nSteps, 6);  // blocks of 1 MB, tables, header
}

TEST(ZMFRepair, CutsOffOnlyWhatIsNoRecord)
{
    Recorder recorder;
    const std::string file = Interrupted(Make(&recorder, 3, 100));
    const std::string zeros(3 << 20, '\0'), head = Be(200, 2) + "v" + Be(0, 5);
    const struct {
        std::string tail;
        int bCut;
    } cases[] = {
        {"", 1},
        {"v", 1},
        {head, 1},
        {head + std::string(191, 'x'), 1},
        {zeros, 1},
        {zeros + "x", 0},
        {Be(4, 8), 0},
        {Be(4, 8) + std::string(2 << 20, 'x'), 0},
        {"\xFF\xFFx\x0F" + Be(0, 4), 0},
    };
    for (const auto &c : cases) {
        uint64_t nCut = 0, nLost = 0;
        WriteFile(recorder.path, file + c.tail);
        timespec times[2] = {{1000, 0}, {1000, 0}};
        utimensat(AT_FDCWD, recorder.path.c_str(), times, 0);
        EXPECT_EQ(ZMF_REPAIR_DONE, Repair(recorder.path, &nCut, &nLost));
        EXPECT_EQ(c.bCut ? c.tail.size() : 0, nCut);
        EXPECT_EQ(c.bCut ? 0 : c.tail.size(), nLost);
        const std::string now = ReadFile(recorder.path);
        EXPECT_EQ(file.size() + nLost, now.size());
        EXPECT_TRUE(now.ends_with(c.tail.substr(0, nLost)));
        struct stat info {};
        stat(recorder.path.c_str(), &info);
        EXPECT_EQ(1000, info.st_mtime);  // which files are old decides what is deleted
        int nEnd = 0;
        EXPECT_EQ(12U, Reader(recorder.path).ReadOn(&nEnd).size());
    }
}

TEST(ZMFRepair, LeavesAloneWhatItDoesNotKnow)
{
    Recorder recorder;
    const std::string file = Interrupted(Make(&recorder, 3, 100));
    auto with = [&](size_t nAt, const std::string &bytes) {
        return std::string(file).replace(nAt, bytes.size(), bytes);
    };
    const std::string cases[] = {"",
                                 file.substr(0, 8),
                                 file.substr(0, 1800),
                                 with(0, "x"),
                                 with(4, Be(160, 2)),
                                 with(8, Be(8, 2)),
                                 with(10, Be(65528, 2))};
    for (const std::string &bad : cases) {
        WriteFile(recorder.path, bad);
        EXPECT_EQ(-2, Repair(recorder.path));
        EXPECT_EQ(bad, ReadFile(recorder.path));
    }
    std::string empty = file.substr(0, 1768 + GetBe(file.data() + 10, 2));
    WriteFile(recorder.path, empty);
    EXPECT_EQ(ZMF_REPAIR_WHOLE, Repair(recorder.path));
    EXPECT_EQ(empty, ReadFile(recorder.path));

    // a file that grows meanwhile has a writer
    WriteFile(recorder.path, file);
    ZMFRepair repair;
    ASSERT_EQ(1, ZMFRepairOpen(&repair, recorder.path.c_str()));
    WriteFile(recorder.path, file + file);
    int nResult = ZMF_REPAIR_MORE;
    while (nResult == ZMF_REPAIR_MORE)
        nResult = ZMFRepairStep(&repair);
    EXPECT_EQ(ZMF_REPAIR_BROKEN, nResult);
    EXPECT_STREQ("it is being written", repair.szReason);
    ZMFRepairClose(&repair);
    EXPECT_EQ(file + file, ReadFile(recorder.path));
}

}  // namespace orx
