/* Process start-up, event loop and teardown. */
#ifndef TBDL_MAIN_H
#define TBDL_MAIN_H

#include "tbdl_bnd_rec.h"

extern i32 g_iTbdlEpollFd;
extern i32 g_iTbdlScmSignalFd;
extern u16 g_bTbdlIsStopProcess;
extern u16 g_bTbdlNormalStop;
extern TBDL_SPEC_S g_stTbdlSpecConf;

/* The whole life of the process: start-up, loop, teardown. Returns 0 after
 * an orderly stop and -1 when start-up failed. main() calls it; tests call
 * it directly. */
int TBDL_MAIN_Run(int argc, char **argv);

#endif
