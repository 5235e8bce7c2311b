/* Journal, scripted results, hooks and settings of the recording fake. */
#include <algorithm>
#include <deque>
#include <iterator>
#include <mutex>
#include <optional>
#include <utility>

#include "fake_internal.h"

namespace fake {
namespace {

/* Results for the next calls, in order, then the one for every call. */
struct Script {
    std::deque<std::optional<uint64_t>> dqOnce; /* nullopt: that call runs as usual */
    bool bAlways = false;
    uint64_t ulAlways = 0;
};

std::mutex g_mtxJournal;
std::vector<Call> g_vecCalls;
std::map<std::string, Script> g_mapScripts;
std::map<std::string, std::function<void(const Call &)>> g_mapHooks;
Settings g_stSettings;

/* The recorded calls for which keep(call) holds, in order. */
template <typename Keep>
std::vector<Call> Select(Keep keep)
{
    std::lock_guard<std::mutex> lock(g_mtxJournal);
    std::vector<Call> out;
    std::copy_if(g_vecCalls.begin(), g_vecCalls.end(), std::back_inserter(out), keep);
    return out;
}

} // namespace

namespace detail {

bool Scripted(const std::string &name, uint64_t *pulResult)
{
    auto it = g_mapScripts.find(name);
    if (it == g_mapScripts.end()) {
        return false;
    }
    Script &s = it->second;
    if (!s.dqOnce.empty()) {
        std::optional<uint64_t> next = s.dqOnce.front();
        s.dqOnce.pop_front();
        *pulResult = next.value_or(0);
        return next.has_value();
    }
    *pulResult = s.ulAlways;
    return s.bAlways;
}

void Record(Call &&call)
{
    std::function<void(const Call &)> hook;
    Call copy;
    {
        std::lock_guard<std::mutex> lock(g_mtxJournal);
        g_vecCalls.push_back(std::move(call));
        auto it = g_mapHooks.find(g_vecCalls.back().name);
        if (it != g_mapHooks.end()) {
            hook = it->second;
            copy = g_vecCalls.back();
        }
    }
    /* The hook may make platform calls itself: run it without the lock and
     * on a copy, since the journal may grow meanwhile. */
    if (hook) {
        hook(copy);
    }
}

} // namespace detail

void Reset()
{
    {
        std::lock_guard<std::mutex> lock(g_mtxJournal);
        g_vecCalls.clear();
        g_mapHooks.clear();
    }
    g_mapScripts.clear();
    g_stSettings = Settings{};
    detail::ResetIf();
    detail::ResetDbm();
    detail::ResetHa();
    detail::ResetMisc();
    detail::ResetWatch();
}

std::vector<Call> CallsOf(const std::string &name) { return Select([&](const Call &c) { return c.name == name; }); }

size_t CountOf(const std::string &name) { return CallsOf(name).size(); }

std::vector<std::string> Names(const std::vector<std::string> &only)
{
    std::vector<std::string> out;
    for (const Call &c : Select([&](const Call &c) {
             return only.empty() || std::find(only.begin(), only.end(), c.name) != only.end();
         })) {
        out.push_back(c.name);
    }
    return out;
}

void ClearJournal()
{
    std::lock_guard<std::mutex> lock(g_mtxJournal);
    g_vecCalls.clear();
}

void FailOnce(const std::string &name, uint64_t result) { g_mapScripts[name].dqOnce.push_back(result); }

void FailNth(const std::string &name, unsigned n, uint64_t result)
{
    for (unsigned i = 1; i < n; ++i) {
        g_mapScripts[name].dqOnce.push_back(std::nullopt);
    }
    FailOnce(name, result);
}

void FailAlways(const std::string &name, uint64_t result)
{
    g_mapScripts[name].bAlways = true;
    g_mapScripts[name].ulAlways = result;
}

void ClearFailures() { g_mapScripts.clear(); }

void OnCall(const std::string &name, std::function<void(const Call &)> hook)
{
    std::lock_guard<std::mutex> lock(g_mtxJournal);
    if (hook) {
        g_mapHooks[name] = std::move(hook);
    } else {
        g_mapHooks.erase(name);
    }
}

Settings &Config() { return g_stSettings; }

} // namespace fake
