#include "base/textnumber.h"

#include <climits>
#include <utility>

#include <gtest/gtest.h>

namespace orx {

TEST(TextNumber, ReadsWhatBeginsAText)
{
    static const std::pair<const char *, int> cases[] = {{"", 0},
                                                         {"x1", 0},
                                                         {"-", 0},
                                                         {"- 7", 0},
                                                         {" \t\r\n\v\f+7x9", 7},
                                                         {"00000000000000000000000000012", 12},
                                                         {"2147483647", INT_MAX},
                                                         {"2147483648", INT_MAX},
                                                         {"-2147483648", INT_MIN},
                                                         {"-2147483649", INT_MIN},
                                                         {"-99999999999999999999999999", INT_MIN}};
    for (const auto &[szText, nValue] : cases)
        EXPECT_EQ(nValue, TextToInt(szText)) << szText;
    EXPECT_EQ(12, TextToInt(std::string_view("123", 2))) << "nothing behind the view is read";
}

TEST(TextNumber, ReadsSecondsAsMilliseconds)
{
    static const std::pair<const char *, uint32_t> cases[] = {
        {"12.5-", 12500}, {"3600.125", 3600125}, {"1e30", 2000000000}, {"0", 0}};
    for (const auto &[szText, nMs] : cases)
        EXPECT_EQ(nMs, NptToMs(szText)) << szText;
}

}  // namespace orx
