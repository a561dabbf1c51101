// Camera configurations: whatever the text, what a viewer is shown holds no account but the viewer's own.
#include "server/methods/camcfg.h"

#include <cstdlib>

#include "base/inifile.h"
#include "base/textnumber.h"
#include "fuzz/fuzz.h"

using namespace orx;

// The value that account look-ups would find in a text, or "-".
static std::string ValueIn(const char *szText, const std::string &key)
{
    char value[128] = "";
    Profile view;
    view.text = const_cast<char *>(szText);
    int bFound = ProfileGetStr("USERS", key.c_str(), value, sizeof(value), "", &view);
    view.text = nullptr;
    return bFound ? value : "-";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    const std::string text = Text(pData, nBytes);
    size_t nShown = 0;
    char *szShown = CamCfgFilter(text.c_str(), nBytes, "bob", &nShown);
    ORX_ASSERT(szShown && nShown <= nBytes && szShown[nShown] == '\0', "what is left of a text is no longer");
    ORX_ASSERT(ValueIn(szShown, "SuperUser") == "-" && ValueIn(szShown, "SuperPwd") == "-", "no super user");
    int nUsers = std::min(TextToInt(ValueIn(text.c_str(), "NumUsers").c_str()), 4);
    for (int i = 0; i < nUsers; i++) {
        std::string number = std::to_string(i);
        if (ValueIn(text.c_str(), "UserName" + number) != "bob")
            ORX_ASSERT(ValueIn(szShown, "UserPwd" + number) == "-", "no password of somebody else");
    }
    free(szShown);
    size_t nAccounts = 0;
    const char *pAccounts = CamCfgFindUsers(text.c_str(), nBytes, &nAccounts);
    ORX_ASSERT(!pAccounts || size_t(pAccounts - text.c_str()) + nAccounts < nBytes, "a section follows");
    return 0;
}
