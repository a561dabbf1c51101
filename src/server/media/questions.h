// What players ask the camera behind a program: requests that are forwarded to its pusher and end with its
// RESPOND, with who asked, or after half a minute. How many may wait is counted for each asker, so that
// nobody fills the pusher's queue, or another's share of it. Scheduler thread only.
#pragma once

#include <cstddef>

#include "server/core/session.h"
#include "server/media/replies.h"

namespace orx {

constexpr uint32_t kQuestionsWaiting = 16;           // of one asker, not yet written to the pusher
constexpr size_t kQuestionBytesWaiting = 32 * 1024;  // the same
constexpr uint32_t kQuestionsWritten = 64;  // of one asker, not yet answered: older ones are forgotten
constexpr uint32_t kQuestionMs = 30000;

enum class Asked {
    Sent,
    Refused,     // it is longer than nMost bytes, or too much of this asker waits
    PusherGone,  // the pusher cannot be reached: its session is to end
};

// Sends a request to a pusher that is complete but for its body, as a question of pAsker, who is attached to
// its program.
Asked QuestionSend(Message *pQuestion, Session *pAsker, const void *pBody, size_t nBody, size_t nMost);

// [INTEROP] StandardPushers: only pushers that know requests of the server get any. They show it by a data
// track, by "Supported: orx.sleep" in their ANNOUNCE, by RESPOND, or by PUTCAMCFG; standard encoders do none
// of that, answer with an error, and some hang up. Without the key all are taken to know.
int PusherKnows(const Program *pProg);
// Notes that the session has shown it, if it feeds its program.
void PusherShows(const Session *pSession);

// Notes a request that is about to go to a pusher, numbered by its session; pAsker is null for one of the
// server's own. Does nothing without StandardPushers.
void PusherAsked(const Session *pPusher, const Session *pAsker);
// Takes the question that a status line of a pusher answers: that of its number, or, where it has none (null
// pCSeq), the oldest. Returns the asker with the number of its request; null when it has gone, when the
// server itself had asked, and when nothing was.
Session *PusherAnswered(const Session *pPusher, const uint32_t *pCSeq, uint32_t *pAskerCSeq);
// A pusher has answered an asker by RESPOND: its oldest question is over.
void PusherResponded(const Session *pPusher, const Session *pAsker);

// Whether a question of the session is open; forgets those that were not answered in time.
int QuestionIsOpen(Session *pAsker);

// Ends the oldest question of the session, if there is one: it was answered.
void QuestionAnswered(Session *pAsker);

}  // namespace orx
