/* Shared helpers of the fake's translation units: the journal entry point,
 * scripted results and the emulated state reset by fake::Reset. */
#ifndef FAKE_INTERNAL_H
#define FAKE_INTERNAL_H

#include <cstdint>
#include <string>
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

/* Consumes a scripted result for the next call of `name`, if there is one. */
bool Scripted(const std::string &name, uint64_t *pulResult);
/* Appends the call to the journal, then runs the hook of its name. */
void Record(Call &&call);

/* Per-area state resets, called by fake::Reset. */
void ResetIf();
void ResetDbm();
void ResetHa();
void ResetMisc();

} // namespace fake::detail

#endif
