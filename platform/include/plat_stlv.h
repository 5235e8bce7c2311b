/* STLV coding: a TLV is a 2-byte type and a 2-byte value length, both
 * big-endian, followed by the value; TLVs are packed with no padding. */
#ifndef PLAT_STLV_H
#define PLAT_STLV_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

#define STLV_HEAD_LEN 4u

/* Reads the first TLV of pBuf within uiRemaining bytes. On success sets the
 * type, the value length and *ppValue to the value and returns 0. When fewer
 * than 4 bytes remain, or the value would run past uiRemaining, sets
 * *ppValue to NULL, *pusType and *pusLen to 0 and returns 1. Never reads
 * past pBuf + uiRemaining. */
u32 STLV_Get(const void *pBuf, u32 uiRemaining, u16 *pusType, u16 *pusLen,
             const void **ppValue);

/* Writes one TLV at pDst within uiRoom bytes and returns the bytes written
 * (4 + usLen), or 0 when they do not fit. With pValue NULL only the header
 * is written, in front of a value already placed at pDst + 4. */
u32 STLV_Set(void *pDst, u32 uiRoom, u16 usType, u16 usLen, const void *pValue);

PLAT_EXTERN_C_END

#endif
