#include "server/front/statustext.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "base/textbuf.h"
#include "record/zmfile.h"
#include "server/core/settings.h"

namespace orx {

// --- JSON ---

static void OrNull(JsonText *p, const char *szName, int bKnown, double dValue)
{
    if (bKnown)
        JsonDecimal(p, szName, dValue);
    else
        JsonNull(p, szName);
}

static void NumberOrNull(JsonText *p, const char *szName, int bKnown, int64_t nValue)
{
    if (bKnown)
        JsonNumber(p, szName, nValue);
    else
        JsonNull(p, szName);
}

struct HandleText {
    char sz[24];
    explicit HandleText(uint32_t nHandle) { snprintf(sz, sizeof(sz), "0x%" PRIx32, nHandle); }
};

static void WriteTrack(JsonText *p, const TrackFacts *pTrack)
{
    int bVideo = strcmp(pTrack->szKind, "video") == 0;
    JsonOpen(p, nullptr);
    JsonString(p, "kind", pTrack->szKind);
    JsonString(p, "codec", pTrack->szCodec);
    NumberOrNull(p, "width", bVideo && pTrack->nWidth, pTrack->nWidth);
    NumberOrNull(p, "height", bVideo && pTrack->nHeight, pTrack->nHeight);
    OrNull(p, "frame_rate", pTrack->dFrameRate >= 0, pTrack->dFrameRate);
    NumberOrNull(p, "bit_rate", pTrack->dBitRate >= 0, static_cast<int64_t>(pTrack->dBitRate));
    NumberOrNull(p, "key_distance_ms", pTrack->nKeyDistanceMs >= 0, pTrack->nKeyDistanceMs);
    JsonNumber(p, "packets", pTrack->nPackets);
    NumberOrNull(p, "last_packet_ms", pTrack->nLastPacketMs >= 0, pTrack->nLastPacketMs);
    JsonClose(p);
}

static void WriteProgram(JsonText *p, const ProgramFacts *pProg)
{
    JsonOpen(p, nullptr);
    JsonString(p, "program", pProg->szUri);
    JsonString(p, "state", pProg->szState);
    JsonBool(p, "live", pProg->bLive);
    JsonOpen(p, "pusher");
    JsonString(p, "address", pProg->szPusher);
    JsonString(p, "session", pProg->nPusher ? HandleText(pProg->nPusher).sz : "");
    JsonString(p, "user", pProg->szUser);
    JsonClose(p);
    double dBits = -1;
    int64_t nLastMs = -1;
    for (int i = 0; i < pProg->nTracks; i++) {
        const TrackFacts *pTrack = &pProg->tracks[i];
        if (pTrack->dBitRate >= 0)
            dBits = std::max(dBits, 0.0) + pTrack->dBitRate;
        if (pTrack->nLastPacketMs >= 0 && (nLastMs < 0 || pTrack->nLastPacketMs < nLastMs))
            nLastMs = pTrack->nLastPacketMs;
    }
    NumberOrNull(p, "bit_rate", dBits >= 0, static_cast<int64_t>(dBits));
    NumberOrNull(p, "last_packet_ms", nLastMs >= 0, nLastMs);
    JsonNumber(p, "players", pProg->nPlayers);
    JsonNumber(p, "recordings", pProg->nRecordings);
    JsonNumber(p, "uptime_s", pProg->nSeconds);
    JsonOpenList(p, "tracks");
    for (int i = 0; i < pProg->nTracks; i++)
        WriteTrack(p, &pProg->tracks[i]);
    JsonClose(p);
    JsonClose(p);
}

static void WriteSession(JsonText *p, const SessionFacts *pSession)
{
    const Reception *pReception = &pSession->reception;
    JsonOpen(p, nullptr);
    JsonString(p, "session", HandleText(pSession->nHandle).sz);
    JsonString(p, "role", pSession->szRole);
    JsonString(p, "state", pSession->szState);
    JsonString(p, "address", pSession->szRemote);
    JsonString(p, "user", pSession->szUser);
    JsonString(p, "program", pSession->szProgram);
    JsonString(p, "transport", pSession->szTransport);
    JsonNumber(p, "uptime_s", pSession->nSeconds);
    JsonNumber(p, "bytes_sent", static_cast<int64_t>(pSession->nBytesSent));
    JsonNumber(p, "bytes_received", static_cast<int64_t>(pSession->nBytesReceived));
    JsonNumber(p, "queue_bytes", pSession->nQueueBytes);
    NumberOrNull(p, "loss_percent", pReception->bKnown, pReception->nLoss);
    NumberOrNull(p, "jitter_ms", pReception->bKnown, pReception->nJitterMs);
    NumberOrNull(p, "rtt_ms", pReception->bRoundTrip, pReception->nRoundTripMs);
    NumberOrNull(p, "packets_late", pSession->bDatagrams, pSession->nLate);
    NumberOrNull(p, "packets_lost", pSession->bDatagrams, pSession->nLost);
    JsonClose(p);
}

static const char *KindName(int nKind)
{
    static const char *const names[] = {"unknown", "scheduled", "alarm", "manual"};
    return names[nKind >= 0 && nKind <= RECORD_MANUAL ? nKind : 0];
}

static void WriteOpen(JsonText *p, const DiskAnswer *pDisk)
{
    JsonOpenList(p, "recordings");
    for (size_t i = 0; pDisk && i < pDisk->nOpen; i++) {
        const OpenFacts *pOpen = &pDisk->pOpen[i];
        JsonOpen(p, nullptr);
        JsonString(p, "program", pOpen->szProgram);
        JsonString(p, "file", pOpen->szFile);
        JsonString(p, "kind", KindName(pOpen->nKind));
        JsonNumber(p, "bytes", static_cast<int64_t>(pOpen->nBytes));
        JsonNumber(p, "duration_s", pOpen->nSeconds);
        JsonClose(p);
    }
    JsonClose(p);
}

// A day's path is "<program>/YYYYMMDD".
static std::string_view ProgramOfDay(const PathItem *pItem)
{
    std::string_view path = pItem->szPath;
    return path.substr(0, path.rfind('/'));
}
static std::string_view NameOfDay(const PathItem *pItem)
{
    std::string_view path = pItem->szPath;
    return path.substr(path.rfind('/') + 1);
}

// The days of each program: they are by program, and then by name.
static void WritePrograms(JsonText *p, const char *szName, const DiskAnswer *pDisk, int bDays)
{
    JsonOpenList(p, szName);
    for (uint32_t i = 0, nEnd; pDisk && i < pDisk->days.nItems; i = nEnd) {
        const PathItem *pItems = pDisk->days.pItems;
        for (nEnd = i + 1;
             nEnd < pDisk->days.nItems && ProgramOfDay(&pItems[nEnd]) == ProgramOfDay(&pItems[i]);)
            nEnd++;
        JsonOpen(p, nullptr);
        char szProgram[kStoragePathSize] = "/";
        TextCopy(szProgram + 1, sizeof(szProgram) - 1, ProgramOfDay(&pItems[i]));
        JsonString(p, "program", szProgram);
        JsonString(p, "oldest", NameOfDay(&pItems[i]));
        JsonString(p, "newest", NameOfDay(&pItems[nEnd - 1]));
        if (bDays)
            JsonOpenList(p, "days");
        for (uint32_t n = i; bDays && n < nEnd; n++)
            JsonString(p, nullptr, NameOfDay(&pItems[n]));
        if (bDays)
            JsonClose(p);
        else
            JsonNumber(p, "days", nEnd - i);
        JsonClose(p);
    }
    JsonClose(p);
}

static void WriteStorage(JsonText *p, const char *szPath, const DiskAnswer *pDisk)
{
    std::string_view oldest, newest;
    for (uint32_t i = 0; pDisk && i < pDisk->days.nItems; i++) {
        std::string_view day = NameOfDay(&pDisk->days.pItems[i]);
        oldest = oldest.empty() ? day : std::min(oldest, day);
        newest = std::max(newest, day);
    }
    JsonOpen(p, "storage");
    JsonString(p, "path", szPath);
    JsonBool(p, "answers", pDisk != nullptr);
    JsonBool(p, "writable", pDisk && pDisk->nErrno == 0);
    NumberOrNull(p, "free_bytes", pDisk != nullptr, pDisk ? static_cast<int64_t>(pDisk->nFreeBytes) : 0);
    NumberOrNull(p, "total_bytes", pDisk != nullptr, pDisk ? static_cast<int64_t>(pDisk->nTotalBytes) : 0);
    JsonString(p, "oldest", oldest);
    JsonString(p, "newest", newest);
    WritePrograms(p, "programs", pDisk, 0);
    JsonClose(p);
}

static void WriteDoubts(JsonText *p, const ServerFacts *pServer)
{
    JsonOpenList(p, "doubts");
    for (size_t i = 0; i < pServer->doubts.nDoubts; i++) {
        JsonOpen(p, nullptr);
        JsonString(p, "text", pServer->doubts.pDoubts[i].szText);
        JsonBool(p, "refuses_start", pServer->doubts.pDoubts[i].bRefuses);
        JsonClose(p);
    }
    JsonClose(p);
    JsonOpenList(p, "listeners");
    for (unsigned i = 0; i < pServer->nListeners; i++) {
        const ServerListener *pListener = &pServer->listeners[i];
        JsonOpen(p, nullptr);
        JsonString(p, "name", pListener->szName);
        JsonString(p, "address", pListener->szAddress);
        JsonBool(p, "listening", pListener->nErrno == 0);
        JsonString(p, "error", pListener->nErrno ? strerror(pListener->nErrno) : "");
        JsonClose(p);
    }
    JsonClose(p);
}

void StatusWriteJson(JsonText *pOut, const StatusFacts *pFacts)
{
    const ServerFacts *pServer = pFacts->pServer;
    JsonOpen(pOut, nullptr);
    JsonString(pOut, "version", ORX_VERSION);
    JsonNumber(pOut, "uptime_s", pFacts->nUptimeSeconds);
    WriteDoubts(pOut, pServer);
    JsonOpenList(pOut, "programs");
    for (const auto *pChunk = pServer->pPrograms; pChunk; pChunk = pChunk->pNext)
        for (unsigned i = 0; i < pChunk->nRecords; i++)
            WriteProgram(pOut, &pChunk->records[i]);
    JsonClose(pOut);
    JsonOpenList(pOut, "sessions");
    for (const auto *pChunk = pServer->pSessions; pChunk; pChunk = pChunk->pNext)
        for (unsigned i = 0; i < pChunk->nRecords; i++)
            WriteSession(pOut, &pChunk->records[i]);
    JsonClose(pOut);
    WriteOpen(pOut, pFacts->pDisk);
    WriteStorage(pOut, pServer->szRecordPath, pFacts->pDisk);
    JsonOpen(pOut, "relay");
    JsonBool(pOut, "enabled", pFacts->relay.bEnabled);
    JsonBool(pOut, "registered", pFacts->relay.bRegistered);
    JsonNumber(pOut, "peers", pFacts->relay.nPeers);
    JsonClose(pOut);
    JsonClose(pOut);
    JsonAddBytes(pOut, "\n");
}

// What may not stand in a URL as it is, or not in a shell's line, becomes %XX.
static void EscapePath(TextBuf *pOut, const char *szPath)
{
    for (const char *p = szPath; *p; p++) {
        if (*p > ' ' && *p < 127 && !strchr("%?#\"<>\\^`{|}&';()*$!", *p))
            TextAddBytes(pOut, p, 1);
        else
            TextAdd(pOut, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(*p)));
    }
}

