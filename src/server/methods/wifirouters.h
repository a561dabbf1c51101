// The scan of wireless networks that GETWIFIROUTERS asks for: on a thread of its own, one at a time. Whoever
// asks while one runs is answered by it. Scheduler thread, but for the end.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

enum class WifiResult { Running, Failed, Ready };

// The wireless networks that an interface sees. *pTicket is 0 for a new question, and names the scan that
// answers it from then on: Running says to ask again with it. Ready gives the list, which stays until the
// next call, and its length. A new question may be answered by a list that is younger than nFreshMs.
WifiResult WifiRoutersAsk(const char *szInterface, uint32_t nFreshMs, uint32_t *pTicket, const char **ppList,
                          size_t *pnList);

// Ends the scan that runs, if one does, and frees what is kept. When the server stops, behind the scheduler.
void WifiRoutersStop();

}  // namespace orx
