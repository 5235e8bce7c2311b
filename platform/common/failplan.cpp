/* The shared-memory fault-injection plan (see failplan.h). */
#include "failplan.h"


#include <csignal>
#include <cstring>

#include "chassis_env.h"
#include "journal.h"
#include "shm_file.h"

namespace tbdl::rpc {

std::string FailPlanPathOf(const std::string &dir, int board)
{
    return plat::BoardDirOf(dir, board) + "/failplan";
}

static FailPlan *MapPlan(const std::string &path, bool create)
{
    auto *plan = static_cast<FailPlan *>(plat::ShmMap(path, sizeof(FailPlan), create));
    if (plan == nullptr) {
        return nullptr;
    }
    if (create) {
        FailPlanClear(plan);
        plan->uiMagic = kFailPlanMagic;
    } else if (plan->uiMagic != kFailPlanMagic) {
        plat::ShmUnmap(plan, sizeof(FailPlan));
        return nullptr;
    }
    return plan;
}

namespace {
/* The library's mapping of its board's plan, made on first use by the
 * daemon's one thread. */
FailPlan *g_plan = nullptr;
bool g_planTried = false;

FailPlan *LibraryPlan()
{
    if (!g_planTried) {
        const auto &env = plat::GetChassisEnv();
        if (env.inChassis) {
            g_plan = MapPlan(FailPlanPathOf(env.dir, env.board), false);
        }
        g_planTried = true;
    }
    return g_plan;
}
} // namespace

/* Takes one hit from the slot: false while calls are still let through or
 * once the slot is spent. */
static bool TakeHit(FailSlot &slot)
{
    int32_t skip = slot.iSkip.load();
    while (skip > 0) {
        if (slot.iSkip.compare_exchange_weak(skip, skip - 1)) {
            return false;
        }
    }
    int32_t left = slot.iLeft.load();
    while (left != 0) {
        if (left < 0 || slot.iLeft.compare_exchange_weak(left, left - 1)) {
            slot.uiHits.fetch_add(1);
            return true;
        }
    }
    return false;
}

std::optional<FailKind> FailPlanHit(const char *call, int64_t *value, bool *hasValue)
{
    FailPlan *plan = LibraryPlan();
    if (plan == nullptr || plan->uiActive.load(std::memory_order_acquire) == 0) {
        return std::nullopt;
    }
    for (FailSlot &slot : plan->astSlot) {
        if (slot.acName[0] == '\0' || std::strncmp(slot.acName, call, kFailNameLen) != 0) {
            continue;
        }
        if (!TakeHit(slot)) {
            return std::nullopt;
        }
        if (slot.uiHasResult != 0 && value != nullptr) {
            *value = slot.lResult;
        }
        if (hasValue != nullptr) {
            *hasValue = slot.uiHasResult != 0;
        }
        return static_cast<FailKind>(slot.uiKind);
    }
    return std::nullopt;
}

void FailPlanCrash(const char *call, FailKind kind)
{
    plat::JournalRecord("CRASH", {{"call", call}, {"when", kind == FailKind::CRASH_AFTER ? "after" : "before"}},
                        nullptr);
    raise(SIGKILL);
    _exit(137); /* not reached: SIGKILL cannot be caught */
}

namespace {
struct KindName {
    FailKind kind;
    const char *name;
};
constexpr KindName kKindNames[] = {
    {FailKind::FAIL, "fail"}, {FailKind::CRASH_BEFORE, "crash-before"}, {FailKind::CRASH_AFTER, "crash-after"}};
} // namespace

const char *FailKindName(FailKind kind)
{
    for (const KindName &k : kKindNames) {
        if (k.kind == kind) {
            return k.name;
        }
    }
    return "fail";
}

std::optional<FailKind> FailKindOf(const std::string &name)
{
    for (const KindName &k : kKindNames) {
        if (name == k.name) {
            return k.kind;
        }
    }
    return std::nullopt;
}

void FailPlanReset()
{
    if (g_plan != nullptr) {
        plat::ShmUnmap(g_plan, sizeof(FailPlan));
        g_plan = nullptr;
    }
    g_planTried = false;
}

FailPlan *FailPlanCreate(const std::string &path) { return MapPlan(path, true); }

static void FillSlot(FailSlot &slot, const FailEntry &e)
{
    slot.lResult = e.result;
    slot.uiHasResult = e.hasResult ? 1 : 0;
    slot.uiKind = static_cast<uint32_t>(e.kind);
    slot.iSkip.store(e.skip);
    slot.uiHits.store(0); /* a new plan for the call counts anew */
    slot.iLeft.store(e.count);
}

bool FailPlanSet(FailPlan *plan, const FailEntry &e)
{
    if (plan == nullptr || e.call.empty() || e.call.size() >= kFailNameLen || e.count == 0 || e.count < -1 ||
        e.skip < 0) {
        return false;
    }
    FailSlot *free = nullptr;
    for (FailSlot &slot : plan->astSlot) {
        if (slot.acName[0] != '\0' && e.call == slot.acName) {
            slot.iLeft.store(0); /* no hit with half-written fields */
            FillSlot(slot, e);
            return true;
        }
        if (slot.acName[0] == '\0' && free == nullptr) {
            free = &slot;
        }
    }
    if (free == nullptr) {
        return false;
    }
    FillSlot(*free, e);
    /* The first byte goes last, so a reader never matches a name that is
     * still being written. */
    std::memcpy(free->acName + 1, e.call.c_str() + 1, e.call.size());
    std::atomic_ref<char>(free->acName[0]).store(e.call[0], std::memory_order_release);
    plan->uiActive.fetch_add(1, std::memory_order_release);
    return true;
}

void FailPlanClear(FailPlan *plan)
{
    if (plan == nullptr) {
        return;
    }
    plan->uiActive.store(0);
    for (FailSlot &slot : plan->astSlot) {
        slot.iLeft.store(0);
        std::atomic_ref<char>(slot.acName[0]).store('\0', std::memory_order_release);
        std::memset(slot.acName + 1, 0, kFailNameLen - 1);
        slot.uiHits.store(0);
        slot.lResult = 0;
        slot.uiHasResult = 0;
        slot.uiKind = 0;
        slot.iSkip.store(0);
    }
}

} // namespace tbdl::rpc
