#include "orxweb/routes.h"

#include "orxweb/httpread.h"
#include "orxweb/media.h"
#include "orxweb/pagelogin.h"
#include "orxweb/pagesprograms.h"
#include "orxweb/pagesrecordings.h"
#include "orxweb/pagesystem.h"
#include "orxweb/serverstate.h"
#include "orxweb/websettings.h"
#include "shared/loop.h"

namespace orx {

enum class Kind { Page, Machine, Media };

static WebAnswer PlainStatus(int nStatus, const char *szText)
{
    WebAnswer answer = WebPlain(nStatus, "text/plain; charset=utf-8", std::string(szText) + "\n");
    if (nStatus == 503)
        WebHeader(&answer, "Retry-After", "5");
    return answer;
}

static Page PageFor(const WebRequest *pRequest, const WebVisitor *pVisitor)
{
    Page page;
    page.pVisitor = pVisitor;
    page.language = LanguageOf(pRequest->language, kLanguages);
    return page;
}

static std::string TargetOf(const WebRequest *pRequest)
{
    return pRequest->path + (pRequest->query.empty() ? "" : "?" + pRequest->query);
}

static WebAnswer Refuse(const WebRequest *pRequest, const WebVisitor *pVisitor, Kind kind, int nStatus,
                        Text text)
{
    if (kind != Kind::Page)
        return PlainStatus(nStatus, TextOf(text, "en"));
    Page page = PageFor(pRequest, pVisitor);
    return PageSentence(nStatus, &page, text);
}

// Who shows no credentials that hold: pages lead to the login, all else says 401. A browser's own requests
// for pictures are not told to ask for a password, as it would do that in a window of its own.
static WebAnswer AskLogin(const WebRequest *pRequest, const WebVisitor *pVisitor, Kind kind)
{
    if (pVisitor->who == WebWho::Away)
        return Refuse(pRequest, pVisitor, kind, 503, Text::ServerAway);
    if (pVisitor->who == WebWho::TooMany) {
        WebAnswer answer = PlainStatus(429, "too many wrong passwords");
        WebHeader(&answer, "Retry-After", std::to_string(pVisitor->nWaitSeconds));
        return answer;
    }
    if (kind == Kind::Page && pVisitor->who == WebWho::Nobody) {
        std::string target = LocalTarget(TargetOf(pRequest));
        return WebRedirect(target == "/" ? "/login" : "/login?to=" + UrlEncode(target, 1));
    }
    WebAnswer answer = PlainStatus(401, "name and password are needed");
    if (pRequest->fetchSite.empty() || pRequest->fetchSite == "none")
        WebHeader(&answer, "WWW-Authenticate", "Basic realm=\"Orx\", charset=\"UTF-8\"");
    return answer;
}

static int IsRead(const WebRequest *pRequest)
{
    return pRequest->method == "GET" || pRequest->method == "HEAD";
}

static WebAnswer WrongMethod(const char *szAllowed)
{
    WebAnswer answer = PlainStatus(405, "not with this method");
    WebHeader(&answer, "Allow", szAllowed);
    return answer;
}

// --- logging in and out ---

static std::string SessionCookie(const WebRequest *pRequest, const std::string &id)
{
    return std::string(kSessionCookie) + "=" + id + "; Path=/; HttpOnly; SameSite=Lax" +
           (IsOverTls(pRequest) ? "; Secure" : "") + (id.empty() ? "; Max-Age=0" : "");
}

static WebAnswer LoginDone(const WebRequest *pRequest, const WebVisitor *pVisitor, const std::string &target)
{
    const std::string id = SessionOpen(pVisitor->account, LoopNowMs());
    if (id.empty())
        return PlainStatus(500, "no random number");
    SessionClose(CookieValue(pRequest->cookie, kSessionCookie));
    WebAnswer answer = WebRedirect(target);
    WebHeader(&answer, "Set-Cookie", SessionCookie(pRequest, id));
    return answer;
}

static WebAnswer LoginForm(const WebRequest *pRequest)
{
    WebVisitor visitor = VisitorNobody();
    Page page = PageFor(pRequest, &visitor);
    std::string target;
    FormValue(pRequest->query, "to", &target);
    return PageLogin(200, &page, "", LocalTarget(target), Text::Count, 0);
}

static WebAnswer LoginTry(const WebRequest *pRequest)
{
    WebAccount account;
    std::string target;
    if (FormValue(pRequest->form, "name", &account.name) <= 0 ||
        FormValue(pRequest->form, "password", &account.password) < 0 || account.name.size() > 127 ||
        account.password.size() > 127)
        return PlainStatus(400, "a form with name and password is wanted");
    if (FormValue(pRequest->form, "to", &target) <= 0)
        FormValue(pRequest->query, "to", &target);
    target = LocalTarget(target);
    account.program = ProgramAsked(target);
    WebVisitor visitor = VisitorLogin(pRequest, account, 1);
    if (visitor.who == WebWho::Known)
        return LoginDone(pRequest, &visitor, target);
    WebVisitor nobody = VisitorNobody();
    Page page = PageFor(pRequest, &nobody);
    if (visitor.who == WebWho::TooMany)
        return PageLogin(429, &page, account.name, target, Text::TooMany, visitor.nWaitSeconds);
    if (visitor.who == WebWho::Away)
        return PageLogin(503, &page, account.name, target, Text::ServerAway, 0);
    return PageLogin(401, &page, account.name, target, Text::WrongPassword, 0);
}

static WebAnswer RouteLogin(const WebRequest *pRequest)
{
    if (IsRead(pRequest))
        return LoginForm(pRequest);
    return IsOwnPost(pRequest) ? LoginTry(pRequest) : PlainStatus(403, TextOf(Text::ForeignPost, "en"));
}

static WebAnswer RouteLogout(const WebRequest *pRequest)
{
    if (IsRead(pRequest))
        return WrongMethod("POST");
    if (!IsOwnPost(pRequest))
        return PlainStatus(403, TextOf(Text::ForeignPost, "en"));
    SessionClose(CookieValue(pRequest->cookie, kSessionCookie));
    WebAnswer answer = WebRedirect(VisitorNobody().bOpen ? "/" : "/login");
    WebHeader(&answer, "Set-Cookie", SessionCookie(pRequest, ""));
    return answer;
}

// --- what tells of the whole box ---

// Whether the visitor may not see it. Returns 1 with the answer for him, or 0.
static int IsKeptOut(const WebRequest *pRequest, const WebVisitor *pVisitor, Kind kind, WebAnswer *pAnswer)
{
    if ((kind == Kind::Machine && pVisitor->bMachine) || MaySeeSystem(pVisitor))
        return 0;
    int bNone = pVisitor->bOpen && !HasSuperUser();
    *pAnswer = pVisitor->who == WebWho::Known || bNone
                   ? Refuse(pRequest, pVisitor, kind, 403, Text::Forbidden)
                   : AskLogin(pRequest, pVisitor, kind);
    return 1;
}

static WebAnswer RouteSystem(const WebRequest *pRequest)
{
    WebVisitor visitor = VisitorOf(pRequest);
    WebAnswer answer;
    if (IsKeptOut(pRequest, &visitor, Kind::Page, &answer))
        return answer;
    Page page = PageFor(pRequest, &visitor);
    return PageSystem(&page);
}

static WebAnswer Pass(const ServerAnswer &answer)
{
    if (answer.nStatus == 0)
        return PlainStatus(503, "the server is away");
    return WebPlain(answer.nStatus, answer.type.empty() ? "text/plain; charset=utf-8" : answer.type.c_str(),
                    answer.body);
}

static WebAnswer RouteStatus(const WebRequest *pRequest)
{
    WebVisitor visitor = VisitorOf(pRequest);
    WebAnswer answer;
    return IsKeptOut(pRequest, &visitor, Kind::Machine, &answer) ? answer : Pass(ServerStateNow()->answer);
}

static WebAnswer RouteMetrics(const WebRequest *pRequest)
{
    WebVisitor visitor = VisitorOf(pRequest);
    WebAnswer answer;
    return IsKeptOut(pRequest, &visitor, Kind::Machine, &answer)
               ? answer
               : Pass(ServerAsk(WebSettingsNow()->socketPath, "/metrics"));
}

// That the server is away is no secret, and accounts cannot be asked for then.
static WebAnswer RouteHealth(const WebRequest *pRequest)
{
    if (ServerStateNow()->answer.nStatus == 0)
        return PlainStatus(503, "the server is away");
    WebVisitor visitor = VisitorOf(pRequest);
    if (!visitor.bMachine && !MayWatch(&visitor))
        return AskLogin(pRequest, &visitor, Kind::Machine);
    return Pass(ServerAsk(WebSettingsNow()->socketPath, "/health"));
}

// --- programs ---

// Whether the visitor may see a program. Returns 1, or 0 with the answer for him.
static int IsShown(const WebRequest *pRequest, const WebVisitor *pVisitor, Kind kind,
                   const std::string &program, WebAnswer *pAnswer)
{
    if ((kind == Kind::Machine && pVisitor->bMachine) || (MayWatch(pVisitor) && MaySee(pVisitor, program)))
        return 1;
    *pAnswer = MayWatch(pVisitor) ? Refuse(pRequest, pVisitor, kind, 404, Text::NotFound)
                                  : AskLogin(pRequest, pVisitor, kind);
    return 0;
}

static WebAnswer RouteHome(const WebRequest *pRequest)
{
    WebVisitor visitor = VisitorOf(pRequest);
    if (!MayWatch(&visitor))
        return AskLogin(pRequest, &visitor, Kind::Page);
    Page page = PageFor(pRequest, &visitor);
    return PageHome(&page);
}

static WebAnswer RouteLive(const WebRequest *pRequest)
{
    ProgramAddress address = ProgramAddressRead(pRequest->path.substr(sizeof("/live/") - 1), 0);
    Kind kind =
        address.kind == AddressKind::Page || address.kind == AddressKind::None ? Kind::Page : Kind::Media;
    WebVisitor visitor = VisitorOf(pRequest);
    WebAnswer answer;
    if (!IsShown(pRequest, &visitor, kind, address.program, &answer))
        return answer;
    if (address.kind == AddressKind::None)
        return Refuse(pRequest, &visitor, Kind::Page, 404, Text::NotFound);
    if (address.kind == AddressKind::Jpeg)
        return MediaStill(pRequest, &visitor, address);
    if (kind == Kind::Media)
        return MediaLive(pRequest, &visitor, address);
    Page page = PageFor(pRequest, &visitor);
    return PageLive(&page, address.program);
}

static WebAnswer RouteRecordings(const WebRequest *pRequest)
{
    ProgramAddress address = ProgramAddressRead(pRequest->path.substr(sizeof("/recordings/") - 1), 1);
    WebVisitor visitor = VisitorOf(pRequest);
    WebAnswer answer;
    Kind kind = address.kind == AddressKind::Mp4 ? Kind::Media : Kind::Page;
    std::string file;
    if (kind == Kind::Media && !ClipPathSplit(address.program + ".mp4", &address.program, &file))
        address.kind = AddressKind::None;
    if (!IsShown(pRequest, &visitor, kind, address.program, &answer))
        return answer;
    if (address.kind == AddressKind::None)
        return Refuse(pRequest, &visitor, kind, 404, Text::NotFound);
    if (kind == Kind::Media)
        return MediaRecording(pRequest, &visitor, address.program, file);
    Page page = PageFor(pRequest, &visitor);
    return PageRecordings(&page, address.program, pRequest->query);
}

static WebAnswer RouteApi(const WebRequest *pRequest)
{
    std::string program, day, text;
    WebVisitor visitor = VisitorOf(pRequest);
    WebAnswer answer;
    if (!visitor.bMachine && !MayWatch(&visitor))
        return AskLogin(pRequest, &visitor, Kind::Machine);
    int nDay = FormValue(pRequest->query, "day", &text);
    if (FormValue(pRequest->query, "program", &program) <= 0 || nDay < 0 || (nDay && !DayRead(text, &day)))
        return PlainStatus(400, "program=NAME, and day=YYYYMMDD if of one day, are wanted");
    program = program.substr(program.starts_with('/'));
    if (!IsShown(pRequest, &visitor, Kind::Machine, program, &answer))
        return answer;
    std::shared_ptr<const std::vector<ClipRow>> pRows;
    if (!ServerRecordings(program, day, &pRows))
        return PlainStatus(503, "the server is away");
    return WebPlain(200, "application/json", ClipListJson(*pRows));
}

static WebAnswer RouteFile(const WebRequest *pRequest)
{
    const WebFile *pFile = WebFileFind(pRequest->path.substr(sizeof("/files/") - 1));
    if (!pFile)
        return PlainStatus(404, "there is nothing here");
    const std::string tag = WebFileTag(pFile);
    WebAnswer answer;
    answer.body.assign(reinterpret_cast<const char *>(pFile->pBytes), pFile->nBytes);
    WebHeader(&answer, "Content-Type", pFile->szType);
    WebHeader(&answer, "ETag", "\"" + tag + "\"");
    WebHeader(&answer, "Cache-Control",
              pRequest->query == "v=" + tag ? "public, max-age=31536000, immutable" : "no-cache");
    if (!pRequest->ifNoneMatch.empty() && TagListed(pRequest->ifNoneMatch, "\"" + tag + "\"")) {
        answer.nStatus = 304;
        answer.body.clear();
    }
    return answer;
}

// A path that ends in '/' stands for all that begin with it.
static const struct {
    std::string_view path;
    WebAnswer (*pfnAnswer)(const WebRequest *pRequest);
    int bPost;
} g_routes[] = {
    {"/live/", RouteLive, 0},    {"/recordings/", RouteRecordings, 0},
    {"/files/", RouteFile, 0},   {"/system", RouteSystem, 0},
    {"/login", RouteLogin, 1},   {"/logout", RouteLogout, 1},
    {"/status", RouteStatus, 0}, {"/metrics", RouteMetrics, 0},
    {"/health", RouteHealth, 0}, {"/api/recordings", RouteApi, 0},
};

static WebAnswer Route(const WebRequest *pRequest)
{
    for (const auto &route : g_routes) {
        std::string_view path = pRequest->path;
        if (path != route.path && !(route.path.ends_with('/') && path.starts_with(route.path)))
            continue;
        return route.bPost || IsRead(pRequest) ? route.pfnAnswer(pRequest) : WrongMethod("GET, HEAD");
    }
    if (pRequest->path == "/")
        return IsRead(pRequest) ? RouteHome(pRequest) : WrongMethod("GET, HEAD");
    WebVisitor visitor = VisitorOf(pRequest);
    return MayWatch(&visitor) ? Refuse(pRequest, &visitor, Kind::Page, 404, Text::NotFound)
                              : AskLogin(pRequest, &visitor, Kind::Machine);
}

WebAnswer RouteAnswer(const WebRequest *pRequest)
{
    WebAnswer answer = Route(pRequest);
    WebSafetyHeaders(&answer);
    return answer;
}

}  // namespace orx
