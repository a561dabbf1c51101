#include "orxctl/json.h"

#include <algorithm>
#include <cstdlib>

namespace orx {

static constexpr int kMaxDepth = 32;

struct JsonInput {
    std::string_view left;
    int nDepth = 0;
};

static int ReadValue(JsonInput *pIn, JsonValue *pOut);

static char Next(JsonInput *pIn)  // the next character that is no blank, or NUL
{
    size_t n = pIn->left.find_first_not_of(" \t\r\n");
    pIn->left.remove_prefix(n == std::string_view::npos ? pIn->left.size() : n);
    return pIn->left.empty() ? '\0' : pIn->left[0];
}

static int Take(JsonInput *pIn, char c)
{
    if (Next(pIn) != c)
        return 0;
    pIn->left.remove_prefix(1);
    return 1;
}

// The writer escapes control characters alone: what else there may be is shown as '?'.
static char ReadEscape(JsonInput *pIn)
{
    char c = pIn->left[0];
    pIn->left.remove_prefix(1);
    if (c != 'u')
        return c == 'n' || c == 't' || c == 'r' || c == 'b' || c == 'f' ? ' ' : c;
    pIn->left.remove_prefix(std::min<size_t>(4, pIn->left.size()));
    return '?';
}

static int ReadText(JsonInput *pIn, std::string *pOut)
{
    if (!Take(pIn, '"'))
        return 0;
    while (!pIn->left.empty()) {
        char c = pIn->left[0];
        pIn->left.remove_prefix(1);
        if (c == '"')
            return 1;
        if (c == '\\' && pIn->left.empty())
            return 0;
        *pOut += c == '\\' ? ReadEscape(pIn) : c;
    }
    return 0;
}

static int ReadMembers(JsonInput *pIn, JsonValue *pOut, char closing)
{
    if (++pIn->nDepth > kMaxDepth)
        return 0;
    if (Take(pIn, closing))
        return --pIn->nDepth >= 0;
    do {
        if (closing == '}' && (!ReadText(pIn, &pOut->names.emplace_back()) || !Take(pIn, ':')))
            return 0;
        if (!ReadValue(pIn, &pOut->items.emplace_back()))
            return 0;
    } while (Take(pIn, ','));
    pIn->nDepth--;
    return Take(pIn, closing);
}

static int ReadWord(JsonInput *pIn, JsonValue *pOut)
{
    size_t n = pIn->left.find_first_not_of("+-.0123456789abcdefghijklmnopqrstuvwxyzE");
    pOut->text = pIn->left.substr(0, n);
    pIn->left.remove_prefix(pOut->text.size());
    if (pOut->text == "null")
        pOut->text = "-";
    else if (pOut->text == "true" || pOut->text == "false")
        pOut->chKind = 'b';
    else if (pOut->text.find_first_of("0123456789") <= 1)
        pOut->chKind = '#';
    else
        return 0;
    return 1;
}

static int ReadValue(JsonInput *pIn, JsonValue *pOut)
{
    char c = Next(pIn);
    if (c == '{' || c == '[') {
        pOut->chKind = c;
        pIn->left.remove_prefix(1);
        return ReadMembers(pIn, pOut, c == '{' ? '}' : ']');
    }
    if (c != '"')
        return ReadWord(pIn, pOut);
    pOut->chKind = 's';
    return ReadText(pIn, &pOut->text);
}

int JsonParse(std::string_view text, JsonValue *pOut)
{
    *pOut = JsonValue();
    JsonInput input{text};
    return ReadValue(&input, pOut) && Next(&input) == '\0' && input.left.empty();
}

const JsonValue &JsonMember(const JsonValue &object, std::string_view name)
{
    static const JsonValue none{'n', "-", {}, {}};
    for (size_t i = 0; i < object.names.size(); i++)
        if (object.names[i] == name)
            return object.items[i];
    return none;
}

double JsonToNumber(const JsonValue &value)
{
    return value.chKind == '#' ? strtod(value.text.c_str(), nullptr) : 0;
}

}  // namespace orx
