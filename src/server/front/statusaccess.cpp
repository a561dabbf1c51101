#include "server/front/statusaccess.h"

#include <strings.h>
#include <unistd.h>

#include <cstring>

#include "base/eventlog.h"
#include "base/httphead.h"
#include "base/textbuf.h"
#include "record/storage.h"
#include "server/front/statusfacts.h"
#include "server/methods/access.h"
#include "server/methods/accountfile.h"
#include "server/methods/auth.h"

namespace orx {

constexpr size_t kNameSize = 64;  // as much of a name as a player's counts
constexpr size_t kFieldSize = 1024;

struct AccessForm {
    char szUser[kNameSize];
    char szPassword[kFieldSize];
    char szPath[kStoragePathSize];
    AccessQuestion question;
    AccessAnswer answer;
    int bReady;
};

static void AskThere(void *pContext)
{
    auto *p = static_cast<AccessForm *>(pContext);
    p->bReady = AccessAsk(&p->question, &p->answer);
}

// Reads the form. Returns 1, or 0 for a path that is none. A name or password that is too long is wrong.
static int ReadForm(std::string_view form, AccessForm *p)
{
    char szName[kFieldSize], szProgram[kStoragePathSize - 1];
    int nName = HttpQueryValue(form, "name", szName, sizeof(szName));
    int nPassword = HttpQueryValue(form, "password", p->szPassword, sizeof(p->szPassword));
    int nProgram = HttpQueryValue(form, "program", szProgram, sizeof(szProgram));
    if (nProgram < 0)
        return 0;
    TextCopy(p->szUser, sizeof(p->szUser), szName);
    TextBuf path{p->szPath, sizeof(p->szPath)};
    TextAdd(&path, szProgram[0] == '/' ? "%s" : "/%s", szProgram);
    p->question = {p->szUser, nName < 0 || nPassword < 0 ? nullptr : p->szPassword,
                   nProgram > 0 && szProgram[0] ? p->szPath : nullptr};
    return 1;
}

static const char *LevelName(const AccessAnswer *p)
{
    if (!p->bKnown)
        return "none";
    if (p->account.bSuper)
        return "super";
    return p->account.nLevel < 2 ? "control" : "viewer";
}

// The names of a list of programs, without their first '/'.
static void WriteNames(JsonText *pOut, std::string_view list)
{
    while (!list.empty()) {
        std::string_view name = list.substr(0, list.find_first_of(" \t,;|"));
        list.remove_prefix(name.size() + (name.size() < list.size()));
        if (name.starts_with('/'))
            name.remove_prefix(1);
        if (!name.empty())
            JsonString(pOut, nullptr, name);
    }
}

// What may be seen: everything, what the account's list names, or the path that was asked for.
static void WritePrograms(JsonText *pOut, const AccessForm *pForm)
{
    const AccessAnswer *p = &pForm->answer;
    JsonOpenList(pOut, "programs");
    if (p->bKnown && p->bHere)
        JsonString(pOut, nullptr, pForm->szPath + 1);
    else if (p->bKnown && p->bAll)
        JsonString(pOut, nullptr, "*");
    else if (p->bKnown)
        WriteNames(pOut, p->account.szDevices);
    JsonClose(pOut);
}

static void WriteAnswer(JsonText *pOut, const AccessForm *pForm)
{
    const AccessAnswer *p = &pForm->answer;
    char szAuth[16];
    TextCopy(szAuth, sizeof(szAuth), AuthSchemeName(p->nAuthType));
    szAuth[0] = static_cast<char>(szAuth[0] | 0x20);  // as a word of a list
    JsonOpen(pOut, nullptr);
    JsonString(pOut, "auth", szAuth);
    JsonString(pOut, "level", LevelName(p));
    if (p->bKnown)
        JsonNumber(pOut, "user_level", p->account.nLevel);
    else
        JsonNull(pOut, "user_level");
    JsonBool(pOut, "anonymous", p->bKnown && (p->bOpen || p->account.bAnonymous));
    JsonBool(pOut, "super_user_exists", p->bSuperUser);
    WritePrograms(pOut, pForm);
    if (pForm->question.szPath)
        JsonBool(pOut, "may_see", p->bMaySee);
    JsonClose(pOut);
    JsonAddBytes(pOut, "\n");
}

// Never the password. Who shows nothing is asked for it, and has not failed.
static void SayWrong(const AccessForm *p)
{
    if (p->answer.bKnown || (!p->szUser[0] && !p->szPassword[0]))
        return;
    EventSayBounded(EventLevel::Warn, "auth.failed",
                    {EventText("peer", "status"), EventText("user", p->szUser), EventText("method", "ACCESS"),
                     EventText("path", p->question.szPath ? p->question.szPath : "")});
}

int StatusWriteAccess(JsonText *pOut, std::string_view form)
{
    AccessForm access;
    if (!ReadForm(form, &access))
        return 0;
    for (;;) {
        StatusRunThere(AskThere, &access);
        if (access.bReady)
            break;
        usleep(kAccountFileMs * 1000);
    }
    SayWrong(&access);
    WriteAnswer(pOut, &access);
    explicit_bzero(access.szPassword, sizeof(access.szPassword));
    return 1;
}

}  // namespace orx
