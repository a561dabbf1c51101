// Assertions, in two forms. Both stay on in every build.
//
// ORX_ASSERT states what our own code guarantees: when it fails, the text is printed on standard error with
// the place and the process aborts. ORX_PEER_ASSERT guards what the bytes of a peer or of a file can break:
// by default it aborts like the first; once AssertSurvivePeerFaults(1) was called it prints the text and
// gives 0, and the caller ends that request, session or recording.
//
// Any thread.
#pragma once

namespace orx {

// Prints "<file>:<line>: <function>: Assertion `<text>' failed." on standard error and aborts.
[[noreturn]] void AssertFailed(const char *szText, const char *szFunction, const char *szFile, int nLine);

// The failing half of ORX_PEER_ASSERT. Returns 0, or aborts while peer faults are fatal.
int PeerAssertFailed(const char *szText, const char *szFunction, const char *szFile, int nLine);

// Says whether a failed peer assertion ends only what the peer was doing (1) or the process (0, the default).
void AssertSurvivePeerFaults(int bSurvive);
int AssertPeerFaultsSurvived();

}  // namespace orx

// The text is a literal: what the preprocessor makes of a condition depends on spacing and macros.
#define ORX_ASSERT(cond, text) ((cond) ? (void)0 : ::orx::AssertFailed("" text, __func__, __FILE__, __LINE__))
#define ORX_PEER_ASSERT(cond, text) \
    ((cond) ? 1 : ::orx::PeerAssertFailed("" text, __func__, __FILE__, __LINE__))
