// What strangers send, made fit for the console and the log file. While peer faults are survived
// (AssertSurvivePeerFaults), bytes below 32 and 127 are shown as '?': they would forge lines and command the
// terminal of whoever looks. Otherwise texts come out as they are. Any thread.
//
//     print("HandleUnknown(Cmd=%s)!\r\n", PrintableText(szMethod).sz);
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

// A text for one line. sz is the given text where nothing in it is to be hidden, which must then live as
// long; never null.
struct PrintableText {
    const char *sz = "";
    explicit PrintableText(const char *szText);
    PrintableText(const char *pText, size_t nText);  // up to nText bytes, or its NUL
    ~PrintableText();
    PrintableText(const PrintableText &) = delete;
    PrintableText &operator=(const PrintableText &) = delete;

protected:
    PrintableText() = default;
    char *pOwn = nullptr;  // owned, when sz is a copy
};

// A text of several lines: line ends and tabs stay, and each line begins with a blank, so that none can be
// taken for one of ours.
struct PrintableDump : PrintableText {
    explicit PrintableDump(const char *szText);
};

enum class MaskPlace : uint8_t {
    LineStart,  // or blanks at the start of a line
    Name,       // of a header, as far as it may be one of the names
    Colon,      // expected next
    Value,      // its blanks, before what is hidden
    Hidden,     // up to the line's end
    Other,      // what is shown, up to the line's end or a URL
    UrlHost,    // of a URL, behind its "://"
    UrlColon,   // behind its user or host
    UrlSecret,  // the password behind that, or a port
};

// Follows a stream of request text, however it is cut into pieces, and hides the values of its Authorization
// and UserAuth headers, and what a URL has behind its user: whether that is a password, or the port behind
// its host, is known only when it has been shown.
struct CredentialMask {
    MaskPlace ePlace = MaskPlace::LineStart;
    uint8_t nNames = 0;    // the names that this one may still be, a bit each
    uint8_t nMatched = 0;  // characters of them; Other: of "://"
    uint8_t bPort = 0;     // UrlColon, UrlSecret: only digits so far
    uint8_t bFolded = 0;   // a line that begins with a blank goes on with what was hidden
    uint8_t bReturn = 0;   // Hidden: the last byte was a carriage return
};
// Copies the text to pOut, which has room for nText + 1 bytes, with a '*' for each such text. Returns the
// number of bytes. Copies all while peer faults are not survived.
size_t CredentialMaskCopy(CredentialMask *pMask, const char *pText, size_t nText, char *pOut);

}  // namespace orx