static void WritePlayUrl(JsonText *p, const ListedFacts *pListed)
{
    char szUrl[kStoragePathSize * 3 + 80];
    TextBuf url{szUrl, sizeof(szUrl)};
    int bAny = !g_settings.szListenIp[0] || strcmp(g_settings.szListenIp, "0.0.0.0") == 0 ||
               strcmp(g_settings.szListenIp, "::") == 0;
    const char *szHost = bAny ? "127.0.0.1" : g_settings.szListenIp;
    TextAdd(&url, strchr(szHost, ':') ? "rtsp://[%s]:%u/" : "rtsp://%s:%u/", szHost, g_settings.nListenPort);
    EscapePath(&url, pListed->szFile);
    JsonString(p, "play_url", szUrl);
}

void StatusWriteRecordings(JsonText *pOut, const char *szProgram, const DiskAnswer *pDisk)
{
    JsonOpen(pOut, nullptr);
    JsonString(pOut, "program", szProgram);
    JsonBool(pOut, "more", pDisk->bMore);
    JsonOpenList(pOut, "recordings");
    for (size_t i = 0; i < pDisk->nListed; i++) {
        const ListedFacts *pListed = &pDisk->pListed[i];
        JsonOpen(pOut, nullptr);
        JsonString(pOut, "file", pListed->szFile);
        JsonString(pOut, "start", pListed->szStart);
        JsonDecimal(pOut, "duration_s", pListed->nDurationMs / 1000.0);
        JsonNumber(pOut, "bytes", static_cast<int64_t>(pListed->nBytes));
        JsonString(pOut, "kind", KindName(pListed->nKind));
        JsonString(pOut, "state", pListed->szState);
        if (strcmp(pListed->szState, "writing") == 0)
            JsonNull(pOut, "play_url");
        else
            WritePlayUrl(pOut, pListed);
        JsonClose(pOut);
    }
    JsonClose(pOut);
    JsonClose(pOut);
    JsonAddBytes(pOut, "\n");
}

