/* Display handlers. */
#ifndef TBDL_DISP_H
#define TBDL_DISP_H

#include "tbdl_cfg_msg.h"

u32 TBDL_DISP_TnlBnd(u16 usOper, const TBDL_CFG_KEY_S *pstKey, u16 usBufLen, u8 *pucBuf,
                     u16 *pusOutLen);
u32 TBDL_DISP_Debug(u16 usOper, const TBDL_CFG_KEY_S *pstKey, u16 usBufLen, u8 *pucBuf,
                    u16 *pusOutLen);
u32 TBDL_DISP_TbdlSpec(u16 usOper, const TBDL_CFG_KEY_S *pstKey, u16 usBufLen, u8 *pucBuf,
                       u16 *pusOutLen);

#endif
