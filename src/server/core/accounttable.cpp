#include "server/core/accounttable.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/inifile.h"
#include "base/textbuf.h"
#include "base/textnumber.h"

namespace orx {

constexpr int kMaxUsers = 1024;      // however many a camera's text claims to list
constexpr int kListedUserLevel = 2;  // of a user without a level of its own
constexpr size_t kValueSize = 128;   // bytes that count of a value other than password and device list

// A value in the text; null when its key is missing.
struct AccountValue {
    const char *p = nullptr;
    size_t nLen = 0;
};

struct AccountRow {
    AccountValue name, password, level, devices;
};

struct AccountTable {
    char *szText = nullptr;  // owned
    AccountValue superName, superPassword, users;
    AccountRow *pRows = nullptr;  // kMaxUsers of them, owned; null when no key of a user was found
    int nUsers = 0;
};

// The keys that are followed by a user's number.
struct RowKey {
    const char *szKey;
    AccountValue AccountRow::*pField;
};
static constexpr RowKey g_userKeys[] = {
    {"UserName", &AccountRow::name}, {"UserPwd", &AccountRow::password}, {"UserLevel", &AccountRow::level}};
static constexpr RowKey g_controlKeys[] = {{"UserDevList", &AccountRow::devices}};

static void Copy(char *szOut, size_t nSize, const AccountValue *pValue)
{
    size_t nLen = std::min(pValue->nLen, nSize - 1);
    if (nLen)
        memcpy(szOut, pValue->p, nLen);
    szOut[nLen] = '\0';
}

static int Number(const AccountValue *pValue)
{
    char value[kValueSize];
    Copy(value, sizeof(value), pValue);
    return TextToInt(value);
}

// Whether a value, cut to what counts of it, is the name.
static int Names(const AccountValue *pValue, const char *szUser)
{
    size_t nLen = std::min(pValue->nLen, kValueSize - 1);
    return pValue->p && *szUser && strlen(szUser) == nLen && memcmp(pValue->p, szUser, nLen) == 0;
}

static int IsKey(const ProfileLine *pLine, const char *szKey)
{
    return pLine->nKey == strlen(szKey) && memcmp(pLine->pKey, szKey, pLine->nKey) == 0;
}

static void Note(AccountValue *pValue, const ProfileLine *pLine)
{
    if (!pValue->p)
        *pValue = AccountValue{pLine->pValue, pLine->nValue};
}

// The number behind a key of that name, written as it is printed; -1 when it is another key.
static int UserOfKey(const ProfileLine *pLine, const char *szKey)
{
    size_t nName = strlen(szKey);
    if (pLine->nKey <= nName || pLine->nKey > nName + 4 || memcmp(pLine->pKey, szKey, nName) != 0)
        return -1;
    int nUser = 0;
    for (size_t i = nName; i < pLine->nKey; i++) {
        if (pLine->pKey[i] < '0' || pLine->pKey[i] > '9')
            return -1;
        nUser = nUser * 10 + (pLine->pKey[i] - '0');
    }
    int bPadded = pLine->pKey[nName] == '0' && pLine->nKey > nName + 1;
    return bPadded || nUser >= kMaxUsers ? -1 : nUser;
}

// Notes the line when it is one of these keys. Returns 0 without memory.
static int NoteRow(AccountTable *pTable, const RowKey *pKey, const ProfileLine *pLine)
{
    int nUser = UserOfKey(pLine, pKey->szKey);
    if (nUser < 0)
        return 1;
    if (!pTable->pRows)
        pTable->pRows = new (std::nothrow) AccountRow[kMaxUsers];
    if (!pTable->pRows)
        return 0;
    Note(&(pTable->pRows[nUser].*pKey->pField), pLine);
    return 1;
}

static int ReadSections(AccountTable *pTable)
{
    ProfileLine line;
    ProfileWalk users{pTable->szText, "USERS"};
    while (ProfileWalkNext(&users, &line)) {
        if (IsKey(&line, "SuperUser"))
            Note(&pTable->superName, &line);
        else if (IsKey(&line, "SuperPwd"))
            Note(&pTable->superPassword, &line);
        else if (IsKey(&line, "NumUsers"))
            Note(&pTable->users, &line);
        for (const RowKey &key : g_userKeys)
            if (!NoteRow(pTable, &key, &line))
                return 0;
    }
    ProfileWalk control{pTable->szText, "USERCTRL"};
    while (ProfileWalkNext(&control, &line))
        for (const RowKey &key : g_controlKeys)
            if (!NoteRow(pTable, &key, &line))
                return 0;
    pTable->nUsers = pTable->pRows ? std::min(Number(&pTable->users), kMaxUsers) : 0;
    return 1;
}

AccountTable *AccountTableParse(const char *szText)
{
    auto *pTable = new (std::nothrow) AccountTable;
    if (!pTable)
        return nullptr;
    pTable->szText = strdup(szText);
    if (pTable->szText && ReadSections(pTable))
        return pTable;
    AccountTableFree(pTable);
    return nullptr;
}

void AccountTableFree(AccountTable *pTable)
{
    if (!pTable)
        return;
    free(pTable->szText);
    delete[] pTable->pRows;
    delete pTable;
}

int AccountTableFind(const AccountTable *pTable, const char *szUser, Account *pOut)
{
    if (!pTable)
        return 0;
    if (Names(&pTable->superName, szUser)) {
        *pOut = Account();
        Copy(pOut->szPassword, sizeof(pOut->szPassword), &pTable->superPassword);
        pOut->nLevel = 0;
        pOut->bSuper = 1;
        return 1;
    }
    for (int i = 0; i < pTable->nUsers; i++) {
        const AccountRow *pRow = &pTable->pRows[i];
        if (!Names(&pRow->name, szUser))
            continue;
        *pOut = Account();
        Copy(pOut->szPassword, sizeof(pOut->szPassword), &pRow->password);
        pOut->nLevel = pRow->level.p ? Number(&pRow->level) : kListedUserLevel;
        Copy(pOut->szDevices, sizeof(pOut->szDevices), &pRow->devices);
        return 1;
    }
    return 0;
}

}  // namespace orx
