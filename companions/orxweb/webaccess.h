// Who a visitor is, and what he may see: accounts are the server's own, and it is asked at every look (its
// answers are kept for a few seconds). Wrong passwords slow down by name and by visitor. Waits for the
// server: workers' threads.
#pragma once

#include <string>
#include <string_view>

#include "orxweb/webrequest.h"
#include "orxweb/websessions.h"

namespace orx {

enum class WebWho {
    Nobody,   // shows no credentials
    Known,    // the server takes them
    Wrong,    // it does not
    TooMany,  // too many wrong ones before: nWaitSeconds
    Away,     // the server cannot be asked
};

struct WebVisitor {
    WebWho who = WebWho::Nobody;
    WebAccount account;
    std::string session;  // its id, where the cookie told
    int bMachine = 0;     // a program on this machine, which needs no login for machines' addresses
    int bSuper = 0;
    int bControls = 0;   // may control cameras
    int bAnonymous = 0;  // let in without an account
    int bAll = 0;        // sees every program
    int bOpen = 0;       // everybody may watch, without a login
    int nWaitSeconds = 0;
};

// The program that an address (its path and query) is about; empty: none.
std::string ProgramAsked(std::string_view target);

WebVisitor VisitorOf(const WebRequest *pRequest);
// A visitor without credentials.
WebVisitor VisitorNobody();
// Whether the server has a super user at all.
int HasSuperUser();
// Tries name and password. bAnew: what the server said a moment ago does not count.
WebVisitor VisitorLogin(const WebRequest *pRequest, const WebAccount &account, int bAnew);

int MayWatch(const WebVisitor *pVisitor);  // at all; what: MaySee
int MaySee(const WebVisitor *pVisitor, std::string_view program);
// The state of the server as a whole, which tells of all programs.
int MaySeeSystem(const WebVisitor *pVisitor);

// By what a visitor was given something that takes a while.
struct WebGrant {
    WebAccount account;
    std::string session;  // empty: not by a cookie
    std::string program;
};
// Asks once more. Returns 1, also when the server is away, or 0. Who still watches is not idle.
int GrantHolds(const WebGrant &grant);

// Whether a connection from pPeer to pOwn is that of a front whose header names the visitor. Strangers' bytes
// come as they are through the server's web port, and may look like such a header: its connections are none.
int IsFront(const NetAddr *pPeer, const NetAddr *pOwn);

// Whether a POST comes from a page of this site, as far as the browser tells.
int IsOwnPost(const WebRequest *pRequest);
// Whether the visitor's own connection is one over TLS.
int IsOverTls(const WebRequest *pRequest);

}  // namespace orx
