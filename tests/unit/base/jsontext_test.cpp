#include "base/jsontext.h"

#include <cmath>
#include <string>

#include <gtest/gtest.h>

namespace orx {

TEST(JsonTextTest, WhateverAPeerSentIsValid)
{
    static const std::pair<std::string, const char *> cases[] = {
        {"/cam \"1\"\\", R"("/cam \"1\"\\")"},
        {std::string("a\0b\n\x1b\x7f", 6), R"("a\u0000b\u000a\u001b\u007f")"},
        {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x93\xB7", "\"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x93\xB7\""},
        {"\xC3", "\"\xEF\xBF\xBD\""},                                  // cut
        {"\xC0\xAF", "\"\xEF\xBF\xBD\xEF\xBF\xBD\""},                  // overlong
        {"\xED\xA0\x80", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},  // a surrogate
        {"\xF4\x90\x80\x80x", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBDx\""},
    };
    for (const auto &[bytes, szExpected] : cases) {
        JsonText json;
        JsonString(&json, nullptr, bytes);
        EXPECT_STREQ(szExpected, json.sz);
        JsonFree(&json);
    }
}

TEST(JsonTextTest, CommasAndDepthComeByThemselves)
{
    JsonText json;
    JsonOpen(&json, nullptr);
    JsonOpenList(&json, "a");
    JsonNumber(&json, nullptr, -1);
    JsonDecimal(&json, nullptr, std::nan(""));
    JsonClose(&json);
    JsonBool(&json, "b", 1);
    JsonDecimal(&json, "c", 25.014);
    JsonClose(&json);
    EXPECT_STREQ(R"({"a":[-1,null],"b":true,"c":25.01})", json.sz);
    for (unsigned i = 0; i <= kMaxJsonDepth; i++)
        JsonOpenList(&json, nullptr);
    EXPECT_TRUE(json.bFailed);
    JsonFree(&json);
}

}  // namespace orx
