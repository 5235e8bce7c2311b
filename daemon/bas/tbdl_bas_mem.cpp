/* Zero-filled allocation of every daemon record, with a fault switch so
 * tests can make allocations fail. */
#include <stdlib.h>

#include "tbdl_bas.h"

typedef struct tagTBDL_BAS_ALLOC_FAULT {
    u32 uiSkip;  /* successful allocations still to pass */
    u32 uiCount; /* failures to produce after that; 0xFFFFFFFF: forever */
} TBDL_BAS_ALLOC_FAULT_S;

static TBDL_BAS_ALLOC_FAULT_S g_stTbdlBasAllocFault = {0, 0};

/* Blocks handed out and not yet freed. */
static u32 g_uiTbdlBasLiveAllocs = 0;

/* True when this allocation is to fail. */
static bool tbdl_bas_AllocFails(void)
{
    TBDL_BAS_ALLOC_FAULT_S *pstFault = &g_stTbdlBasAllocFault;
    if (pstFault->uiCount == 0) {
        return false;
    }
    if (pstFault->uiSkip > 0) {
        pstFault->uiSkip--;
        return false;
    }
    if (pstFault->uiCount != 0xFFFFFFFFu) {
        pstFault->uiCount--;
    }
    return true;
}

void *TBDL_BAS_Zalloc(size_t ulSize)
{
    if (tbdl_bas_AllocFails()) {
        return NULL;
    }
    void *pv = calloc(1, ulSize == 0 ? 1 : ulSize);
    if (pv != NULL) {
        g_uiTbdlBasLiveAllocs++;
    }
    return pv;
}

void TBDL_BAS_Free(void *pv)
{
    if (pv != NULL) {
        g_uiTbdlBasLiveAllocs--;
    }
    free(pv);
}

u32 TBDL_BAS_LiveAllocs(void)
{
    return g_uiTbdlBasLiveAllocs;
}

void TBDL_BAS_SetAllocFault(u32 uiSkip, u32 uiCount)
{
    g_stTbdlBasAllocFault.uiSkip = uiSkip;
    g_stTbdlBasAllocFault.uiCount = uiCount;
}
