#include "server/methods/tunnel.h"

#include <string>

#include <gtest/gtest.h>

#include "base/console.h"
#include "support/output.h"

namespace orx {

// The receive buffer of a session and the POST port that feeds it.
struct Receiver {
    SurviveFaults survive;
    Session session;
    Port port;

    explicit Receiver(uint32_t nTotal = 4096)
    {
        session.input.pChunk = ChunkNew(nTotal);
        session.input.pBuf = ChunkBytes(session.input.pChunk);
        session.input.nTotal = nTotal;
        ConsoleSetDaemon(1);  // it prints what it decodes
    }
    ~Receiver()
    {
        ConsoleSetDaemon(0);
        ChunkLeave(session.input.pChunk);
    }
    Receiver &operator=(Receiver &&) = delete;

    int Decode(const std::string &text) { return TunnelDecode(&session, &port, text.data(), text.size()); }
    std::string Held() const
    {
        EXPECT_EQ(0, session.input.pBuf[session.input.nLen]);
        return {reinterpret_cast<char *>(session.input.pBuf), session.input.nLen};
    }
};

TEST(TunnelDecode, RefusesWhatIsNoBase64)
{
    for (const char *szText : {"T1B\x01", "T1B-", "TTTT====", "TT=T", "T==="})
        EXPECT_EQ(0, Receiver().Decode(szText)) << szText;
}

TEST(TunnelDecode, NeverWritesPastTheBuffer)
{
    Receiver exact(10);  // room for nine bytes and a NUL
    EXPECT_EQ(1, exact.Decode("YWJjYWJjYWJj"));
    EXPECT_EQ("abcabcabc", exact.Held());
    EXPECT_EQ(0, exact.Decode("YWJj"));
    Receiver less(9);
    EXPECT_EQ(1, less.Decode("YWJjYWJj"));
    EXPECT_EQ(0, less.Decode("YWJj"));
    EXPECT_EQ("abcabc", less.Held());
}

}  // namespace orx
