/* The daemon's stored records read for "dump db": the bundle list (key
 * 0x01) and each bundle's member list (key 0x02 and the bundle number),
 * taken apart with the daemon's own record layouts and codec. */
#include <arpa/inet.h>

#include <cstring>

#include "chassisctl.h"
#include "tbdl_client.h"
#include "tbdl_dbm.h"

namespace chassisctl {

namespace {

/* As the kernel table dump shows an address: "" when none is set. */
std::string AddressText(const TBDL_ADDR_S &a)
{
    if (a.usFamily != TBDL_ADDR_FAMILY_IPV4) {
        return a.usFamily == 0 ? "" : "family " + std::to_string(a.usFamily);
    }
    char buf[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, a.aucAddr, buf, sizeof(buf)) != nullptr ? buf : "";
}

Json BundleRecord(const std::string &rec)
{
    TBDL_DBM_BND_S stored;
    std::memcpy(&stored, rec.data(), sizeof(stored));
    TBDL_DBM_BND_S b;
    TBDL_DBM_DecBnd(&stored, &b);
    return {{"bundle", b.uiBndNum},
            {"name", "Tunnel-Bundle" + std::to_string(b.uiBndNum)},
            {"mode", b.ucMode},
            {"mode_name", tbdl::client::ModeName(b.ucMode)},
            {"tnl_mode", b.ucTnlMode},
            {"family", b.stAddr.usFamily},
            {"address", AddressText(b.stAddr)},
            {"vrf", b.usVrfIndex}};
}

Json MemberRecord(const std::string &key, const std::string &rec)
{
    TBDL_DBM_MEMB_S stored;
    std::memcpy(&stored, rec.data(), sizeof(stored));
    TBDL_MEMB_CFG_S m;
    TBDL_DBM_DecMemb(&stored, &m);
    return {{"bundle", TBDL_DBM_MembKeyBndNum(key.data(), static_cast<u32>(key.size()))},
            {"tunnel", m.uiTnlNum},
            {"name", "Tunnel" + std::to_string(m.uiTnlNum)},
            {"weight", m.usWeight},
            {"role", m.ucRole},
            {"vrf", m.usVrfIndex}};
}

} // namespace

Json ReadStoredRecord(const std::string &, const std::string &key, const std::string &rec)
{
    if (key.size() == TBDL_DBM_KEY_BND_LEN && static_cast<u8>(key[0]) == TBDL_DBM_KEY_BND &&
        rec.size() == sizeof(TBDL_DBM_BND_S)) {
        return BundleRecord(rec);
    }
    if (key.size() == TBDL_DBM_KEY_MEMB_LEN && static_cast<u8>(key[0]) == TBDL_DBM_KEY_MEMB &&
        rec.size() == sizeof(TBDL_DBM_MEMB_S)) {
        return MemberRecord(key, rec);
    }
    return nullptr;
}

} // namespace chassisctl
