/* Process start-up, loop and teardown: the parts the module's files
 * share. */
#ifndef TBDL_MAIN_PRIV_H
#define TBDL_MAIN_PRIV_H

#include "tbdl_bnd_rec.h"
#include "tbdl_main.h"

/* The process's state: the one epoll descriptor, the stop-signal
 * descriptor, the stop flags and the limits read at start. Each module
 * receives the descriptor and the limits through its Init. */
extern i32 g_iTbdlEpollFd;
extern i32 g_iTbdlScmSignalFd;
extern u16 g_bTbdlIsStopProcess;
extern u16 g_bTbdlNormalStop;
extern TBDL_SPEC_S g_stTbdlSpecConf;

/* Stop-signal callback: reads one signalfd record and asks the loop to
 * stop; value 3 marks an orderly stop. */
u32 tbdl_main_SignalCallback(u32 uiEvents, u64 ulData);
/* Waits for one event at a time and dispatches it until a stop is asked. */
void tbdl_main_Loop(void);
/* Teardown: deactivation on the master, every module's Fini, the two
 * descriptors closed and the flags reset. */
void tbdl_main_Exit(void);

#endif
