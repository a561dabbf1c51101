#include "server/methods/recordex.h"

#include <cstring>

#include "base/textbuf.h"
#include "base/textnumber.h"
#include "server/core/settings.h"
#include "server/media/recordcontrol.h"
#include "server/media/replies.h"

namespace orx {

static const char *FindParameter(const char *szParams, const char *szName)
{
    const char *p = strstr(szParams, szName);
    return p ? p + strlen(szName) : nullptr;
}

static RecordOrder ReadOrder(const char *szParams)
{
    RecordOrder order;
    if (const char *p = FindParameter(szParams, "EventType="))
        order.nKind = TextToInt(p);
    if (const char *p = FindParameter(szParams, "LimitLen="))
        order.nLimitSeconds = TextToInt(p) > 0 ? TextToInt(p) : 0;
    if (const char *p = FindParameter(szParams, "FileName=")) {
        TextBuf text{order.szFile, sizeof(order.szFile)};
        size_t nName = strcspn(p, "&");
        order.bNamed = nName > 0;
        TextAddBytes(&text, p, nName);
    }
    return order;
}

static Verdict Start(Session *pSession, Port *pPort, const char *szParams)
{
    RecordOrder order = ReadOrder(szParams);
    switch (StartRecord(pSession, &order)) {
        case RecordStart::Runs:
            return ReplyShort(pSession, pPort, STATUS_OK);
        case RecordStart::NoSpace:
            return ReplyShort(pSession, pPort, STATUS_NO_RECORD_SPACE);
        case RecordStart::Waits:
            return Verdict::Later;
        case RecordStart::Fault:
            break;
    }
    return RefuseFault(pSession, pPort);
}

Verdict HandleRecordEx(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!g_settings.bRecord)
        return ReplyShort(pSession, pPort, STATUS_NOT_ALLOWED);
    if (!pSession->pProg)
        return ReplyShort(pSession, pPort, STATUS_NO_RECORDEX);
    const char *szParams = RequestHeaderValue(pRequest, "ActionParam");
    if (!szParams)
        return ReplyShort(pSession, pPort, STATUS_NO_PARAM);
    if (!strstr(szParams, "Cmd=stop"))
        return Start(pSession, pPort, szParams);
    return StopRecord(pSession) ? ReplyShort(pSession, pPort, STATUS_OK) : Verdict::Later;
}

}  // namespace orx
