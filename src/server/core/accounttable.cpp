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

struct TableKey {
    const char *szSection;
    const char *szKey;
    AccountValue AccountTable::*pField;
};
static constexpr TableKey g_tableKeys[] = {{"USERS", "SuperUser", &AccountTable::superName},
                                           {"USERS", "SuperPwd", &AccountTable::superPassword},
                                           {"USERS", "NumUsers", &AccountTable::users}};

// The keys that a user's number follows.
struct RowKey {
    const char *szSection;
    const char *szKey;
    AccountValue AccountRow::*pField;
};
static constexpr RowKey g_rowKeys[] = {{"USERS", "UserName", &AccountRow::name},
                                       {"USERS", "UserPwd", &AccountRow::password},
                                       {"USERS", "UserLevel", &AccountRow::level},
                                       {"USERCTRL", "UserDevList", &AccountRow::devices}};

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

// Notes the keys that one section is to have. Returns 0 without memory.
static int ReadSection(AccountTable *pTable, const char *szSection)
{
    ProfileLine line;
    ProfileWalk walk{pTable->szText, szSection};
    while (ProfileWalkNext(&walk, &line)) {
        for (const TableKey &key : g_tableKeys)
            if (strcmp(key.szSection, szSection) == 0 && IsKey(&line, key.szKey))
                Note(&(pTable->*key.pField), &line);
        for (const RowKey &key : g_rowKeys)
            if (strcmp(key.szSection, szSection) == 0 && !NoteRow(pTable, &key, &line))
                return 0;
    }
    return 1;
}

static int ReadSections(AccountTable *pTable)
{
    if (!ReadSection(pTable, "USERS") || !ReadSection(pTable, "USERCTRL"))
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

int AccountTableHasSuper(const AccountTable *pTable)
{
    return pTable && pTable->superName.p && pTable->superName.nLen > 0;
}

}  // namespace orx