void StatusWriteDays(JsonText *pOut, const DiskAnswer *pDisk)
{
    JsonOpen(pOut, nullptr);
    WritePrograms(pOut, "programs", pDisk, 1);
    JsonClose(pOut);
    JsonAddBytes(pOut, "\n");
}

// --- Health ---

unsigned StatusWriteHealth(JsonText *pOut, const StatusFacts *pFacts)
{
    unsigned nReasons = 0;
    auto say = [&](const char *szWhat, const char *szName, const char *szOf, const char *szWhy) {
        for (const char *sz : {szWhat, szName, szOf, ": ", szWhy, "\n"})
            JsonAddBytes(pOut, sz);
        nReasons++;
    };
    for (unsigned i = 0; i < pFacts->pServer->nListeners; i++) {
        const ServerListener *p = &pFacts->pServer->listeners[i];
        if (p->nErrno)
            say(p->szName, " does not listen on ", p->szAddress, strerror(p->nErrno));
    }
    if (!pFacts->pDisk)
        say("disk", "", "", "it does not answer");
    else if (pFacts->pDisk->nErrno && pFacts->pServer->bRecord)
        say("recordings", " cannot be written to ", pFacts->pServer->szRecordPath,
            strerror(pFacts->pDisk->nErrno));
    for (size_t i = 0; i < pFacts->pServer->doubts.nDoubts; i++)
        if (pFacts->pServer->doubts.pDoubts[i].bRefuses)
            say("configuration", "", "", pFacts->pServer->doubts.pDoubts[i].szText);
    return nReasons;
}

