#include "orxweb/webaccess.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "orxweb/cliplist.h"
#include "orxweb/httpread.h"
#include "orxweb/serverstate.h"
#include "orxweb/tries.h"
#include "orxweb/websettings.h"
#include "orxweb/webtext.h"
#include "shared/loop.h"

namespace orx {

constexpr uint64_t kAnswerMs = 3000;
constexpr size_t kMostAnswers = 4096;

static TryTable g_byName{TryLimits{}};
static TryTable g_byVisitor{TryLimits{10, 1000, 30000, 900000, 4096}};

// What the server said of an account.
struct AccessAnswer {
    WebWho who = WebWho::Away;
    int bSuper = 0, bControls = 0, bAnonymous = 0, bAll = 0;
    int bMaySee = 0;     // of the program that was asked for
    int bNoLogin = 0;    // AuthType 0
    int bSuperUser = 0;  // there is one
    uint64_t nAskedMs = 0;
};

static std::mutex g_mutex;
static std::map<std::string, AccessAnswer> g_answers;  // guarded by it; only of those that the server took
static AccessAnswer g_nobody;                          // the same: of a visitor without credentials

static void ReadAnswer(const JsonValue &json, AccessAnswer *pOut)
{
    const std::string &level = JsonMember(json, "level").text;
    pOut->who = level == "none" ? WebWho::Wrong : WebWho::Known;
    pOut->bSuper = level == "super";
    pOut->bControls = level == "super" || level == "control";
    pOut->bAnonymous = JsonMember(json, "anonymous").text == "true";
    pOut->bMaySee = JsonMember(json, "may_see").text == "true";
    pOut->bNoLogin = JsonMember(json, "auth").text == "none";
    pOut->bSuperUser = JsonMember(json, "super_user_exists").text == "true";
}

// A name that no list of programs has: who may see it may see all.
static const std::string &NoProgram()
{
    static const std::string name = "orxweb/" + RandomText();
    return name;
}

static AccessAnswer Ask(const WebAccount &account, const std::string &program)
{
    AccessAnswer out;
    JsonValue json;
    std::string form = "name=" + UrlEncode(account.name, 1) + "&password=" + UrlEncode(account.password, 1);
    form += "&program=" + UrlEncode(program.empty() ? NoProgram() : program, 1);
    ServerAnswer answer = ServerPost(WebSettingsNow()->socketPath, "/access", form);
    if (answer.nStatus == 200 && JsonParse(answer.body, &json))
        ReadAnswer(json, &out);
    else if (answer.nStatus == 400 || answer.nStatus == 413)  // no account has such a name
        out.who = WebWho::Wrong;
    out.bAll = program.empty() && out.bMaySee;
    out.nAskedMs = LoopNowMs();
    return out;
}

static std::string KeyOf(const WebAccount &account, const std::string &program)
{
    return account.name + '\n' + account.password + '\n' + program;
}

// With its answer to the same question a moment ago, unless bAnew.
static AccessAnswer AskKept(const WebAccount &account, const std::string &program, int bAnew = 0)
{
    const std::string key = KeyOf(account, program);
    {
        std::lock_guard lock(g_mutex);
        auto it = g_answers.find(key);
        if (!bAnew && it != g_answers.end() && LoopNowMs() - it->second.nAskedMs < kAnswerMs)
            return it->second;
    }
    AccessAnswer answer = Ask(account, program);
    std::lock_guard lock(g_mutex);
    if (g_answers.size() >= kMostAnswers)
        g_answers.clear();
    if (answer.who == WebWho::Known || (answer.who == WebWho::Wrong && !program.empty()))
        g_answers[key] = answer;  // a wrong password is asked for every time
    else
        g_answers.erase(key);
    return answer;
}

// What a visitor without credentials may do; while the server is away, what it said before, or what its
// configuration says.
static AccessAnswer AskNobody()
{
    {
        std::lock_guard lock(g_mutex);
        if (g_nobody.nAskedMs && LoopNowMs() - g_nobody.nAskedMs < kAnswerMs)
            return g_nobody;
    }
    AccessAnswer answer = Ask({}, "");
    std::lock_guard lock(g_mutex);
    if (answer.who != WebWho::Away)
        g_nobody = answer;
    if (g_nobody.nAskedMs)
        return g_nobody;
    answer.bNoLogin = WebSettingsNow()->nAuthType == 0;
    answer.bSuperUser = !WebSettingsNow()->superUser.empty();
    return answer;
}

int HasSuperUser()
{
    return AskNobody().bSuperUser;
}

// Whether the server took them not long ago: a machine that asks with them again is not slowed by strangers
// who guess at its name.
static int WereRight(const WebAccount &account)
{
    std::lock_guard lock(g_mutex);
    for (const std::string &program : {std::string(), account.program})
        if (auto it = g_answers.find(KeyOf(account, program));
            it != g_answers.end() && it->second.who == WebWho::Known)
            return 1;
    return 0;
}

// By what wrong passwords of a visitor are counted; empty: behind the web port all look alike.
static std::string VisitorKey(const WebRequest *pRequest)
{
    if (pRequest->peer.bLocal && WebSettingsNow()->bHttpProxy)
        return {};
    return std::to_string(AddrCounted(&pRequest->peer.addr));
}

WebVisitor VisitorNobody()
{
    WebVisitor visitor;
    visitor.bOpen = AskNobody().bNoLogin;
    return visitor;
}

static void Take(WebVisitor *pVisitor, const WebAccount &account, const AccessAnswer &answer)
{
    pVisitor->who = answer.who;
    pVisitor->account = account;
    pVisitor->bSuper = answer.bSuper;
    pVisitor->bControls = answer.bControls;
    pVisitor->bAnonymous = answer.bAnonymous;
    pVisitor->bAll = answer.bAll;
}

// An account of a camera's own is known nowhere but at its program.
static void AskAccount(WebVisitor *pVisitor, const WebAccount &account, int bAnew)
{
    WebAccount general{account.name, account.password, {}};
    AccessAnswer answer = AskKept(general, "", bAnew);
    Take(pVisitor, general, answer);
    if (answer.who == WebWho::Wrong && !account.program.empty())
        Take(pVisitor, account, AskKept(account, account.program, bAnew));
}

WebVisitor VisitorLogin(const WebRequest *pRequest, const WebAccount &account, int bAnew)
{
    WebVisitor visitor = VisitorNobody();
    const std::string key = VisitorKey(pRequest);
    uint64_t nNow = LoopNowMs();
    int nWait = TryWait(&g_byName, account.name, nNow);
    if (!key.empty())
        nWait = std::max(nWait, TryWait(&g_byVisitor, key, nNow));
    if (nWait > 0 && !WereRight(account)) {
        visitor.who = WebWho::TooMany;
        visitor.nWaitSeconds = (nWait + 999) / 1000;
        return visitor;
    }
    AskAccount(&visitor, account, bAnew);
    if (visitor.who == WebWho::Known)
        TryRight(&g_byName, account.name);
    if (visitor.who != WebWho::Wrong)
        return visitor;
    TryWrong(&g_byName, account.name, nNow);
    if (!key.empty())
        TryWrong(&g_byVisitor, key, nNow);
    return visitor;
}

// A page of a stranger whose name has come to mean this machine would read what needs no login: its requests
// carry that name.
static int NamesThisMachine(std::string_view host)
{
    if (host.starts_with('['))
        return 1;
    host = host.substr(0, host.find(':'));
    return host.empty() || host == "localhost" || host.find_first_not_of("0123456789.") == std::string::npos;
}

std::string ProgramAsked(std::string_view target)
{
    std::string_view path = target.substr(0, target.find('?'));
    std::string program, file;
    if (path == "/api/recordings" && path.size() < target.size())
        FormValue(target.substr(path.size() + 1), "program", &program);
    else if (path.starts_with("/live/"))
        program = ProgramAddressRead(path.substr(sizeof("/live/") - 1), 0).program;
    if (!path.starts_with("/recordings/"))
        return program.substr(program.starts_with('/'));
    ProgramAddress address = ProgramAddressRead(path.substr(sizeof("/recordings/") - 1), 1);
    if (address.kind == AddressKind::Mp4 && ClipPathSplit(address.program + ".mp4", &program, &file))
        return program;
    return address.program;
}

WebVisitor VisitorOf(const WebRequest *pRequest)
{
    WebAccount account;
    WebVisitor visitor = VisitorNobody();
    std::string_view id = CookieValue(pRequest->cookie, kSessionCookie);
    visitor.bMachine = pRequest->peer.bLocal && !pRequest->peer.bFronted && !WebSettingsNow()->bHttpProxy &&
                       NamesThisMachine(pRequest->host);
    if (SessionFind(id, LoopNowMs(), &account)) {
        Take(&visitor, account, AskKept(account, account.program));
        visitor.session = id;
        if (visitor.who == WebWho::Wrong) {  // the password has changed, or the account is gone
            SessionClose(id);
            visitor.who = WebWho::Nobody;
        }
        return visitor;
    }
    int bMachine = visitor.bMachine;
    if (BasicRead(pRequest->authorization, &account.name, &account.password)) {
        account.program = ProgramAsked(pRequest->path + "?" + pRequest->query);
        visitor = VisitorLogin(pRequest, account, 0);
        visitor.bMachine = bMachine;
    }
    return visitor;
}

int MayWatch(const WebVisitor *pVisitor)
{
    return pVisitor->bOpen || pVisitor->who == WebWho::Known;
}

int MaySee(const WebVisitor *pVisitor, std::string_view program)
{
    if (pVisitor->bOpen || pVisitor->bSuper)
        return 1;
    return pVisitor->who == WebWho::Known && AskKept(pVisitor->account, std::string(program)).bMaySee;
}

int MaySeeSystem(const WebVisitor *pVisitor)
{
    if (pVisitor->who != WebWho::Known || pVisitor->bOpen)
        return pVisitor->bSuper;
    return pVisitor->bSuper || (pVisitor->bAll && !pVisitor->bAnonymous);
}

int GrantHolds(const WebGrant &grant)
{
    WebAccount account;
    WebVisitor visitor = VisitorNobody();
    if (!grant.session.empty() && !SessionFind(grant.session, LoopNowMs(), &account))
        return 0;
    if (visitor.bOpen)
        return 1;
    AccessAnswer answer = AskKept(grant.account, grant.program);
    return answer.who == WebWho::Away || answer.bMaySee;
}

int IsFront(const NetAddr *pPeer, const NetAddr *pOwn)
{
    auto pSettings = WebSettingsNow();
    // from what address the web port comes: the one it goes to, or the loopback net's own
    int bWebPort = AddrSameHost(pPeer, pOwn) ||
                   (!AddrIsIpv6(pPeer) && ntohl(pPeer->in4.sin_addr.s_addr) == INADDR_LOOPBACK);
    return AddrListHas(&pSettings->proxyFrom, pPeer) && !(pSettings->bHttpProxy && bWebPort);
}

int IsOwnPost(const WebRequest *pRequest)
{
    if (!pRequest->fetchSite.empty() && pRequest->fetchSite != "same-origin" && pRequest->fetchSite != "none")
        return 0;
    const std::string &from = pRequest->origin.empty() ? pRequest->referer : pRequest->origin;
    return from.empty() || OriginIsHost(from, pRequest->host);
}

int IsOverTls(const WebRequest *pRequest)
{
    return (pRequest->origin.starts_with("https://") && OriginIsHost(pRequest->origin, pRequest->host)) ||
           pRequest->forwardedProto == "https";
}

}  // namespace orx
