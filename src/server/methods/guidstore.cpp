#include "server/methods/guidstore.h"

#include <sys/stat.h>

#include <cstring>

#include "base/filewrite.h"
#include "base/inifile.h"
#include "base/textbuf.h"

namespace orx {

static constexpr char kSection[] = "GUID";
static constexpr char kCounter[] = "MaxRegisterId";

int GuidIsUsable(const char *szGuid)
{
    size_t nLen = strlen(szGuid);
    if (nLen == 0 || nLen > kMaxGuid || strcmp(szGuid, kCounter) == 0 || szGuid[0] == ';')
        return 0;
    for (const char *p = szGuid; *p; p++)
        if (static_cast<unsigned char>(*p) < ' ' || static_cast<unsigned char>(*p) > '~' || strchr("=[]", *p))
            return 0;
    return 1;
}

int GuidStoreNextId(const char *szPath)
{
    constexpr int kFirstId = 1001;
    return read_profile_int(kSection, kCounter, kFirstId, szPath);
}

int GuidStoreFind(const char *szPath, const char *szGuid, char *szName, size_t nSize)
{
    return read_profile_string(kSection, szGuid, szName, static_cast<int>(nSize), "", szPath);
}

// A store that is there but cannot be read must not be taken for an empty one and written over.
static int IsMissingOrEmpty(const char *szPath)
{
    struct stat info {};
    return stat(szPath, &info) != 0 || info.st_size == 0;
}

// What the old text becomes with the name added and the counter set. The name goes first in its section: what
// stands there, whatever it is, does not come before it.
static void BuildStore(TextBuf *pText, const char *szOld, const char *szGuid, const char *szName, int nNextId)
{
    int nSecStart = 0, nSecBody = 0, nKeyStart = 0, nKeyEnd = 0, nValueStart = 0, nValueEnd = 0;
    if (parse_file(kSection, kCounter, szOld, &nSecStart, &nSecBody, &nKeyStart, &nKeyEnd, &nValueStart,
                   &nValueEnd)) {
        TextAddBytes(pText, szOld, static_cast<size_t>(nSecBody));
        TextAdd(pText, "%s=%s\n%.*s%d%s", szGuid, szName, nValueStart - nSecBody, szOld + nSecBody, nNextId,
                szOld + nValueEnd);
    } else if (nSecStart >= 0) {
        TextAddBytes(pText, szOld, static_cast<size_t>(nSecBody));
        TextAdd(pText, "%s=%s\n%s=%d\n%s", szGuid, szName, kCounter, nNextId, szOld + nSecBody);
    } else {
        TextAdd(pText, "%s%s[%s]\n%s=%s\n%s=%d\n", szOld, *szOld ? "\n" : "", kSection, szGuid, szName,
                kCounter, nNextId);
    }
}

// Whether a look-up in the new text gives what was put there.
static int HoldsBoth(const char *szText, const char *szGuid, const char *szName, int nNextId)
{
    Profile store;
    store.text = const_cast<char *>(szText);
    char name[128] = "";
    return ProfileGetStr(kSection, szGuid, name, sizeof(name), "", &store) && strcmp(name, szName) == 0 &&
           ProfileGetInt(kSection, kCounter, 0, &store) == nNextId;
}

int GuidStoreMake(const char *szPath, const char *szGuid, const char *szName, int nNextId,
                  GuidStoreText *pOut)
{
    char old[kProfileTextSize] = "";
    int nOld = 0;
    if (!load_ini_file(szPath, old, &nOld) && !IsMissingOrEmpty(szPath))
        return 0;
    TextBuf text{pOut->sz, sizeof(pOut->sz)};
    BuildStore(&text, old, szGuid, szName, nNextId);
    pOut->nLen = text.nLen;
    return !text.bFull && HoldsBoth(pOut->sz, szGuid, szName, nNextId);
}

int GuidStoreWrite(const char *szPath, const GuidStoreText *pText)
{
    return FileReplace(szPath, pText->sz, pText->nLen);
}

}  // namespace orx
