/* The platform library's link to chassisd: one request/reply connection per
 * process (opened on first use, shared by every platform call, guarded by a
 * mutex), new channel connections for the event sources, and the checks
 * every emulated call makes first (planned failure, journal). */
#ifndef TBDL_PLAT_CHASSIS_LINK_H
#define TBDL_PLAT_CHASSIS_LINK_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include <nlohmann/json.hpp>

#include "journal.h"
#include "rpc.h"

namespace tbdl::plat::link {

/* One call to chassisd for this process's board. Returns the reply's
 * result, or rpc::kResultNoChassis when chassisd cannot be reached. */
uint32_t Call(uint16_t op, uint32_t arg, const void *payload, size_t len,
              std::vector<uint8_t> *reply = nullptr);

/* Opens a channel: a new connection whose first request is op/arg. Returns
 * the descriptor (close on exec) when chassisd answered with result 0 (the
 * reply's payload goes to reply), else -1. */
int OpenChannel(uint16_t op, uint32_t arg, const void *payload, size_t len,
                std::vector<uint8_t> *reply = nullptr);

/* Takes a dead channel descriptor off every event loop it is on, without
 * closing the number the caller still holds: a descriptor that never
 * becomes ready is put in its place. Its owner closes it as usual. */
void Neutralize(int fd);

/* true when `call` must fail now (planned with chassisctl fail). */
inline bool Fails(const char *call, int64_t *value = nullptr, bool *hasValue = nullptr)
{
    return tbdl::rpc::FailPlanHit(call, value, hasValue);
}

/* Drops the shared connection (tests that switch chassis). */
void Reset();

} // namespace tbdl::plat::link

#endif
