#include "base/jsontext.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orx {

static constexpr size_t kFirstRoom = 1024;

static int MakeRoom(JsonText *pJson, size_t nMore)
{
    if (pJson->bFailed)
        return 0;
    size_t nNeeded = pJson->nLen + nMore + 1;
    if (nNeeded <= pJson->nRoom)
        return 1;
    size_t nRoom = pJson->nRoom ? pJson->nRoom : kFirstRoom;
    while (nRoom < nNeeded)
        nRoom *= 2;
    auto *pNew = static_cast<char *>(realloc(pJson->sz, nRoom));
    if (!pNew) {
        pJson->bFailed = 1;
        return 0;
    }
    pJson->sz = pNew;
    pJson->nRoom = nRoom;
    return 1;
}

void JsonAddBytes(JsonText *pJson, std::string_view bytes)
{
    if (!MakeRoom(pJson, bytes.size()))
        return;
    memcpy(pJson->sz + pJson->nLen, bytes.data(), bytes.size());
    pJson->nLen += bytes.size();
    pJson->sz[pJson->nLen] = '\0';
}

static int IsContinuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Overlong forms, surrogates and what lies above U+10FFFF are none.
static int IsSecondByte(unsigned char c, unsigned char next)
{
    switch (c) {
        case 0xE0:
            return next >= 0xA0;
        case 0xED:
            return next < 0xA0;
        case 0xF0:
            return next >= 0x90;
        case 0xF4:
            return next < 0x90;
        default:
            return 1;
    }
}

size_t Utf8Length(std::string_view text)
{
    if (text.empty())
        return 0;
    auto c = static_cast<unsigned char>(text[0]);
    if (c < 0x80)
        return 1;
    size_t n = c >= 0xC2 && c < 0xE0 ? 2 : c >= 0xE0 && c < 0xF0 ? 3 : c >= 0xF0 && c < 0xF5 ? 4 : 0;
    if (n == 0 || text.size() < n || !IsSecondByte(c, static_cast<unsigned char>(text[1])))
        return 0;
    for (size_t i = 1; i < n; i++)
        if (!IsContinuation(text[i]))
            return 0;
    return n;
}

static void AddEscaped(JsonText *pJson, std::string_view text)
{
    JsonAddBytes(pJson, "\"");
    while (!text.empty()) {
        size_t n = Utf8Length(text);
        char c = text[0];
        if (n == 0) {
            JsonAddBytes(pJson, "\xEF\xBF\xBD");
            n = 1;
        } else if (c == '"' || c == '\\') {
            char pair[2] = {'\\', c};
            JsonAddBytes(pJson, {pair, 2});
        } else if (n == 1 && (static_cast<unsigned char>(c) < ' ' || c == 127)) {
            char szCode[8];
            snprintf(szCode, sizeof(szCode), "\\u%04x", static_cast<unsigned>(c));
            JsonAddBytes(pJson, szCode);
        } else {
            JsonAddBytes(pJson, text.substr(0, n));
        }
        text.remove_prefix(n);
    }
    JsonAddBytes(pJson, "\"");
}

static void BeginValue(JsonText *pJson, const char *szName)
{
    if (pJson->bComma)
        JsonAddBytes(pJson, ",");
    pJson->bComma = 1;
    if (!szName)
        return;
    AddEscaped(pJson, szName);
    JsonAddBytes(pJson, ":");
}

static void OpenWith(JsonText *pJson, const char *szName, const char *szOpen, char closing)
{
    if (pJson->nDepth == kMaxJsonDepth) {
        pJson->bFailed = 1;
        return;
    }
    BeginValue(pJson, szName);
    JsonAddBytes(pJson, szOpen);
    pJson->closing[pJson->nDepth++] = closing;
    pJson->bComma = 0;
}

void JsonOpen(JsonText *pJson, const char *szName)
{
    OpenWith(pJson, szName, "{", '}');
}

void JsonOpenList(JsonText *pJson, const char *szName)
{
    OpenWith(pJson, szName, "[", ']');
}

void JsonClose(JsonText *pJson)
{
    if (pJson->nDepth == 0)
        return;
    JsonAddBytes(pJson, {&pJson->closing[--pJson->nDepth], 1});
    pJson->bComma = 1;
}

void JsonString(JsonText *pJson, const char *szName, std::string_view value)
{
    BeginValue(pJson, szName);
    AddEscaped(pJson, value);
}

void JsonNumber(JsonText *pJson, const char *szName, int64_t nValue)
{
    char szNumber[24];
    snprintf(szNumber, sizeof(szNumber), "%lld", static_cast<long long>(nValue));
    BeginValue(pJson, szName);
    JsonAddBytes(pJson, szNumber);
}

void JsonDecimal(JsonText *pJson, const char *szName, double dValue)
{
    if (!std::isfinite(dValue) || std::fabs(dValue) > 1e15) {
        JsonNull(pJson, szName);
        return;
    }
    char szNumber[40];
    snprintf(szNumber, sizeof(szNumber), "%.2f", dValue);
    BeginValue(pJson, szName);
    JsonAddBytes(pJson, szNumber);
}

void JsonBool(JsonText *pJson, const char *szName, int bValue)
{
    BeginValue(pJson, szName);
    JsonAddBytes(pJson, bValue ? "true" : "false");
}

void JsonNull(JsonText *pJson, const char *szName)
{
    BeginValue(pJson, szName);
    JsonAddBytes(pJson, "null");
}

void JsonReset(JsonText *pJson)
{
    pJson->nLen = 0;
    pJson->nDepth = 0;
    pJson->bComma = 0;
    pJson->bFailed = 0;
    if (pJson->sz)
        pJson->sz[0] = '\0';
}

void JsonFree(JsonText *pJson)
{
    free(pJson->sz);
    *pJson = JsonText();
}

}  // namespace orx
