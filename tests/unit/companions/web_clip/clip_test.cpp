// Clips: the same bytes for every range and after every restart, what they hold, and what becomes of
// recordings that grow, are damaged, or lie elsewhere.
#include <fcntl.h>
#include <sys/stat.h>

#include <random>
#include <thread>

#include "clipkit.h"
#include "orxweb/clipconfig.h"
#include "orxweb/clipfile.h"
#include "orxweb/cliplayout.h"
#include "orxweb/clipread.h"

namespace orx {

static const Content g_contents[] = {
    {"h264", "aac"},
    {"h264", "pcma"},
    {"h264", ""},
    {"changing", "aac"},
    {"jpeg", ""},
    {"", "aac", 7},
    {"", "pcma", 7},
    {"h264", "noise", 10, 700},
    {"h264", "aac", 10, 0, 75, 1},
};

// The sound as it stands in the fragments.
static std::string SoundOf(const std::string &mp4)
{
    std::string out;
    for (const Box &moof : Find(Boxes(mp4), "moof"))
        for (const Box &traf : Find(Boxes(mp4, moof.nAt, moof.nEnd), "traf")) {
            std::vector<Box> inside = Boxes(mp4, traf.nAt, traf.nEnd);
            for (const Box &run : Find(inside, "trun")) {
                size_t nAt = moof.nAt - 8 + Field(mp4, run.nAt + 8, 4), nEntries = Field(mp4, run.nAt + 4, 4);
                for (size_t i = 0, nEntry = (run.nEnd - run.nAt - 12) / nEntries; i < nEntries; i++) {
                    size_t nBytes = Field(mp4, run.nAt + 12 + (i + 1) * nEntry - 4, 4);  // its last field
                    if (Field(mp4, inside[0].nAt + 4, 4) == 2)
                        out += mp4.substr(nAt, nBytes);
                    nAt += nBytes;
                }
            }
        }
    return out;
}

TEST(Clip, HasEveryUnitOfSoundOnceAndInOrder)
{
    Archive archive;
    for (const Content &content : {Content{"h264", "noise"}, Content{"", "noise", 9}, Content{"jpeg", "noise", 3}}) {
        std::string all;
        for (uint32_t n = 0; n < static_cast<uint32_t>(content.nSeconds) * 48000 / 1024; n++)
            all += Unit(content, n);
        EXPECT_EQ(all, SoundOf(Opened(archive.Add("M1" + content.video + ".zmf", Record(content))).All()));
    }
}

static std::string Name(const Content &content)
{
    return content.video + content.audio + std::to_string(content.nAheadMs + content.nKeyEvery) + ".zmf";
}

TEST(Clip, EveryRangeIsASliceOfTheSameWhole)
{
    Archive archive;
    std::mt19937 random(13);
    for (const Content &content : g_contents) {
        std::string file = archive.Add(Name(content), Record(content)), whole, tag;
        {
            Opened clip(file);
            ASSERT_EQ(ClipState::Ready, clip.eState) << file;
            whole = clip.All();
            tag = ClipTag(clip.p);
            EXPECT_EQ(ClipSize(clip.p), whole.size());
            EXPECT_EQ("", clip.Read(whole.size(), 1) + clip.Read(UINT64_MAX, 1));
        }
        archive.Restart();
        for (int bAnew : {0, 1}) {
            if (bAnew) {
                ClipsStop();
                std::filesystem::remove_all(archive.settings.cachePath);
                ASSERT_EQ(1, ClipsStart(&archive.settings));
            }
            Clip *pClip = nullptr;
            EXPECT_EQ(bAnew ? ClipState::Making : ClipState::Ready, ClipOpen(kProgram, file.c_str(), &pClip));
            ClipClose(pClip);
            Opened clip(file);
            ASSERT_EQ(ClipState::Ready, clip.eState);
            EXPECT_EQ(tag, ClipTag(clip.p));
            for (int i = 0; i < 200; i++) {
                size_t nAt = random() % whole.size(), nBytes = random() % (i % 2 ? 64 : 400000);
                ASSERT_EQ(whole.substr(nAt, nBytes), clip.Read(nAt, nBytes)) << file << " from " << nAt;
            }
        }
    }
}

// The places of a track's index entries, whether playing may begin there, and their times.
struct IndexPart {
    size_t nAt;
    int bKey;
    double dSeconds;
};
static std::vector<IndexPart> ReadIndex(const std::string &mp4, const Box &box)
{
    std::vector<IndexPart> out;
    double dRate = Field(mp4, box.nAt + 8, 4);
    uint64_t nTime = Field(mp4, box.nAt + 16, 4), nAt = box.nEnd + Field(mp4, box.nAt + 24, 4);
    uint32_t nEntries = Field(mp4, box.nAt + 28, 4);
    for (uint32_t i = 0; i < nEntries; i++) {
        size_t nEntry = box.nAt + 32 + size_t{12} * i;
        out.push_back({static_cast<size_t>(nAt), Field(mp4, nEntry + 8, 4) != 0, static_cast<double>(nTime) / dRate});
        nAt += Field(mp4, nEntry, 4);
        nTime += Field(mp4, nEntry + 4, 4);
    }
    EXPECT_EQ(mp4.size(), nAt);
    return out;
}

// The time of a track's first sample in the fragment that begins there; -1 without.
static double FirstTime(const std::string &mp4, size_t nAt, uint32_t nTrack, double dRate)
{
    Box moof = Boxes(mp4, nAt, nAt + Field(mp4, nAt, 4))[0];
    for (const Box &traf : Find(Boxes(mp4, moof.nAt, moof.nEnd), "traf")) {
        std::vector<Box> inside = Boxes(mp4, traf.nAt, traf.nEnd);
        if (Field(mp4, inside[0].nAt + 4, 4) == nTrack)
            return Field(mp4, inside[1].nAt + 8, 4) / dRate;
    }
    return -1;
}

TEST(Clip, IndexLeadsToPicturesThatStandAloneAndTheirSound)
{
    Archive archive;
    for (const Content &content : g_contents) {
        Opened clip(archive.Add(Name(content), Record(content)));
        std::string mp4 = clip.All();
        std::vector<Box> boxes = Boxes(mp4), indexes = Find(boxes, "sidx");
        ASSERT_EQ(size_t{!content.video.empty()} + !content.audio.empty(), indexes.size());
        ASSERT_EQ("ftypmoovsidx", boxes[0].type + boxes[1].type + boxes[2].type);
        size_t nFragments = Find(boxes, "moof").size();
        EXPECT_EQ(nFragments, Find(boxes, "mdat").size());
        double dRate = content.audio == "pcma" ? 8000 : 48000;
        for (const IndexPart &part : ReadIndex(mp4, indexes.back())) {
            EXPECT_EQ(1, part.bKey);
            double dVideo = FirstTime(mp4, part.nAt, 1, 1000), dAudio = FirstTime(mp4, part.nAt, 2, dRate);
            if (content.video.empty() || content.audio.empty())
                continue;
            EXPECT_LE(0, dAudio) << part.nAt;
            if (part.dSeconds > 1) {
                EXPECT_LE(dAudio, dVideo + 1e-6) << part.nAt;  // whoever seeks there finds both
            }
            EXPECT_GE(dAudio, dVideo - 0.13) << part.nAt;
        }
        size_t nEntries = ReadIndex(mp4, indexes[0]).size();
        EXPECT_EQ(nFragments, nEntries);  // Chromium stumbles over fragments that it does not find in there
        EXPECT_TRUE(content.video == "h264" ? nEntries == (250 + content.nKeyEvery - 1) / content.nKeyEvery
                                            : nEntries > 2)
            << Name(content);
    }
}

TEST(Clip, IndexOfALongRecordingIsFull)
{
    Archive archive;
    Recorder recorder;
    const std::string sets = RecordedPictures({"h264", ""})[0].substr(0, 33);
    for (uint32_t i = 0; i < 90000; i++)  // 25 hours
        recorder.Put('v', ZMF_KEY, i * 1000, sets + Prefixed(Nal(5, 9, i)));
    Opened clip(archive.Add("long.zmf", recorder.Finish()));
    ASSERT_EQ(ClipState::Ready, clip.eState);
    std::string mp4 = clip.All();
    size_t nEntries = ReadIndex(mp4, Find(Boxes(mp4), "sidx")[0]).size();
    EXPECT_TRUE(nEntries > 40000 && nEntries < 65536) << nEntries;
}

TEST(Clip, NamesItsCodecs)
{
    static const std::pair<Content, const char *> cases[] = {
        {{"h264", "aac"}, "avc1.4D4015,mp4a.40.2"},
        {{"changing", ""}, "avc3.4D4015"},
        {{"jpeg", ""}, "mp4v.6C"},
        {{"", "pcma", 3}, "mp4a.40.2"},
    };
    Archive archive;
    for (const auto &[content, szCodecs] : cases) {
        Opened clip(archive.Add(Name(content), Record(content)));
        ASSERT_EQ(ClipState::Ready, clip.eState);
        EXPECT_EQ(szCodecs, ClipCodecs(clip.p));
    }
    auto unit = [](std::string_view hex) {
        std::string out;
        for (size_t i = 0; i < hex.size(); i += 2)
            out += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
        return Prefixed(out);
    };
    std::string sets = unit("40010c01ffff01600000030090000003000003003fba0240") +
                       unit("42010101600000030090000003000003003fa005020171f2e5ba4a4c2f016808000003000800000300c840") +
                       unit("4401c073c189");
    ClipVideo video;
    video.pCodec = CodecByName(MEDIA_VIDEO_OTHER, "H265", CODEC_WIDE_ALL);
    ParamSetsNote(&video.sets, &g_h265Form, Data(sets), Size(sets));
    EXPECT_EQ(1, ClipVideoMeasure(&video));
    EXPECT_EQ(640U, video.nWidth);
    EXPECT_EQ("hvc1.1.6.L63.90", ClipVideoName(&video));
    ClipVideoFree(&video);
}

TEST(Clip, GrowsWithItsRecordingAndKeepsWhatWasBegun)
{
    Archive archive;
    const std::string all = Record({"h264", "aac"});
    archive.Add("M1.zmf.tm!", all.substr(0, all.size() / 2));
    const std::string file = "live/cam/20261123/M1.zmf", path = archive.PathOf("20261123/M1.zmf.tm!");
    auto changedAt = [&](time_t tWhen) {
        timespec times[2] = {{tWhen, 0}, {tWhen, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
    };
    changedAt(1000000);
    std::string whole, tag;
    {
        Opened clip(file);
        ASSERT_EQ(ClipState::Ready, clip.eState);
        whole = clip.All();
        tag = ClipTag(clip.p);
        WriteFile(path, all.substr(0, all.size() / 2 + 9999));
        changedAt(1000009);
        EXPECT_EQ(tag, ClipTag(Opened(file).p));
    }
    archive.settings.nFreshMs = 0;
    archive.Restart();
    EXPECT_EQ(whole, Opened(file, tag.c_str()).All());
    std::string second = ClipTag(Opened(file).p);
    EXPECT_NE(tag, second);
    changedAt(1000020);
    Opened later(file);
    EXPECT_NE(second, ClipTag(later.p));
    EXPECT_LT(whole.size(), later.All().size());
    EXPECT_EQ(whole, Opened(file, tag.c_str()).All());
    EXPECT_EQ(ClipTag(later.p), ClipTag(Opened(file, "../../../../etc/x").p));
    // it is closed: the rest is there
    WriteFile(path, all);
    std::filesystem::rename(path, archive.PathOf("20261123/M1.zmf"));
    EXPECT_LT(later.All().size(), Opened(file).All().size());
}

TEST(Clip, OpensRecordingsOfItsProgramAlone)
{
    Archive archive;
    const std::string bytes = Record({"h264", "", 1});
    archive.Add("M1.zmf", bytes);
    std::filesystem::create_directories(archive.settings.recordPath + "/live/cam/20261123/20261123");
    std::filesystem::create_directories(archive.settings.recordPath + "/secret/20261123");
    WriteFile(archive.settings.recordPath + "/secret/20261123/M1.zmf", bytes);
    WriteFile(archive.dir.File("outside.zmf"), bytes);
    archive.Add("notes.txt", bytes);
    WriteFile(archive.PathOf("M1.zmf"), bytes);
    std::filesystem::create_symlink("../../../secret/20261123/M1.zmf", archive.PathOf("20261123/link.zmf"));
    std::filesystem::create_symlink("../../secret/20261123", archive.PathOf("20261124"));
    std::filesystem::create_symlink("../..", archive.settings.recordPath + "/up");
    static const struct {
        const char *szProgram, *szFile;
        ClipState eState;
    } cases[] = {
        {"live/cam", "20261123/M1.zmf", ClipState::Ready},
        {"/live/cam", "live/cam/20261123/M1.zmf", ClipState::Ready},
        {"live/cam", "20261123/M2.zmf", ClipState::None},
        {"live/cam", "20261123/notes.txt", ClipState::None},
        {"live/cam", "20261123/link.zmf", ClipState::None},
        {"live/cam", "20261124/M1.zmf", ClipState::None},
        {"live/cam", "../../secret/20261123/M1.zmf", ClipState::None},
        {"live/cam", "20261123/../../../secret/20261123/M1.zmf", ClipState::None},
        {"live/cam", "secret/20261123/M1.zmf", ClipState::None},
        {"live", "cam/20261123/M1.zmf", ClipState::None},
        {"live", "cam/M1.zmf", ClipState::None},
        {"live/cam", "20261123", ClipState::None},
        {"live/cam", "/20261123/M1.zmf", ClipState::None},
        {"live/cam", "", ClipState::None},
        {"", "20261123/M1.zmf", ClipState::None},
        {"..", "outside.zmf", ClipState::None},
        {"live/../secret", "20261123/M1.zmf", ClipState::None},
        {"up", "20261123/M1.zmf", ClipState::None},
    };
    for (const auto &c : cases) {
        Clip *pClip = nullptr;
        ClipState eState = ClipState::Making;
        WaitFor([&] { return (eState = ClipOpen(c.szProgram, c.szFile, &pClip)) != ClipState::Making; });
        EXPECT_EQ(c.eState, eState) << c.szProgram << " " << c.szFile;
        ClipClose(pClip);
    }
}

TEST(Clip, WhatHoldsNothingIsBroken)
{
    Archive archive;
    Recorder empty;
    const std::string head = empty.Finish();
    for (const std::string &bytes :
         {std::string(), std::string("zmf"), head, std::string(5000, 'x'), head + std::string(9000, '\xFF')}) {
        std::string file = archive.Add("M" + std::to_string(bytes.size()) + ".zmf", bytes);
        EXPECT_EQ(ClipState::Broken, Opened(file).eState) << bytes.size();
    }
    EXPECT_TRUE(std::filesystem::is_empty(archive.settings.cachePath));
}

TEST(Clip, SeveralAreMadeAndTheCacheStaysSmall)
{
    Archive archive;
    ClipsStop();
    archive.settings.nMostCached = 40000;
    ASSERT_EQ(1, ClipsStart(&archive.settings));
    const std::string bytes = Record({"h264", "aac", 3});
    std::vector<std::string> files;
    for (int i = 0; i < 12; i++)
        files.push_back(archive.Add("M" + std::to_string(i) + ".zmf", bytes));
    Clip *pClip = nullptr;
    for (const std::string &file : files)
        EXPECT_EQ(ClipState::Making, ClipOpen(kProgram, file.c_str(), &pClip));
    for (const std::string &file : files)
        EXPECT_EQ(ClipState::Ready, Opened(file).eState);
    ClipsStop();
    uint64_t nBytes = 0;
    for (const auto &entry : std::filesystem::directory_iterator(archive.settings.cachePath))
        nBytes += entry.file_size();
    EXPECT_GT(nBytes, 0U);
    EXPECT_LE(nBytes, 40000U);
}

TEST(Clip, ManyReadAtOnce)
{
    Archive archive;
    std::vector<std::string> files, wholes;
    for (const Content &content : {Content{"h264", "pcma", 5}, Content{"h264", "aac", 5}, Content{"jpeg", "", 5}})
        files.push_back(archive.Add(Name(content), Record(content)));
    for (int nRound : {0, 1}) {
        std::vector<std::string> read(12);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < read.size(); i++)
            threads.emplace_back([&, i] { read[i] = Opened(files[i % files.size()]).All(); });
        for (std::thread &thread : threads)
            thread.join();
        for (size_t i = 0; i < read.size(); i++)
            EXPECT_TRUE(!read[i].empty() && read[i] == read[i % files.size()]) << nRound;
        archive.Restart();
    }
}

TEST(Clip, CacheMayBeDeletedWithItsDirectory)
{
    Archive archive;
    const std::string file = archive.Add("M1.zmf", Record({"h264", "", 3})), whole = Opened(file).All();
    ClipsStop();
    ASSERT_EQ(1, ClipsStart(&archive.settings));
    std::filesystem::remove_all(archive.settings.cachePath);
    EXPECT_EQ(whole, Opened(file).All());
}

TEST(Clip, CacheFilesThatAreTornAreMadeAnew)
{
    Archive archive;
    const std::string file = archive.Add("M1.zmf", Record({"h264", "pcma", 3})), whole = Opened(file).All();
    auto cacheFile = [&] { return std::filesystem::directory_iterator(archive.settings.cachePath)->path(); };
    const std::string good = ReadFile(cacheFile());
    std::mt19937 random(5);
    for (int i = 0; i < 60; i++) {
        std::string bad = good;
        if (i % 3 == 0)
            bad.resize(random() % good.size());
        else
            bad[i % 3 == 1 ? random() % good.size() : good.size() - 1 - random() % 2000] ^= 0x10;
        ClipsStop();
        WriteFile(cacheFile(), bad);
        ASSERT_EQ(1, ClipsStart(&archive.settings));
        std::string read;
        {
            Opened clip(file);
            ASSERT_EQ(ClipState::Ready, clip.eState);
            read.resize(whole.size());
            ssize_t n = ClipRead(clip.p, 0, read.data(), read.size());
            // what is not as it was written is never handed out; at the latest the next to open has it anew
            EXPECT_EQ(whole.substr(0, n < 0 ? 0 : static_cast<size_t>(n)),
                      read.substr(0, n < 0 ? 0 : static_cast<size_t>(n)));
            if (n >= 0 && static_cast<size_t>(n) < whole.size()) {
                EXPECT_EQ(-1, ClipRead(clip.p, static_cast<uint64_t>(n), read.data(), 1));
            }
        }
        ASSERT_EQ(whole, Opened(file).All()) << i;
    }
}

// Damaged recordings give a clip that can be read whole, or none.
TEST(ClipLayout, TakesDamagedRecordings)
{
    SurviveFaults survive;
    TempDir dir;
    std::mt19937 random(7);
    std::atomic<int> bStop{0};
    const std::string path = dir.File("r.zmf"), cache = dir.File("c.clip");
    int nDone = 0;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    for (const Content &content : {Content{"h264", "aac", 4}, Content{"jpeg", "", 2}, Content{"h264", "pcma", 2}}) {
        const std::string good = Record(content);
        for (int i = 0; i < 150; i++) {
            std::string bad = good;
            for (int n = i % 5 == 0 ? 1 : 30; n > 0 && i % 3 != 0; n--)
                bad[i % 2 ? random() % good.size() : random() % 2500] = static_cast<char>(random());
            if (i % 3 == 0)
                bad.resize(random() % good.size());
            WriteFile(path, bad);
            int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            ClipLayoutJob job{fd, {bad.size(), 0, 0}, "tag", cache, &bStop, [] {}};
            ClipLayout layout;
            if (ClipLayoutMake(&job) == ClipMade::Done && ClipFileRead(cache, &layout)) {
                ClipReader reader{fd, &layout, SIZE_MAX, {}};
                std::string bytes(ClipLayoutSize(&layout), '\0');
                EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ClipReaderRead(&reader, 0, bytes.data(), bytes.size()));
                nDone++;
            }
            ClipLayoutFree(&layout);
            close(fd);
        }
    }
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    EXPECT_LT(200, nDone);
}

}  // namespace orx
