#include "bridge/cgipush.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "base/fdguard.h"
#include "base/printable.h"
#include "base/textbuf.h"

namespace orx {

// The camera process makes its key of its own program and this letter.
static constexpr char kKeyPath[] = "/opt/app/bin/pusher";
static constexpr int kKeyProject = 'a';
static constexpr int kQueueMode = 0666;       // the camera process may be another user's
static constexpr useconds_t kPollUs = 50000;  // a message queue cannot be waited for with a time limit
static constexpr size_t kMaxAnswerBytes = kCameraTextSize;
static constexpr char kMemPrefix[] = "inmem:";
static constexpr size_t kMemPrefixLen = sizeof(kMemPrefix) - 1;

static int g_nQueue = -1;  // -1 while no queue is open; scheduler thread

// ---------------------------------------------------------------- the queue

static const char *OpenErrorName(int nErrno)
{
    static const struct {
        int nErrno;
        const char *szName;
    } names[] = {
        {ENOENT, "ENOENT"}, {ENOMEM, "ENOMEM"}, {EACCES, "EACCES"}, {EEXIST, "EEXIST"}, {ENOSPC, "ENOSPC"},
    };
    for (const auto &name : names)
        if (name.nErrno == nErrno)
            return name.szName;
    return "Unknown error";
}

int CgiPushOpen(int bCreate)
{
    g_nQueue = -1;
    key_t nKey = ftok(kKeyPath, kKeyProject);
    if (nKey == -1) {
        print("Creat Key for MsgQueue Error:%s\n", strerror(errno));
        return -1;
    }
    g_nQueue = msgget(nKey, kQueueMode | (bCreate ? IPC_CREAT : 0));
    if (g_nQueue == -1)
        print("Creat MessageQ(key=%d) errno=%d(%s)!\r\n", nKey, errno, OpenErrorName(errno));
    else
        print("MsgQueueId(key=%d) = %d\r\n", nKey, g_nQueue);
    return g_nQueue;
}

void CgiPushClose()
{
    g_nQueue = -1;
}

static const char *TextOr(const char *szText, const char *szDefault)
{
    return szText && szText[0] ? szText : szDefault;
}

static int SendMsg(CameraMsg *pMsg)
{
    pMsg->nType = kCameraMsgType;
    pMsg->nSender = getpid();
    int nResult = msgsnd(g_nQueue, pMsg, kCameraMsgBytes, IPC_NOWAIT);
    print("msgsnd(%s) = %d\r\n", PrintableDump(pMsg->text).sz, nResult);
    return nResult;
}

int CgiPushControl(const char *szAction, const char *szParam, const char *szStream)
{
    CameraMsg msg;
    TextBuf text{msg.text, sizeof(msg.text)};
    if (g_nQueue == -1 || !TextAdd(&text, "CAMCONTROL %s\r\nCamAction: %s\r\nActionParam: %s\r\n\r\n",
                                   TextOr(szStream, "vdr_cif.sdp"), szAction, TextOr(szParam, "none")))
        return -1;
    return SendMsg(&msg);
}

int CgiPushRequest(const char *szType, const char *szStream)
{
    CameraMsg msg;
    TextBuf text{msg.text, sizeof(msg.text)};
    if (g_nQueue == -1 ||
        !TextAdd(&text, "GETCAMINFO %s\r\nGetInfoType: %s\r\n\r\n", TextOr(szStream, "0.sdp"), szType))
        return -1;
    return SendMsg(&msg);
}

// Milliseconds between two times of day. Seconds that went back abort.
static int ElapsedMs(const timeval &tvBegin, const timeval &tvNow)
{
    ORX_ASSERT(tvNow.tv_sec >= tvBegin.tv_sec, "tvNow.tv_sec >= tvBegin.tv_sec");
    auto nSeconds = tvNow.tv_sec - tvBegin.tv_sec;
    auto nMicros = tvNow.tv_usec - tvBegin.tv_usec;
    if (nMicros < 0) {
        nSeconds--;
        nMicros += 1000000;
    }
    return int(nSeconds * 1000 + nMicros / 1000);
}

// Takes the oldest answer to this process. Returns the bytes received or -1.
static int TakeAnswer(CameraMsg *pMsg)
{
    return int(msgrcv(g_nQueue, pMsg, kCameraMsgBytes, getpid(), IPC_NOWAIT));
}

// The text ends at its NUL or with its field, whatever the sender put there.
static void CopyAnswer(const CameraMsg *pMsg, char *szOut, size_t nSize)
{
    size_t nLen = strnlen(pMsg->text, sizeof(pMsg->text));
    size_t nCopied = std::min(nLen, nSize);
    memcpy(szOut, pMsg->text, nCopied);
    memset(szOut + nCopied, 0, nSize - nCopied);
    print("RecvReplyMsg=%.*s", int(nLen), pMsg->text);
}

int WaitReplyMsg(int nTimeoutMs, char *szOut, size_t nSize)
{
    if (g_nQueue == -1)
        return -1;
    timeval tvBegin{}, tvNow{};
    gettimeofday(&tvBegin, nullptr);
    CameraMsg msg;
    int nReceived;
    while ((nReceived = TakeAnswer(&msg)) < 0) {
        usleep(kPollUs);
        gettimeofday(&tvNow, nullptr);
        if (ElapsedMs(tvBegin, tvNow) > nTimeoutMs)
            return -1;
    }
    CopyAnswer(&msg, szOut, nSize);
    return nReceived;
}

// ---------------------------------------------------------------- the actions

static int RunAction(const CgiAction *pAction, const char *szParam, char *szAnswer, size_t nSize)
{
    int nResult =
        pAction->nFlags & CGI_REQUEST
            ? CgiPushRequest(pAction->szName, nullptr)
            : CgiPushControl(pAction->szName, pAction->nFlags & CGI_PARAM ? szParam : nullptr, nullptr);
    if (nResult != 0)
        return -1;
    if (pAction->nWaitMs == 0)
        return 0;
    char unused[kMaxAnswerBytes];
    if (pAction->nFlags & CGI_ANSWER && szAnswer)
        WaitReplyMsg(pAction->nWaitMs, szAnswer, nSize);
    else
        WaitReplyMsg(pAction->nWaitMs, unused, std::min(sizeof(unused), pAction->nAnswerBytes));
    return 0;
}

int CgiPushAction(const char *szAction, const char *szParam, char *szAnswer, size_t nSize)
{
    for (const CgiAction &action : kCgiActions)
        if (strcmp(action.szName, szAction) == 0)
            return RunAction(&action, szParam, szAnswer, nSize);
    return -1;
}

// ---------------------------------------------------------------- the configuration reader

// Counts what is left of a file that cannot tell its size.
static long CountBytes(FILE *pFile, const char *szPath)
{
    print("fseek(%s) failed!\n", szPath);
    char chunk[1024];
    size_t nCount = 0, nRead;
    while ((nRead = fread(chunk, 1, sizeof(chunk), pFile)) > 0)
        nCount += nRead;
    print("The size of File(%s) is %dBytes\n", szPath, int(nCount));
    return long(nCount);
}

// The size of an open file, which is left at its beginning.
static long FileSize(FILE *pFile, const char *szPath)
{
    long nSize = fseek(pFile, 0, SEEK_END) == 0 ? ftell(pFile) : CountBytes(pFile, szPath);
    rewind(pFile);
    return nSize;
}

// Room for a content behind the prefix. A directory claims to be larger than any file.
static char *MakeContent(size_t nSize, const char *szPath)
{
    size_t nBytes = nSize + kMemPrefixLen;
    char *pContent = nBytes > INT_MAX ? nullptr : static_cast<char *>(calloc(1, nBytes));
    if (pContent)
        memcpy(pContent, kMemPrefix, kMemPrefixLen);
    else
        print("malloc(%zu) failed in GetCfgFileContent(%s)!\n", nBytes + 1, szPath);
    return pContent;
}

char *GetCfgFileContent(const char *szPath, size_t *pnSize)
{
    FileGuard file(fopen(szPath, "rbe"));
    if (!file) {
        print("fopen(%s) failed!\n", szPath);
        return nullptr;
    }
    long nSize = FileSize(file.get(), szPath);
    char *pContent = nSize > 0 ? MakeContent(size_t(nSize), szPath) : nullptr;
    if (!pContent)
        return nullptr;
    if (fread(pContent + kMemPrefixLen, 1, size_t(nSize), file.get()) != size_t(nSize)) {
        free(pContent);
        return nullptr;
    }
    *pnSize = size_t(nSize) + kMemPrefixLen;
    return pContent;
}

}  // namespace orx
