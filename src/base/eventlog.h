// The log of events ([LOG]): one line per thing that happens, for whoever asks later why it did. Nothing per
// packet. A text of a peer is only ever a value: whatever its bytes are, it makes no second line and no
// second field, and what is no UTF-8 is replaced. docs/events.md names every event.
//
//     EventSay(EventLevel::Info, "player.end", {EventText("peer", szRemote), EventText("program", szUri),
//                                               EventNumber("bytes", nBytes), EventText("reason", szWhy)});
#pragma once

#include <cstdint>
#include <initializer_list>

namespace orx {

enum class EventLevel { Error, Warn, Info, Debug };

// One field of a line: a text, or with szText null a number. Names are words in snake_case with their unit
// behind them ("seconds", "sent_bytes"). Fields whose text is null or empty are left out.
struct EventField {
    const char *szName;
    const char *szText;
    int64_t nNumber;
    int bText;
};
inline EventField EventText(const char *szName, const char *szText)
{
    return {szName, szText, 0, 1};
}
inline EventField EventNumber(const char *szName, int64_t nNumber)
{
    return {szName, nullptr, nNumber, 0};
}
// The same, left out unless bIf.
inline EventField EventNumberIf(int bIf, const char *szName, int64_t nNumber)
{
    return {szName, nullptr, nNumber, bIf ? 0 : 1};
}

// Whether a line of that level is written: ask first where gathering its fields costs something. Any thread.
int EventWanted(EventLevel eLevel);

// Writes one line: time, level, szEvent ("player.end": subject and what became of it), fields. Never waits
// for a disk once EventLogDivert was called. Texts are cut after 512 bytes, and a field that does not fit
// into a line of 4 kB is left out. Any thread.
void EventSay(EventLevel eLevel, const char *szEvent, std::initializer_list<EventField> fields);

// The same for what strangers cause as often as they like: of one event at most kEventsPerMinute a minute are
// written, the others are counted, which a line "log.unsaid" tells later. szEvent is a literal.
constexpr unsigned kEventsPerMinute = 10;
void EventSayBounded(EventLevel eLevel, const char *szEvent, std::initializer_list<EventField> fields);

// Says where lines go, from now on: szLevel is "error", "warn", "info" or "debug", empty for no line at all,
// and counts as "info" when it is another word; szPath is a path, empty for nowhere; szFormat is "json", and
// else the form is text. Nothing is opened before the first line. The file is created with mode 0640, its
// directory is not; while it cannot be opened that is said on standard error once, tried again with a line
// ten seconds later, and lines are counted. With more than kEventFileBytes it is renamed to szPath.1, in
// place of the one before, and begun anew. Any thread.
constexpr int64_t kEventFileBytes = 8 << 20;
void EventLogOpen(const char *szLevel, const char *szPath, const char *szFormat);

// Has the file opened anew with the next line, by its name: somebody has moved it away. Any thread.
void EventLogReopen();

// Has lines wait in memory (see linelog.h) until EventLogWriteSome writes them; null: no longer. Main thread.
void EventLogDivert(void (*pfnCall)());
// Writes some of the lines that wait. Returns 1 when none is left, else 0. One thread at a time.
int EventLogWriteSome();

// Tells at once what was counted of bounded events. Any thread.
void EventLogTellUnsaid();

// The same, and no line is written any more; the file is closed. Main thread, with nobody at
// EventLogWriteSome.
void EventLogClose();

}  // namespace orx
