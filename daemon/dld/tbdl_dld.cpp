/* Download queues to the LSM and the PS. */
#include "tbdl_dld.h"

/* Placeholder: the download queues to LSM and PS come later; until then
 * every entry point accepts its call and does nothing. */

u32 TBDL_DLD_Init(const TBDL_SPEC_S *pstSpec, i32 iEpollFd)
{
    (void)pstSpec;
    (void)iEpollFd;
    return 0;
}

void TBDL_DLD_Fini(void) {}

u32 TBDL_DLD_Activate(void)
{
    return 0;
}

void TBDL_DLD_Deactivate(u16 usWithdraw)
{
    (void)usWithdraw;
}

void TBDL_DLD_ProcBndEv(u32 uiEvent, u32 uiBndNum)
{
    (void)uiEvent;
    (void)uiBndNum;
}

void TBDL_DLD_ProcIntfEv(u32 uiEvent, u32 uiBndNum)
{
    (void)uiEvent;
    (void)uiBndNum;
}
