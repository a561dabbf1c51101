#include "orxweb/page.h"

#include <cstdio>

#include "orxweb/webfiles.h"
#include "orxweb/websettings.h"

namespace orx {

// Nothing of others, nothing inline, no frame around it.
static const char *const g_safety[][2] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; media-src 'self' blob:; "
     "connect-src 'self'; form-action 'self'; base-uri 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
};

void WebSafetyHeaders(WebAnswer *pAnswer)
{
    for (const auto &row : g_safety)
        WebHeader(pAnswer, row[0], row[1]);
}

std::string Say(const Page *pPage, Text text)
{
    return Html(TextOf(text, pPage->language));
}

std::string TableFrame(const Page *pPage, Text title)
{
    return "<div class=\"wide\" role=\"region\" tabindex=\"0\" aria-label=\"" + Say(pPage, title) +
           "\"><table>\n";
}

std::string DayShown(const std::string &day)
{
    return day.size() == 8 ? day.substr(0, 4) + "-" + day.substr(4, 2) + "-" + day.substr(6) : day;
}

std::string UrlLive(std::string_view program)
{
    return "/live/" + UrlProgram(program);
}

std::string UrlRecordings(std::string_view program)
{
    return "/recordings/" + UrlProgram(program);
}

const WebFile *WebFileFind(std::string_view name)
{
    for (size_t i = 0; i < g_nWebFiles; i++)
        if (name == g_webFiles[i].szName)
            return &g_webFiles[i];
    return nullptr;
}

std::string WebFileTag(const WebFile *pFile)
{
    uint64_t nHash = 14695981039346656037ULL;  // FNV-1a
    for (size_t i = 0; i < pFile->nBytes; i++)
        nHash = (nHash ^ pFile->pBytes[i]) * 1099511628211ULL;
    char sz[20];
    snprintf(sz, sizeof(sz), "%016llx", static_cast<unsigned long long>(nHash));
    return sz;
}

std::string WebFileUrl(const char *szName)
{
    return std::string("/files/") + szName + "?v=" + WebFileTag(WebFileFind(szName));
}

static std::string MenuLink(const char *szTarget, const std::string &text, int bHere)
{
    return std::string("<a href=\"") + szTarget + "\"" + (bHere ? " aria-current=\"page\"" : "") + ">" +
           text + "</a>";
}

static std::string Menu(const Page *pPage)
{
    const WebVisitor *pVisitor = pPage->pVisitor;
    int bKnown = pVisitor->who == WebWho::Known;
    std::string out = "<nav aria-label=\"" + Say(pPage, Text::MainMenu) + "\">";
    if (MayWatch(pVisitor))
        out += MenuLink("/", Say(pPage, Text::Programs), pPage->kind == "home");
    if (MaySeeSystem(pVisitor))
        out += MenuLink("/system", Say(pPage, Text::System), pPage->kind == "system");
    if (!bKnown && pVisitor->bOpen && HasSuperUser())
        out += MenuLink("/login", Say(pPage, Text::Login), pPage->kind == "login");
    out += "</nav>";
    if (bKnown)
        out += "<form method=\"post\" action=\"/logout\"><span class=\"who\">" +
               Html(pVisitor->account.name) + "</span> <button>" + Say(pPage, Text::Logout) +
               "</button></form>";
    return out;
}

static std::string Scripts(const Page *pPage)
{
    std::string out;
    for (const char *szKind : {"", "home", "live", "recordings"})
        if (!szKind[0] || pPage->kind == szKind) {
            const std::string name = szKind[0] ? std::string(szKind) + ".js" : "common.js";
            out += "<script src=\"" + WebFileUrl(name.c_str()) + "\" defer></script>\n";
        }
    return out;
}

WebAnswer PageAnswer(int nStatus, const Page *pPage)
{
    const std::string title = Html(WebSettingsNow()->title);
    WebAnswer answer;
    answer.nStatus = nStatus;
    answer.body = "<!doctype html>\n<html lang=\"" + pPage->language +
                  "\">\n<head>\n<meta charset=\"utf-8\">\n"
                  "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                  "<meta name=\"color-scheme\" content=\"light dark\">\n<title>" +
                  Html(pPage->heading) + " – " + title + "</title>\n<link rel=\"icon\" href=\"" +
                  WebFileUrl("icon.svg") + "\">\n<link rel=\"stylesheet\" href=\"" + WebFileUrl("web.css") +
                  "\">\n" + Scripts(pPage) + "</head>\n<body data-page=\"" + pPage->kind +
                  "\" data-texts=\"" + Html(TextsForScripts(pPage->language)) +
                  "\">\n<a class=\"skip\" href=\"#main\">" + Say(pPage, Text::SkipToMain) +
                  "</a>\n<header><a class=\"home\" href=\"/\">" + title + "</a>" + Menu(pPage) +
                  "</header>\n<main id=\"main\" tabindex=\"-1\">\n" + pPage->body +
                  "</main>\n</body>\n</html>\n";
    WebHeader(&answer, "Content-Type", "text/html; charset=utf-8");
    WebHeader(&answer, "Cache-Control", "no-store");
    WebHeader(&answer, "Vary", "Accept-Language, Cookie");
    return answer;
}

WebAnswer PageSentence(int nStatus, Page *pPage, Text text, const std::string &more)
{
    pPage->kind = nStatus == 503 || text == Text::NotLive ? "away" : "message";
    pPage->heading = std::to_string(nStatus);
    pPage->body =
        "<h1>" + std::to_string(nStatus) + "</h1>\n<p role=\"alert\">" + Say(pPage, text) + "</p>\n" + more;
    WebAnswer answer = PageAnswer(nStatus, pPage);
    if (nStatus == 503)
        WebHeader(&answer, "Retry-After", "5");
    return answer;
}

WebAnswer WebRedirect(const std::string &target)
{
    WebAnswer answer = WebPlain(303, "text/plain; charset=utf-8", "");
    WebHeader(&answer, "Location", target);
    return answer;
}

WebAnswer WebPlain(int nStatus, const char *szType, std::string body)
{
    WebAnswer answer;
    answer.nStatus = nStatus;
    answer.body = std::move(body);
    WebHeader(&answer, "Content-Type", szType);
    WebHeader(&answer, "Cache-Control", "no-store");
    return answer;
}

}  // namespace orx
