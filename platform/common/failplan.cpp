/* The shared-memory fault-injection plan (see failplan.h). */
#include "failplan.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "chassis_env.h"

namespace tbdl::rpc {

std::string FailPlanPathOf(const std::string &dir, int board)
{
    return plat::BoardDirOf(dir, board) + "/failplan";
}

static FailPlan *MapPlan(const std::string &path, bool create)
{
    int fd = open(path.c_str(), create ? (O_RDWR | O_CREAT | O_CLOEXEC) : (O_RDWR | O_CLOEXEC), 0644);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st{};
    if (fstat(fd, &st) != 0 || (!create && static_cast<size_t>(st.st_size) < sizeof(FailPlan)) ||
        (create && ftruncate(fd, sizeof(FailPlan)) != 0)) {
        close(fd);
        return nullptr;
    }
    void *p = mmap(nullptr, sizeof(FailPlan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) {
        return nullptr;
    }
    auto *plan = static_cast<FailPlan *>(p);
    if (create) {
        FailPlanClear(plan);
        plan->uiMagic = kFailPlanMagic;
    } else if (plan->uiMagic != kFailPlanMagic) {
        munmap(p, sizeof(FailPlan));
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

bool FailPlanHit(const char *call, int64_t *value, bool *hasValue)
{
    FailPlan *plan = LibraryPlan();
    if (plan == nullptr || plan->uiActive.load(std::memory_order_acquire) == 0) {
        return false;
    }
    for (FailSlot &slot : plan->astSlot) {
        if (slot.acName[0] == '\0' || std::strncmp(slot.acName, call, kFailNameLen) != 0) {
            continue;
        }
        int32_t left = slot.iLeft.load();
        while (left != 0) {
            if (left < 0 || slot.iLeft.compare_exchange_weak(left, left - 1)) {
                slot.uiHits.fetch_add(1);
                if (slot.uiHasResult != 0 && value != nullptr) {
                    *value = slot.lResult;
                }
                if (hasValue != nullptr) {
                    *hasValue = slot.uiHasResult != 0;
                }
                return true;
            }
        }
        return false;
    }
    return false;
}

void FailPlanReset()
{
    if (g_plan != nullptr) {
        munmap(g_plan, sizeof(FailPlan));
        g_plan = nullptr;
    }
    g_planTried = false;
}

FailPlan *FailPlanCreate(const std::string &path) { return MapPlan(path, true); }

bool FailPlanSet(FailPlan *plan, const std::string &call, int32_t count, bool hasResult, int64_t result)
{
    if (plan == nullptr || call.empty() || call.size() >= kFailNameLen || count == 0) {
        return false;
    }
    FailSlot *free = nullptr;
    for (FailSlot &slot : plan->astSlot) {
        if (slot.acName[0] != '\0' && call == slot.acName) {
            slot.lResult = result;
            slot.uiHasResult = hasResult ? 1 : 0;
            slot.iLeft.store(count);
            return true;
        }
        if (slot.acName[0] == '\0' && free == nullptr) {
            free = &slot;
        }
    }
    if (free == nullptr) {
        return false;
    }
    free->lResult = result;
    free->uiHasResult = hasResult ? 1 : 0;
    free->uiHits.store(0);
    free->iLeft.store(count);
    /* The first byte goes last, so a reader never matches a name that is
     * still being written. */
    std::memcpy(free->acName + 1, call.c_str() + 1, call.size());
    std::atomic_ref<char>(free->acName[0]).store(call[0], std::memory_order_release);
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
    }
}

} // namespace tbdl::rpc
