#include "server/front/reload.h"

namespace orx {

void ReloadAsk(ReloadDone pfnDone, void *pContext)
{
    const ReloadResult result{0, "not built yet", ""};
    if (pfnDone)
        pfnDone(pContext, &result);
}

time_t ReloadTime()
{
    return 0;
}

}  // namespace orx
