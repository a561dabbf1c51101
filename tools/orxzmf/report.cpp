#include "report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "survey.h"

namespace orx {

namespace fs = std::filesystem;

static const char *KindName(unsigned nKind)
{
    static const char *const names[] = {"unknown", "scheduled", "alarm", "manual"};
    return names[nKind <= RECORD_MANUAL ? nKind : 0];
}

// Texts of a file may hold anything: what is not printable ASCII becomes a dot.
static std::string Printable(const char *sz, size_t nMax)
{
    std::string out(sz, strnlen(sz, nMax));
    for (char &c : out)
        if (c < ' ' || c > '~')
            c = '.';
    return out;
}

static std::string Seconds(uint32_t nMs)
{
    char sz[32];
    snprintf(sz, sizeof(sz), "%u.%03u", nMs / 1000, nMs % 1000);
    return sz;
}

static std::string Clock(uint32_t nMs)
{
    char sz[32];
    uint32_t n = nMs / 1000;
    snprintf(sz, sizeof(sz), "%u:%02u:%02u", n / 3600, n / 60 % 60, n % 60);
    return sz;
}

static void PrintHeader(const ZMFReader *pReader)
{
    const ZMFileHeader *pHead = &pReader->head;
    printf("size:           %" PRIu64 " bytes\n", pReader->nFileBytes);
    printf("version:        %u\n", pHead->nVersion);
    printf("started:        %s\n", Printable(pHead->szStartTime, sizeof(pHead->szStartTime)).c_str());
    printf("kind:           %u (%s)\n", pHead->nRecordKind, KindName(pHead->nRecordKind));
    printf("label:          %s\n", Printable(pHead->szLabel, sizeof(pHead->szLabel)).c_str());
    printf("file number:    %u of its recording, counted from 0\n", pHead->nFileSeq);
    printf("duration:       %s s%s\n", Seconds(pReader->uDuration).c_str(),
           pReader->bInterrupted ? " (from its records)" : "");
    printf("blocks:         header %u, index %u, description %u, application data %u, records from byte %u\n",
           pHead->nHeadSize, pHead->nIdxSize, pHead->nSdpSize, pHead->nAppDataBytes,
           pReader->uDataBeginOffset);
    printf("index:          %u entries, one for every %u. key frame\n", pReader->nIndex, pHead->nIdxInterval);
    for (uint32_t i = 0; i < pReader->nIndex; i++)
        printf("  %3u: byte %u, %s s\n", i, pReader->pIndex[i].nPos,
               Seconds(pReader->pIndex[i].nTimeMs).c_str());
}

static void PrintSurvey(const Recording &recording, const Survey &survey)
{
    printf("video:          %s, %u pictures, %u key frames, %" PRIu64 " bytes, largest %u\n",
           *recording.codecs.video.szName ? Printable(recording.codecs.video.szName, 16).c_str() : "none",
           survey.nVideo, survey.nKeys, survey.nVideoBytes, survey.nLargest);
    printf("audio:          %s, %u blocks, %" PRIu64 " bytes\n",
           *recording.codecs.audio.szName ? Printable(recording.codecs.audio.szName, 16).c_str() : "none",
           survey.nAudio, survey.nAudioBytes);
    printf("texts:          %u\n", survey.nText);
    printf("messages:       %u\n", survey.nUser);
    printf("last sample:    %s s\n", Seconds(survey.nLastTimeMs).c_str());
}

static void PrintFindings(const Survey &survey, const char *szIndent)
{
    for (const auto &note : survey.notes)
        printf("%snote: %s\n", szIndent, note.c_str());
    for (const auto &fault : survey.faults)
        printf("%sfault: %s\n", szIndent, fault.c_str());
}

int ReportInfo(const std::string &path)
{
    Recording recording;
    if (!RecordingOpen(&recording, path))
        return VERDICT_UNREADABLE;
    Survey survey;
    printf("file:           %s\n", path.c_str());
    PrintHeader(recording.pReader);
    SurveyRecording(&recording, &survey);
    PrintSurvey(recording, survey);
    printf("description:\n%s\n", ZMFReaderSdp(recording.pReader));
    PrintFindings(survey, "");
    printf("check:          %s\n", VerdictName(SurveyVerdict(survey)));
    RecordingClose(&recording);
    return SurveyVerdict(survey);
}

int ReportCheck(const std::string &path)
{
    Recording recording;
    if (!RecordingOpen(&recording, path))
        return VERDICT_UNREADABLE;
    Survey survey;
    SurveyRecording(&recording, &survey);
    printf("%s: %s\n", path.c_str(), VerdictName(SurveyVerdict(survey)));
    PrintFindings(survey, "  ");
    RecordingClose(&recording);
    return SurveyVerdict(survey);
}

static int HasEnding(const std::string &name, const char *szEnding)
{
    size_t nEnding = strlen(szEnding);
    return name.size() > nEnding && name.compare(name.size() - nEnding, nEnding, szEnding) == 0;
}

static void PrintRow(const std::string &path, const std::string &name)
{
    ZMFReader *pReader = ZMFReaderOpen(path.c_str(), 0);
    if (!pReader) {
        printf("%-16s %9s %12s %-9s %8s %6s %-12s %s\n", "-", "-", "-", "broken", "-", "-", "-",
               name.c_str());
        return;
    }
    const ZMFileHeader *pHead = &pReader->head;
    const char *szState = HasEnding(path, kOpenSuffix) ? "open" : KindName(pHead->nRecordKind);
    std::string label = Printable(pHead->szLabel, 12);
    printf("%-16s %9s %12" PRIu64 " %-9s %8u %6u %-12s %s%s\n",
           Printable(pHead->szStartTime, sizeof(pHead->szStartTime)).c_str(),
           Clock(pReader->uDuration).c_str(), pReader->nFileBytes, szState, pHead->uVideoSamples,
           pHead->uKeyFrames, label.empty() ? "-" : label.c_str(), name.c_str(),
           pReader->bInterrupted ? " (interrupted)" : "");
    ZMFReaderClose(pReader);
}

int ReportList(const std::string &dir)
{
    std::error_code error;
    std::vector<std::string> names;
    fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, error);
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        std::string path = it->path().string();
        std::error_code ignored;
        if (it->is_regular_file(ignored) && (HasEnding(path, ".zmf") || HasEnding(path, ".zmf.tm!")))
            names.push_back(path);
    }
    if (error) {
        fprintf(stderr, "%s: %s\n", dir.c_str(), error.message().c_str());
        return 1;
    }
    std::sort(names.begin(), names.end());
    printf("%-16s %9s %12s %-9s %8s %6s %-12s %s\n", "STARTED", "DURATION", "BYTES", "KIND", "PICTURES",
           "KEYS", "LABEL", "FILE");
    size_t nRoot = dir.size() + (HasEnding(dir, "/") || dir == "/" ? 0 : 1);
    for (const auto &name : names)
        PrintRow(name, name.substr(nRoot));
    printf("%zu recordings\n", names.size());
    return 0;
}

}  // namespace orx
