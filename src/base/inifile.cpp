#include "base/inifile.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <new>

#include <fcntl.h>
#include <unistd.h>

#include "base/assertion.h"
#include "base/console.h"
#include "base/fdguard.h"
#include "base/textbuf.h"

namespace orx {

static const char kInMemory[] = "inmem:";
constexpr size_t kInMemoryLen = sizeof(kInMemory) - 1;
constexpr size_t kIntTextSize = 32;  // numbers are read from at most 31 characters
constexpr int kEndByte = 0xFF;       // ends a file like its end does

// A section or key may be a name that a request carries, so that an empty one is the peer's fault.
static int SectionGiven(const char *section)
{
    return ORX_PEER_ASSERT(section && *section, "section != ((void *)0) && strlen(section)");
}

static int KeyGiven(const char *key)
{
    return ORX_PEER_ASSERT(key && *key, "key != ((void *)0) && strlen(key)");
}

static void AssertFileGiven(const char *file)
{
    ORX_ASSERT(file && *file, "file !=((void *)0) && strlen(file)");
}

static int IsEol(char c)
{
    return c == '\r' || c == '\n';
}

static int IsLineStart(const char *text, const char *p)
{
    return p == text || IsEol(p[-1]);
}

// What of a section header or a key line parse_file found, as indexes into the text; -1 what it did not find.
struct KeyPlace {
    int nSecStart, nSecBody, nKeyStart, nKeyEnd, nValueStart, nValueEnd;
};

static int FindKey(const char *section, const char *key, const char *text, KeyPlace *pPlace)
{
    return parse_file(section, key, text, &pPlace->nSecStart, &pPlace->nSecBody, &pPlace->nKeyStart,
                      &pPlace->nKeyEnd, &pPlace->nValueStart, &pPlace->nValueEnd);
}

// Files, read and written whole.

// Reads until the buffer is full or the file ends. Returns the number of bytes, or -1.
static ssize_t ReadUpTo(int fd, char *buf, size_t nSize)
{
    size_t nRead = 0;
    while (nRead < nSize) {
        ssize_t n = read(fd, buf + nRead, nSize - nRead);
        if (n == 0)
            break;
        if (n > 0)
            nRead += size_t(n);
        else if (errno != EINTR)
            return -1;
    }
    return ssize_t(nRead);
}

// The whole of a file and a NUL in a new block, zero where fewer than nSize (>0) bytes can be read. Null
// without memory.
static char *ReadFromStart(int fd, off_t nSize)
{
    auto *text = nSize < INT_MAX ? static_cast<char *>(calloc(size_t(nSize) + 1, 1)) : nullptr;
    if (text && lseek(fd, 0, SEEK_SET) == 0)
        ReadUpTo(fd, text, size_t(nSize));
    return text;
}

enum class LoadResult {
    Loaded,
    Missing,    // cannot be opened
    Unreadable  // is there, but longer than the buffer or not to be read; must not be written over
};

// As load_ini_file, but tells a file that is missing from one that only cannot be used.
static LoadResult LoadText(const char *file, char *buf, int *pLen)
{
    *pLen = 0;
    buf[0] = '\0';
    FdGuard in{open(file, O_RDONLY | O_CLOEXEC)};
    if (in.fd < 0)
        return LoadResult::Missing;
    ssize_t nRead = ReadUpTo(in.fd, buf, kProfileTextSize);
    const void *pEnd = nRead > 0 ? memchr(buf, kEndByte, size_t(nRead)) : nullptr;
    ssize_t i = pEnd ? static_cast<const char *>(pEnd) - buf : nRead;
    int bFits = ORX_PEER_ASSERT(i < ssize_t(kProfileTextSize), "i < 1024*8");
    if (!bFits || i < 0) {
        buf[0] = '\0';
        return LoadResult::Unreadable;
    }
    buf[i] = '\0';
    *pLen = int(i);
    return LoadResult::Loaded;
}

// Replaces the content of a file, which is made when missing. Returns 0 when it cannot be opened or written.
static int StoreText(const char *file, const char *text)
{
    FdGuard out{open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)};
    if (out.fd < 0)
        return 0;
    for (size_t nLeft = strlen(text); nLeft > 0;) {
        ssize_t n = write(out.fd, text, nLeft);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        text += n;
        nLeft -= size_t(n);
    }
    return close(out.Release()) == 0;  // some file systems tell only now that they are full
}

