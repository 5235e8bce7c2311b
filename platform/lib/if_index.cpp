/* Interface manager calls answered by chassisd: interface indexes by full
 * name (bundle indexes made on demand), interface data by index (items 0
 * number, 18 type, 31 state), destruction of a bundle index. */
#include <cstring>

#include "plat_if.h"

#include "chassis_link.h"

using namespace tbdl::plat;

extern "C" u32 IF_GetIfIndexByFullName(const char *pcName)
{
    int64_t lValue = 0;
    u32 uiIndex = 0;
    if (link::Fails("IF_GetIfIndexByFullName", &lValue)) {
        uiIndex = static_cast<u32>(lValue);
    } else if (pcName != nullptr) {
        std::vector<uint8_t> reply;
        size_t len = strnlen(pcName, 256);
        if (link::Call(tbdl::rpc::OP_IF_INDEX_BY_NAME, 0, pcName, len, &reply) == 0 && reply.size() == 4) {
            std::memcpy(&uiIndex, reply.data(), 4);
        }
    }
    if (JournalEnabled()) {
        JournalRecord("IF_GetIfIndexByFullName", {{"name", pcName != nullptr ? pcName : ""}}, uiIndex);
    }
    return uiIndex;
}

extern "C" u32 IF_GetDataByIfIndex(u32 uiIfIndex, u32 uiDataType, void *pvOut)
{
    int64_t lValue = 1;
    u32 uiRet = 1;
    u32 uiValue = 0;
    if (link::Fails("IF_GetDataByIfIndex", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (pvOut != nullptr) {
        std::vector<uint8_t> reply;
        if (link::Call(tbdl::rpc::OP_IF_GET_DATA, uiDataType, &uiIfIndex, 4, &reply) == 0 && reply.size() == 4) {
            std::memcpy(&uiValue, reply.data(), 4);
            std::memcpy(pvOut, &uiValue, 4);
            uiRet = 0;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("IF_GetDataByIfIndex",
                      {{"ifindex", uiIfIndex}, {"item", uiDataType},
                       {"value", uiRet == 0 ? nlohmann::json(uiValue) : nlohmann::json()}},
                      uiRet);
    }
    return uiRet;
}

extern "C" u32 IF_DeleteIf(u32 uiKeyType, const void *pvKey)
{
    int64_t lValue = 0;
    u32 uiRet = 0;
    if (link::Fails("IF_DeleteIf", &lValue)) {
        uiRet = static_cast<u32>(lValue);
    } else if (pvKey != nullptr) {
        uiRet = link::Call(tbdl::rpc::OP_IF_DELETE, uiKeyType, pvKey, 8) == 1 ? 1 : 0;
    }
    if (JournalEnabled()) {
        JournalRecord("IF_DeleteIf", {{"key_type", uiKeyType}, {"key", HexOf(pvKey, pvKey != nullptr ? 8 : 0)}}, uiRet);
    }
    return uiRet;
}
