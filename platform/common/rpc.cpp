/* Wire protocol between chassisd and its clients: message send/receive,
 * the request/reply client, chassisctl's JSON call, and the shared-memory
 * fault-injection plan. */
#include "rpc.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "chassis_env.h"

namespace tbdl::rpc {

int SendMsg(int fd, uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
            int flags)
{
    Hdr hdr{op, board, arg};
    iovec iov[2] = {{&hdr, sizeof(hdr)}, {const_cast<void *>(payload), len}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = (payload != nullptr && len > 0) ? 2 : 1;
    for (;;) {
        ssize_t n = sendmsg(fd, &msg, flags | MSG_NOSIGNAL);
        if (n >= 0) {
            return static_cast<size_t>(n) == sizeof(hdr) + (msg.msg_iovlen == 2 ? len : 0) ? 0 : EIO;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
}

ssize_t RecvMsg(int fd, void *buf, size_t cap, int flags)
{
    for (;;) {
        ssize_t n = recv(fd, buf, cap, flags);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n > 0 && static_cast<size_t>(n) < sizeof(Hdr)) {
            errno = EPROTO;
            return -1;
        }
        return n;
    }
}

int Connect(const std::string &socketPath, int recvTimeoutMs)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    if (recvTimeoutMs > 0) {
        timeval tv{recvTimeoutMs / 1000, (recvTimeoutMs % 1000) * 1000};
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    }
    return fd;
}

Client::~Client() { Close(); }

void Client::Close()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

void Client::SetPath(const std::string &path)
{
    if (path != path_) {
        Close();
        path_ = path;
    }
}

bool Client::Exchange(uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
                      uint32_t &result, std::vector<uint8_t> *reply)
{
    if (fd_ < 0) {
        fd_ = Connect(path_);
        if (fd_ < 0) {
            return false;
        }
    }
    if (SendMsg(fd_, op, board, arg, payload, len) != 0) {
        Close();
        return false;
    }
    if (buf_.size() < kMaxMsg) {
        buf_.resize(kMaxMsg);
    }
    ssize_t n = RecvMsg(fd_, buf_.data(), buf_.size());
    if (n <= 0) {
        Close();
        return false;
    }
    Hdr hdr;
    std::memcpy(&hdr, buf_.data(), sizeof(hdr));
    result = hdr.uiArg;
    if (reply != nullptr) {
        reply->assign(buf_.begin() + sizeof(Hdr), buf_.begin() + n);
    }
    return true;
}

uint32_t Client::Call(uint16_t op, uint16_t board, uint32_t arg, const void *payload, size_t len,
                      std::vector<uint8_t> *reply)
{
    uint32_t result = kResultNoChassis;
    if (path_.empty()) {
        return result;
    }
    /* A connection that broke since the last call (chassisd restarted) is
     * opened again once; a second failure means chassisd is not there. */
    bool hadConnection = fd_ >= 0;
    if (Exchange(op, board, arg, payload, len, result, reply)) {
        return result;
    }
    if (hadConnection && Exchange(op, board, arg, payload, len, result, reply)) {
        return result;
    }
    return kResultNoChassis;
}

std::string CtlCall(const std::string &socketPath, const std::string &requestJson, std::string &err,
                    int timeoutMs)
{
    int fd = Connect(socketPath, timeoutMs);
    if (fd < 0) {
        err = "cannot reach chassisd at " + socketPath + ": " + std::strerror(errno);
        return "";
    }
    std::string out;
    if (SendMsg(fd, OP_CTL, 0, 0, requestJson.data(), requestJson.size()) != 0) {
        err = "cannot send to chassisd: " + std::string(std::strerror(errno));
    } else {
        std::vector<char> buf(kMaxMsg);
        for (;;) {
            ssize_t n = RecvMsg(fd, buf.data(), buf.size());
            if (n <= 0) {
                out.clear();
                if (n == 0) {
                    err = "chassisd closed the connection";
                } else {
                    err = errno == EAGAIN ? "chassisd did not answer in time"
                                          : "cannot read chassisd's answer: " + std::string(std::strerror(errno));
                }
                break;
            }
            Hdr hdr;
            std::memcpy(&hdr, buf.data(), sizeof(hdr));
            out.append(buf.data() + sizeof(Hdr), buf.data() + n);
            if (hdr.uiArg != kCtlMore) {
                break;
            }
        }
    }
    close(fd);
    return out;
}

/* ---- fault injection ---- */

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
std::mutex g_planMutex;
std::atomic<FailPlan *> g_plan{nullptr};
std::atomic<bool> g_planTried{false};

FailPlan *LibraryPlan()
{
    FailPlan *plan = g_plan.load(std::memory_order_acquire);
    if (plan != nullptr || g_planTried.load(std::memory_order_acquire)) {
        return plan;
    }
    std::lock_guard<std::mutex> lock(g_planMutex);
    if (!g_planTried.load()) {
        const auto &env = plat::GetChassisEnv();
        if (env.inChassis) {
            g_plan.store(MapPlan(FailPlanPathOf(env.dir, env.board), false));
        }
        g_planTried.store(true, std::memory_order_release);
    }
    return g_plan.load();
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
    std::lock_guard<std::mutex> lock(g_planMutex);
    FailPlan *plan = g_plan.exchange(nullptr);
    if (plan != nullptr) {
        munmap(plan, sizeof(FailPlan));
    }
    g_planTried.store(false);
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
