/* Database records: the module's state. */
#ifndef TBDL_DBM_PRIV_H
#define TBDL_DBM_PRIV_H

#include "tbdl_dbm.h"

/* Handle of the feature's database; DBM_HANDLE_NONE when it is not open. */
extern u64 g_stTbdlDbmGlobal;

#endif
