// The decisions of a hostile session. They depend on the seed alone, so that an attack is told by its number.
#pragma once

#include <cstdint>
#include <iterator>
#include <random>
#include <string>

namespace orx {

struct Dice {
    std::mt19937 engine;

    explicit Dice(uint32_t nSeed) : engine(nSeed) {}
    uint32_t Below(size_t n) { return static_cast<uint32_t>(engine() % n); }  // 0 .. n - 1
    bool OneIn(size_t n) { return Below(n) == 0; }
    template <typename List>
    auto &Pick(List &list)
    {
        return list[Below(std::size(list))];
    }
    // A copy with a few bytes changed, pieces left out or said again.
    std::string Spoil(std::string text)
    {
        for (uint32_t n = 1 + Below(4); n > 0 && !text.empty(); n--) {
            size_t nAt = Below(text.size()), nLen = 1 + Below(OneIn(4) ? text.size() : 8);
            switch (Below(4)) {
                case 0:
                    text[nAt] = static_cast<char>(engine());
                    break;
                case 1:
                    text.erase(nAt, nLen);
                    break;
                case 2:
                    text.insert(nAt, text.substr(Below(text.size()), nLen));
                    break;
                default:
                    text.insert(nAt, nLen, "\0\xFF\r\n: $="[Below(8)]);
            }
        }
        return text;
    }
};

}  // namespace orx
