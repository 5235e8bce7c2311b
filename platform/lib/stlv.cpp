/* STLV coding: 2-byte type, 2-byte value length (both big-endian), then the
 * value; TLVs are packed back to back without padding. */
#include "plat_stlv.h"

#include <algorithm>
#include <cstring>

#include "emulated_call.h"

using namespace tbdl::plat;

namespace {

u16 ReadBe16(const u8 *p)
{
    return static_cast<u16>((p[0] << 8) | p[1]);
}

void WriteBe16(u8 *p, u16 v)
{
    p[0] = static_cast<u8>(v >> 8);
    p[1] = static_cast<u8>(v);
}

u32 StlvGet(const void *pBuf, u32 uiRemaining, u16 *pusType, u16 *pusLen, const void **ppValue)
{
    *ppValue = nullptr;
    *pusType = 0;
    *pusLen = 0;
    if (pBuf == nullptr || uiRemaining < STLV_HEAD_LEN) {
        return 1;
    }
    const auto *p = static_cast<const u8 *>(pBuf);
    u16 usLen = ReadBe16(p + 2);
    if (usLen > uiRemaining - STLV_HEAD_LEN) {
        return 1;
    }
    *pusType = ReadBe16(p);
    *pusLen = usLen;
    *ppValue = p + STLV_HEAD_LEN;
    return 0;
}

u32 StlvSet(void *pDst, u32 uiRoom, u16 usType, u16 usLen, const void *pValue)
{
    if (pDst == nullptr || uiRoom < STLV_HEAD_LEN || usLen > uiRoom - STLV_HEAD_LEN) {
        return 0;
    }
    auto *p = static_cast<u8 *>(pDst);
    if (pValue != nullptr && usLen > 0) {
        /* memmove: a caller may hand in a value that overlaps the room. */
        std::memmove(p + STLV_HEAD_LEN, pValue, usLen);
    }
    WriteBe16(p, usType);
    WriteBe16(p + 2, usLen);
    return STLV_HEAD_LEN + usLen;
}

} // namespace

extern "C" u32 STLV_Get(const void *pBuf, u32 uiRemaining, u16 *pusType, u16 *pusLen, const void **ppValue)
{
    u16 usType = 0;
    u16 usLen = 0;
    return Journaled(
        "STLV_Get",
        [&] {
            const void *pValue = nullptr;
            u32 uiRet = StlvGet(pBuf, uiRemaining, &usType, &usLen, &pValue);
            if (pusType != nullptr) {
                *pusType = usType;
            }
            if (pusLen != nullptr) {
                *pusLen = usLen;
            }
            if (ppValue != nullptr) {
                *ppValue = pValue;
            }
            return uiRet;
        },
        [&] {
            u32 uiShown = std::min<u32>(uiRemaining, STLV_HEAD_LEN);
            return Json{{"remaining", uiRemaining}, {"head", HexOf(pBuf, uiShown)}, {"type", usType}, {"len", usLen}};
        });
}

extern "C" u32 STLV_Set(void *pDst, u32 uiRoom, u16 usType, u16 usLen, const void *pValue)
{
    return Journaled(
        "STLV_Set", [&] { return StlvSet(pDst, uiRoom, usType, usLen, pValue); },
        [&](u32 uiRet) {
            return Json{{"room", uiRoom},
                        {"type", usType},
                        {"len", usLen},
                        {"value", uiRet != 0 ? HexOf(static_cast<u8 *>(pDst) + STLV_HEAD_LEN, usLen) : ""},
                        {"header_only", pValue == nullptr}};
        });
}
