#include "orxctl/tables.h"

#include <algorithm>
#include <cstdio>

namespace orx {

using Row = std::vector<std::string>;

// Bytes at i that a terminal takes for a command or that turn what follows round: controls, also U+0080 to
// U+009F, U+2028 to U+202E and U+2066 to U+2069; 0: none.
static size_t HiddenBytes(const std::string &text, size_t i)
{
    auto at = [&](size_t n) { return i + n < text.size() ? static_cast<unsigned char>(text[i + n]) : 0; };
    if (at(0) < ' ' || at(0) == 127)
        return 1;
    if (at(0) == 0xC2 && at(1) >= 0x80 && at(1) < 0xA0)
        return 2;
    int bTurns =
        at(1) == 0x80 ? at(2) >= 0xA8 && at(2) <= 0xAE : at(1) == 0x81 && at(2) >= 0xA6 && at(2) <= 0xA9;
    return at(0) == 0xE2 && bTurns ? 3 : 0;
}

std::string TerminalText(const std::string &text)
{
    std::string out;
    for (size_t i = 0, n; i < text.size(); i += n ? n : 1) {
        n = text[i] == '\n' ? 0 : HiddenBytes(text, i);
        out += n ? '?' : text[i];
    }
    return out;
}

// A cell of a table.
static std::string Plain(const std::string &text)
{
    std::string out = TerminalText(text);
    std::replace(out.begin(), out.end(), '\n', '?');
    return out.empty() ? "-" : out;
}

// Columns that a text takes: of UTF-8 the bytes that begin a character.
static size_t Columns(const std::string &text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

static std::string Cut(const std::string &line, size_t nWidth)
{
    size_t nColumns = 0;
    for (size_t i = 0; nWidth > 0 && i < line.size(); i++)
        if ((line[i] & 0xC0) != 0x80 && nColumns++ == nWidth)
            return line.substr(0, i);
    return line;
}

std::string TableText(const std::vector<Row> &rows, size_t nWidth)
{
    std::vector<size_t> widths;
    for (const Row &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], Columns(row[i]));
    }
    std::string out;
    for (const Row &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            line += row[i];
            if (i + 1 < row.size())
                line.append(widths[i] - Columns(row[i]) + 1, ' ');
        }
        out += Cut(line, nWidth) + "\n";
    }
    return out;
}

std::string ShortNumber(double dValue)
{
    static const char *const units[] = {"", "k", "M", "G", "T", "P"};
    size_t n = 0;
    for (; dValue >= 1000 && n + 1 < std::size(units); n++)
        dValue /= 1000;
    char sz[32];
    snprintf(sz, sizeof(sz), n == 0 || dValue >= 100 ? "%.0f%s" : "%.1f%s", dValue, units[n]);
    return sz;
}

std::string ShortTime(double dSeconds)
{
    auto n = static_cast<long>(dSeconds);
    char sz[48];
    snprintf(sz, sizeof(sz), "%ld:%02ld:%02ld", n / 3600, n / 60 % 60, n % 60);
    return sz;
}

static std::string Text(const JsonValue &object, const char *szName)
{
    return Plain(JsonMember(object, szName).text);
}
static std::string Short(const JsonValue &object, const char *szName)
{
    const JsonValue &value = JsonMember(object, szName);
    return value.chKind == '#' ? ShortNumber(JsonToNumber(value)) : "-";
}
static std::string Time(const JsonValue &object, const char *szName)
{
    return ShortTime(JsonToNumber(JsonMember(object, szName)));
}

std::string ProgramsTable(const JsonValue &status, size_t nWidth)
{
    std::vector<Row> rows = {
        {"PROGRAM", "STATE", "CODEC", "SIZE", "FPS", "BIT/S", "KEY ms", "AGE ms", "PLAY", "REC", "PUSHER"}};
    for (const JsonValue &program : JsonMember(status, "programs").items) {
        const auto &tracks = JsonMember(program, "tracks").items;
        const JsonValue none;
        const JsonValue &track = tracks.empty() ? none : tracks[0];
        std::string codecs;
        for (const JsonValue &one : tracks)
            codecs += (codecs.empty() ? "" : "+") + Text(one, "codec");
        std::string size = JsonMember(track, "width").chKind == '#'
                               ? Text(track, "width") + "x" + Text(track, "height")
                               : "-";
        char szRate[32] = "-";
        if (JsonMember(track, "frame_rate").chKind == '#')
            snprintf(szRate, sizeof(szRate), "%.1f", JsonToNumber(JsonMember(track, "frame_rate")));
        rows.push_back({Text(program, "program"), Text(program, "state"), Plain(codecs), size, szRate,
                        Short(program, "bit_rate"), Text(track, "key_distance_ms"),
                        Text(program, "last_packet_ms"), Text(program, "players"),
                        Text(program, "recordings"), Text(JsonMember(program, "pusher"), "address")});
    }
    return TableText(rows, nWidth);
}

