// Wrong passwords: how long the next try under a name, or by a visitor, has to wait. Both tables are bounded:
// what was quiet longest goes. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

namespace orx {

struct TryLimits {
    int nFree = 3;           // wrong tries without a pause
    int nFirstMs = 1000;     // the pause after the next one, which doubles with each
    int nLongestMs = 30000;  // up to this
    int nForgetMs = 900000;  // quiet for so long, it begins anew
    size_t nMostKept = 4096;
};

struct TryTable {
    struct Row {
        std::string key;
        int nWrong = 0;
        uint64_t nLastMs = 0, nFreeAtMs = 0;
    };
    explicit TryTable(const TryLimits &use) : limits(use) {}

    TryLimits limits;
    std::mutex mutex;
    std::list<Row> rows;  // the one that was touched last first
    std::unordered_map<std::string, std::list<Row>::iterator> byKey;
};

// How many ms that key has to wait from nNowMs on; 0: it may try.
int TryWait(TryTable *pTable, const std::string &key, uint64_t nNowMs);
void TryWrong(TryTable *pTable, const std::string &key, uint64_t nNowMs);
void TryRight(TryTable *pTable, const std::string &key);  // forgets it

}  // namespace orx
