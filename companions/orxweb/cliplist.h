// Lists of recordings as pages and /api/recordings show them, from what the status socket answers, and the
// way from a time to a recording and a second in it. Times are the server's local ones. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace orx {

struct ClipRow {
    std::string file;  // below the record path
    std::string mp4;   // its address, percent-encoded: "/recordings/PROGRAM/DAY/NAME.mp4"
    time_t tStart = 0;
    double dSeconds = 0;  // of one that goes on, up to now; 0 where it was interrupted
    uint64_t nBytes = 0;
    std::string kind;   // "scheduled", "alarm" or "manual"
    std::string state;  // "complete", "writing", "interrupted"
};

struct ClipDays {
    std::string program;            // without its first slash
    std::vector<std::string> days;  // YYYYMMDD, rising
};

// What to ask the status socket for: the recordings of a program, of one day or, with "", of all; behind a
// file of the list before, or with "" from the first on.
std::string ClipListTarget(std::string_view program, std::string_view day, std::string_view after);

// Appends the rows of an answer; those that cannot be read or have no start are passed over. *pAfter: what to
// ask for next, "" behind the last. Returns 1, or 0 when it is no such answer.
int ClipListRead(std::string_view json, time_t tNow, std::vector<ClipRow> *pRows, std::string *pAfter);

// The programs with recordings, from the answer to "/recordings". Results as above.
int ClipDaysRead(std::string_view json, std::vector<ClipDays> *pOut);

// The rows as /api/recordings has them: a list of objects with start ("2026-11-22T14:05:00"), seconds, size,
// mp4, kind, state, file.
std::string ClipListJson(const std::vector<ClipRow> &rows);

// Which recording has a time in it, and which second of it: that, or the first one behind it from its begin.
// The rows are in the order of their start. Returns 1, or 0 when there is none.
int ClipListAt(const std::vector<ClipRow> &rows, time_t tWhen, size_t *pnRow, double *pdSecond);

// "2026-11-22T14:05:00", also without seconds, or with a blank for the T. Returns 1, or 0 for anything else.
int ClipTimeRead(std::string_view text, time_t *pOut);
std::string ClipTimeText(time_t tWhen);  // in that form
std::string ClipDayOf(time_t tWhen);     // YYYYMMDD

// Takes an address apart, decoded and behind "/recordings/": "PROGRAM/DAY/NAME.mp4" to the program and
// "DAY/NAME.zmf", as ClipOpen takes them. Returns 1, or 0 for one that is no recording's.
int ClipPathSplit(std::string_view path, std::string *pProgram, std::string *pFile);

}  // namespace orx
