/* The platform library's link to chassisd: one request/reply connection per
 * process (opened on first use, shared by every platform call of the
 * daemon's one thread), typed calls whose bodies go through the codec of
 * rpc.h, and new channel connections for the event sources. */
#ifndef TBDL_PLAT_CHASSIS_LINK_H
#define TBDL_PLAT_CHASSIS_LINK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "rpc.h"

namespace tbdl::plat::link {

/* One call to chassisd for this process's board. Returns the reply's
 * result, or rpc::kResultNoChassis when chassisd cannot be reached. */
uint32_t Call(uint16_t op, uint32_t arg, const void *payload, size_t len,
              std::vector<uint8_t> *reply = nullptr);

/* One call of operation Op: the request record (then tail bytes, for the
 * operations that take them) goes out encoded; a reply of result 0 is
 * decoded into *reply when given, and one that does not fill the reply
 * record exactly counts as rpc::kResultBadRequest. */
template <uint16_t Op>
uint32_t CallOp(uint32_t arg, const typename rpc::OpSpec<Op>::Request &request,
                typename rpc::OpSpec<Op>::Reply *reply = nullptr, const void *tail = nullptr, size_t tailLen = 0)
{
    std::vector<uint8_t> body = rpc::Encode(request, tail, tailLen);
    if (reply == nullptr) {
        return Call(Op, arg, body.data(), body.size());
    }
    std::vector<uint8_t> replyBody;
    uint32_t result = Call(Op, arg, body.data(), body.size(), &replyBody);
    if (result == 0 && !rpc::Decode(replyBody.data(), replyBody.size(), *reply)) {
        return rpc::kResultBadRequest;
    }
    return result;
}

/* Opens a channel: a new connection whose first request is op/arg. Returns
 * the descriptor (close on exec) when chassisd answered with result 0 (the
 * reply's payload goes to reply), else -1. */
int OpenChannel(uint16_t op, uint32_t arg, const void *payload, size_t len,
                std::vector<uint8_t> *reply = nullptr);

/* Takes a dead channel descriptor off every event loop it is on, without
 * closing the number the caller still holds: a descriptor that never
 * becomes ready is put in its place. Its owner closes it as usual. */
void Neutralize(int fd);

/* One-way message of operation Op on an event channel (no reply comes):
 * 0 when it went out. */
int SendOneWay(int fd, uint16_t op, uint32_t arg, const std::vector<uint8_t> &body);
template <uint16_t Op>
uint32_t SendOn(int fd, uint32_t arg, const typename rpc::OpSpec<Op>::Request &request, const void *tail = nullptr,
                size_t tailLen = 0)
{
    return SendOneWay(fd, Op, arg, rpc::Encode(request, tail, tailLen)) == 0 ? 0 : 1;
}

/* One-way message that waits up to wait for room on a full channel rather
 * than drop it (a burst can outrun chassisd's reading): 0 when it went out,
 * 1 when the channel is gone or the wait ran out. */
uint32_t SendWaiting(int fd, uint16_t op, uint32_t arg, const std::vector<uint8_t> &body,
                     std::chrono::milliseconds wait);

/* What a non-blocking read of an event channel found. */
enum class PushRead { NONE, MESSAGE, GONE };
/* Reads one pushed message from a channel into buf (kMaxMsg bytes), its
 * header into h and its body into body/len. */
PushRead ReadPush(int fd, std::vector<uint8_t> &buf, rpc::Hdr &h, const uint8_t *&body, size_t &len);

/* Drops the shared connection (tests that switch chassis). */
void Reset();

} // namespace tbdl::plat::link

#endif