std::string SessionsTable(const JsonValue &status, size_t nWidth)
{
    std::vector<Row> rows = {{"SESSION", "ROLE", "STATE", "BY", "TIME", "SENT", "RECV", "QUEUE", "LOSS%",
                              "RTT", "PROGRAM", "USER", "ADDRESS"}};
    for (const JsonValue &session : JsonMember(status, "sessions").items)
        rows.push_back({Text(session, "session"), Text(session, "role"), Text(session, "state"),
                        Text(session, "transport"), Time(session, "uptime_s"), Short(session, "bytes_sent"),
                        Short(session, "bytes_received"), Short(session, "queue_bytes"),
                        Text(session, "loss_percent"), Text(session, "rtt_ms"), Text(session, "program"),
                        Text(session, "user"), Text(session, "address")});
    return TableText(rows, nWidth);
}

std::string StatusTable(const JsonValue &status, size_t nWidth)
{
    const JsonValue &storage = JsonMember(status, "storage"), &relay = JsonMember(status, "relay");
    std::vector<Row> rows = {
        {"version", Text(status, "version")},
        {"running for", Time(status, "uptime_s")},
        {"programs", std::to_string(JsonMember(status, "programs").items.size())},
        {"sessions", std::to_string(JsonMember(status, "sessions").items.size())},
        {"storage", Text(storage, "path") + ", " + Short(storage, "free_bytes") + " of " +
                        Short(storage, "total_bytes") + " bytes free, days " + Text(storage, "oldest") +
                        " to " + Text(storage, "newest")},
        {"relay", JsonMember(relay, "enabled").text != "true"
                      ? "off"
                      : Text(relay, "peers") + " peers, " +
                            (JsonMember(relay, "registered").text == "true" ? "" : "not ") + "registered"},
    };
    for (const JsonValue &one : JsonMember(status, "listeners").items)
        rows.push_back(
            {"listener", Text(one, "name") + " " + Text(one, "address") + " " +
                             (JsonMember(one, "listening").text == "true" ? "listens" : Text(one, "error"))});
    for (const JsonValue &one : JsonMember(status, "recordings").items)
        rows.push_back({"recording", Text(one, "file") + " " + Text(one, "kind") + " " +
                                         Time(one, "duration_s") + " " + Short(one, "bytes")});
    for (const JsonValue &one : JsonMember(status, "doubts").items)
        rows.push_back({"doubt", Text(one, "text")});
    return TableText(rows, nWidth);
}

std::string RecordingsTable(const JsonValue &recordings, size_t nWidth)
{
    std::vector<Row> rows;
    if (!JsonMember(recordings, "programs").items.empty() ||
        JsonMember(recordings, "recordings").chKind == 'n') {
        rows.push_back({"PROGRAM", "OLDEST", "NEWEST", "DAYS"});
        for (const JsonValue &one : JsonMember(recordings, "programs").items)
            rows.push_back({Text(one, "program"), Text(one, "oldest"), Text(one, "newest"),
                            std::to_string(JsonMember(one, "days").items.size())});
        return TableText(rows, nWidth);
    }
    rows.push_back({"BEGUN", "LENGTH", "BYTES", "KIND", "STATE", "URL"});
    for (const JsonValue &one : JsonMember(recordings, "recordings").items)
        rows.push_back({Text(one, "start"), Time(one, "duration_s"), Text(one, "bytes"), Text(one, "kind"),
                        Text(one, "state"), Text(one, "play_url")});
    return TableText(rows, nWidth);
}

}  // namespace orx