// The text that a `file` argument carries itself, or null when it names a file.
static const char *InMemoryText(const char *file)
{
    if (strncmp(file, kInMemory, kInMemoryLen) == 0)
        return file + kInMemoryLen;
    return file[0] == '[' && strchr(file, '\n') ? file : nullptr;
}

// The text behind a `file` argument: in memory where it lies, else loaded into buf. Null when unreadable.
static const char *TextOf(const char *file, char *buf)
{
    if (const char *text = InMemoryText(file))
        return text;
    int nLen = 0;
    return LoadText(file, buf, &nLen) == LoadResult::Loaded ? buf : nullptr;
}

int load_ini_file(const char *file, char *buf, int *pLen)
{
    ORX_ASSERT(file, "file !=((void *)0)");
    ORX_ASSERT(buf, "buf !=((void *)0)");
    return LoadText(file, buf, pLen) == LoadResult::Loaded;
}

// Looking for a key.

// The body of a section whose name stands at p: what follows the next ']', wherever that is, and the white
// space behind it.
static const char *SectionBody(const char *p)
{
    p += strcspn(p, "]");
    if (*p)
        p++;
    while (isspace(static_cast<unsigned char>(*p)))
        p++;
    return p;
}

// The body of the first section that matches from p on; null without one.
static const char *NextSection(ProfileWalk *pWalk, const char *p)
{
    size_t nSection = strlen(pWalk->section);
    for (p = strchr(p, '['); p; p = strchr(p + 1, '['))
        if (IsLineStart(pWalk->text, p) && strncmp(p + 1, pWalk->section, nSection) == 0)
            break;
    if (!p)
        return nullptr;
    const char *pBody = SectionBody(p + 1);
    pWalk->nSecStart = int(p + 1 - pWalk->text);
    pWalk->nSecBody = int(pBody - pWalk->text);
    return pBody;
}

int ProfileWalkNext(ProfileWalk *pWalk, ProfileLine *pLine)
{
    const char *p = pWalk->p ? pWalk->p : NextSection(pWalk, pWalk->text);
    while (p && *p) {
        if (*p == '[') {
            p = NextSection(pWalk, p);
            continue;
        }
        const char *pStart = p;
        size_t nLine = strcspn(p, "\r\n");
        p += nLine;
        if (*p)
            p++;
        auto *pEquals = *pStart == ';' ? nullptr : static_cast<const char *>(memchr(pStart, '=', nLine));
        if (!pEquals)
            continue;
        *pLine =
            ProfileLine{pStart, size_t(pEquals - pStart), pEquals + 1, size_t(pStart + nLine - pEquals - 1)};
        pWalk->p = p;
        return 1;
    }
    pWalk->p = pWalk->text + strlen(pWalk->text);
    return 0;
}

int parse_file(const char *section, const char *key, const char *buf, int *pSecStart, int *pSecBody,
               int *pKeyStart, int *pKeyEnd, int *pValueStart, int *pValueEnd)
{
    *pSecStart = *pSecBody = *pKeyStart = *pKeyEnd = *pValueStart = *pValueEnd = -1;
    ORX_ASSERT(buf, "buf!=((void *)0)");
    if (!SectionGiven(section) || !KeyGiven(key))
        return 0;
    size_t nKey = strlen(key);
    ProfileWalk walk{buf, section};
    ProfileLine line;
    int bFound = 0;
    while (!bFound && ProfileWalkNext(&walk, &line))
        bFound = line.nKey == nKey && memcmp(line.pKey, key, nKey) == 0;
    *pSecStart = walk.nSecStart;
    *pSecBody = walk.nSecBody;
    if (!bFound)
        return 0;
    *pKeyStart = int(line.pKey - buf);
    *pKeyEnd = *pKeyStart + int(nKey) - 1;
    *pValueStart = int(line.pValue - buf);
    *pValueEnd = *pValueStart + int(line.nValue);
    return 1;
}

// Reading.

// The number that a text begins with, as atoi gives it, but held to the range of an int on any machine.
static int ToInt(const char *text)
{
    long long nValue = strtoll(text, nullptr, 10);
    if (nValue < INT_MIN)
        return INT_MIN;
    return nValue > INT_MAX ? INT_MAX : int(nValue);
}