// --- Metrics ---

static void MetricHead(JsonText *p, const char *szName, const char *szType, const char *szHelp)
{
    char szLine[256];
    snprintf(szLine, sizeof(szLine), "# HELP %s %s\n# TYPE %s %s\n", szName, szHelp, szName, szType);
    JsonAddBytes(p, szLine);
}

static void Metric(JsonText *p, const char *szName, const char *szType, const char *szHelp, double dValue)
{
    char szLine[128];
    MetricHead(p, szName, szType, szHelp);
    snprintf(szLine, sizeof(szLine), "%s %.17g\n", szName, dValue);
    JsonAddBytes(p, szLine);
}

// A label's value: backslash, quote and line end are escaped, and it has to be UTF-8.
static void AddLabel(JsonText *p, std::string_view value)
{
    while (!value.empty()) {
        size_t n = Utf8Length(value);
        char szByte[4];
        snprintf(szByte, sizeof(szByte), "%%%02X",
                 static_cast<unsigned>(static_cast<unsigned char>(value[0])));
        if (n == 0)  // one sign for all would give two programs the same label
            JsonAddBytes(p, szByte);
        else if (value[0] == '\\' || value[0] == '"')
            JsonAddBytes(p, value[0] == '"' ? "\\\"" : "\\\\");
        else if (value[0] == '\n')
            JsonAddBytes(p, "\\n");
        else
            JsonAddBytes(p, value.substr(0, n));
        value.remove_prefix(std::max<size_t>(n, 1));
    }
}

// Of each live program a line; what is below 0 is not known and left out.
static void ProgramMetric(JsonText *p, const ServerFacts *pServer, const char *szName, const char *szHelp,
                          double (*pfnValue)(const ProgramFacts *pProg))
{
    char szValue[48];
    MetricHead(p, szName, "gauge", szHelp);
    for (const auto *pChunk = pServer->pPrograms; pChunk; pChunk = pChunk->pNext)
        for (unsigned i = 0; i < pChunk->nRecords; i++) {
            const ProgramFacts *pProg = &pChunk->records[i];
            double dValue = pfnValue(pProg);
            if (!pProg->bLive || dValue < 0)
                continue;
            JsonAddBytes(p, szName);
            JsonAddBytes(p, "{program=\"");
            AddLabel(p, pProg->szUri);
            snprintf(szValue, sizeof(szValue), "\"} %.17g\n", dValue);
            JsonAddBytes(p, szValue);
        }
}

static double ByteRateOf(const ProgramFacts *pProg)
{
    double dBits = -1;
    for (int i = 0; i < pProg->nTracks; i++)
        if (pProg->tracks[i].dBitRate >= 0)
            dBits = std::max(dBits, 0.0) + pProg->tracks[i].dBitRate;
    return dBits < 0 ? dBits : dBits / 8;
}

