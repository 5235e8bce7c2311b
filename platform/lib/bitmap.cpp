/* Platform bitmaps: a bit count followed by 64-bit words. */
#include "plat_bitmap.h"

#include <cstdlib>
#include <cstring>

#include "journal.h"

namespace {

using tbdl::plat::JournalEnabled;
using tbdl::plat::JournalRecord;
using tbdl::plat::PtrOf;

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

void Journal(const char *pcCall, void *pvBitmap, u32 uiBit, u32 uiRet)
{
    if (JournalEnabled()) {
        JournalRecord(pcCall, {{"bitmap", PtrOf(pvBitmap)}, {"bit", uiBit}}, uiRet);
    }
}

} // namespace

extern "C" void *Bitmap_Create(u32 uiBits)
{
    Bitmap *pstMap = nullptr;
    if (uiBits != 0) {
        pstMap = static_cast<Bitmap *>(std::calloc(1, sizeof(Bitmap) + WordCount(uiBits) * sizeof(u64)));
        if (pstMap != nullptr) {
            pstMap->uiBits = uiBits;
        }
    }
    if (JournalEnabled()) {
        JournalRecord("Bitmap_Create", {{"bits", uiBits}}, PtrOf(pstMap));
    }
    return pstMap;
}

extern "C" u32 Bitmap_Check(void *pvBitmap, u32 uiBit)
{
    u32 uiSet = 0;
    (void)OnBit(pvBitmap, uiBit, [&](u64 &ulWord, u64 ulMask) { uiSet = (ulWord & ulMask) != 0 ? 1 : 0; });
    Journal("Bitmap_Check", pvBitmap, uiBit, uiSet);
    return uiSet;
}

extern "C" u32 Bitmap_Set(void *pvBitmap, u32 uiBit)
{
    u32 uiRet = OnBit(pvBitmap, uiBit, [](u64 &ulWord, u64 ulMask) { ulWord |= ulMask; });
    Journal("Bitmap_Set", pvBitmap, uiBit, uiRet);
    return uiRet;
}

extern "C" u32 Bitmap_Clear(void *pvBitmap, u32 uiBit)
{
    u32 uiRet = OnBit(pvBitmap, uiBit, [](u64 &ulWord, u64 ulMask) { ulWord &= ~ulMask; });
    Journal("Bitmap_Clear", pvBitmap, uiBit, uiRet);
    return uiRet;
}

extern "C" void Bitmap_Zero(void *pvBitmap)
{
    auto *pstMap = static_cast<Bitmap *>(pvBitmap);
    if (pstMap != nullptr) {
        std::memset(pstMap->aulWords, 0, WordCount(pstMap->uiBits) * sizeof(u64));
    }
    if (JournalEnabled()) {
        JournalRecord("Bitmap_Zero", {{"bitmap", PtrOf(pvBitmap)}}, nullptr);
    }
}

extern "C" void Bitmap_Destroy(void *pvBitmap)
{
    if (JournalEnabled()) {
        JournalRecord("Bitmap_Destroy", {{"bitmap", PtrOf(pvBitmap)}}, nullptr);
    }
    std::free(pvBitmap);
}
