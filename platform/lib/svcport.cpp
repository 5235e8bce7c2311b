/* Service-port events. The chassis's service-port service comes in a later
 * version: until then a subscription fails (the daemon's watch retries) and
 * no event can be read. */
#include "plat_svcport.h"

#include "chassis_link.h"

using namespace tbdl::plat;

extern "C" i32 SubscribeServicePortEvent(u32 uiKind, const void *pvSub, u16 usPort, u16 usFlag)
{
    if (JournalEnabled()) {
        JournalRecord("SubscribeServicePortEvent",
                      {{"kind", uiKind}, {"sub", HexOf(pvSub, pvSub != nullptr ? 12 : 0)}, {"port", usPort}, {"flag", usFlag}},
                      -1);
    }
    return -1;
}

extern "C" u32 RecvServicePortEvent(i32 iFd, void *pvEvt)
{
    (void)pvEvt;
    if (JournalEnabled()) {
        JournalRecord("RecvServicePortEvent", {{"fd", iFd}}, 1);
    }
    return 1;
}
