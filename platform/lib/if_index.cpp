/* Interface manager calls: interface indexes by full name, interface data
 * by index (items 0 number, 18 type, 31 state), destruction of a bundle
 * index. Queries are read from chassisd's shared interface table (ifmap.h);
 * chassisd itself is asked for a name the table does not hold (it makes
 * bundle indexes on demand), for a destruction, and whenever the table
 * cannot be read. */
#include <cstring>

#include "plat_if.h"

#include "chassis_link.h"
#include "emulated_call.h"
#include "ifmap.h"

using namespace tbdl::plat;
namespace rpc = tbdl::rpc;

namespace {

/* An interface's data item as chassisd answers it; false for an item it
 * does not keep. */
bool DataItem(const IfMapSlot &s, u32 uiItem, u32 &uiValue)
{
    switch (uiItem) {
    case IF_DATA_NUMBER: uiValue = s.uiNumber; return true;
    case IF_DATA_TYPE: uiValue = s.uiType; return true;
    case IF_DATA_STATE: uiValue = s.uiState; return true;
    default: return false;
    }
}

u32 IndexByName(const char *pcName)
{
    IfMapSlot stSlot;
    if (IfMapLocalName(pcName, stSlot) == IfMapRead::FOUND) {
        return stSlot.uiIfIndex;
    }
    rpc::U32Value stIndex{0};
    if (link::CallOp<rpc::OP_IF_INDEX_BY_NAME>(0, {}, &stIndex, pcName, strnlen(pcName, 256)) != 0) {
        return 0;
    }
    return stIndex.uiValue;
}

/* 0 with the value, or 1. */
u32 DataByIndex(u32 uiIfIndex, u32 uiDataType, rpc::U32Value &stValue)
{
    IfMapSlot stSlot;
    switch (IfMapLocalIndex(uiIfIndex, stSlot)) {
    case IfMapRead::FOUND: return DataItem(stSlot, uiDataType, stValue.uiValue) ? 0 : 1;
    case IfMapRead::ABSENT: return 1;
    case IfMapRead::UNKNOWN: break;
    }
    return link::CallOp<rpc::OP_IF_GET_DATA>(uiDataType, {uiIfIndex}, &stValue) != 0 ? 1 : 0;
}

} // namespace

extern "C" u32 IF_GetIfIndexByFullName(const char *pcName)
{
    return Emulated(
        "IF_GetIfIndexByFullName", u32{0},
        [&]() -> u32 { return pcName != nullptr ? IndexByName(pcName) : 0; },
        [&] { return Json{{"name", TextOf(pcName)}}; });
}

extern "C" u32 IF_GetDataByIfIndex(u32 uiIfIndex, u32 uiDataType, void *pvOut)
{
    rpc::U32Value stValue{0};
    return Emulated(
        "IF_GetDataByIfIndex", u32{1},
        [&]() -> u32 {
            if (pvOut == nullptr || DataByIndex(uiIfIndex, uiDataType, stValue) != 0) {
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
