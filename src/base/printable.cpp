#include "base/printable.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "base/assertion.h"

namespace orx {

static int IsControl(char c)
{
    return static_cast<unsigned char>(c) < ' ' || c == 127;
}

static int IsLineEnd(char c)
{
    return c == '\r' || c == '\n';
}

// Whether a text has to be copied to be shown.
static int IsToHide(const char *szText)
{
    while (*szText && !IsControl(*szText))
        szText++;
    return *szText != '\0';
}

// Writes pText as lines that begin with a blank: behind a line feed, or a carriage return without one.
static size_t CopyLines(char *pOut, const char *pText, size_t nText)
{
    size_t n = 0;
    for (size_t i = 0; i < nText; i++) {
        if (i == 0 || pText[i - 1] == '\n' || (pText[i - 1] == '\r' && pText[i] != '\n'))
            pOut[n++] = ' ';
        int bShown = !IsControl(pText[i]) || IsLineEnd(pText[i]) || pText[i] == '\t';
        pOut[n++] = bShown ? pText[i] : '?';
    }
    return n;
}

// The text for one line, or null without memory.
static char *CopyLine(const char *pText, size_t nText)
{
    auto *pOut = static_cast<char *>(malloc(nText + 1));
    if (!pOut)
        return nullptr;
    for (size_t i = 0; i < nText; i++)
        pOut[i] = AssertPeerFaultsSurvived() && IsControl(pText[i]) ? '?' : pText[i];
    pOut[nText] = '\0';
    return pOut;
}

PrintableText::PrintableText(const char *szText)
{
    if (!szText)
        return;
    if (!AssertPeerFaultsSurvived() || !IsToHide(szText)) {
        sz = szText;
        return;
    }
    pOwn = CopyLine(szText, strlen(szText));
    sz = pOwn ? pOwn : "?";
}

PrintableText::PrintableText(const char *pText, size_t nText)
{
    pOwn = CopyLine(pText, strnlen(pText, nText));
    sz = pOwn ? pOwn : "?";
}

PrintableText::~PrintableText()
{
    free(pOwn);
}

PrintableDump::PrintableDump(const char *szText)
{
    if (!AssertPeerFaultsSurvived()) {
        sz = szText;
        return;
    }
    size_t nText = strlen(szText);
    pOwn = static_cast<char *>(malloc(2 * nText + 1));
    sz = pOwn ? pOwn : "?";
    if (pOwn)
        pOwn[CopyLines(pOwn, szText, nText)] = '\0';
}

// ---------------------------------------------------------------- credentials

static const char *const g_names[] = {"authorization", "userauth"};
constexpr uint8_t kAllNames = 3;

static int IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

// One byte of what is shown: whether a URL's host begins behind it.
static MaskPlace MatchUrl(CredentialMask *pMask, char c)
{
    static constexpr char kMark[] = "://";
    pMask->nMatched = c == kMark[pMask->nMatched] ? pMask->nMatched + 1 : c == kMark[0];
    return kMark[pMask->nMatched] ? MaskPlace::Other : MaskPlace::UrlHost;
}

static MaskPlace BeginOther(CredentialMask *pMask, char c)
{
    pMask->nMatched = 0;
    return MatchUrl(pMask, c);
}

// One byte of a header's name: which of the names it may still be, and whether it is one now.
static MaskPlace MatchName(CredentialMask *pMask, char c)
{
    for (int i = 0; i < 2; i++)
        if ((pMask->nNames & (1 << i)) &&
            g_names[i][pMask->nMatched] != tolower(static_cast<unsigned char>(c)))
            pMask->nNames &= static_cast<uint8_t>(~(1 << i));
    pMask->nMatched++;
    if (pMask->nNames == 0)
        return BeginOther(pMask, c);
    return g_names[pMask->nNames >> 1][pMask->nMatched] ? MaskPlace::Name : MaskPlace::Colon;
}

static MaskPlace MatchHost(CredentialMask *pMask, char c)
{
    if (c == '/' || IsBlank(c))
        return BeginOther(pMask, c);
    pMask->bPort = 1;
    return c == ':' ? MaskPlace::UrlColon : MaskPlace::UrlHost;
}

// One byte behind the host's or user's colon. A password may hold any but '@' and blanks; a port ends its
// URL's host.
static MaskPlace MatchSecret(CredentialMask *pMask, char c)
{
    if (c == '@')
        return MaskPlace::UrlHost;
    if (IsBlank(c) || IsLineEnd(c) || (c == '/' && pMask->bPort))
        return BeginOther(pMask, c);
    pMask->bPort &= isdigit(static_cast<unsigned char>(c)) ? 1 : 0;
    return MaskPlace::UrlSecret;
}

static MaskPlace BeginLine(CredentialMask *pMask, char c)
{
    if (IsBlank(c))
        return pMask->bFolded ? MaskPlace::Value : MaskPlace::LineStart;
    pMask->bFolded = 0;
    pMask->nMatched = 0;
    pMask->nNames = kAllNames;
    return MatchName(pMask, c);
}

// What the next byte belongs to, by the one before and itself.
static MaskPlace Step(CredentialMask *pMask, char c)
{
    switch (pMask->ePlace) {
        case MaskPlace::LineStart:
            return BeginLine(pMask, c);
        case MaskPlace::Name:
            return MatchName(pMask, c);
        case MaskPlace::Colon:
            return c == ':' ? MaskPlace::Value : IsBlank(c) ? MaskPlace::Colon : BeginOther(pMask, c);
        case MaskPlace::Value:
            return IsBlank(c) ? MaskPlace::Value : MaskPlace::Hidden;
        case MaskPlace::Hidden:
            return MaskPlace::Hidden;
        case MaskPlace::Other:
            return MatchUrl(pMask, c);
        case MaskPlace::UrlHost:
            return MatchHost(pMask, c);
        case MaskPlace::UrlColon:
        case MaskPlace::UrlSecret:
            return MatchSecret(pMask, c);
    }
    return pMask->ePlace;
}

// A value ends where the reader of requests ends it: at a carriage return and a line feed. What is written is
// never more than what came, but for a carriage return held back before.
static size_t Hide(CredentialMask *pMask, char c, int bFirst, char *pOut)
{
    size_t n = 0;
    if (bFirst && c != '\r')
        pOut[n++] = '*';
    if (c == '\n' && !bFirst && pMask->bReturn) {
        pOut[n++] = '\r';
        pOut[n++] = '\n';
        pMask->bFolded = 1;
        pMask->ePlace = MaskPlace::LineStart;
    }
    pMask->bReturn = c == '\r';
    return n;
}

size_t CredentialMaskCopy(CredentialMask *pMask, const char *pText, size_t nText, char *pOut)
{
    size_t n = 0;
    int bHide = AssertPeerFaultsSurvived();
    for (size_t i = 0; i < nText; i++) {
        char c = pText[i];
        MaskPlace eBefore = pMask->ePlace;
        pMask->ePlace = bHide ? Step(pMask, c) : MaskPlace::Other;
        if (pMask->ePlace == MaskPlace::UrlSecret) {
            if (eBefore != MaskPlace::UrlSecret)
                pOut[n++] = '*';
            continue;
        }
        if (pMask->ePlace == MaskPlace::Hidden) {
            n += Hide(pMask, c, eBefore != MaskPlace::Hidden, pOut + n);
            continue;
        }
        pOut[n++] = c;
        if (IsLineEnd(c))
            pMask->ePlace = MaskPlace::LineStart;
    }
    return n;
}

}  // namespace orx
