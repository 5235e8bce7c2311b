/* L3VPN service of the chassis: the VRF an interface is bound to. The
 * bindings live in the interface records (ifmgr.cpp), where chassisctl's
 * "vrf bind" and "vrf unbind" change them; the watch of VRF events adds its
 * channel, batches and close handling to this row. */
#include "chassisd.h"

namespace chassis {

namespace {

void OnGetVrf(Conn &c, const tbdl::rpc::Hdr &h, const uint8_t *p, size_t len)
{
    tbdl::rpc::IfRef ref{};
    Interface *i = tbdl::rpc::Decode(p, len, ref) ? IfFind(ref.uiIfIndex) : nullptr;
    uint16_t vrf = i != nullptr ? i->vrf : 0;
    Reply(c, h, i != nullptr ? 0 : 1, tbdl::rpc::Encode(tbdl::rpc::VrfValue{vrf}));
}

Json VrfDump(int) { return {{"bindings", VrfDumpJson()}}; }

} // namespace

const Service &L3vpnService()
{
    static const Service s{.name = "L3VPN",
                           .ops = {{tbdl::rpc::OP_L3VPN_GET_VRF, OnGetVrf}},
                           .dumpName = "vrf",
                           .dump = VrfDump};
    return s;
}

} // namespace chassis
