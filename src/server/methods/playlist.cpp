#include "server/methods/playlist.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/assertion.h"
#include "base/console.h"
#include "base/textbuf.h"
#include "record/sdpreader.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/media/replies.h"
#include "server/media/send.h"
#include "server/methods/credentials.h"

namespace orx {

static constexpr size_t kListSize = 4096;  // of the whole answer
static constexpr size_t kListFull = 3904;  // no program is added from here on: room for the line of one more

struct PictureSize {
    int nWidth = 0;
    int nHeight = 0;
};

// As it is listed: of a clip rectangle the height first.
static PictureSize ReadPictureSize(const char *szSdp)
{
    PictureSize size;
    int numbers[4] = {};
    switch (SdpReadFrameSize(szSdp, 1, &size.nWidth, &size.nHeight)) {
        case SDP_SIZE_NONE:
            SdpReadClipRect(szSdp, numbers);
            return {numbers[2], numbers[3]};
        case SDP_SIZE_NO_WIDTH:
            print("bad SDP: invalid frame size line\n");
            break;
        case SDP_SIZE_NO_HEIGHT:
            print("bad SDP: invalid frame size line(no height)\n");
            break;
        case SDP_SIZE_GOOD:
            break;
    }
    return size;
}

// Larger than a screen whose size is known.
static int IsTooLarge(PictureSize size, PictureSize screen)
{
    return screen.nWidth && screen.nHeight &&
           int64_t{size.nWidth} * size.nHeight > int64_t{screen.nWidth} * screen.nHeight;
}

static void AddProgram(TextBuf *pText, const Program *pProg, const Account *pAccount, PictureSize screen)
{
    if (!MaySeeProgram(pAccount, pProg->Uri))
        return;
    PictureSize size = ReadPictureSize(ProgramSdp(pProg));
    if (IsTooLarge(size, screen))
        return;
    char szNick[128];
    ProgramNames(pProg, nullptr, 0, szNick, sizeof(szNick));
    TextAdd(pText, "%dx%d|%s|%s\r\n", size.nWidth, size.nHeight, szNick, pProg->Uri);
}

// The text of the list, ended by an empty line. Returns its length.
static size_t WriteList(char *szList, const Account *pAccount, PictureSize screen)
{
    time_t now = time(nullptr);
    struct tm t {};
    localtime_r(&now, &t);
    TextBuf text{szList, kListSize - 2};  // the empty line always fits
    TextAdd(&text, "PlayList:%4d%02d%02d-%02d%02d\r\n", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
            t.tm_min);
    for (const Program *pProg = FirstProgram(); pProg && text.nLen < kListFull; pProg = NextProgram(pProg)) {
        if (pProg->bLive && ProgramLives(pProg))
            AddProgram(&text, pProg, pAccount, screen);
    }
    memcpy(szList + text.nLen, "\r\n", 3);
    return text.nLen + 2;
}

// Part of the protocol: numbered 1, whatever the request's number is; standard players look for theirs.
static Verdict ReplyUnauthorized(Session *pSession, Port *pPort)
{
    Message reply(pSession, pPort);
    ReplyBeginNumbered(&reply, STATUS_UNAUTHORIZED, pSession->standards.bPlayers ? pSession->nCSeq : 1);
    return MessageSend(&reply);
}

// StrictRoles: at the program that is held the user has the level that its accounts give to the same
// password.
static void LendLevel(Session *pSession, const CheckedUser *pUser)
{
    CheckedUser there = *pUser;
    AccountPlace place = PlaceOf(pSession->pProg);
    if (AccountsFind(&place, pUser->szUser, &there.account) > 0 &&
        strcmp(there.account.szPassword, pUser->account.szPassword) == 0)
        ViewerSet(pSession, &there);
}

Verdict HandleGetPlayList(Session *pSession, Port *pPort, Request *pRequest)
{
    CredentialCheck check{pSession, pPort, pRequest, nullptr};
    CheckedUser user;
    Credential eResult = CheckUserToken(&check, &user);
    if (eResult == CREDENTIAL_WAITS)
        return Verdict::Later;
    if (!ORX_PEER_ASSERT(eResult != CREDENTIAL_NO_FILE, "pProfile"))
        return RefuseFault(pSession, pPort);
    if (eResult != CREDENTIAL_RIGHT)
        return ReplyUnauthorized(pSession, pPort);
    if (!g_settings.bStrictRoles || !pSession->pProg)
        ViewerSet(pSession, &user);
    else if (pSession->viewer.bAdmitted)
        LendLevel(pSession, &user);
    PictureSize screen;
    const char *szScreen = RequestHeaderValue(pRequest, "Screen-Size");
    if (szScreen && sscanf(szScreen, "%9dx%9d", &screen.nWidth, &screen.nHeight) != 2)
        screen = PictureSize();
    char szList[kListSize];
    size_t nLen = WriteList(szList, &user.account, screen);
    return KeepIf(SendReply(pSession, pPort, szList, nLen));
}

}  // namespace orx
