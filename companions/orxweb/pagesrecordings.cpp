#include "orxweb/pagesrecordings.h"

#include <algorithm>
#include <ctime>

#include "orxweb/httpread.h"
#include "orxweb/serverstate.h"

namespace orx {

constexpr int64_t kDaySeconds = 86400;
constexpr size_t kMostDaysShown = 400;

using Rows = std::vector<ClipRow>;

constexpr const char *kWriting = "writing";
constexpr const char *kInterrupted = "interrupted";

static time_t DayBegin(const std::string &day)
{
    time_t t = 0;
    ClipTimeRead(DayShown(day) + "T00:00", &t);
    return t;
}

static std::string UrlAt(const std::string &program, time_t tAt)
{
    return UrlRecordings(program) + "?at=" + ClipTimeText(tAt);
}

static std::string ClockText(const ClipRow &row)
{
    return ClipTimeText(row.tStart).substr(11);
}

static std::string DayMenu(const Page *pPage, const std::string &program,
                           const std::vector<std::string> &days, const std::string &day)
{
    std::string out = "<nav class=\"days\" aria-label=\"" + Say(pPage, Text::Days) + "\"><ul>\n";
    size_t nFrom = days.size() > kMostDaysShown ? days.size() - kMostDaysShown : 0;
    for (size_t i = days.size(); i-- > nFrom;)
        out += "<li><a href=\"" + UrlRecordings(program) + "?day=" + Html(days[i]) + "\"" +
               (days[i] == day ? " aria-current=\"page\"" : "") + ">" + Html(DayShown(days[i])) +
               "</a></li>\n";
    return out + "</ul></nav>\n";
}

static std::string TimeForm(const Page *pPage, const std::string &program, time_t tShown)
{
    return "<form class=\"search\" method=\"get\" action=\"" + UrlRecordings(program) +
           "\"><label for=\"at\">" + Say(pPage, Text::PlayFromTime) +
           "</label> <input id=\"at\" name=\"at\" type=\"datetime-local\" step=\"1\" required value=\"" +
           ClipTimeText(tShown) + "\"> <button>" + Say(pPage, Text::PlayFrom) + "</button></form>\n";
}

// Seconds of the day at which a clock on the wall shows that time.
static int64_t SecondOfDay(time_t t)
{
    tm parts{};
    localtime_r(&t, &parts);
    return parts.tm_hour * 3600 + parts.tm_min * 60 + parts.tm_sec;
}

// Its link is not one of those that the keyboard steps through: the table has it as well.
static std::string Bar(const Page *pPage, const std::string &program, const ClipRow &row,
                       const std::string &day)
{
    int64_t nX = ClipDayOf(row.tStart) == day ? SecondOfDay(row.tStart) : 0;
    int64_t nWide = static_cast<int64_t>(row.dSeconds);
    if (ClipDayOf(row.tStart) != day)  // it began the day before
        nWide -= DayBegin(day) - row.tStart;
    nWide = std::clamp<int64_t>(nWide, 60, std::max<int64_t>(60, kDaySeconds - nX));
    std::string shape = "<rect class=\"" + Html(row.kind) + "\" x=\"" + std::to_string(nX) +
                        "\" y=\"0\" height=\"40\" width=\"" + std::to_string(nWide) + "\"/>";
    if (row.state == kInterrupted)
        return shape + "\n";
    return "<a tabindex=\"-1\" href=\"" + UrlAt(program, row.tStart) + "\" aria-label=\"" +
           Say(pPage, Text::PlayFrom) + " " + ClockText(row) + "\">" + shape + "</a>\n";
}

// A day as a line of 86,400 s; each recording a link.
static std::string TimeLine(const Page *pPage, const std::string &program, const Rows &rows,
                            const std::string &day)
{
    std::string out =
        "<svg class=\"line\" id=\"line\" viewBox=\"0 0 86400 40\" preserveAspectRatio=\"none\" "
        "data-day=\"" +
        DayShown(day) + "\" role=\"group\" aria-label=\"" + Say(pPage, Text::TimeLine) + " " + DayShown(day) +
        "\">\n";
    for (const ClipRow &row : rows)
        out += Bar(pPage, program, row, day);
    out +=
        "<line id=\"now\" class=\"now\" x1=\"-1000\" x2=\"-1000\" y1=\"0\" y2=\"40\"/></svg>\n"
        "<ol class=\"hours\" aria-hidden=\"true\">";
    for (int i = 0; i <= 24; i += 2)
        out += "<li>" + std::to_string(i) + "</li>";
    return out + "</ol>\n";
}

static Text KindText(const std::string &kind)
{
    return kind == "scheduled" ? Text::KindScheduled
           : kind == "alarm"   ? Text::KindAlarm
           : kind == "manual"  ? Text::KindManual
                               : Text::KindUnknown;
}

static std::string TableRow(const Page *pPage, const std::string &program, const ClipRow &row, int bPlaying)
{
    const std::string time = ClockText(row);
    int bPlayable = row.state != kInterrupted;
    std::string out = std::string("<tr") + (bPlaying ? " class=\"here\"" : "");
    if (bPlayable)
        out += " data-start=\"" + ClipTimeText(row.tStart) + "\" data-seconds=\"" +
               std::to_string(static_cast<long long>(row.dSeconds)) + "\" data-mp4=\"" + Html(row.mp4) +
               "\" data-state=\"" + Html(row.state) + "\"";
    out += "><td>" + (bPlayable ? "<a href=\"" + UrlAt(program, row.tStart) + "\" aria-label=\"" +
                                      Say(pPage, Text::PlayFrom) + " " + time + "\">" + time + "</a>"
                                : time);
    out += "</td><td>" + SpanText(static_cast<int64_t>(row.dSeconds)) + "</td><td>" +
           Html(BytesText(static_cast<double>(row.nBytes), pPage->language)) + "</td><td>" +
           Say(pPage, KindText(row.kind)) + "</td><td>";
    if (row.state == kWriting)
        out += Say(pPage, Text::BeingRecorded);
    else if (bPlayable)
        out += "<a href=\"" + Html(row.mp4) + "?download=1\" aria-label=\"" + Say(pPage, Text::Download) +
               " " + time + "\">" + Say(pPage, Text::Download) + "</a>";
    else
        out += Say(pPage, Text::Interrupted);
    return out + "</td></tr>\n";
}

static std::string Table(const Page *pPage, const std::string &program, const Rows &rows,
                         const ClipRow *pPlaying)
{
    if (rows.empty())
        return "<p>" + Say(pPage, Text::NoRecordingsDay) + "</p>\n";
    std::string out = TableFrame(pPage, Text::Recordings) + "<thead><tr>";
    for (Text text : {Text::Start, Text::Length, Text::Size, Text::Kind, Text::Actions})
        out += "<th scope=\"col\">" + Say(pPage, text) + "</th>";
    out += "</tr></thead>\n<tbody id=\"rows\">\n";
    for (const ClipRow &row : rows)
        out += TableRow(pPage, program, row, &row == pPlaying);
    return out + "</tbody></table></div>\n";
}

static std::string Player(const Page *pPage, const std::string &program, const ClipRow *pRow, double dSecond)
{
    if (!pRow)
        return {};
    auto nOffset = static_cast<long long>(dSecond);
    const std::string start = ClipTimeText(pRow->tStart);
    return "<div id=\"stage\"><video class=\"picture\" id=\"picture\" aria-label=\"" +
           Say(pPage, Text::ThisRecording) + " " + Html(program) + ", " + start +
           "\" controls playsinline preload=\"none\" data-start=\"" + start + "\" data-offset=\"" +
           std::to_string(nOffset) + "\" src=\"" + Html(pRow->mp4) +
           (nOffset ? "#t=" + std::to_string(nOffset) : "") +
           "\"></video>\n<p id=\"report\" role=\"status\"></p></div>\n"
           "<div id=\"controls\" class=\"controls\"></div>\n";
}

// What the query wants: a time, a day, or the newest day there is. Returns 1, or 0 when it cannot be read.
static int Wanted(const std::string &query, const std::vector<std::string> &days, std::string *pDay,
                  time_t *ptAt)
{
    std::string text;
    *ptAt = -1;
    int nFound = FormValue(query, "at", &text);
    if (nFound) {
        if (nFound < 0 || !ClipTimeRead(text, ptAt))
            return 0;
        *pDay = ClipDayOf(*ptAt);
        return 1;
    }
    nFound = FormValue(query, "day", &text);
    if (nFound)
        return nFound > 0 && DayRead(text, pDay);
    *pDay = days.empty() ? "" : days.back();
    return 1;
}

// Recordings of a day; those of the day before that go on beyond midnight come first.
static int RowsOf(const std::string &program, const std::string &day, Rows *pOut)
{
    std::shared_ptr<const Rows> pRows;
    time_t tDay = DayBegin(day);
    if (ServerRecordings(program, ClipDayOf(tDay - kDaySeconds / 2), &pRows))
        for (const ClipRow &row : *pRows)
            if (static_cast<double>(row.tStart) + row.dSeconds > static_cast<double>(tDay))
                pOut->push_back(row);
    if (!ServerRecordings(program, day, &pRows))
        return 0;
    pOut->insert(pOut->end(), pRows->begin(), pRows->end());
    return 1;
}

WebAnswer PageRecordings(Page *pPage, const std::string &program, const std::string &query)
{
    std::shared_ptr<const std::vector<ClipDays>> pDays;
    if (!ServerDays(&pDays))
        return PageSentence(503, pPage, Text::ServerAway);
    std::vector<std::string> days;
    for (const ClipDays &facts : *pDays)
        if (facts.program == program)
            days = facts.days;
    std::string day;
    time_t tAt = -1;
    if (!Wanted(query, days, &day, &tAt))
        return PageSentence(400, pPage, Text::NotFound);
    pPage->kind = "recordings";
    pPage->heading = std::string(TextOf(Text::RecordingsOf, pPage->language)) + " " + program;
    pPage->body = "<h1>" + Html(pPage->heading) + "</h1>\n";
    Rows rows;
    if (!day.empty() && !RowsOf(program, day, &rows))
        return PageSentence(503, pPage, Text::ServerAway);
    if (day.empty()) {
        pPage->body += "<p>" + Say(pPage, Text::NoRecordings) + "</p>\n";
        return PageAnswer(200, pPage);
    }
    size_t nRow = 0;
    double dSecond = 0;
    const ClipRow *pPlaying = tAt >= 0 && ClipListAt(rows, tAt, &nRow, &dSecond) ? &rows[nRow] : nullptr;
    time_t tShown = tAt >= 0 ? tAt : rows.empty() ? DayBegin(day) : rows.front().tStart;
    pPage->body += Player(pPage, program, pPlaying, dSecond) + TimeLine(pPage, program, rows, day) +
                   TimeForm(pPage, program, tShown) + DayMenu(pPage, program, days, day) + "<h2>" +
                   DayShown(day) + "</h2>\n" + Table(pPage, program, rows, pPlaying) +
                   "<p class=\"links\"><a href=\"" + UrlLive(program) + "\">" + Say(pPage, Text::LiveOf) +
                   " " + Html(program) + "</a></p>\n";
    return PageAnswer(200, pPage);
}

}  // namespace orx
