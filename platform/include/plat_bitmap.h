/* Platform bitmaps: one bit per number, 0 .. uiBits - 1. */
#ifndef PLAT_BITMAP_H
#define PLAT_BITMAP_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* Returns a zeroed bitmap of uiBits bits, or NULL. */
void *Bitmap_Create(u32 uiBits);
/* 1 when bit uiBit is set, else 0 (also for a bit out of range). */
u32 Bitmap_Check(void *pvBitmap, u32 uiBit);
/* 0 on success, 1 when uiBit is out of range or the bitmap is NULL. */
u32 Bitmap_Set(void *pvBitmap, u32 uiBit);
u32 Bitmap_Clear(void *pvBitmap, u32 uiBit);
void Bitmap_Zero(void *pvBitmap);
void Bitmap_Destroy(void *pvBitmap);

PLAT_EXTERN_C_END

#endif
