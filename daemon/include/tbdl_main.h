/* Process start-up, event loop and teardown. */
#ifndef TBDL_MAIN_H
#define TBDL_MAIN_H

#include "tbdl_types.h"

/* The whole life of the process: start-up, loop, teardown. Returns 0 after
 * an orderly stop and -1 when start-up failed. main() calls it; tests call
 * it directly. */
int TBDL_MAIN_Run(int argc, char **argv);

#endif
