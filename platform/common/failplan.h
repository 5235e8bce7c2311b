/* Fault injection: chassisd keeps, per board, a small shared-memory plan
 * (DIR/board<N>/failplan) of platform calls that must fail. chassisctl fail
 * fills it through chassisd; every emulated platform call of that board's
 * daemon asks FailPlanHit() first, which costs one atomic load while
 * nothing is planned. The counters are atomics because chassisd and the
 * board's daemon share the mapping. */
#ifndef TBDL_PLAT_FAILPLAN_H
#define TBDL_PLAT_FAILPLAN_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tbdl::rpc {

inline constexpr uint32_t kFailPlanMagic = 0x4641504cu; /* "FAPL" */
inline constexpr size_t kFailSlots = 32;
inline constexpr size_t kFailNameLen = 48;

struct FailSlot {
    char acName[kFailNameLen];    /* call name, "" = free slot */
    std::atomic<int32_t> iLeft;   /* failures left; -1 = always; 0 = spent */
    std::atomic<uint32_t> uiHits; /* failures injected so far */
    int64_t lResult;              /* failure value to return */
    uint32_t uiHasResult;         /* 1 = lResult given, else the call's own */
    uint32_t uiResv;
};
static_assert(sizeof(FailSlot) == 72, "a plan slot is 72 bytes");
static_assert(offsetof(FailSlot, iLeft) == 48 && offsetof(FailSlot, lResult) == 56, "slot counters, then result");

struct FailPlan {
    uint32_t uiMagic;
    std::atomic<uint32_t> uiActive; /* number of slots in use; 0 = fast path */
    FailSlot astSlot[kFailSlots];
};
static_assert(sizeof(FailPlan) == 8 + kFailSlots * sizeof(FailSlot), "plan is a head and its slots");
static_assert(offsetof(FailPlan, astSlot) == 8, "slots follow the 8-byte head");
static_assert(std::atomic<int32_t>::is_always_lock_free, "shared counters need lock-free atomics");

/* Path of a board's plan file. */
std::string FailPlanPathOf(const std::string &dir, int board);

/* Library side: true when `call` must fail now on this process's board (the
 * plan is mapped on first use from TBDL_CHASSIS_DIR / TBDL_BOARD). Counts
 * the failure. When the plan gives a result value, *value receives it and
 * *hasValue is set. */
bool FailPlanHit(const char *call, int64_t *value = nullptr, bool *hasValue = nullptr);
/* Forgets the mapping (tests that change the environment). */
void FailPlanReset();

/* chassisd side: maps (creating and zeroing) a board's plan file. */
FailPlan *FailPlanCreate(const std::string &path);
/* Adds or replaces the entry for call: count > 0 failures, or -1 always. */
bool FailPlanSet(FailPlan *plan, const std::string &call, int32_t count, bool hasResult,
                 int64_t result);
void FailPlanClear(FailPlan *plan);


} // namespace tbdl::rpc

#endif
