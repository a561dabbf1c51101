// The header of a front: what it names, what is no header, and where the peer's own bytes begin.
#include "net/proxyheader.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/sockutil.h"

namespace orx {

static ProxyResult Parse(const std::string &text, ProxyHeader *pOut)
{
    return ProxyHeaderParse(reinterpret_cast<const uint8_t *>(text.data()), text.size(), pOut);
}

static std::string Binary(const char *szKind, const std::string &rest, size_t nLength = SIZE_MAX)
{
    size_t n = nLength == SIZE_MAX ? rest.size() : nLength;
    return std::string("\r\n\r\n\0\r\nQUIT\n", 12) + std::string(szKind, 2) + static_cast<char>(n >> 8) +
           static_cast<char>(n & 0xFF) + rest;
}

static const std::string kV4("\x0A\x01\x02\x03\x7F\0\0\x01\x30\x39\0\x50", 12);
static const std::string kV6(
    "\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x05\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x01\x30\x39\0\x50", 36);

TEST(ProxyHeader, NamesThePeer)
{
    const struct {
        std::string text;
        const char *szPeer;  // empty: the socket's own; null: it is malformed
    } cases[] = {
        {"PROXY TCP4 10.1.2.3 127.0.0.1 12345 80\r\n", "10.1.2.3:12345"},
        {"PROXY TCP6 2001:db8::5 ::1 65535 0\r\n", "[2001:db8::5]:65535"},
        {"PROXY TCP6 ::ffff:10.1.2.3 ::1 1 2\r\n", "10.1.2.3:1"},
        {"PROXY UNKNOWN\r\n", ""},
        {"PROXY UNKNOWN whatever it says\r\n", ""},
        {"PROXY UNKNOWNS\r\n", nullptr},
        {"PROXY TCP4 10.1.2.3 127.0.0.1 12345 80\n", nullptr},
        {"PROXY TCP4 10.1.2.3 127.0.0.1 12345 80\rX", nullptr},
        {"PROXY TCP4 10.1.2.3 127.0.0.1 12345 80 \r\n", nullptr},
        {"PROXY TCP4 10.1.2.3  127.0.0.1 12345 80\r\n", nullptr},
        {"PROXY TCP4 10.1.2.3 127.0.0.1 12345\r\n", nullptr},
        {"PROXY TCP4 10.1.2.3 127.0.0.1 65536 80\r\n", nullptr},
        {"PROXY TCP4 10.1.2.3 127.0.0.1 -1 80\r\n", nullptr},
        {"PROXY TCP4 10.1.2.3 127.0.0.1 012 80\r\n", nullptr},
        {"PROXY TCP4 10.1.2 127.0.0.1 1 80\r\n", nullptr},
        {"PROXY TCP4 ::1 ::1 1 80\r\n", nullptr},
        {"PROXY UDP4 10.1.2.3 127.0.0.1 1 80\r\n", nullptr},
        {std::string("PROXY TCP4 10.1.2.3\0x 127.0.0.1 1 80\r\n", 38), nullptr},
        {"PROXY UNKNOWN " + std::string(91, 'x') + "\r\n", ""},  // 107 bytes
        {"PROXY UNKNOWN " + std::string(92, 'x') + "\r\n", nullptr},
        {"OPTIONS * RTSP/1.0\r\n", nullptr},
        {Binary("\x21\x11", kV4), "10.1.2.3:12345"},
        {Binary("\x21\x21", kV6), "[2001:db8::5]:12345"},
        {Binary("\x21\x11", kV4 + std::string("\x04\0\x03"
                                              "abc",
                                              6)),
         "10.1.2.3:12345"},
        {Binary("\x20\0", ""), ""},
        {Binary("\x20\xFF", kV4), ""},
        {Binary("\x21\0", "further"), ""},
        {Binary("\x21\x31", std::string(216, '/')), ""},
        {Binary("\x21\x11", kV4.substr(1)), nullptr},
        {Binary("\x21\x21", kV6.substr(1)), nullptr},
        {Binary("\x11\x11", kV4), nullptr},
        {Binary("\x22\x11", kV4), nullptr},
        {Binary("\x21\x12", kV4), nullptr},
        {Binary("\x21\x41", kV4), nullptr},
        {Binary("\x21\x11", kV4 + std::string(kProxyHeaderMost - 28, 'x')), "10.1.2.3:12345"},
        {Binary("\x21\x11", "", kProxyHeaderMost - 15), nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.text));
        ProxyHeader header;
        ASSERT_EQ(c.szPeer ? ProxyResult::Done : ProxyResult::Bad, Parse(c.text + "OPTIONS", &header));
        if (!c.szPeer)
            continue;
        char szPeer[kAddrTextSize] = "";
        if (header.bPeer)
            SockAddrToString(&header.peer, szPeer);
        EXPECT_STREQ(c.szPeer, szPeer);
        EXPECT_EQ(c.text.size(), header.nBytes);
        for (size_t nCut = 0; nCut < c.text.size(); nCut++)
            ASSERT_EQ(ProxyResult::More, Parse(c.text.substr(0, nCut), &header)) << nCut;
    }
}

}  // namespace orx
