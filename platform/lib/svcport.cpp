/* Service-port events. The chassis's service-port service comes in a later
 * version: until then a subscription fails (the daemon's watch retries) and
 * no event can be read. */
#include "plat_svcport.h"

#include "emulated_call.h"

using namespace tbdl::plat;

extern "C" i32 SubscribeServicePortEvent(u32 uiKind, const void *pvSub, u16 usPort, u16 usFlag)
{
    return Journaled("SubscribeServicePortEvent", [] { return i32{-1}; }, [&] {
        return Json{{"kind", uiKind}, {"sub", HexOf(pvSub, 12)}, {"port", usPort}, {"flag", usFlag}};
    });
}

extern "C" u32 RecvServicePortEvent(i32 iFd, void *pvEvt)
{
    (void)pvEvt;
    return Journaled("RecvServicePortEvent", [] { return u32{1}; }, [&] { return Json{{"fd", iFd}}; });
}
