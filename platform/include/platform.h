/* The whole platform API as the daemon calls it. */
#ifndef PLATFORM_H
#define PLATFORM_H

#include "plat_types.h"
#include "plat_bitmap.h"
#include "plat_cioctl.h"
#include "plat_dbm.h"
#include "plat_ha.h"
#include "plat_if.h"
#include "plat_l3vpn.h"
#include "plat_lfib.h"
#include "plat_lipc.h"
#include "plat_log.h"
#include "plat_lsm.h"
#include "plat_opt.h"
#include "plat_ps.h"
#include "plat_service.h"
#include "plat_stlv.h"
#include "plat_svcport.h"
#include "plat_sys.h"
#include "plat_tunnel.h"

#endif
