/* Service-port events: a subscription is a channel to chassisd, which tells
 * it the port's current state at once and every change after. A port that
 * is absent from the chassis cannot be subscribed to. */
#include <cstring>

#include "plat_svcport.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

static_assert(sizeof(SVCPORT_SUB_S) == sizeof(rpc::SvcPortRec), "subscription record as chassisd takes it");
static_assert(sizeof(SVCPORT_EVT_S) == sizeof(rpc::SvcPortRec), "event record as chassisd sends it");

extern "C" i32 SubscribeServicePortEvent(u32 uiKind, const void *pvSub, u16 usPort, u16 usFlag)
{
    return Emulated(
        "SubscribeServicePortEvent", i32{-1},
        [&]() -> i32 {
            if (pvSub == nullptr) {
                return -1;
            }
            rpc::SvcPortRec stSub{};
            std::memcpy(&stSub, pvSub, sizeof(stSub));
            std::vector<uint8_t> body = rpc::Encode(stSub);
            return link::OpenChannel(rpc::OP_SVCPORT_SUBSCRIBE, uiKind, body.data(), body.size());
        },
        [&] { return Json{{"kind", uiKind}, {"sub", HexOf(pvSub, 12)}, {"port", usPort}, {"flag", usFlag}}; });
}

/* Reads one pending event; 1 when none is pending, the channel has ended
 * or what came is no event. */
extern "C" u32 RecvServicePortEvent(i32 iFd, void *pvEvt)
{
    rpc::SvcPortRec stEvt{};
    return Emulated(
        "RecvServicePortEvent", u32{1},
        [&]() -> u32 {
            std::vector<uint8_t> buf;
            rpc::Hdr h{};
            const uint8_t *pucBody = nullptr;
            size_t len = 0;
            if (pvEvt == nullptr || link::ReadPush(iFd, buf, h, pucBody, len) != link::PushRead::MESSAGE ||
                h.usOp != rpc::OP_SVCPORT_PUSH || !rpc::Decode(pucBody, len, stEvt)) {
                return 1;
            }
            std::memcpy(pvEvt, &stEvt, sizeof(stEvt));
            return 0;
        },
        [&](u32 uiRet) {
            Json args{{"fd", iFd}};
            if (uiRet == 0) {
                args["state"] = stEvt.uiValue;
                args["port"] = stEvt.usPort;
            }
            return args;
        });
}