// Copies the default as strncpy does: a default that fills the buffer leaves no NUL, and none leaves the
// buffer as it was.
static int NotFound(char *value, int size, const char *szDefault)
{
    if (!szDefault)
        return 0;
    size_t nLen = strnlen(szDefault, size_t(size));
    memcpy(value, szDefault, nLen);
    memset(value + nLen, 0, size_t(size) - nLen);
    return 0;
}

// Copies what is found in text (null: nothing), else the default.
static int CopyValue(const char *section, const char *key, char *value, int size, const char *szDefault,
                     const char *text)
{
    KeyPlace place;
    if (!text || !FindKey(section, key, text, &place))
        return NotFound(value, size, szDefault);
    int nLen = place.nValueEnd - place.nValueStart;
    memset(value, 0, size_t(size));
    memcpy(value, text + place.nValueStart, size_t(nLen < size ? nLen : size - 1));
    return 1;
}

int read_profile_string(const char *section, const char *key, char *value, int size, const char *szDefault,
                        const char *file)
{
    int bNamed = SectionGiven(section) && KeyGiven(key);
    ORX_ASSERT(value, "value != ((void *)0)");
    ORX_ASSERT(size > 0, "size > 0");
    AssertFileGiven(file);
    char buf[kProfileTextSize];
    return CopyValue(section, key, value, size, szDefault, bNamed ? TextOf(file, buf) : nullptr);
}

int read_profile_int(const char *section, const char *key, int nDefault, const char *file)
{
    char value[kIntTextSize] = "";
    return read_profile_string(section, key, value, sizeof(value), nullptr, file) ? ToInt(value) : nDefault;
}

int check_profile_key(const char *section, const char *key, const char *file)
{
    int bNamed = SectionGiven(section) && KeyGiven(key);
    AssertFileGiven(file);
    if (!bNamed)
        return 0;
    char buf[kProfileTextSize];
    KeyPlace place;
    const char *text = TextOf(file, buf);
    return text && FindKey(section, key, text, &place);
}

// Writing.

// Adds what follows a new key line. A doubled percent sign comes out single there; all else is copied.
static void AddUndoubled(TextBuf *pText, const char *rest)
{
    while (const char *pPair = strstr(rest, "%%")) {
        TextAddBytes(pText, rest, size_t(pPair - rest) + 1);
        rest = pPair + 2;
    }
    TextAddBytes(pText, rest, strlen(rest));
}

// Builds the text that old (empty when the file is missing) becomes with the key set.
static void BuildText(TextBuf *pText, const char *section, const char *key, const char *value,
                      const char *old, int nOldLen)
{
    KeyPlace place;
    if (FindKey(section, key, old, &place)) {
        TextAddBytes(pText, old, size_t(place.nValueStart));
        TextAdd(pText, "%s%s", value, old + place.nValueEnd);
    } else if (place.nSecStart >= 0) {
        TextAddBytes(pText, old, size_t(place.nSecBody));
        TextAdd(pText, "%s=%s\n", key, value);
        AddUndoubled(pText, old + place.nSecBody);
    } else {
        TextAdd(pText, "%s%s[%s]\n%s=%s\n", old, nOldLen > 0 ? "\n" : "", section, key, value);
    }
}

int write_profile_string(const char *section, const char *key, const char *value, const char *file)
{
    int bNamed = SectionGiven(section) && KeyGiven(key);
    ORX_ASSERT(value, "value != ((void *)0)");
    AssertFileGiven(file);
    if (!bNamed || InMemoryText(file))
        return 0;
    char old[kProfileTextSize] = "";
    int nOldLen = 0;
    if (LoadText(file, old, &nOldLen) == LoadResult::Unreadable)
        return 0;
    char room[kProfileTextSize] = "";
    TextBuf text{room, sizeof(room)};
    BuildText(&text, section, key, value, old, nOldLen);
    return !text.bFull && StoreText(file, room);
}

int write_profile_int(const char *section, const char *key, int nValue, const char *file)
{
    char value[kIntTextSize];
    TextBuf text{value, sizeof(value)};
    TextAdd(&text, "%d", nValue);
    return write_profile_string(section, key, value, file);
}

// Removing. The search is simpler than for reading: the whole header must match, at its first occurrence, and
// a blank may stand between key and '='.

// The first "[section]" anywhere in the text, or null.
static char *FindTag(char *text, const char *section)
{
    size_t nSection = strlen(section);
    for (char *p = strchr(text, '['); p; p = strchr(p + 1, '['))
        if (strncmp(p + 1, section, nSection) == 0 && p[1 + nSection] == ']')
            return p;
    return nullptr;
}

