/* TLV coding and bitmaps: the platform's own code, recorded. The emulation's
 * stlv.cpp and bitmap.cpp are linked into the fake; the linker (--wrap, see
 * tests/CMakeLists.txt) sends the daemon's calls to the __wrap_ functions
 * here, which record them and reach that code as __real_. */
#include "fake_internal.h"

using namespace fake::detail;

extern "C" {

decltype(STLV_Get) __real_STLV_Get;
decltype(STLV_Set) __real_STLV_Set;
decltype(Bitmap_Create) __real_Bitmap_Create;
decltype(Bitmap_Check) __real_Bitmap_Check;
decltype(Bitmap_Set) __real_Bitmap_Set;
decltype(Bitmap_Clear) __real_Bitmap_Clear;
decltype(Bitmap_Zero) __real_Bitmap_Zero;
decltype(Bitmap_Destroy) __real_Bitmap_Destroy;

/* A TLV read records its type and length; a write records the bytes written. */
u32 __wrap_STLV_Get(const void *pBuf, u32 uiRemaining, u16 *pusType, u16 *pusLen, const void **ppValue)
{
    return Run<u32>(Mk("STLV_Get", {U(uiRemaining)}), [&](fake::Call &c) -> uint64_t {
        u32 uiRet = __real_STLV_Get(pBuf, uiRemaining, pusType, pusLen, ppValue);
        if (uiRet == 0 && pusType != nullptr && pusLen != nullptr) {
            c.args.insert(c.args.end(), {U(*pusType), U(*pusLen)});
        }
        return uiRet;
    });
}

u32 __wrap_STLV_Set(void *pDst, u32 uiRoom, u16 usType, u16 usLen, const void *pValue)
{
    return Run<u32>(Mk("STLV_Set", {U(uiRoom), U(usType), U(usLen)}), [&](fake::Call &c) -> uint64_t {
        u32 uiRet = __real_STLV_Set(pDst, uiRoom, usType, usLen, pValue);
        c.data = Copy(pDst, uiRet);
        return uiRet;
    });
}

/* A scripted result of 0 makes the creation fail. */
void *__wrap_Bitmap_Create(u32 uiBits)
{
    return Run<void *>(Mk("Bitmap_Create", {U(uiBits)}),
                       [&] { return reinterpret_cast<uintptr_t>(__real_Bitmap_Create(uiBits)); });
}

/* A call on one bit records the bit number. */
static u32 OnBit(const char *pcName, u32 (*pfnReal)(void *, u32), void *pvBitmap, u32 uiBit)
{
    return Run<u32>(Mk(pcName, {U(uiBit)}), [&] { return pfnReal(pvBitmap, uiBit); });
}

u32 __wrap_Bitmap_Check(void *pvMap, u32 uiBit) { return OnBit("Bitmap_Check", __real_Bitmap_Check, pvMap, uiBit); }

u32 __wrap_Bitmap_Set(void *pvMap, u32 uiBit) { return OnBit("Bitmap_Set", __real_Bitmap_Set, pvMap, uiBit); }

u32 __wrap_Bitmap_Clear(void *pvMap, u32 uiBit) { return OnBit("Bitmap_Clear", __real_Bitmap_Clear, pvMap, uiBit); }

void __wrap_Bitmap_Zero(void *pvBitmap) { Run<void>(Mk("Bitmap_Zero", {}), [&] { __real_Bitmap_Zero(pvBitmap); }); }

void __wrap_Bitmap_Destroy(void *pvBitmap)
{
    Run<void>(Mk("Bitmap_Destroy", {}), [&] { __real_Bitmap_Destroy(pvBitmap); });
}

} // extern "C"
