/* The one frame every emulated platform call runs in: the planned-failure
 * check (chassisctl fail) and the journal line are made here, so a call
 * cannot forget either.
 *
 *   return Emulated("TUNNEL_GetMode", u32{1}, [&] { ...; return rc; },
 *                   [&](u32 rc) { return Json{{"ifindex", i}, ...}; });
 *
 * A planned failure returns the plan's value, or else the call's own
 * failure value, without running the body: outputs stay untouched. The
 * arguments of the journal line are built after the body (or the planned
 * failure), and only while the journal is on; the builder may take the
 * result. Calls that chassisctl fail does not reach (pure computations,
 * frees and releases, the services this chassis does not offer yet) use
 * Journaled(): the journal line without the failure check. */
#ifndef TBDL_PLAT_EMULATED_CALL_H
#define TBDL_PLAT_EMULATED_CALL_H

#include <cstdint>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "failplan.h"
#include "journal.h"

namespace tbdl::plat {

using Json = nlohmann::json;

namespace detail {

/* How a result appears in the journal: pointers as "0x...". */
template <class R> Json JournalResult(const R &ret)
{
    if constexpr (std::is_pointer_v<R>) {
        return PtrOf(ret);
    } else {
        return ret;
    }
}

template <class Args, class R> Json BuildArgs(Args &args, const R &ret)
{
    if constexpr (std::is_invocable_v<Args &, const R &>) {
        return args(ret);
    } else {
        return args();
    }
}

} // namespace detail

/* Journal line only; the body always runs. A void body is journaled with a
 * null result. */
template <class Body, class Args> auto Journaled(const char *call, Body &&body, Args &&args)
{
    using R = std::invoke_result_t<Body &>;
    if constexpr (std::is_void_v<R>) {
        body();
        if (JournalEnabled()) {
            JournalRecord(call, args(), nullptr);
        }
    } else {
        R ret = body();
        if (JournalEnabled()) {
            JournalRecord(call, detail::BuildArgs(args, ret), detail::JournalResult(ret));
        }
        return ret;
    }
}

/* Planned-failure check, body, journal line. A pointer-returning call
 * fails with failValue (a planned value has no meaning for it). A planned
 * crash ends the process before the body runs, or after the body and its
 * journal line. */
template <class R, class Body, class Args> R Emulated(const char *call, R failValue, Body &&body, Args &&args)
{
    using tbdl::rpc::FailKind;
    int64_t planned = 0;
    if constexpr (!std::is_pointer_v<R>) {
        planned = static_cast<int64_t>(failValue);
    }
    const std::optional<FailKind> hit = tbdl::rpc::FailPlanHit(call, &planned);
    if (hit == FailKind::CRASH_BEFORE) {
        tbdl::rpc::FailPlanCrash(call, *hit);
    }
    R ret;
    if (hit != FailKind::FAIL) {
        ret = body();
    } else if constexpr (std::is_pointer_v<R>) {
        ret = failValue;
    } else {
        ret = static_cast<R>(planned);
    }
    if (JournalEnabled()) {
        JournalRecord(call, detail::BuildArgs(args, ret), detail::JournalResult(ret));
    }
    if (hit == FailKind::CRASH_AFTER) {
        tbdl::rpc::FailPlanCrash(call, *hit);
    }
    return ret;
}

/* A C string, or "" when it is null. */
inline const char *TextOf(const char *pc)
{
    return pc != nullptr ? pc : "";
}

} // namespace tbdl::plat

#endif