struct SectionPlace {
    char *pTag;
    char *pBody;  // behind the tag and the line ends and blanks after it
    char *pEnd;   // the next header, or the text's NUL
};

static int FindSection(char *text, const char *section, SectionPlace *pPlace)
{
    char *pTag = FindTag(text, section);
    if (!pTag || !IsLineStart(text, pTag))
        return 0;
    char *pBody = pTag + strlen(section) + 2;
    pBody += strspn(pBody, "\r\n ");
    char *pEnd = strchr(pBody, '[');
    while (pEnd && !IsEol(pEnd[-1]))
        pEnd = strchr(pEnd + 1, '[');
    *pPlace = SectionPlace{pTag, pBody, pEnd ? pEnd : pBody + strlen(pBody)};
    return 1;
}

// The line of the key in a section's body, from the key on, or null.
static char *FindKeyLine(const SectionPlace *pPlace, const char *key)
{
    size_t nKey = strlen(key);
    for (char *p = pPlace->pBody; p + nKey < pPlace->pEnd; p++) {
        p = static_cast<char *>(memchr(p, key[0], size_t(pPlace->pEnd - p) - nKey));
        if (!p)
            break;
        if (IsEol(p[-1]) && memcmp(p, key, nKey) == 0 && (p[nKey] == ' ' || p[nKey] == '='))
            return p;
    }
    return nullptr;
}

// TextOf for a text that will be changed.
static char *EditableTextOf(char *file, char *buf)
{
    const char *text = TextOf(file, buf);
    return text && text != buf ? file + (text - file) : const_cast<char *>(text);
}

// Takes the bytes from pFrom to pTo out of the text, then stores it in the file that it was loaded from, if
// any.
static int CutAndStore(char *text, char *pFrom, const char *pTo, const char *szLoadedFrom)
{
    memmove(pFrom, pTo, strlen(pTo) + 1);
    return szLoadedFrom ? StoreText(szLoadedFrom, text) : 1;
}

int remove_profile_key(const char *section, const char *key, char *file)
{
    int bNamed = SectionGiven(section) && KeyGiven(key);
    AssertFileGiven(file);
    char buf[kProfileTextSize];
    char *text = bNamed ? EditableTextOf(file, buf) : nullptr;
    SectionPlace place;
    if (!text || !FindSection(text, section, &place))
        return 0;
    char *pLine = FindKeyLine(&place, key);
    void *pEol = pLine ? memchr(pLine, '\n', size_t(place.pEnd - pLine)) : nullptr;
    return pEol && CutAndStore(text, pLine, static_cast<char *>(pEol) + 1, text == buf ? file : nullptr);
}

int remove_profile_section(const char *section, char *file)
{
    int bNamed = SectionGiven(section);
    AssertFileGiven(file);
    char buf[kProfileTextSize];
    char *text = bNamed ? EditableTextOf(file, buf) : nullptr;
    SectionPlace place;
    if (!text || !FindSection(text, section, &place))
        return 0;
    return CutAndStore(text, place.pTag, place.pEnd, text == buf ? file : nullptr);
}

// Merging.

// Applies the lines of one section and steps *ppText behind them. Returns 0 at a line that is none: it ends
// the whole merge.
static int MergeLines(const char *section, char **ppText, const char *szFileDst)
{
    for (;;) {
        char *pLine = *ppText;
        while (isspace(static_cast<unsigned char>(*pLine)))
            pLine++;
        *ppText = pLine;
        if (*pLine == '[' || *pLine == '\0')
            return 1;
        char *pEol = pLine + strcspn(pLine, "\n");
        *ppText = *pEol ? pEol + 1 : pEol;
        if (*pEol && pEol[-1] == '\r')
            pEol--;
        *pEol = '\0';
        char *pEquals = strchr(pLine, '=');
        if (!pEquals)
            return 0;
        *pEquals = '\0';
        write_profile_string(section, pLine, pEquals + 1, szFileDst);
        print("%s=%s\r\n", pLine, pEquals + 1);
    }
}

