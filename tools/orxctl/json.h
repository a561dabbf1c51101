// Reading JSON text (RFC 8259) as the status socket writes it. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orx {

struct JsonValue {
    char chKind = 'n';  // 's' text, '#' number, 'b' true or false, 'n' null, '[' list, '{' object
    std::string text;   // of a string; of numbers, true and false as they stand; of null "-"
    std::vector<std::string> names;  // of an object
    std::vector<JsonValue> items;    // of lists and objects
};

// Returns 1, or 0 for a text that is no JSON.
int JsonParse(std::string_view text, JsonValue *pOut);

// A member, or one that is null when there is none.
const JsonValue &JsonMember(const JsonValue &object, std::string_view name);
// The number, or 0.
double JsonToNumber(const JsonValue &value);

}  // namespace orx
