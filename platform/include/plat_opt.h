/* Option reader: fills switches from the device's feature options. */
#ifndef PLAT_OPT_H
#define PLAT_OPT_H

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* One option row: name, a flag word (always 0 here), the destination and its
 * size in bytes. The reader writes 1 into the destination when the option is
 * enabled and 0 when it is disabled; an unknown option is left untouched. */
typedef struct tagTBDL_OPT_ROW {
    const char *pcName;
    u64 ulFlag;
    void *pvDest;
    u64 ulSize;
} TBDL_OPT_ROW_S;

/* Returns 0 when every row was filled. */
u32 TBDL_Opt_Parse(u64 ulRowCount, TBDL_OPT_ROW_S *pstRows);

PLAT_EXTERN_C_END

#endif
