#include "base/textnumber.h"

#include <climits>

#include <gtest/gtest.h>

namespace orx {

TEST(TextNumber, ReadsWhatBeginsAText)
{
    static const struct {
        std::string_view text;
        int nValue;
    } cases[] = {
        {"", 0},
        {"x1", 0},
        {"-", 0},
        {" \t\r\n\v\f+7x9", 7},
        {"- 7", 0},
        {std::string_view("123", 2), 12},  // nothing behind the view is read
        {"2147483647", INT_MAX},
        {"2147483648", INT_MAX},
        {"-2147483648", INT_MIN},
        {"-2147483649", INT_MIN},
        {"-99999999999999999999999999", INT_MIN},
        {"00000000000000000000000000012", 12},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.nValue, TextToInt(c.text)) << c.text;
}

TEST(TextNumber, ReadsSecondsAsMilliseconds)
{
    static const struct {
        const char *szText;
        uint32_t nMs;
    } cases[] = {{"12.5-", 12500}, {"3600.125", 3600125}, {"1e30", 2000000000}, {"0", 0}};
    for (const auto &c : cases)
        EXPECT_EQ(c.nMs, NptToMs(c.szText)) << c.szText;
}

}  // namespace orx
