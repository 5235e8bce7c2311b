/* Interface manager calls answered by chassisd: interface indexes by full
 * name (bundle indexes made on demand), interface data by index (items 0
 * number, 18 type, 31 state), destruction of a bundle index. */
#include <cstring>

#include "plat_if.h"

#include "chassis_link.h"
#include "emulated_call.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

extern "C" u32 IF_GetIfIndexByFullName(const char *pcName)
{
    return Emulated(
        "IF_GetIfIndexByFullName", u32{0},
        [&]() -> u32 {
            rpc::U32Value stIndex{0};
            if (pcName == nullptr ||
                link::CallOp<rpc::OP_IF_INDEX_BY_NAME>(0, {}, &stIndex, pcName, strnlen(pcName, 256)) != 0) {
                return 0;
            }
            return stIndex.uiValue;
        },
        [&] { return Json{{"name", TextOf(pcName)}}; });
}

extern "C" u32 IF_GetDataByIfIndex(u32 uiIfIndex, u32 uiDataType, void *pvOut)
{
    rpc::U32Value stValue{0};
    return Emulated(
        "IF_GetDataByIfIndex", u32{1},
        [&]() -> u32 {
            if (pvOut == nullptr || link::CallOp<rpc::OP_IF_GET_DATA>(uiDataType, {uiIfIndex}, &stValue) != 0) {
                return 1;
            }
            std::memcpy(pvOut, &stValue.uiValue, sizeof(stValue.uiValue));
            return 0;
        },
        [&](u32 uiRet) {
            return Json{{"ifindex", uiIfIndex}, {"item", uiDataType},
                        {"value", uiRet == 0 ? Json(stValue.uiValue) : Json()}};
        });
}

extern "C" u32 IF_DeleteIf(u32 uiKeyType, const void *pvKey)
{
    return Emulated(
        "IF_DeleteIf", u32{0},
        [&]() -> u32 {
            if (pvKey == nullptr) {
                return 0;
            }
            rpc::IfDeleteKey stKey;
            std::memcpy(&stKey, pvKey, sizeof(stKey));
            return link::CallOp<rpc::OP_IF_DELETE>(uiKeyType, stKey) == 1 ? 1 : 0;
        },
        [&] { return Json{{"key_type", uiKeyType}, {"key", HexOf(pvKey, sizeof(rpc::IfDeleteKey))}}; });
}
