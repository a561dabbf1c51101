#include "shared/rtspwire.h"

#include <gtest/gtest.h>

#include <vector>

using namespace orx;

struct Seen {
    std::vector<std::string> all;
    const uint8_t *pInPlace = nullptr;  // where the last frame lay
    int nMost = 1000;                   // stops behind so many
};

static int OnFrame(void *pUser, int nChannel, const uint8_t *pData, size_t nBytes)
{
    auto *pSeen = static_cast<Seen *>(pUser);
    pSeen->all.push_back(std::to_string(nChannel) + ":" + std::string(pData, pData + nBytes));
    pSeen->pInPlace = pData;
    return static_cast<int>(pSeen->all.size()) < pSeen->nMost;
}

static int OnText(void *pUser, const RtspMessage *pMessage)
{
    auto *pSeen = static_cast<Seen *>(pUser);
    pSeen->all.push_back(std::to_string(pMessage->nStatus) + pMessage->method + "/" + pMessage->body);
    return static_cast<int>(pSeen->all.size()) < pSeen->nMost;
}

static const RtspWireProcs kProcs = {OnFrame, OnText};

static int Feed(RtspWire *pWire, std::string_view bytes, Seen *pSeen)
{
    return RtspWireFeed(pWire, reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), &kProcs, pSeen);
}

static std::string WireFrame(char nChannel, const std::string &packet)
{
    return std::string("$") + nChannel + static_cast<char>(packet.size() >> 8) + static_cast<char>(packet.size()) +
           packet;
}

// Every pair of cuts gives the same, and what lies whole in a read is not copied.
TEST(RtspWire, TakesEverythingHoweverItIsCut)
{
    const std::string bytes = WireFrame(1, "abc") + "RTSP/1.0 200 OK\r\nCSeq: 1\r\nContent-Length: 3 \r\n\r\nxyz" +
                              WireFrame(2, "") + "\r\na=control:t1\r\nRTSP/1.0 454 X\r\n\r\n" +
                              "OPTIONS * RTSP/1.0\nCSeq: 2\n\n" + WireFrame(3, "$RT");
    const std::vector<std::string> wanted = {"1:abc", "200/xyz", "2:", "454/", "0OPTIONS/", "3:$RT"};
    for (size_t i = 0; i <= bytes.size(); i++)
        for (size_t j = i; j <= bytes.size(); j++) {
            RtspWire wire;
            Seen seen;
            EXPECT_EQ(1, Feed(&wire, std::string_view(bytes).substr(0, i), &seen));
            EXPECT_EQ(1, Feed(&wire, std::string_view(bytes).substr(i, j - i), &seen));
            EXPECT_EQ(1, Feed(&wire, std::string_view(bytes).substr(j), &seen));
            ASSERT_EQ(wanted, seen.all) << i << " " << j;
            EXPECT_TRUE(wire.rest.empty());
        }
    RtspWire wire;
    Seen seen;
    Feed(&wire, bytes, &seen);
    EXPECT_EQ(reinterpret_cast<const uint8_t *>(bytes.data()) + bytes.size() - 3, seen.pInPlace);
}

TEST(RtspWire, StopsWhereItIsTold)
{
    RtspWire wire;
    Seen seen;
    seen.nMost = 2;
    EXPECT_EQ(0, Feed(&wire, WireFrame(0, "a") + WireFrame(1, "b") + WireFrame(2, "c"), &seen));
    EXPECT_EQ(2U, seen.all.size());
}

TEST(RtspWire, BoundsTexts)
{
    const std::string head = "RTSP/1.0 200 OK\r\nContent-Length: ";
    static const struct {
        std::string text;
        int nResult;
        size_t nSeen;
    } cases[] = {
        {head + "65536\r\n\r\n" + std::string(65536, 'x'), 1, 1},
        {head + "65537\r\n\r\n", -1, 0},
        {head + "-1\r\n\r\n", -1, 0},
        {head + "99999999999999999999\r\n\r\n", -1, 0},
        {head + std::string(20000, '0'), -1, 0},
        {std::string(1 << 20, '\0'), 1, 0},
    };
    for (const auto &c : cases)
        for (size_t nStep : {c.text.size(), size_t{1000}}) {
            RtspWire wire;
            Seen seen;
            int nResult = 1;
            for (size_t i = 0; i < c.text.size() && nResult == 1; i += nStep)
                nResult = Feed(&wire, std::string_view(c.text).substr(i, nStep), &seen);
            EXPECT_EQ(c.nResult, nResult) << c.text.substr(0, 60);
            EXPECT_EQ(c.nSeen, seen.all.size());
            EXPECT_LE(wire.rest.size(), kMostRtspHead + kMostRtspBody);
        }
}

TEST(RtspWire, AnswerOfATunnelHasNoBody)
{
    RtspWire wire;
    Seen seen;
    wire.bHttpHead = 1;
    Feed(&wire, "HTTP/1.0 200 OK\r\nContent-Length: 32767\r\n\r\nRTSP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nx", &seen);
    EXPECT_EQ((std::vector<std::string>{"200/", "200/x"}), seen.all);
}
