// The log of events ([LOG]): one line per thing that happens, for whoever asks later why it did. Nothing per
// packet. A text of a peer is only ever a value; values are made fit for one line here (see printable.h).
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

// Whether a line of that level is written: ask first where gathering its fields costs something. Any thread.
int EventWanted(EventLevel eLevel);

// Writes one line: time, level, szEvent ("player.end": subject and what became of it), fields. Never waits
// for a disk. Any thread.
void EventSay(EventLevel eLevel, const char *szEvent, std::initializer_list<EventField> fields);

}  // namespace orx
