/* Fake TLV coding and bitmaps: the real behaviour, recorded. */
#include <cstring>

#include "fake_internal.h"

using fake::Call;
using namespace fake::detail;

namespace {

struct Bitmap {
    u32 uiBits = 0;
    std::vector<uint8_t> vecBytes;
};

} // namespace

extern "C" {

u32 STLV_Get(const void *pBuf, u32 uiRemaining, u16 *pusType, u16 *pusLen, const void **ppValue)
{
    Call c = Mk("STLV_Get", {U(uiRemaining)});
    uint64_t ul = 0;
    if (!Scripted(c.name, &ul)) {
        const auto *puc = static_cast<const uint8_t *>(pBuf);
        *ppValue = nullptr;
        *pusType = 0;
        *pusLen = 0;
        ul = 1;
        if (puc != nullptr && uiRemaining >= STLV_HEAD_LEN) {
            u16 usType = static_cast<u16>((puc[0] << 8) | puc[1]);
            u16 usLen = static_cast<u16>((puc[2] << 8) | puc[3]);
            if (static_cast<u32>(usLen) <= uiRemaining - STLV_HEAD_LEN) {
                *pusType = usType;
                *pusLen = usLen;
                *ppValue = puc + STLV_HEAD_LEN;
                c.args.push_back(usType);
                c.args.push_back(usLen);
                ul = 0;
            }
        }
    }
    c.result = ul;
    Record(std::move(c));
    return static_cast<u32>(ul);
}

u32 STLV_Set(void *pDst, u32 uiRoom, u16 usType, u16 usLen, const void *pValue)
{
    Call c = Mk("STLV_Set", {U(uiRoom), U(usType), U(usLen)});
    uint64_t ul = 0;
    if (!Scripted(c.name, &ul)) {
        u32 uiNeed = STLV_HEAD_LEN + usLen;
        ul = 0;
        if (pDst != nullptr && uiNeed <= uiRoom) {
            auto *puc = static_cast<uint8_t *>(pDst);
            if (pValue != nullptr && usLen != 0) {
                std::memmove(puc + STLV_HEAD_LEN, pValue, usLen);
            }
            puc[0] = static_cast<uint8_t>(usType >> 8);
            puc[1] = static_cast<uint8_t>(usType);
            puc[2] = static_cast<uint8_t>(usLen >> 8);
            puc[3] = static_cast<uint8_t>(usLen);
            c.data = Copy(puc, uiNeed);
            ul = uiNeed;
        }
    }
    c.result = ul;
    Record(std::move(c));
    return static_cast<u32>(ul);
}

void *Bitmap_Create(u32 uiBits)
{
    Call c = Mk("Bitmap_Create", {U(uiBits)});
    uint64_t ul = 0;
    void *pv = nullptr;
    if (!Scripted(c.name, &ul) || ul != 0) {
        auto *p = new Bitmap;
        p->uiBits = uiBits;
        p->vecBytes.assign((static_cast<size_t>(uiBits) + 7) / 8, 0);
        pv = p;
    }
    c.result = reinterpret_cast<uintptr_t>(pv);
    Record(std::move(c));
    return pv;
}

u32 Bitmap_Check(void *pvBitmap, u32 uiBit)
{
    Call c = Mk("Bitmap_Check", {U(uiBit)});
    auto *p = static_cast<Bitmap *>(pvBitmap);
    uint64_t ul = 0;
    if (!Scripted(c.name, &ul)) {
        ul = (p != nullptr && uiBit < p->uiBits && (p->vecBytes[uiBit / 8] >> (uiBit % 8)) & 1u) ? 1 : 0;
    }
    c.result = ul;
    Record(std::move(c));
    return static_cast<u32>(ul);
}

static u32 BitmapChange(const char *pcName, void *pvBitmap, u32 uiBit, bool bSet)
{
    Call c = Mk(pcName, {U(uiBit)});
    auto *p = static_cast<Bitmap *>(pvBitmap);
    uint64_t ul = 0;
    if (!Scripted(c.name, &ul)) {
        ul = 1;
        if (p != nullptr && uiBit < p->uiBits) {
            uint8_t ucMask = static_cast<uint8_t>(1u << (uiBit % 8));
            if (bSet) {
                p->vecBytes[uiBit / 8] |= ucMask;
            } else {
                p->vecBytes[uiBit / 8] &= static_cast<uint8_t>(~ucMask);
            }
            ul = 0;
        }
    }
    c.result = ul;
    Record(std::move(c));
    return static_cast<u32>(ul);
}

u32 Bitmap_Set(void *pvBitmap, u32 uiBit)
{
    return BitmapChange("Bitmap_Set", pvBitmap, uiBit, true);
}

u32 Bitmap_Clear(void *pvBitmap, u32 uiBit)
{
    return BitmapChange("Bitmap_Clear", pvBitmap, uiBit, false);
}

void Bitmap_Zero(void *pvBitmap)
{
    Call c = Mk("Bitmap_Zero", {});
    if (auto *p = static_cast<Bitmap *>(pvBitmap)) {
        std::fill(p->vecBytes.begin(), p->vecBytes.end(), 0);
    }
    Record(std::move(c));
}

void Bitmap_Destroy(void *pvBitmap)
{
    Call c = Mk("Bitmap_Destroy", {});
    delete static_cast<Bitmap *>(pvBitmap);
    Record(std::move(c));
}

} // extern "C"
