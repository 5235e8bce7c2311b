/* Display of the debug switch word and of the device's bundle limits. */
#include <arpa/inet.h>
#include <string.h>

#include "disp/tbdl_disp_priv.h"
#include "plat_stlv.h"
#include "tbdl_bnd.h"
#include "tbdl_dbg.h"

u32 TBDL_DISP_Debug(u16 usOper, const TBDL_CFG_KEY_S *pstKey, u16 usBufLen, u8 *pucBuf,
                    u16 *pusOutLen)
{
    (void)usOper;
    (void)pstKey;
    u32 uiSwitch = htonl(TBDL_DBG_GetDebug());
    u32 uiWritten = STLV_Set(pucBuf, usBufLen, TBDL_TLV_DISP_DEBUG, sizeof(uiSwitch), &uiSwitch);
    if (uiWritten == 0) {
        return TBDL_E_FAILED;
    }
    *pusOutLen = (u16)uiWritten;
    return TBDL_OK;
}

u32 TBDL_DISP_TbdlSpec(u16 usOper, const TBDL_CFG_KEY_S *pstKey, u16 usBufLen, u8 *pucBuf,
                       u16 *pusOutLen)
{
    (void)usOper;
    (void)pstKey;
    TBDL_SPEC_S stSpec;
    memset(&stSpec, 0, sizeof(stSpec));
    TBDL_BND_GetSpec(&stSpec);

    TBDL_DISP_SPEC_VAL_S stVal;
    stVal.uiMaxBndNum = htonl(stSpec.uiMaxBndNum);
    stVal.uiMaxMembNum = htonl(stSpec.uiMaxMembNum);
    stVal.usLoadBalancing = htons(stSpec.usLoadBalancing);
    stVal.usProtectionOnetoone = htons(stSpec.usProtectionOnetoone);
    stVal.usProtectionOneplusone = htons(stSpec.usProtectionOneplusone);
    stVal.usResv = 0;
    /* A value that does not fit is answered with an empty reply and
     * result 0. */
    *pusOutLen = (u16)STLV_Set(pucBuf, usBufLen, TBDL_TLV_DISP_SPEC, sizeof(stVal), &stVal);
    return TBDL_OK;
}
