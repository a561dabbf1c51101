// What the server says on a connection: one table of status lines, and one builder for replies and for the
// requests that go to pushers. Changing a text is changing its row in replies.cpp, and docs/protocol.md: the
// other side may compare it. Scheduler thread only.
#pragma once

#include <cstddef>

#include "base/datablock.h"
#include "base/textbuf.h"
#include "server/core/session.h"

namespace orx {

enum Status {
    STATUS_OK,
    STATUS_NO_RECORD_SPACE,
    STATUS_BAD_REQUEST,
    STATUS_NO_SDP,
    STATUS_NO_TRACK,
    STATUS_SAME_CONTROL,
    STATUS_NO_CSEQ,
    STATUS_NO_CAMCONTROL,
    STATUS_NO_PUTVOICE,
    STATUS_NO_INFO_TYPE,
    STATUS_NO_GETCAMCFG,
    STATUS_NO_PUTCAMCFG,
    STATUS_NO_RESPOND,
    STATUS_NO_GUID,
    STATUS_NO_RECORDEX,
    STATUS_NO_PARAM,
    STATUS_UNAUTHORIZED,
    STATUS_FORBIDDEN,
    STATUS_NOT_FOUND,
    STATUS_NOT_ALLOWED,
    STATUS_NO_SESSION,
    STATUS_WRONG_STATE,
    STATUS_OTHER_TRANSPORT,
    STATUS_NO_TRANSPORT,
    STATUS_NOT_IMPLEMENTED,
    STATUS_FAILED,
    STATUS_NO_COMMANDS,
    STATUS_DUPLICATE,
    STATUS_NO_OPTION,
    STATUS_CAMCFG,
    STATUS_NO_CAMCFG,
    HTTP_OK,
    HTTP_NO_COOKIE,
    HTTP_MISMATCH,
    HTTP_FAILED,
};

// A reply or request under construction. Lines stand in the order in which they are added; those of one's own
// (each with its "\r\n") go straight into the text.
struct Message {
    Session *pSession;             // of the peer; null is allowed until a line is added
    Port *pPort;                   // that the request came on; of a request to a pusher null until it is sent
    char sz[kMaxHeadBytes + 256];  // a header block that is passed on, and lines around it
    TextBuf text{sz, sizeof(sz)};
    uint32_t nAsker = 0;  // of a player's question to a pusher: the handle of who asks
    Message(Session *pForSession, Port *pByPort) : pSession(pForSession), pPort(pByPort) {}
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
};

// Begins a reply: the status line, "Server" and "CSeq", as its row has them. The number is the session's,
// which is used up by it; ReplyBeginNumbered is given one.
void ReplyBegin(Message *pReply, Status eStatus);
void ReplyBeginNumbered(Message *pReply, Status eStatus, uint32_t nCSeq);
// The same with a status text that a pusher chose.
void ReplyBeginText(Message *pReply, const char *szStatus);
// The same with the status and the number that are given.
void ReplyBeginStatus(Message *pReply, int nStatus, const char *szReason, uint32_t nCSeq);
// Begins a request to the session's peer, numbered by the session. RequestSend ends the header block, adds
// the body and sends it, which uses the number up; it is not sent when all of it is more than nMost bytes.
// Returns 1 when it was sent, 0 when it is too long, -1 when the peer cannot be reached: its session is to
// end.
void RequestBegin(Message *pRequest, const char *szMethod);
int RequestSend(Message *pRequest, const void *pBody, size_t nBody, size_t nMost);

// Further lines that many replies have.
void MessageNoCache(Message *pMessage);
// Standard players are told after which silence they may be closed, which is sure behind twice that.
constexpr uint32_t kSessionSeconds = 60;
void MessageSession(Message *pMessage);
void MessageDate(Message *pMessage);

// Ends the header block and sends it, with an optional body behind it, before a place of the queue or
// (kQueueEnd) behind what must not be overtaken. Returns Keep, or End when it did not fit or could not be
// sent.
Verdict MessageSend(Message *pMessage);
Verdict MessageSendBody(Message *pMessage, const void *pBody, size_t nBody);
Verdict MessageSendBefore(Message *pMessage, uint32_t nBefore);

// Replies that are nothing but a status. ReplyStatus has the two cache lines, as the methods of players and
// pushers answer; ReplyDated the date as well; ReplyShort neither, as the extension methods answer. Results
// of MessageSend.
Verdict ReplyStatus(Session *pSession, Port *pPort, Status eStatus);
Verdict ReplyDated(Session *pSession, Port *pPort, Status eStatus);
Verdict ReplyShort(Session *pSession, Port *pPort, Status eStatus);

// A refusal after which the session ends.
inline Verdict Refuse(Session *pSession, Port *pPort, Status eStatus)
{
    ReplyStatus(pSession, pPort, eStatus);
    return Verdict::End;
}
// What does not fit the state: standard peers go on from where they are.
Verdict RefuseState(Session *pSession, Port *pPort);
// The same after a peer assertion that failed and was survived.
inline Verdict RefuseFault(Session *pSession, Port *pPort)
{
    ReplyShort(pSession, pPort, STATUS_BAD_REQUEST);
    return Verdict::End;
}

}  // namespace orx
