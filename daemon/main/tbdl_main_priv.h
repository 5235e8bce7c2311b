/* Process start-up, loop and teardown: the parts the module's files
 * share. */
#ifndef TBDL_MAIN_PRIV_H
#define TBDL_MAIN_PRIV_H

#include "tbdl_main.h"

/* Stop-signal callback: reads one signalfd record and asks the loop to
 * stop; value 3 marks an orderly stop. */
u32 tbdl_main_SignalCallback(u32 uiEvents, u64 ulData);
/* Waits for one event at a time and dispatches it until a stop is asked. */
void tbdl_main_Loop(void);
/* Teardown: deactivation on the master, every module's Fini, the two
 * descriptors closed and the flags reset. */
void tbdl_main_Exit(void);

#endif
