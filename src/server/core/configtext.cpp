#include "server/core/configtext.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fdguard.h"
#include "base/textbuf.h"

namespace orx {

static constexpr char kBlanks[] = " \t\v\f";
static constexpr off_t kMostBytes = 64 * 1024 * 1024;

// Reads a file of nSize bytes. Returns its bytes and a NUL, from malloc, or null with errno.
static char *ReadWhole(int fd, size_t nSize, size_t *pnRead)
{
    auto *pBytes = static_cast<char *>(calloc(nSize + 1, 1));
    *pnRead = 0;
    while (pBytes && *pnRead < nSize) {
        ssize_t n = read(fd, pBytes + *pnRead, nSize - *pnRead);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            free(pBytes);
            return nullptr;
        }
        if (n == 0)
            break;
        *pnRead += static_cast<size_t>(n);
    }
    return pBytes;
}

// What is no regular file may be read only once, and is left to the start.
static char *LoadBytes(const char *szPath, size_t *pnBytes)
{
    FdGuard in{open(szPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat info {};
    if (in.fd < 0 || fstat(in.fd, &info) != 0)
        return nullptr;
    if (!S_ISREG(info.st_mode) || info.st_size > kMostBytes) {
        errno = S_ISDIR(info.st_mode) ? EISDIR : S_ISREG(info.st_mode) ? EFBIG : EINVAL;
        return nullptr;
    }
    return ReadWhole(in.fd, static_cast<size_t>(info.st_size), pnBytes);
}

// Ends the text where the store does: of a long one, which is read by its other face, only at a NUL.
static void CutText(ConfigText *pText)
{
    char *szText = pText->profile.text;
    char *pEnd = static_cast<char *>(memchr(szText, 0xFF, pText->nBytes));
    size_t nShort = pEnd ? static_cast<size_t>(pEnd - szText) : pText->nBytes;
    if (nShort < kProfileTextSize)
        szText[nShort] = '\0';
    else
        pText->bTooLong = !ProfileGetInt("GUARD", "SurvivePeerFaults", 0, &pText->profile);
    pText->profile.size = static_cast<uint32_t>(strlen(szText));
    pText->nHidden = pText->nBytes - pText->profile.size;
}

void ConfigTextLoad(ConfigText *pText, const char *szPath)
{
    *pText = ConfigText();
    if (!TextCopy(pText->profile.path, sizeof(pText->profile.path), szPath))
        errno = ENAMETOOLONG;
    else
        pText->profile.text = LoadBytes(szPath, &pText->nBytes);
    if (!pText->profile.text) {
        pText->nErrno = errno;
        pText->szMissing = errno == ENOENT ? "is missing" : "cannot be read";
        pText->profile.text = static_cast<char *>(calloc(1, 1));
        return;
    }
    CutText(pText);
    if (pText->profile.text[strspn(pText->profile.text, " \t\v\f\r\n")] == '\0')
        pText->szMissing = "is empty";
}

void ConfigTextFree(ConfigText *pText)
{
    free(pText->profile.text);
    *pText = ConfigText();
}

std::string_view ConfigTrim(std::string_view text)
{
    size_t nFirst = text.find_first_not_of(kBlanks);
    if (nFirst == std::string_view::npos)
        return text.substr(text.size());
    return text.substr(nFirst, text.find_last_not_of(kBlanks) + 1 - nFirst);
}

static unsigned LineOf(ConfigWalk *pWalk, const char *p)
{
    for (; pWalk->pCounted < p; pWalk->pCounted++) {
        const char *pAt = pWalk->pCounted;
        pWalk->nLine += *pAt == '\n' || (*pAt == '\r' && pAt[1] != '\n');
    }
    return pWalk->nLine;
}

static int IsAtLineStart(const ConfigWalk *pWalk)
{
    return pWalk->p == pWalk->szText || pWalk->p[-1] == '\n' || pWalk->p[-1] == '\r';
}

// The body of a section begins behind the next ']', wherever that is, and the white space behind it.
static void TakeHeader(ConfigWalk *pWalk, std::string_view line, ConfigLine *pLine)
{
    size_t nClose = line.find(']');
    pLine->eKind = nClose == std::string_view::npos ? ConfigLineKind::Open : ConfigLineKind::Section;
    pWalk->section = line.substr(1, pLine->eKind == ConfigLineKind::Open ? nClose : nClose - 1);
    pLine->section = pWalk->section;
    pLine->value = line;
    const char *p = pWalk->p + strcspn(pWalk->p, "]");
    if (*p)
        p++;
    while (isspace(static_cast<unsigned char>(*p)))
        p++;
    pWalk->p = p;
}

static int IsComment(std::string_view line)
{
    std::string_view text = ConfigTrim(line);
    return text.empty() || text[0] == ';' || text[0] == '#';
}

int ConfigWalkNext(ConfigWalk *pWalk, ConfigLine *pLine)
{
    while (*pWalk->p) {
        *pLine = ConfigLine();
        pLine->nLine = LineOf(pWalk, pWalk->p);
        std::string_view line(pWalk->p, strcspn(pWalk->p, "\r\n"));
        if (*pWalk->p == '[' && IsAtLineStart(pWalk)) {
            TakeHeader(pWalk, line, pLine);
            return 1;
        }
        pWalk->p += line.size() + (pWalk->p[line.size()] != '\0');
        if (IsComment(line))
            continue;
        size_t nEquals = line.find('=');
        int bKey = nEquals != std::string_view::npos;
        pLine->eKind = bKey ? ConfigLineKind::Key : ConfigLineKind::Stray;
        pLine->section = pWalk->section;
        pLine->key = line.substr(0, nEquals);
        pLine->value = bKey ? line.substr(nEquals + 1) : std::string_view();
        return 1;
    }
    return 0;
}

}  // namespace orx
