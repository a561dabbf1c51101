#include "orxweb/webtext.h"

#include <gmock/gmock.h>

#include "orxweb/httpread.h"
#include "orxweb/texts.h"

using namespace orx;

TEST(WebText, NothingOfStrangersIsMarkup)
{
    EXPECT_EQ("&lt;b a=&quot;1&quot; b=&#39;2&#39;&gt;&amp;", Html("<b a=\"1\" b='2'>&"));
    EXPECT_EQ(
        "a b\xEF\xBF\xBD"
        "c",
        Html(std::string_view("a\0b\xFF"
                              "c",
                              5)));
    EXPECT_EQ("Tür", Html("Tür"));
}

TEST(WebText, AddressesComeBack)
{
    for (const char *szProgram : {"live/cam 1", "Höf & \"Tür\"", "a?b#c%d+e", "x.mp4", "y.jpg", "z.mjpeg", "日本"}) {
        ProgramAddress address = ProgramAddressRead(UrlProgram(szProgram), 0);
        EXPECT_EQ(AddressKind::Page, address.kind) << szProgram;
        EXPECT_EQ(szProgram, address.program);
        EXPECT_EQ(AddressKind::Mp4, ProgramAddressRead(UrlProgram(szProgram) + ".mp4", 0).kind);
        std::string value;
        EXPECT_EQ(1, FormValue("p=" + UrlEncode(szProgram, 1), "p", &value));
        EXPECT_EQ(szProgram, value);
    }
}

TEST(WebText, DownloadsHaveSafeNames)
{
    EXPECT_EQ("attachment; filename=\"a_b_1_.mp4\"; filename*=UTF-8''a_b%22%0D%0A1%2C.mp4",
              AttachmentAs("a/b\"\r\n1,.mp4"));
    EXPECT_EQ("attachment; filename=\"_T_r.mp4\"; filename*=UTF-8''.._T%C3%BCr.mp4", AttachmentAs("../Tür.mp4"));
}

TEST(WebText, AmountsInBothLanguages)
{
    EXPECT_EQ("1.4\xC2\xA0GB", BytesText(1.4e9, "en"));
    EXPECT_EQ("1,4\xC2\xA0Mbit/s", RateText(1.4e6, "de"));
    EXPECT_EQ(
        "999\xC2\xA0"
        "B",
        BytesText(999, "en"));
    EXPECT_EQ("1:02:03", SpanText(3723));
    EXPECT_STREQ("Anmelden", TextOf(Text::Login, "de"));
    EXPECT_STREQ("Tasten: M Ton, F Vollbild, N neuestes Bild.", TextOf(Text::JsKeysLive, "de"));  // rows are in order
}
