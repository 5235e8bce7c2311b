/* Shared helpers of the fake's translation units: the one way a faked call
 * runs (scripted result or emulated behaviour, then the journal) and the
 * per-area resets of fake::Reset. */
#ifndef FAKE_INTERNAL_H
#define FAKE_INTERNAL_H

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "fake_platform.h"
#include "platform.h"

namespace fake::detail {

/* Widening of results and integer arguments into the journal: unsigned
 * values are zero-extended, signed ones sign-extended. */
inline uint64_t U(uint64_t v) { return v; }
inline uint64_t S(int64_t v) { return static_cast<uint64_t>(v); }

inline Bytes Copy(const void *pv, size_t len)
{
    if (pv == nullptr || len == 0) {
        return {};
    }
    const auto *p = static_cast<const uint8_t *>(pv);
    return Bytes(p, p + len);
}

inline std::string Str(const char *pc) { return pc != nullptr ? pc : ""; }

/* A journal entry with the call's name, integer arguments and payloads. */
inline Call Mk(std::string name, std::vector<uint64_t> args, Bytes data = {}, Bytes rec = {})
{
    Call c;
    c.name = std::move(name);
    c.args = std::move(args);
    c.data = std::move(data);
    c.rec = std::move(rec);
    return c;
}

/* The same entry with its string arguments (joined by '|'). */
inline Call WithText(Call c, std::string text)
{
    c.text = std::move(text);
    return c;
}

/* Consumes a scripted result for the next call of `name`, if there is one. */
bool Scripted(const std::string &name, uint64_t *pulResult);
/* Appends the call to the journal, then runs the hook of its name. */
void Record(Call &&call);

/* What a behaviour gives as the call's result: 0 when it gives nothing. */
template <typename F, typename... A>
uint64_t ResultOf(F &f, A &...a)
{
    if constexpr (std::is_void_v<std::invoke_result_t<F, A &...>>) {
        f(a...);
        return 0;
    } else {
        return static_cast<uint64_t>(f(a...));
    }
}

/* The one way every faked call runs: a result scripted for the call's name
 * replaces the emulated behaviour; otherwise `behaviour` gives the result,
 * as a function of nothing or of the journal entry (to add what it learns),
 * or as a constant for a call that only answers. The call is then recorded
 * with its result (its hook runs) and the result returned as R. */
template <typename R, typename B>
R Run(Call c, B behaviour)
{
    uint64_t ul = 0;
    if (!Scripted(c.name, &ul)) {
        if constexpr (std::is_invocable_v<B, Call &>) {
            ul = ResultOf(behaviour, c);
        } else if constexpr (std::is_invocable_v<B>) {
            ul = ResultOf(behaviour);
        } else {
            ul = static_cast<uint64_t>(behaviour);
        }
    }
    c.result = ul;
    Record(std::move(c));
    if constexpr (std::is_pointer_v<R>) {
        return reinterpret_cast<R>(static_cast<uintptr_t>(ul));
    } else if constexpr (!std::is_void_v<R>) {
        return static_cast<R>(ul);
    }
}

/* Per-area state resets, called by fake::Reset. */
void ResetIf();
void ResetDbm();
void ResetHa();
void ResetMisc();
void ResetWatch();

} // namespace fake::detail

#endif
