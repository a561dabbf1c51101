#include "orxweb/pagesystem.h"

#include <sys/stat.h>

#include <cstdio>

#include "base/fdguard.h"
#include "orxweb/serverstate.h"
#include "orxweb/websettings.h"

namespace orx {

constexpr long kLogTail = 16384;  // bytes

static const std::string &Member(const JsonValue &json, const char *szName)
{
    return JsonMember(json, szName).text;
}

static std::string Row(const std::string &name, const std::string &value)
{
    return "<dt>" + name + "</dt><dd>" + (value.empty() ? "–" : value) + "</dd>\n";
}

static std::string YesNo(const Page *pPage, const JsonValue &json)
{
    return Say(pPage, json.text == "true" ? Text::Yes : Text::No);
}

static std::string TableBegin(const Page *pPage, Text title, std::initializer_list<Text> heads)
{
    std::string out = TableFrame(pPage, title) + "<thead><tr>";
    for (Text text : heads)
        out += "<th scope=\"col\">" + Say(pPage, text) + "</th>";
    return out + "</tr></thead>\n<tbody>\n";
}
constexpr const char *kTableEnd = "</tbody></table></div>\n";

static std::string Cells(std::initializer_list<std::string> cells)
{
    std::string out = "<tr>";
    for (const std::string &cell : cells)
        out += "<td>" + (cell == "-" || cell.empty() ? "–" : Html(cell)) + "</td>";
    return out + "</tr>\n";
}

static std::string Storage(const Page *pPage, const JsonValue &status)
{
    const JsonValue &json = JsonMember(status, "storage");
    double dTotal = JsonToNumber(JsonMember(json, "total_bytes")),
           dFree = JsonToNumber(JsonMember(json, "free_bytes"));
    std::string free = BytesText(dFree, pPage->language) + " / " + BytesText(dTotal, pPage->language);
    std::string out = "<h2>" + Say(pPage, Text::Storage) + "</h2>\n<dl>\n" +
                      Row(Say(pPage, Text::Directory), Html(Member(json, "path"))) +
                      Row(Say(pPage, Text::Free), Html(free)) +
                      Row(Say(pPage, Text::Answers), YesNo(pPage, JsonMember(json, "answers"))) +
                      Row(Say(pPage, Text::Writable), YesNo(pPage, JsonMember(json, "writable"))) + "</dl>\n";
    const JsonValue &programs = JsonMember(json, "programs");
    if (programs.items.empty())
        return out;
    out += TableBegin(pPage, Text::Storage, {Text::Program, Text::Oldest, Text::Newest, Text::Days});
    for (const JsonValue &program : programs.items)
        out += Cells({Member(program, "program"), DayShown(Member(program, "oldest")),
                      DayShown(Member(program, "newest")), Member(program, "days")});
    return out + kTableEnd;
}

static std::string Sessions(const Page *pPage, const JsonValue &status)
{
    std::string out = "<h2>" + Say(pPage, Text::Sessions) + "</h2>\n" +
                      TableBegin(pPage, Text::Sessions,
                                 {Text::Role, Text::State, Text::Address, Text::User, Text::Program,
                                  Text::Transport, Text::Uptime, Text::Sent, Text::Received, Text::Loss});
    for (const JsonValue &one : JsonMember(status, "sessions").items) {
        const JsonValue &loss = JsonMember(one, "loss_percent");
        out += Cells({Member(one, "role"), Member(one, "state"), Member(one, "address"), Member(one, "user"),
                      Member(one, "program"), Member(one, "transport"),
                      SpanText(static_cast<int64_t>(JsonToNumber(JsonMember(one, "uptime_s")))),
                      BytesText(JsonToNumber(JsonMember(one, "bytes_sent")), pPage->language),
                      BytesText(JsonToNumber(JsonMember(one, "bytes_received")), pPage->language),
                      loss.chKind == '#' ? loss.text + " %" : ""});
    }
    return out + kTableEnd;
}

static std::string Doubts(const Page *pPage, const JsonValue &status)
{
    std::string out = "<h2>" + Say(pPage, Text::Doubts) + "</h2>\n";
    const JsonValue &doubts = JsonMember(status, "doubts");
    if (doubts.items.empty())
        return out + "<p>" + Say(pPage, Text::NoDoubts) + "</p>\n";
    out += "<ul>\n";
    for (const JsonValue &doubt : doubts.items)
        out += "<li>" + Html(Member(doubt, "text")) +
               (Member(doubt, "refuses_start") == "true" ? " (" + Say(pPage, Text::RefusesStart) + ")" : "") +
               "</li>\n";
    return out + "</ul>\n";
}

static std::string Listeners(const Page *pPage, const JsonValue &status)
{
    std::string out = "<h2>" + Say(pPage, Text::Listeners) + "</h2>\n" +
                      TableBegin(pPage, Text::Listeners, {Text::Name, Text::Address, Text::Listening});
    for (const JsonValue &one : JsonMember(status, "listeners").items) {
        int bUp = Member(one, "listening") == "true";
        out += Cells({Member(one, "name"), Member(one, "address"),
                      TextOf(bUp ? Text::Yes : Text::No, pPage->language) +
                          (bUp ? std::string() : ": " + Member(one, "error"))});
    }
    return out + kTableEnd;
}

// The last lines of a file that grows.
static std::string TailOf(const std::string &path)
{
    FileGuard pFile{fopen(path.c_str(), "re")};
    struct stat facts {};
    if (!pFile || fstat(fileno(pFile.get()), &facts) != 0 || !S_ISREG(facts.st_mode))
        return {};
    long nFrom = facts.st_size > kLogTail ? static_cast<long>(facts.st_size - kLogTail) : 0;
    std::string text(kLogTail, '\0');
    if (fseek(pFile.get(), nFrom, SEEK_SET) != 0)
        return {};
    text.resize(fread(text.data(), 1, text.size(), pFile.get()));
    if (nFrom > 0)
        text.erase(0, text.find('\n') + 1);
    return text;
}

static std::string Log(const Page *pPage)
{
    if (!pPage->pVisitor->bControls)
        return {};
    const std::string heading = Say(pPage, Text::LogTail);
    const std::string &file = WebSettingsNow()->logFile;
    std::string text = file.empty() ? "" : TailOf(file);
    return "<h2>" + heading + "</h2>\n" +
           (text.empty() ? "<p>" + Say(pPage, Text::NoLog) + "</p>\n"
                         : "<pre class=\"log\" tabindex=\"0\" aria-label=\"" + heading + "\">" + Html(text) +
                               "</pre>\n");
}

WebAnswer PageSystem(Page *pPage)
{
    auto pState = ServerStateNow();
    if (pState->answer.nStatus != 200)
        return PageSentence(503, pPage, Text::ServerAway);
    const JsonValue &status = pState->json;
    pPage->kind = "system";
    pPage->heading = TextOf(Text::System, pPage->language);
    pPage->body = "<h1>" + Say(pPage, Text::System) + "</h1>\n<div id=\"fresh\" data-fresh=\"5\">\n<dl>\n" +
                  Row(Say(pPage, Text::Version), Html(Member(status, "version"))) +
                  Row(Say(pPage, Text::Uptime),
                      SpanText(static_cast<int64_t>(JsonToNumber(JsonMember(status, "uptime_s"))))) +
                  "</dl>\n" + Doubts(pPage, status) + Storage(pPage, status) + Sessions(pPage, status) +
                  Listeners(pPage, status) + Log(pPage) + "</div>\n";
    return PageAnswer(200, pPage);
}

}  // namespace orx
