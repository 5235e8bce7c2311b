/* Display handlers, module-internal interfaces.
 *
 * tbdl_disp_bnd.cpp  - bundle details (TLV 402) and bundle counts (TLV 403)
 * tbdl_disp_misc.cpp - debug switches (TLV 404) and device limits (TLV 405)
 */
#ifndef TBDL_DISP_PRIV_H
#define TBDL_DISP_PRIV_H

#include "tbdl_disp.h"

/* Writes the value of TLV 402 in host order at pucValue and returns its
 * length; 0 when there is no bundle to show or usRoom is too small. */
u16 tbdl_disp_GetBndInfo(u16 usOper, u32 uiBndNum, u16 usRoom, u8 *pucValue);
/* Adds the bundle uiBndNum (0xFFFFFFFF: every bundle) to the counters
 * total, up and down. */
void tbdl_disp_GetBndStatistic(u32 uiBndNum, u32 auiCnt[3]);

#endif
