#include "server/core/accounttable.h"

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/inifile.h"
#include "base/textnumber.h"

namespace orx {

// A look-up that reads the text anew for every key, as the profile store does.
static int FindKeyByKey(const std::string &text, const std::string &user, Account *pOut)
{
    Profile profile;
    profile.text = const_cast<char *>(text.c_str());
    auto read = [&](const char *szSection, const std::string &key, char *szOut, int nSize) {
        return ProfileGetStr(szSection, key.c_str(), szOut, nSize, "", &profile);
    };
    char value[128];
    read("USERS", "SuperUser", value, sizeof(value));
    if (!user.empty() && user == value) {
        read("USERS", "SuperPwd", pOut->szPassword, sizeof(pOut->szPassword));
        pOut->nLevel = 0;
        return 1;
    }
    read("USERS", "NumUsers", value, sizeof(value));
    for (int i = 0, n = std::min(TextToInt(value), 1024); i < n && !user.empty(); i++) {
        const std::string number = std::to_string(i);
        if (!read("USERS", "UserName" + number, value, sizeof(value)) || user != value)
            continue;
        read("USERS", "UserPwd" + number, pOut->szPassword, sizeof(pOut->szPassword));
        pOut->nLevel = read("USERS", "UserLevel" + number, value, sizeof(value)) ? TextToInt(value) : 2;
        read("USERCTRL", "UserDevList" + number, pOut->szDevices, sizeof(pOut->szDevices));
        return 1;
    }
    return 0;
}

TEST(AccountTable, FindsWhatReadingKeyByKeyFinds)
{
    const std::string cut127(127, 'n'), longer(128, 'n');
    // separated by '|'
    std::istringstream list(
        "[USERS]\n|\n[USERS]\n|[USERSX]\r\n|[USERS|\n[USERCTRL]\n|[OTHER]\n|]|\n|;|NumUsers=2\n|NumUsers= "
        "12\r|NumUsers=-1\n|"
        "NumUsers=9999999999\n|UserName|UserPwd|UserLevel|UserDevList|SuperUser=|SuperPwd=|0=|1=|01=|11=|1023=|1024=|"
        "ann\n|"
        "ann\r\n| ann\n|bob\n|7\n|UserName0=ann\nUserName1=bob\nUserPwd1=x\nUserLevel1=1\n|" +
        cut127 + "\n|" + longer + "\n|" + std::string(1100, 'd') + "\n");
    std::vector<std::string> pieces;
    for (std::string piece; std::getline(list, piece, '|');)
        pieces.push_back(piece);
    std::mt19937 random(9);
    int nFound = 0;
    for (int i = 0; i < 8000; i++) {
        std::string text = i % 4 ? "[USERS]\nNumUsers=12\n" : "";
        for (unsigned n = random() % 24; n; n--)
            text += pieces[random() % pieces.size()];
        AccountTable *pTable = AccountTableParse(text.c_str());
        for (const std::string &user : std::vector<std::string>{"ann", "bob", " ann", cut127, longer, ""}) {
            Account expected, account;
            int bFound = FindKeyByKey(text, user, &expected);
            ASSERT_EQ(bFound, AccountTableFind(pTable, user.c_str(), &account)) << text << "\nuser: " << user;
            ASSERT_EQ(expected.nLevel, account.nLevel) << text;
            ASSERT_STREQ(expected.szPassword, account.szPassword) << text;
            ASSERT_STREQ(expected.szDevices, account.bSuper ? "" : account.szDevices) << text;
            nFound += bFound;
        }
        AccountTableFree(pTable);
    }
    EXPECT_GT(nFound, 2000);
}

}  // namespace orx
