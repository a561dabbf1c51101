#include "orxctl/views.h"

#include "orxctl/table.h"

namespace orx {

static const std::vector<Column> &ProgramColumns()
{
    static const std::vector<Column> columns = {
        {"PROGRAM", "name", CellForm::Text},
        {"CODEC", "codec", CellForm::Text},
        {"SIZE", "", CellForm::Size},
        {"FPS", "frame_rate", CellForm::Rate},
        {"RATE", "bit_rate", CellForm::BitRate},
        {"KEY", "key_distance_ms", CellForm::Millis},
        {"PLAYERS", "players", CellForm::Count},
        {"AGE", "last_packet_ms", CellForm::Millis},
        {"PUSHER", "pusher", CellForm::Text},
    };
    return columns;
}

static const std::vector<Column> &SessionColumns()
{
    static const std::vector<Column> columns = {
        {"SESSION", "session", CellForm::Count},   {"PEER", "peer", CellForm::Text},
        {"PROGRAM", "program", CellForm::Text},    {"STATE", "state", CellForm::Text},
        {"OVER", "transport", CellForm::Text},     {"FOR", "duration_s", CellForm::Seconds},
        {"SENT", "bytes_sent", CellForm::Bytes},   {"GOT", "bytes_received", CellForm::Bytes},
        {"QUEUE", "queue_bytes", CellForm::Bytes}, {"LOSS", "loss_percent", CellForm::Percent},
        {"RTT", "rtt_ms", CellForm::Millis},       {"USER", "user", CellForm::Text},
    };
    return columns;
}

static std::string Section(const json_t *pStatus, const char *szMember, const char *szNone,
                           const std::vector<Column> &columns, size_t nWidth)
{
    const json_t *pList = json_object_get(pStatus, szMember);
    return json_array_size(pList) ? TableText(pList, columns, nWidth) : std::string(szNone) + "\n";
}

std::string ViewPrograms(const json_t *pStatus, size_t nWidth)
{
    return Section(pStatus, "programs", "Nothing is pushed or played.", ProgramColumns(), nWidth);
}

std::string ViewSessions(const json_t *pStatus, size_t nWidth)
{
    return Section(pStatus, "sessions", "Nobody is connected.", SessionColumns(), nWidth);
}

static std::string Cut(const std::string &line, size_t nWidth)
{
    return (nWidth ? TextCut(line, nWidth) : line) + "\n";
}

static std::string ListenersText(const json_t *pStatus, size_t nWidth)
{
    std::string text;
    const json_t *pList = json_object_get(pStatus, "listeners");
    for (size_t i = 0; i < json_array_size(pList); i++) {
        const json_t *pOne = json_array_get(pList, i);
        const std::string error = CellText(pOne, {"", "error", CellForm::Text});
        text += Cut("  " + CellText(pOne, {"", "name", CellForm::Text}) + " on " +
                        CellText(pOne, {"", "address", CellForm::Text}) +
                        (error == "-" ? "" : " FAILED: " + error),
                    nWidth);
    }
    return text;
}

static std::string DoubtsText(const json_t *pStatus, size_t nWidth)
{
    std::string text;
    const json_t *pList = json_object_get(pStatus, "doubts");
    for (size_t i = 0; i < json_array_size(pList); i++)
        text += Cut("  doubt: " + CellText(json_array_get(pList, i), {"", "text", CellForm::Text}), nWidth);
    return text;
}

static std::string StorageText(const json_t *pStatus)
{
    const json_t *pStorage = json_object_get(pStatus, "storage");
    return "Recordings in " + CellText(pStorage, {"", "path", CellForm::Text}) + ": " +
           CellText(pStorage, {"", "free_bytes", CellForm::Bytes}) + " free of " +
           CellText(pStorage, {"", "total_bytes", CellForm::Bytes}) + ", from " +
           CellText(pStorage, {"", "oldest", CellForm::Text}) + " to " +
           CellText(pStorage, {"", "newest", CellForm::Text}) + ", " +
           std::to_string(json_array_size(json_object_get(pStatus, "recordings"))) + " under way";
}

std::string ViewStatus(const json_t *pStatus, size_t nWidth)
{
    return Cut("Orx " + CellText(pStatus, {"", "version", CellForm::Text}) + ", up for " +
                   CellText(pStatus, {"", "uptime_s", CellForm::Seconds}) + ", " +
                   std::to_string(json_array_size(json_object_get(pStatus, "programs"))) + " programs, " +
                   std::to_string(json_array_size(json_object_get(pStatus, "sessions"))) + " sessions",
               nWidth) +
           ListenersText(pStatus, nWidth) + DoubtsText(pStatus, nWidth) + Cut(StorageText(pStatus), nWidth) +
           "\n" + ViewPrograms(pStatus, nWidth) + "\n" + ViewSessions(pStatus, nWidth);
}

std::string ViewRecordings(const json_t *pAnswer, size_t nWidth)
{
    static const std::vector<Column> programs = {
        {"PROGRAM", "name", CellForm::Text},
        {"DAYS", "days", CellForm::Count},
    };
    static const std::vector<Column> recordings = {
        {"START", "start", CellForm::Text},      {"LENGTH", "duration_s", CellForm::Seconds},
        {"SIZE", "size_bytes", CellForm::Bytes}, {"KIND", "kind", CellForm::Text},
        {"URL", "url", CellForm::Text},
    };
    if (json_object_get(pAnswer, "programs"))
        return Section(pAnswer, "programs", "Nothing was recorded.", programs, nWidth);
    return Section(pAnswer, "recordings", "Nothing was recorded then.", recordings, 0);
}

}  // namespace orx
