#include <gmock/gmock.h>

#include "orxweb/tries.h"
#include "orxweb/websessions.h"

using namespace orx;

TEST(Tries, PausesDoubleAndAreForgotten)
{
    TryTable table{TryLimits{3, 1000, 4000, 60000, 2}};
    uint64_t nNow = 1000;
    for (int nWait : {0, 0, 1000, 2000, 4000, 4000}) {
        TryWrong(&table, "eve", nNow);
        EXPECT_EQ(nWait, TryWait(&table, "eve", nNow));
        nNow += static_cast<uint64_t>(nWait);
        EXPECT_EQ(0, TryWait(&table, "eve", nNow));
    }
    EXPECT_EQ(0, TryWait(&table, "bob", nNow));
    TryWrong(&table, "eve", nNow);
    TryRight(&table, "eve");
    EXPECT_EQ(0, TryWait(&table, "eve", nNow));
    for (int i = 0; i < 5; i++)
        TryWrong(&table, "bob", nNow);
    EXPECT_EQ(4000, TryWait(&table, "bob", nNow));
    nNow += 60000;
    TryWrong(&table, "bob", nNow);
    EXPECT_EQ(0, TryWait(&table, "bob", nNow));
}

TEST(Tries, TheTableIsBounded)
{
    TryTable table{TryLimits{0, 1000, 1000, 60000, 2}};
    for (const char *szKey : {"a", "b", "a", "c"})
        TryWrong(&table, szKey, 0);
    EXPECT_EQ(2u, table.rows.size());
    EXPECT_EQ(2u, table.byKey.size());
    EXPECT_NE(0, TryWait(&table, "a", 0));  // b was quiet longest
    EXPECT_EQ(0, TryWait(&table, "b", 0));
}

TEST(WebSessions, EndWhenIdleOldOrClosed)
{
    WebAccount account;
    std::string id = SessionOpen({"eve", "secret"}, 0), other = SessionOpen({"bob", ""}, 0);
    ASSERT_EQ(64u, id.size());
    EXPECT_NE(id, other);
    EXPECT_EQ(1, SessionFind(id, kSessionIdleMs - 1, &account));
    EXPECT_EQ("secret", account.password);
    EXPECT_EQ(0, SessionFind(other, kSessionIdleMs, &account));
    EXPECT_EQ(0, SessionFind("", 0, &account));
    EXPECT_EQ(0, SessionFind(id + "0", 0, &account));
    SessionClose(id);
    EXPECT_EQ(0, SessionFind(id, 0, &account));
    std::string old = SessionOpen({"eve", "secret"}, 0);
    for (uint64_t n = 0; n < kSessionMostMs; n += kSessionIdleMs / 2)
        EXPECT_EQ(1, SessionFind(old, n, &account));
    EXPECT_EQ(0, SessionFind(old, kSessionMostMs, &account));
}

TEST(WebSessions, AreBounded)
{
    WebAccount account;
    std::string first = SessionOpen({"eve", ""}, 1);
    for (size_t i = 0; i < kMostSessions; i++)
        SessionOpen({"bob", ""}, 2);
    EXPECT_EQ(kMostSessions, SessionCount());
    EXPECT_EQ(0, SessionFind(first, 2, &account));
}
