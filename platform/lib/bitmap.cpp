/* Platform bitmaps: a bit count followed by 64-bit words. */
#include "plat_bitmap.h"

#include <cstdlib>
#include <cstring>

#include "emulated_call.h"

using namespace tbdl::plat;

namespace {

struct Bitmap {
    u32 uiBits;
    u64 aulWords[]; /* (uiBits + 63) / 64 words */
};

size_t WordCount(u32 uiBits)
{
    return (static_cast<size_t>(uiBits) + 63) / 64;
}

/* Applies op to bit uiBit; 1 when out of range or no bitmap. */
template <typename Op>
u32 OnBit(void *pvBitmap, u32 uiBit, Op op)
{
    auto *pstMap = static_cast<Bitmap *>(pvBitmap);
    if (pstMap == nullptr || uiBit >= pstMap->uiBits) {
        return 1;
    }
    op(pstMap->aulWords[uiBit / 64], u64{1} << (uiBit % 64));
    return 0;
}

/* Bitmap_Check, _Set and _Clear: op on one bit, journaled. */
template <typename Op>
u32 BitCall(const char *pcCall, void *pvBitmap, u32 uiBit, Op op)
{
    return Journaled(pcCall, op, [&] { return Json{{"bitmap", PtrOf(pvBitmap)}, {"bit", uiBit}}; });
}

} // namespace

extern "C" void *Bitmap_Create(u32 uiBits)
{
    return Journaled(
        "Bitmap_Create",
        [&] {
            Bitmap *pstMap = nullptr;
            if (uiBits != 0) {
                pstMap = static_cast<Bitmap *>(std::calloc(1, sizeof(Bitmap) + WordCount(uiBits) * sizeof(u64)));
                if (pstMap != nullptr) {
                    pstMap->uiBits = uiBits;
                }
            }
            return static_cast<void *>(pstMap);
        },
        [&] { return Json{{"bits", uiBits}}; });
}

extern "C" u32 Bitmap_Check(void *pvBitmap, u32 uiBit)
{
    return BitCall("Bitmap_Check", pvBitmap, uiBit, [&] {
        u32 uiSet = 0;
        (void)OnBit(pvBitmap, uiBit, [&](u64 &ulWord, u64 ulMask) { uiSet = (ulWord & ulMask) != 0 ? 1 : 0; });
        return uiSet;
    });
}

extern "C" u32 Bitmap_Set(void *pvBitmap, u32 uiBit)
{
    return BitCall("Bitmap_Set", pvBitmap, uiBit,
                   [&] { return OnBit(pvBitmap, uiBit, [](u64 &ulWord, u64 ulMask) { ulWord |= ulMask; }); });
}

extern "C" u32 Bitmap_Clear(void *pvBitmap, u32 uiBit)
{
    return BitCall("Bitmap_Clear", pvBitmap, uiBit,
                   [&] { return OnBit(pvBitmap, uiBit, [](u64 &ulWord, u64 ulMask) { ulWord &= ~ulMask; }); });
}

extern "C" void Bitmap_Zero(void *pvBitmap)
{
    Journaled(
        "Bitmap_Zero",
        [&] {
            auto *pstMap = static_cast<Bitmap *>(pvBitmap);
            if (pstMap != nullptr) {
                std::memset(pstMap->aulWords, 0, WordCount(pstMap->uiBits) * sizeof(u64));
            }
        },
        [&] { return Json{{"bitmap", PtrOf(pvBitmap)}}; });
}

extern "C" void Bitmap_Destroy(void *pvBitmap)
{
    /* Journaled before the free, while the address still names the bitmap. */
    Journaled("Bitmap_Destroy", [] {}, [&] { return Json{{"bitmap", PtrOf(pvBitmap)}}; });
    std::free(pvBitmap);
}
