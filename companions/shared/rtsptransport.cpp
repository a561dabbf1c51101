#include "shared/rtsptransport.h"

#include <strings.h>

#include <algorithm>
#include <string_view>

#include "base/textnumber.h"

namespace orx {

constexpr size_t kMostSession = 256;
constexpr int kMostTimeoutS = 3600;  // who says more is asked every half an hour all the same

static std::string_view TakeWord(std::string_view *pText, std::string_view separators)
{
    pText->remove_prefix(std::min(pText->find_first_not_of(separators), pText->size()));
    std::string_view word = pText->substr(0, pText->find_first_of(separators));
    pText->remove_prefix(word.size());
    return word;
}

// Takes a start such as "timeout=" off, without regard to case. Returns 1 or 0.
static int TakeStart(std::string_view *pWord, std::string_view start)
{
    if (pWord->size() < start.size() || strncasecmp(pWord->data(), start.data(), start.size()) != 0)
        return 0;
    pWord->remove_prefix(start.size());
    return 1;
}

// "4" or "4-5", each from nLeast to nMost. Returns 1 with both, the second being the next where it is not
// told.
static int ReadPair(std::string_view text, int nLeast, int nMost, int *pnOne, int *pnOther)
{
    size_t nDash = text.find('-');
    if (text.empty() || text[0] < '0' || text[0] > '9')
        return 0;
    int nOne = TextToInt(text.substr(0, nDash));
    if (nOne < nLeast || nOne > nMost)
        return 0;
    int nOther = nDash == std::string_view::npos ? nOne + 1 : TextToInt(text.substr(nDash + 1));
    if (nOther < nLeast || nOther > nMost)
        return 0;
    *pnOne = nOne;
    *pnOther = nOther;
    return 1;
}

void RtspReadTransport(const char *szValue, RtspTransportReply *pOut)
{
    std::string_view text(szValue);
    while (!text.empty()) {
        std::string_view word = TakeWord(&text, "; \t");
        if (TakeStart(&word, "interleaved="))
            ReadPair(word, 0, 255, &pOut->nRtpChannel, &pOut->nRtcpChannel);
        else if (TakeStart(&word, "server_port="))
            ReadPair(word, 1, 65535, &pOut->nRtpPort, &pOut->nRtcpPort);
    }
}

std::string RtspReadSession(const char *szValue, int *pnTimeoutS)
{
    std::string_view text(szValue);
    std::string name(TakeWord(&text, "; \t").substr(0, kMostSession));
    while (!text.empty()) {
        std::string_view word = TakeWord(&text, "; \t");
        int nSeconds = TakeStart(&word, "timeout=") ? TextToInt(word) : 0;
        if (nSeconds > 0)
            *pnTimeoutS = std::min(nSeconds, kMostTimeoutS);
    }
    return name;
}

int RtspListHas(const char *szValue, const char *szWord)
{
    std::string_view text(szValue), wanted(szWord);
    while (!text.empty()) {
        std::string_view word = TakeWord(&text, ", \t");
        if (word.size() == wanted.size() && TakeStart(&word, wanted))
            return 1;
    }
    return 0;
}

}  // namespace orx
