// What strangers do to the server: the list of attacks, each a short session of its own. All decisions come from
// the attack's dice; an attack returns at once and may leave lines open, which others look after.
#pragma once

#include <deque>
#include <functional>
#include <span>
#include <string>

#include "hostile/line.h"

namespace orx {

// What an attack is given. The rest of the world is none of its business.
struct Attack {
    Dice dice;
    std::string ip;  // where it comes from
    Ports ports;
    int nMediaPort = 0;            // the first of the server's range for media
    std::string recordings;        // the directory of recordings
    const Sock *pWebServer;        // a listening socket behind the web port
    std::function<void()> settle;  // returns when the server has seen what was sent
    std::deque<Line> *pLines;      // lines that stay open when the attack is over
    int nCSeq = 0;
};

struct AttackRow {
    const char *szName;
    unsigned nWeight;  // how often it is chosen
    const char *szWhat;
    void (*pfnRun)(Attack *pAttack);
};
std::span<const AttackRow> Attacks();

}  // namespace orx
