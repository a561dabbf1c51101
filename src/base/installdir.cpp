#include "base/installdir.h"

#include <cstring>

#include <unistd.h>

#include "base/textbuf.h"

namespace orx {

int InstallDir(char *szOut, size_t nSize)
{
    ssize_t n = readlink("/proc/self/exe", szOut, nSize - 1);
    if (n < 0)
        return 0;
    szOut[n] = '\0';
    for (int i = 0; i < 2; i++) {
        char *pSlash = strrchr(szOut, '/');
        if (pSlash)
            *pSlash = '\0';
    }
    return 1;
}

int InstallPath(char *szOut, size_t nSize, const char *szPath)
{
    if (szPath[0] == '/')
        return TextCopy(szOut, nSize, szPath);
    char szDir[256];
    TextBuf text{szOut, nSize};
    return InstallDir(szDir, sizeof(szDir)) && TextAdd(&text, "%s/%s", szDir, szPath);
}

}  // namespace orx
