/* Download queues to LSM and PS. */
#ifndef TBDL_DLD_H
#define TBDL_DLD_H

#include "tbdl_bnd_rec.h"

u32 TBDL_DLD_Init(const TBDL_SPEC_S *pstSpec, i32 iEpollFd);
void TBDL_DLD_Fini(void);
u32 TBDL_DLD_Activate(void);
void TBDL_DLD_Deactivate(u16 usWithdraw);
void TBDL_DLD_ProcBndEv(u32 uiEvent, u32 uiBndNum);
u32 TBDL_DLD_ProcIntfEv(u32 uiEvent, u32 uiBndNum);

#endif
