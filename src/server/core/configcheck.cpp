#include "server/core/configcheck.h"

#include "base/inifile.h"
#include "base/textbuf.h"

namespace orx {

ConfigState ConfigCheck(const char *szPath, Settings *pTaken, DoubtList *pDoubts)
{
    Profile none;
    char szNothing[] = "";
    Profile *pText = ProfileInit(szPath);
    none.text = szNothing;
    TextCopy(none.path, sizeof(none.path), szPath);
    if (!pText)
        DoubtAdd(pDoubts, 1, "the configuration is missing or empty");
    int bStarts = SettingsReadText(pTaken, pText ? pText : &none);
    ConfigState eState = !bStarts ? ConfigState::Fails : pText ? ConfigState::Good : ConfigState::Missing;
    ProfileFree(pText);
    return eState;
}

}  // namespace orx
