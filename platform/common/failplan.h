/* Fault injection: chassisd keeps, per board, a small shared-memory plan
 * (DIR/board<N>/failplan) of platform calls that must fail, or at which the
 * board's daemon must die as a kill -9 would (before the call takes effect,
 * or right after it did). chassisctl fail
 * fills it through chassisd; every emulated platform call of that board's
 * daemon asks FailPlanHit() first, which costs one atomic load while
 * nothing is planned. The counters are atomics because chassisd and the
 * board's daemon share the mapping. */
#ifndef TBDL_PLAT_FAILPLAN_H
#define TBDL_PLAT_FAILPLAN_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tbdl::rpc {

inline constexpr uint32_t kFailPlanMagic = 0x4641504cu; /* "FAPL" */
inline constexpr size_t kFailSlots = 32;
inline constexpr size_t kFailNameLen = 48;

/* What a planned call does when its turn comes. */
enum class FailKind : uint32_t {
    FAIL = 0,         /* returns a failure without taking effect */
    CRASH_BEFORE = 1, /* the process dies before the call takes effect */
    CRASH_AFTER = 2,  /* the call takes effect, then the process dies */
};

struct FailSlot {
    char acName[kFailNameLen];    /* call name, "" = free slot */
    std::atomic<int32_t> iLeft;   /* failures left; -1 = always; 0 = spent */
    std::atomic<uint32_t> uiHits; /* failures injected so far */
    int64_t lResult;              /* failure value to return */
    uint32_t uiHasResult;         /* 1 = lResult given, else the call's own */
    uint32_t uiKind;              /* FailKind */
    std::atomic<int32_t> iSkip;   /* calls still let through before the first failure */
    uint32_t uiResv;
};
static_assert(sizeof(FailSlot) == 80, "a plan slot is 80 bytes");
static_assert(offsetof(FailSlot, iLeft) == 48 && offsetof(FailSlot, lResult) == 56, "slot counters, then result");
static_assert(offsetof(FailSlot, uiKind) == 68 && offsetof(FailSlot, iSkip) == 72, "kind and skip after the result");

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

/* Library side: what this call must do now on this process's board (the
 * plan is mapped on first use from TBDL_CHASSIS_DIR / TBDL_BOARD): nothing
 * (std::nullopt), fail, or crash. Counts the hit. When the plan gives a
 * result value, *value receives it and *hasValue is set. */
std::optional<FailKind> FailPlanHit(const char *call, int64_t *value = nullptr, bool *hasValue = nullptr);
/* Ends this process at once, as a kill -9 would: nothing is flushed and no
 * handler runs. The journal gets a "CRASH" line first, naming the call and
 * whether it took effect. */
[[noreturn]] void FailPlanCrash(const char *call, FailKind kind);
/* "fail", "crash-before", "crash-after"; nullopt for an unknown name. */
const char *FailKindName(FailKind kind);
std::optional<FailKind> FailKindOf(const std::string &name);
/* Forgets the mapping (tests that change the environment). */
void FailPlanReset();

/* chassisd side: maps (creating and zeroing) a board's plan file. */
FailPlan *FailPlanCreate(const std::string &path);
/* One planned entry: count > 0 hits (or -1 always) after skip calls let
 * through. */
struct FailEntry {
    std::string call;
    int32_t count = 1;
    int32_t skip = 0;
    FailKind kind = FailKind::FAIL;
    bool hasResult = false;
    int64_t result = 0;
};
/* Adds or replaces the entry for its call. */
bool FailPlanSet(FailPlan *plan, const FailEntry &entry);
void FailPlanClear(FailPlan *plan);


} // namespace tbdl::rpc

#endif
