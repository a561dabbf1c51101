// What follows from the settings elsewhere: lists that are parsed, switches of other modules, timers.
#pragma once

#include "net/addrlist.h"
#include "server/core/settings.h"

namespace orx {

// The address lists among the settings.
struct SettingLists {
    AddrList announceFrom, proxyFrom;
};

// Parses them; what is wrong is printed. A list that was cut loses its last entry. IPv6 entries count with
// StandardPlayers, and where the server listens on an IPv6 address. Main thread, or that which reads anew.
void ListsParse(SettingLists *pLists, Settings *pSettings);

// Puts the lists, and the switches of modules below the server, in force by g_settings. When the server
// starts, and by FollowSettings.
void FollowLists(const SettingLists *pLists);

// g_settings were read anew: whoever keeps something of them takes it over. Scheduler thread.
void FollowSettings(const SettingLists *pLists);

}  // namespace orx
