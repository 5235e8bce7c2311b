/* TLV coding and bitmaps: the platform's own code, recorded. The emulation's
 * stlv.cpp and bitmap.cpp are linked into the fake; the linker (--wrap, see
 * tests/CMakeLists.txt) sends the daemon's calls to the __wrap_ functions
 * here, which record them and reach that code as __real_. */
#include "fake_internal.h"

using namespace fake::detail;

extern "C" {

u32 __real_STLV_Get(const void *pBuf, u32 uiRemaining, u16 *pusType, u16 *pusLen, const void **ppValue);
u32 __real_STLV_Set(void *pDst, u32 uiRoom, u16 usType, u16 usLen, const void *pValue);
void *__real_Bitmap_Create(u32 uiBits);
u32 __real_Bitmap_Check(void *pvBitmap, u32 uiBit);
u32 __real_Bitmap_Set(void *pvBitmap, u32 uiBit);
u32 __real_Bitmap_Clear(void *pvBitmap, u32 uiBit);
void __real_Bitmap_Zero(void *pvBitmap);
void __real_Bitmap_Destroy(void *pvBitmap);

/* A TLV read records its type and length; a write records the bytes written. */
u32 __wrap_STLV_Get(const void *pBuf, u32 uiRemaining, u16 *pusType, u16 *pusLen, const void **ppValue)
{
    return Run<u32>(Mk("STLV_Get", {U(uiRemaining)}), [&](fake::Call &c) -> uint64_t {
        u32 uiRet = __real_STLV_Get(pBuf, uiRemaining, pusType, pusLen, ppValue);
        if (uiRet == 0) {
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

/* A scripted result of 0 makes the creation fail; any other still yields a
 * real bitmap. */
void *__wrap_Bitmap_Create(u32 uiBits)
{
    void *pv = nullptr;
    uint64_t ul = Run<uint64_t>(Mk("Bitmap_Create", {U(uiBits)}), [&]() -> uint64_t {
        pv = __real_Bitmap_Create(uiBits);
        return reinterpret_cast<uintptr_t>(pv);
    });
    return (ul != 0 && pv == nullptr) ? __real_Bitmap_Create(uiBits) : pv;
}

u32 __wrap_Bitmap_Check(void *pvBitmap, u32 uiBit)
{
    return Run<u32>(Mk("Bitmap_Check", {U(uiBit)}), [&]() -> uint64_t { return __real_Bitmap_Check(pvBitmap, uiBit); });
}

u32 __wrap_Bitmap_Set(void *pvBitmap, u32 uiBit)
{
    return Run<u32>(Mk("Bitmap_Set", {U(uiBit)}), [&]() -> uint64_t { return __real_Bitmap_Set(pvBitmap, uiBit); });
}

u32 __wrap_Bitmap_Clear(void *pvBitmap, u32 uiBit)
{
    return Run<u32>(Mk("Bitmap_Clear", {U(uiBit)}), [&]() -> uint64_t { return __real_Bitmap_Clear(pvBitmap, uiBit); });
}

void __wrap_Bitmap_Zero(void *pvBitmap)
{
    Run<void>(Mk("Bitmap_Zero", {}), [&] { __real_Bitmap_Zero(pvBitmap); });
}

void __wrap_Bitmap_Destroy(void *pvBitmap)
{
    Run<void>(Mk("Bitmap_Destroy", {}), [&] { __real_Bitmap_Destroy(pvBitmap); });
}

} // extern "C"