static void MergeText(char *text, const char *szFileDst)
{
    for (;;) {
        char *pTag = strchr(text, '[');
        char *pTagEnd = pTag ? strchr(pTag, ']') : nullptr;
        if (!pTagEnd)
            return;
        *pTagEnd = '\0';
        print("[%s]\r\n", pTag + 1);
        text = pTagEnd + 1;
        if (!MergeLines(pTag + 1, &text, szFileDst))
            return;
        print("\r\n");
    }
}

int MergeIniFile(const char *szFileDst, const char *szFileSrc)
{
    ORX_ASSERT(szFileSrc, "szFileSrc !=((void *)0)");
    ORX_ASSERT(szFileDst, "szFileDst !=((void *)0)");
    FdGuard in{open(szFileSrc, O_RDONLY | O_CLOEXEC)};
    off_t nSize = in.fd >= 0 ? lseek(in.fd, 0, SEEK_END) : -1;
    if (nSize < 0)
        return 0;
    char *text = ReadFromStart(in.fd, nSize);
    if (!text)
        return -1;
    MergeText(text, szFileDst);
    free(text);
    return 1;
}

int Update2IniFile(const char *szIniFile, char *szContent)
{
    ORX_ASSERT(szContent, "szContent !=((void *)0)");
    ORX_ASSERT(szIniFile, "szIniFile !=((void *)0)");
    MergeText(szContent, szIniFile);
    return 1;
}

// The loaded file.

// The bytes of a file that cannot tell its size, up to its end or its first end byte.
static off_t CountBytes(int fd)
{
    char buf[4096];  // the page that the kernel hands out at a time
    off_t nCount = 0;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return nCount;
        if (const void *pEnd = memchr(buf, kEndByte, size_t(n)))
            return nCount + (static_cast<const char *>(pEnd) - buf);
        nCount += n;
    }
}

static off_t SizeOf(int fd, const char *szPath)
{
    off_t nSize = lseek(fd, 0, SEEK_END);
    if (nSize >= 0)
        return nSize;
    print("fseek(%s) failed!\n", szPath);
    nSize = CountBytes(fd);
    print("The size of File(%s) is %lldBytes\n", szPath, static_cast<long long>(nSize));
    return nSize;
}

Profile *ProfileInit(const char *szPath)
{
    FdGuard in{open(szPath, O_RDONLY | O_CLOEXEC)};
    if (in.fd < 0) {
        print("fopen(%s) failed!\n", szPath);
        return nullptr;
    }
    off_t nSize = SizeOf(in.fd, szPath);
    if (nSize == 0)
        return nullptr;
    char *text = ReadFromStart(in.fd, nSize);
    auto *pHandle = new (std::nothrow) Profile;
    if (!text || !pHandle) {
        print("malloc(%lld) failed in ProfileInit(%s)!\n", static_cast<long long>(nSize) + 1, szPath);
        free(text);
        delete pHandle;
        return nullptr;
    }
    TextCopy(pHandle->path, sizeof(pHandle->path), szPath);
    pHandle->text = text;
    pHandle->size = static_cast<uint32_t>(nSize);
    return pHandle;
}

void ProfileFree(Profile *pHandle)
{
    if (pHandle)
        free(pHandle->text);
    delete pHandle;
}

int ProfileGetStr(const char *section, const char *key, char *value, int size, const char *szDefault,
                  const Profile *pHandle)
{
    int bNamed = SectionGiven(section) && KeyGiven(key);
    ORX_ASSERT(value, "value != ((void *)0)");
    ORX_ASSERT(size > 0, "size > 0");
    ORX_ASSERT(pHandle, "pHandle !=((void *)0) &&strlen(key)");
    return CopyValue(section, key, value, size, szDefault, bNamed ? pHandle->text : nullptr);
}

int ProfileGetInt(const char *section, const char *key, int nDefault, const Profile *pHandle)
{
    int nValue = 0;
    ProfileGetIntEx(section, key, &nValue, nDefault, pHandle);
    return nValue;
}

int ProfileGetIntEx(const char *section, const char *key, int *pValue, int nDefault, const Profile *pHandle)
{
    char value[kIntTextSize] = "";
    int bFound = ProfileGetStr(section, key, value, sizeof(value), nullptr, pHandle);
    *pValue = bFound ? ToInt(value) : nDefault;
    return bFound;
}

int ProfileHasSection(const char *section, const Profile *pHandle)
{
    const char *p = FindTag(pHandle->text, section);
    if (!p)
        return 0;
    p += strlen(section) + 2;
    return IsEol(p[strspn(p, " ")]);
}

}  // namespace orx
