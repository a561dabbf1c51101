#include "orxweb/cliplist.h"

#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "orxctl/json.h"
#include "record/daywalk.h"
#include "record/zmfile.h"

namespace orx {

constexpr char kRecording[] = ".zmf";
constexpr char kClip[] = ".mp4";

// Addresses of pages keep their slashes, parameters do not need them.
static std::string Escape(std::string_view text)
{
    std::string out;
    for (char ch : text) {
        char szEscaped[4];
        if (isalnum(static_cast<unsigned char>(ch)) || (ch != 0 && strchr("-_.~/", ch))) {
            out += ch;
            continue;
        }
        snprintf(szEscaped, sizeof(szEscaped), "%%%02X",
                 static_cast<unsigned>(static_cast<unsigned char>(ch)));
        out += szEscaped;
    }
    return out;
}

std::string ClipListTarget(std::string_view program, std::string_view day, std::string_view after)
{
    std::string target = "/recordings?program=" + Escape(program);
    if (!day.empty())
        target += "&day=" + Escape(day);
    if (!after.empty())
        target += "&after=" + Escape(after);
    return target;
}

// --- Times ---

static int TakeNumber(std::string_view *pText, size_t nDigits, int *pOut)
{
    *pOut = 0;
    for (size_t i = 0; i < nDigits; i++) {
        if (i >= pText->size() || !isdigit(static_cast<unsigned char>((*pText)[i])))
            return 0;
        *pOut = *pOut * 10 + ((*pText)[i] - '0');
    }
    pText->remove_prefix(nDigits);
    return 1;
}

static int TakeOneOf(std::string_view *pText, const char *szAny)
{
    if (pText->empty() || !strchr(szAny, pText->front()) || pText->front() == '\0')
        return 0;
    pText->remove_prefix(1);
    return 1;
}

static int ToTime(tm *pTime, time_t *pOut)
{
    const std::chrono::year_month_day day{std::chrono::year(pTime->tm_year),
                                          std::chrono::month(static_cast<unsigned>(pTime->tm_mon)),
                                          std::chrono::day(static_cast<unsigned>(pTime->tm_mday))};
    if (pTime->tm_year < 1970 || !day.ok() || pTime->tm_hour > 23 || pTime->tm_min > 59 || pTime->tm_sec > 60)
        return 0;
    pTime->tm_year -= 1900;
    pTime->tm_mon -= 1;
    pTime->tm_isdst = -1;
    *pOut = mktime(pTime);
    return *pOut != -1;
}

int ClipTimeRead(std::string_view text, time_t *pOut)
{
    tm when{};
    if (!TakeNumber(&text, 4, &when.tm_year) || !TakeOneOf(&text, "-") ||
        !TakeNumber(&text, 2, &when.tm_mon) || !TakeOneOf(&text, "-") ||
        !TakeNumber(&text, 2, &when.tm_mday) || !TakeOneOf(&text, "T ") ||
        !TakeNumber(&text, 2, &when.tm_hour) || !TakeOneOf(&text, ":") || !TakeNumber(&text, 2, &when.tm_min))
        return 0;
    if (!text.empty() && (!TakeOneOf(&text, ":") || !TakeNumber(&text, 2, &when.tm_sec)))
        return 0;
    return text.empty() && ToTime(&when, pOut);
}

// As recordings have it: "20261122-140500".
static int ReadStart(std::string_view text, time_t *pOut)
{
    tm when{};
    return TakeNumber(&text, 4, &when.tm_year) && TakeNumber(&text, 2, &when.tm_mon) &&
           TakeNumber(&text, 2, &when.tm_mday) && TakeOneOf(&text, "-") &&
           TakeNumber(&text, 2, &when.tm_hour) && TakeNumber(&text, 2, &when.tm_min) &&
           TakeNumber(&text, 2, &when.tm_sec) && text.empty() && ToTime(&when, pOut);
}

static std::string FormatTime(time_t tWhen, const char *szFormat)
{
    tm when{};
    char szText[40];
    localtime_r(&tWhen, &when);
    size_t n = strftime(szText, sizeof(szText), szFormat, &when);
    return {szText, n};
}

std::string ClipTimeText(time_t tWhen)
{
    return FormatTime(tWhen, "%Y-%m-%dT%H:%M:%S");
}

std::string ClipDayOf(time_t tWhen)
{
    return FormatTime(tWhen, "%Y%m%d");
}

// --- Answers ---

static int ReadRow(const JsonValue &item, time_t tNow, ClipRow *pOut)
{
    pOut->file = JsonMember(item, "file").text;
    pOut->kind = JsonMember(item, "kind").text;
    pOut->state = JsonMember(item, "state").text;
    std::string_view name = pOut->file;
    if (name.ends_with(kOpenSuffix))
        name.remove_suffix(strlen(kOpenSuffix));
    if (!name.ends_with(kRecording) || !ReadStart(JsonMember(item, "start").text, &pOut->tStart))
        return 0;
    name.remove_suffix(strlen(kRecording));
    pOut->mp4 = "/recordings/" + Escape(name) + kClip;
    double dBytes = JsonToNumber(JsonMember(item, "bytes"));
    double dSeconds = JsonToNumber(JsonMember(item, "duration_s"));
    pOut->nBytes = dBytes > 0 && dBytes < 1e18 ? static_cast<uint64_t>(dBytes) : 0;
    pOut->dSeconds = dSeconds > 0 && dSeconds < 1e9 ? dSeconds : 0;
    if (pOut->state == "writing" && tNow > pOut->tStart)
        pOut->dSeconds = static_cast<double>(tNow - pOut->tStart);
    return 1;
}

int ClipListRead(std::string_view json, time_t tNow, std::vector<ClipRow> *pRows, std::string *pAfter)
{
    JsonValue answer;
    pAfter->clear();
    if (!JsonParse(json, &answer))
        return 0;
    const JsonValue &list = JsonMember(answer, "recordings");
    if (list.chKind != '[')
        return 0;
    for (const JsonValue &item : list.items) {
        ClipRow row;
        if (ReadRow(item, tNow, &row))
            pRows->push_back(row);
    }
    if (JsonMember(answer, "more").text == "true" && !list.items.empty())
        *pAfter = JsonMember(list.items.back(), "file").text;
    return 1;
}

int ClipDaysRead(std::string_view json, std::vector<ClipDays> *pOut)
{
    JsonValue answer;
    if (!JsonParse(json, &answer))
        return 0;
    const JsonValue &list = JsonMember(answer, "programs");
    if (list.chKind != '[')
        return 0;
    for (const JsonValue &item : list.items) {
        ClipDays program;
        program.program = JsonMember(item, "program").text;
        program.program.erase(0, program.program.starts_with('/') ? 1 : 0);
        for (const JsonValue &day : JsonMember(item, "days").items)
            if (IsDate(day.text.c_str()))
                program.days.push_back(day.text);
        pOut->push_back(program);
    }
    return 1;
}

static std::string Quote(const std::string &text)
{
    std::string out = "\"";
    for (char ch : text) {
        char szEscaped[8];
        snprintf(szEscaped, sizeof(szEscaped), "\\u%04x",
                 static_cast<unsigned>(static_cast<unsigned char>(ch)));
        if (static_cast<unsigned char>(ch) < 0x20 || strchr("\"\\<>&", ch))
            out += szEscaped;
        else
            out += ch;
    }
    return out + "\"";
}

std::string ClipListJson(const std::vector<ClipRow> &rows)
{
    std::string out = "[";
    for (const ClipRow &row : rows) {
        char szNumbers[80];
        snprintf(szNumbers, sizeof(szNumbers), "\"seconds\":%.3f,\"size\":%llu,", row.dSeconds,
                 static_cast<unsigned long long>(row.nBytes));
        out += out.size() > 1 ? ",\n{" : "\n{";
        out += "\"start\":" + Quote(ClipTimeText(row.tStart)) + "," + szNumbers +
               "\"mp4\":" + Quote(row.mp4) + ",\"kind\":" + Quote(row.kind) +
               ",\"state\":" + Quote(row.state) + ",\"file\":" + Quote(row.file) + "}";
    }
    return out + "\n]\n";
}

// --- Ways ---

int ClipListAt(const std::vector<ClipRow> &rows, time_t tWhen, size_t *pnRow, double *pdSecond)
{
    size_t nBehind = 0;
    while (nBehind < rows.size() && rows[nBehind].tStart <= tWhen)
        nBehind++;
    for (size_t i = nBehind; i-- > 0;) {  // of two at once, the one that began last
        auto dInto = static_cast<double>(tWhen - rows[i].tStart);
        int bOpenEnd = rows[i].state == "interrupted" && i + 1 == nBehind;  // it may reach up to the next
        if (dInto < rows[i].dSeconds || bOpenEnd) {
            *pnRow = i;
            *pdSecond = dInto;
            return 1;
        }
    }
    *pnRow = nBehind;
    *pdSecond = 0;
    return nBehind < rows.size();
}

int ClipPathSplit(std::string_view path, std::string *pProgram, std::string *pFile)
{
    if (!path.ends_with(kClip))
        return 0;
    path.remove_suffix(strlen(kClip));
    size_t nName = path.rfind('/');
    size_t nDay = nName == std::string_view::npos || nName == 0 ? nName : path.rfind('/', nName - 1);
    if (nDay == std::string_view::npos || nDay == 0 || nName == path.size() - 1 || nName == nDay ||
        !IsDate(std::string(path.substr(nDay + 1, nName - nDay - 1)).c_str()))
        return 0;
    *pProgram = path.substr(0, nDay);
    *pFile = std::string(path.substr(nDay + 1)) + kRecording;
    return 1;
}

}  // namespace orx
