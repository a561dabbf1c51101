// A connection that nothing waits for: the name is looked up by a thread of its own, connecting, the
// handshake of TLS, reading and writing go on as the descriptor allows. The loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/uio.h>

#include "base/netaddr.h"
#include "shared/loop.h"

namespace orx {

enum class LinkFault {
    None,
    Name,     // the name is not known, or no name server answered
    Refused,  // nobody listens there
    Route,    // no way there, or no answer
    Tls,      // the handshake failed, or the certificate is not the one that was pinned
    Closed,   // the peer ended it
    Lost,     // it broke
    Full,     // more waits to be sent than LinkTarget allows
};
const char *LinkFaultText(LinkFault fault);  // a word or two, for messages

struct LinkTarget {
    std::string host;  // a name or an address; of IPv6 without brackets
    int nPort = 0;
    int bTls = 0;
    std::string pinFile;     // with bTls: certificates by "host:port", pinned on first use; empty: none are
    int nTimeoutMs = 10000;  // from the look-up to the end of the handshake
    size_t nMostQueued = 4 << 20;  // bytes that may wait to be sent
};

struct LinkProcs {
    void (*pfnOpen)(void *pUser);  // it stands
    // What was received; it is gone afterwards. The link may be closed here.
    void (*pfnBytes)(void *pUser, const uint8_t *pData, size_t nBytes);
    void (*pfnDrained)(void *pUser);  // may be null: nothing waits to be sent any more
    // It has ended; szWhy names host, errno text or TLS error in one line, never a password. Once, the last
    // call; the link is to be closed there or later.
    void (*pfnEnded)(void *pUser, LinkFault fault, const char *szWhy);
};

struct Link;

// Begins to connect. Returns the link, or null without memory (nothing is called then). pfnEnded never comes
// from inside of this call.
Link *LinkOpen(Loop *pLoop, const LinkTarget *pTarget, const LinkProcs *pProcs, void *pUser);
// Gives it up: what waits is not sent, nothing is called any more. Ignores null.
void LinkClose(Link *pLink);
// Ends it in good order: what waits is sent first, for at most a second; nothing is called any more.
void LinkFinish(Link *pLink);
// How many links of this thread are taking leave that way: a program that ends runs its loop until there is
// none.
int LinksLeaving();

// Sends the pieces, as far as the peer takes them at once; the rest waits, and so does all of it until the
// link stands. Returns 1, or 0 where nMostQueued would be passed: then none of it is sent. Errors come
// through pfnEnded, not from inside of this call.
int LinkSend(Link *pLink, const iovec *pPieces, int nPieces);
int LinkSendText(Link *pLink, const std::string &text);
size_t LinkQueued(const Link *pLink);  // bytes that wait
// Both ends of a link that stands.
int LinkAddresses(const Link *pLink, NetAddr *pOwn, NetAddr *pPeer);
// "host:port", of an IPv6 address "[host]:port": as messages and the pin file have it. Any thread.
std::string LinkPeerName(const std::string &host, int nPort);

}  // namespace orx
