/* What the daemon's fuzz targets share: a failed check stops the run with a
 * line saying what broke, configuration handlers called the way the server
 * calls them, and the core modules started against the recording fake. */
#pragma once

#include <sys/epoll.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fake_platform.h"
#include "tbdl_bnd.h"
#include "tbdl_cfg.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"

namespace fuzzd {

/* The event loop the modules register with: one per process, made on first
 * use (nothing ever waits on it). */
inline int EventLoop()
{
    static const int iEpfd = epoll_create1(EPOLL_CLOEXEC);
    if (iEpfd < 0) {
        abort();
    }
    return iEpfd;
}

inline void Check(bool bOk, const char *pcWhat)
{
    if (!bOk) {
        fprintf(stderr, "check failed: %s\n", pcWhat);
        abort();
    }
}

/* One configuration operation on bundle uiBnd, its value zero-padded as the
 * request parser leaves it. */
inline u32 Configure(TBDL_CFG_HANDLER_PF pfn, u32 uiBnd, u16 usOperType, const void *pData, size_t ulLen)
{
    alignas(8) TBDL_CFG_OPER_DATA_S stData = {};
    memcpy(stData.aucData, pData, ulLen);
    TBDL_CFG_KEY_S stKey = {uiBnd};
    return pfn(0, &stKey, usOperType, &stData);
}

/* A fresh fake, then debug, database, bundle table and member modules. */
inline void StartCore(const TBDL_SPEC_S &stSpec, int iEpfd)
{
    fake::Reset();
    (void)TBDL_DBG_Init();
    (void)TBDL_DBM_Init();
    (void)TBDL_BND_Init(&stSpec, nullptr, iEpfd);
    (void)TBDL_INTF_Init(iEpfd);
}

inline constexpr TBDL_SPEC_S kDefaultSpec = {TBDL_SPEC_DEF_MAX_BND, TBDL_SPEC_DEF_MAX_MEMB, 1, 1, 1};

} // namespace fuzzd
