// The frame of every page, and the answers that are pages. Any thread.
#pragma once

#include <string>

#include "orxweb/texts.h"
#include "orxweb/webaccess.h"
#include "orxweb/webrequest.h"
#include "orxweb/webtext.h"

namespace orx {

struct Page {
    const WebVisitor *pVisitor = nullptr;
    std::string language;
    std::string kind;     // "home", "live", ...: what the scripts do
    std::string heading;  // not escaped, as it stands in the title; the body has its own h1
    std::string body;     // HTML of <main>
};

// A text of the page's language, escaped.
std::string Say(const Page *pPage, Text text);

// The begin of a table that is moved sideways where it is too wide, also by the keyboard.
std::string TableFrame(const Page *pPage, Text title);
std::string DayShown(const std::string &day);  // "20261122" as "2026-11-22"

WebAnswer PageAnswer(int nStatus, const Page *pPage);
// A page of one sentence, with role=alert, and what follows it.
WebAnswer PageSentence(int nStatus, Page *pPage, Text text, const std::string &more = {});

// Headers that every answer has.
void WebSafetyHeaders(WebAnswer *pAnswer);
WebAnswer WebRedirect(const std::string &target);                       // 303
WebAnswer WebPlain(int nStatus, const char *szType, std::string body);  // not kept by anybody
std::string UrlLive(std::string_view program);                          // "/live/..."
std::string UrlRecordings(std::string_view program);                    // "/recordings/..."

// What lies in files/: address, type and content. Null where there is none of that name.
struct WebFile {
    const char *szName;
    const char *szType;
    const unsigned char *pBytes;
    size_t nBytes;
};
const WebFile *WebFileFind(std::string_view name);
std::string WebFileTag(const WebFile *pFile);  // of its content
// Its address with its tag: it may be kept for good.
std::string WebFileUrl(const char *szName);

}  // namespace orx
