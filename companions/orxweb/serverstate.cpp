#include "orxweb/serverstate.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <mutex>

#include "orxweb/websettings.h"
#include "shared/loop.h"

namespace orx {

constexpr uint64_t kStateMs = 900;
constexpr uint64_t kListMs = 3000;
constexpr size_t kMostLists = 64;
constexpr int kMostPages = 40;  // of 500 recordings

static std::string_view WithoutSlash(std::string_view program)
{
    return program.substr(program.starts_with('/'));
}

static ProgramFacts FactsOf(const JsonValue &json)
{
    ProgramFacts facts;
    facts.program = WithoutSlash(JsonMember(json, "program").text);
    facts.state = JsonMember(json, "state").text;
    facts.dBitRate = JsonToNumber(JsonMember(json, "bit_rate"));
    facts.nPlayers = static_cast<int>(JsonToNumber(JsonMember(json, "players")));
    facts.nRecordings = static_cast<int>(JsonToNumber(JsonMember(json, "recordings")));
    for (const JsonValue &track : JsonMember(json, "tracks").items) {
        const std::string &kind = JsonMember(track, "kind").text;
        if (kind == "audio" && facts.audioCodec.empty())
            facts.audioCodec = JsonMember(track, "codec").text;
        if (kind != "video" || !facts.videoCodec.empty())
            continue;
        facts.videoCodec = JsonMember(track, "codec").text;
        facts.nWidth = static_cast<int>(JsonToNumber(JsonMember(track, "width")));
        facts.nHeight = static_cast<int>(JsonToNumber(JsonMember(track, "height")));
        facts.dFrameRate = JsonToNumber(JsonMember(track, "frame_rate"));
    }
    return facts;
}

static std::shared_ptr<const ServerState> AskState()
{
    auto pState = std::make_shared<ServerState>();
    pState->answer = ServerAsk(WebSettingsNow()->socketPath, "/status");
    if (pState->answer.nStatus == 200 && !JsonParse(pState->answer.body, &pState->json))
        pState->answer = {0, {}, "no answer that can be read"};
    for (const JsonValue &program : JsonMember(pState->json, "programs").items)
        pState->programs.push_back(FactsOf(program));
    std::sort(pState->programs.begin(), pState->programs.end(),
              [](const auto &a, const auto &b) { return a.program < b.program; });
    return pState;
}

std::shared_ptr<const ServerState> ServerStateNow()
{
    static std::mutex mutex;  // also while it is asked: the others wait for the same answer
    static std::shared_ptr<const ServerState> pState;
    static uint64_t nAskedMs = 0;
    std::lock_guard lock(mutex);
    if (!pState || LoopNowMs() - nAskedMs >= kStateMs) {
        pState = AskState();
        nAskedMs = LoopNowMs();
    }
    return pState;
}

int ServerDays(std::shared_ptr<const std::vector<ClipDays>> *ppOut)
{
    static std::mutex mutex;
    static std::shared_ptr<const std::vector<ClipDays>> pKept;
    static uint64_t nAskedMs = 0;
    std::lock_guard lock(mutex);
    *ppOut = pKept;
    if (pKept && LoopNowMs() - nAskedMs < kListMs)
        return 1;
    auto pDays = std::make_shared<std::vector<ClipDays>>();
    ServerAnswer answer = ServerAsk(WebSettingsNow()->socketPath, "/recordings");
    if (answer.nStatus != 200 || !ClipDaysRead(answer.body, pDays.get()))
        return 0;
    nAskedMs = LoopNowMs();
    *ppOut = pKept = pDays;
    return 1;
}

static int AskRecordings(const std::string &program, const std::string &day, std::vector<ClipRow> *pOut)
{
    std::string after;
    for (int i = 0; i < kMostPages; i++) {
        ServerAnswer answer = ServerAsk(WebSettingsNow()->socketPath, ClipListTarget(program, day, after));
        if (answer.nStatus == 404)
            return 1;
        if (answer.nStatus != 200 || !ClipListRead(answer.body, time(nullptr), pOut, &after))
            return 0;
        if (after.empty())
            break;
    }
    std::stable_sort(pOut->begin(), pOut->end(),
                     [](const auto &a, const auto &b) { return a.tStart < b.tStart; });
    return 1;
}

struct KeptList {
    uint64_t nAskedMs = 0;
    std::shared_ptr<const std::vector<ClipRow>> pRows;
};

int ServerRecordings(const std::string &program, const std::string &day,
                     std::shared_ptr<const std::vector<ClipRow>> *ppOut)
{
    static std::mutex mutex;
    static std::map<std::string, KeptList> lists;
    const std::string key = day + "/" + program;
    {
        std::lock_guard lock(mutex);
        auto it = lists.find(key);
        if (it != lists.end() && LoopNowMs() - it->second.nAskedMs < kListMs) {
            *ppOut = it->second.pRows;
            return 1;
        }
    }
    auto pRows = std::make_shared<std::vector<ClipRow>>();
    if (!AskRecordings(program, day, pRows.get()))
        return 0;
    std::lock_guard lock(mutex);
    if (lists.size() >= kMostLists)
        lists.clear();
    lists[key] = {LoopNowMs(), pRows};
    *ppOut = pRows;
    return 1;
}

}  // namespace orx
