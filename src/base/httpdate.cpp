#include "base/httpdate.h"

#include <ctime>

#include "base/textbuf.h"

namespace orx {

void FormatHttpDate(char *szOut, DateForm eForm)
{
    static const char *const g_days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char *const g_months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    time_t now = time(nullptr);
    struct tm t {};
    gmtime_r(&now, &t);
    TextBuf text{szOut, kHttpDateSize};
    if (eForm == DateForm::Rfc1123)
        TextAdd(&text, "%s, %02d %s %04d", g_days[t.tm_wday], t.tm_mday, g_months[t.tm_mon],
                t.tm_year + 1900);
    else
        TextAdd(&text, "%s, %s %d %04d", g_days[t.tm_wday], g_months[t.tm_mon], t.tm_mday, t.tm_year + 1900);
    TextAdd(&text, " %02d:%02d:%02d GMT", t.tm_hour, t.tm_min, t.tm_sec);
}

}  // namespace orx