static double FrameRateOf(const ProgramFacts *pProg)
{
    for (int i = 0; i < pProg->nTracks; i++)
        if (pProg->tracks[i].dFrameRate >= 0)
            return pProg->tracks[i].dFrameRate;
    return -1;
}

static double LastPacketOf(const ProgramFacts *pProg)
{
    int64_t nMs = -1;
    for (int i = 0; i < pProg->nTracks; i++) {
        int64_t nOf = pProg->tracks[i].nLastPacketMs;
        nMs = nOf >= 0 && (nMs < 0 || nOf < nMs) ? nOf : nMs;
    }
    return nMs < 0 ? -1 : static_cast<double>(nMs) / 1000;
}

static void WriteCounters(JsonText *p, const ServerCounts *pCounts)
{
    Metric(p, "orx_sessions_total", "counter", "Connections taken since the start.", pCounts->nSessions);
    Metric(p, "orx_programs_total", "counter", "Programs that came up since the start.", pCounts->nPrograms);
    Metric(p, "orx_received_bytes_total", "counter", "Bytes that peers sent since the start.",
           static_cast<double>(pCounts->nBytesReceived));
    Metric(p, "orx_sent_bytes_total", "counter", "Bytes that sockets took for peers since the start.",
           static_cast<double>(pCounts->nBytesSent));
    Metric(p, "orx_media_packets_total", "counter", "Media packets from pushers since the start.",
           static_cast<double>(pCounts->nPackets));
}

static void WriteStorageMetrics(JsonText *p, const DiskAnswer *pDisk)
{
    Metric(p, "orx_storage_answers", "gauge", "Whether the disk of recordings answers.", pDisk != nullptr);
    if (!pDisk)
        return;
    Metric(p, "orx_storage_writable", "gauge", "Whether recordings can be written.", pDisk->nErrno == 0);
    Metric(p, "orx_storage_free_bytes", "gauge", "Free space for recordings.",
           static_cast<double>(pDisk->nFreeBytes));
    Metric(p, "orx_storage_size_bytes", "gauge", "Size of the file system of recordings.",
           static_cast<double>(pDisk->nTotalBytes));
    Metric(p, "orx_recordings", "gauge", "Files that are being written.", static_cast<double>(pDisk->nOpen));
}

void StatusWriteMetrics(JsonText *pOut, const StatusFacts *pFacts)
{
    const ServerFacts *pServer = pFacts->pServer;
    MetricHead(pOut, "orx_build_info", "gauge", "The version that runs.");
    JsonAddBytes(pOut, "orx_build_info{version=\"" ORX_VERSION "\"} 1\n");
    Metric(pOut, "orx_uptime_seconds", "gauge", "Time since the start.", pFacts->nUptimeSeconds);
    WriteCounters(pOut, &pServer->counted);
    Metric(pOut, "orx_sessions", "gauge", "Connections.", pServer->nSessions);
    Metric(pOut, "orx_players", "gauge", "Sessions that watch a program.", pServer->nPlayers);
    Metric(pOut, "orx_pushers", "gauge", "Sessions that feed a program.", pServer->nPushers);
    Metric(pOut, "orx_live_programs", "gauge", "Live programs with a pusher.", pServer->nLives);
    Metric(pOut, "orx_queued_bytes", "gauge", "Media that waits for players.",
           static_cast<double>(pServer->nQueuedBytes));
    Metric(pOut, "orx_cached_bytes", "gauge", "Media that players start with.",
           static_cast<double>(pServer->nCachedBytes));
    Metric(pOut, "orx_doubts", "gauge", "Doubts about the configuration.",
           static_cast<double>(pServer->doubts.nDoubts));
    WriteStorageMetrics(pOut, pFacts->pDisk);
    Metric(pOut, "orx_relay_registered", "gauge", "Whether the rendezvous server knows the box.",
           pFacts->relay.bRegistered);
    Metric(pOut, "orx_relay_peers", "gauge", "Players through the relay.", pFacts->relay.nPeers);
    ProgramMetric(pOut, pServer, "orx_program_players", "Players of a program.",
                  [](const ProgramFacts *p) { return static_cast<double>(p->nPlayers); });
    ProgramMetric(pOut, pServer, "orx_program_bytes_per_second", "What its pusher sends.", ByteRateOf);
    ProgramMetric(pOut, pServer, "orx_program_frames_per_second", "Pictures that its pusher sends.",
                  FrameRateOf);
    ProgramMetric(pOut, pServer, "orx_program_last_packet_seconds", "Since its pusher sent media.",
                  LastPacketOf);
}

}  // namespace orx
