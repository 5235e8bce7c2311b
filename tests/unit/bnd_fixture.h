/* Shared fixture of the bundle table, member and HA tests: the table on a real epoll descriptor against the recording
 * fake, with HA hooks, KTBDL commands, database writes and bundle callbacks in one ordered trace. */
#ifndef BND_FIXTURE_H
#define BND_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "bnd/tbdl_bnd_priv.h"
#include "cfg_test_util.h"
#include "fake_platform.h"
#include "tbdl_bas.h"
#include "dbg/tbdl_dbg_priv.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"
#include "tbdl_ktbdl.h"

namespace bndtest {

using cfgtest::Be32;
using cfgtest::Bytes;
using cfgtest::Cat;
using cfgtest::Host;
using cfgtest::MembKey;
using Trace = std::vector<std::string>;
/* "HA<type>", "HAF" (flush), "K<cmd hex>", "EV<ev>:<num>", "DB+<num>", "DB-<num>" (bundle records;
 * "DB+?", "DB-?" for member records). */
inline Trace g_trace;
inline std::vector<Bytes> g_haPayloads; /* payloads handed to the HA encoder */

inline void BndEv(u32 ev, u32 num) { g_trace.push_back("EV" + std::to_string(ev) + ":" + std::to_string(num)); }

inline TBDL_KBND_S Kbnd(const Bytes &b)
{
    TBDL_KBND_S t{};
    EXPECT_EQ(b.size(), sizeof(t));
    memcpy(&t, b.data(), std::min(b.size(), sizeof(t)));
    return t;
}
inline bool Logged(const std::string &line)
{
    auto v = fake::LogLines();
    return std::find(v.begin(), v.end(), line) != v.end();
}

class BndTest : public ::testing::Test {
protected:
    int epfd = -1;

    void SetUp() override
    {
        fake::Reset();
        g_trace.clear();
        g_haPayloads.clear();
        TBDL_DBG_Init();
        g_stTbdlLogVar.uiDebugSwitch = 3;
        TBDL_DBM_Init();
        static const TBDL_BAS_HA_FUNC_S hooks = {
            [](u16 usType, const void *pData) -> u32 {
                const uint8_t *p = static_cast<const uint8_t *>(pData);
                g_trace.push_back("HA" + std::to_string(usType));
                g_haPayloads.emplace_back(p, p + (usType == 1 ? sizeof(TBDL_KBND_S) : sizeof(TBDL_KMEMB_S)));
                return 0;
            },
            []() -> u16 { return 1; }, [](u16) -> u32 { g_trace.push_back("HAF"); return 0u; },
            []() -> u16 { return 1; }};
        TBDL_BAS_RegHAFunc(&hooks);
        fake::OnCall("CIOCTL", [](const fake::Call &c) {
            EXPECT_EQ(c.args.at(0), TBDL_KTBDL_DEV);
            char b[16];
            snprintf(b, sizeof(b), "K%llx", (unsigned long long)c.args.at(1));
            g_trace.push_back(b);
        });
        /* A bundle record's number is the big-endian word at offset 20. */
        for (const char *op : {"DBM_InsertSortList", "DBM_RemoveSortList"}) {
            fake::OnCall(op, [op](const fake::Call &c) {
                const uint8_t *p = c.rec.size() >= 24 ? &c.rec[20] : nullptr;
                g_trace.push_back((op[4] == 'I' ? "DB+" : "DB-") +
                                  (p ? std::to_string(u32(p[0] << 24 | p[1] << 16 | p[2] << 8 | p[3])) : "?"));
            });
        }
        epfd = epoll_create1(0);
        ASSERT_GE(epfd, 0);
    }

    void TearDown() override
    {
        TBDL_BND_ClearRunning();
        TBDL_BND_Fini();
        TBDL_BAS_DeregHAFunc();
        TBDL_INTF_SetSystemBoot(0);
        TBDL_DBM_Fini();
        TBDL_DBG_Fini();
        TBDL_BAS_SetAllocFault(0, 0);
        close(epfd);
    }

    /* (Re)creates an empty table with the given mode switches and limits. */
    void Init(u16 lb = 1, u16 one2one = 1, u16 one4one = 1, u32 maxBnd = 1024, u32 maxMemb = 8)
    {
        TBDL_BND_ClearRunning();
        TBDL_BND_Fini();
        TBDL_SPEC_S spec{maxBnd, maxMemb, lb, one2one, one4one};
        ASSERT_EQ(TBDL_BND_Init(&spec, BndEv, epfd), TBDL_OK);
    }

    static u32 Cfg(u16 undo, u32 num, u16 op, const void *data = nullptr, size_t len = 0)
    {
        TBDL_CFG_KEY_S key{num};
        TBDL_CFG_OPER_DATA_S oper{};
        if (data != nullptr) {
            memcpy(oper.aucData, data, len);
        }
        return TBDL_BND_Configure(undo, &key, op, &oper);
    }
    static u32 Create(u32 num, u16 mode, u16 tnlMode = 0)
    {
        u16 v[2] = {mode, tnlMode};
        return Cfg(0, num, TBDL_TLV_OP_BND, v, sizeof(v));
    }
    static u32 Delete(u32 num) { return Cfg(1, num, TBDL_TLV_OP_BND); }

    /* Adds interface "Tunnel<tnlNum>" with the given tunnel mode as a member; returns its index. */
    static u32 AddMemb(u32 num, u32 tnlNum, u8 role = 0, u8 state = 1, u16 weight = 1, u32 tnlMode = 0,
                       u32 expect = TBDL_OK)
    {
        TBDL_MEMB_INFO_S m{fake::AddTunnel(tnlNum, tnlMode), weight, role, state};
        EXPECT_EQ(TBDL_BND_ProcMembEv(num, TBDL_MEMB_EV_ADD, &m), expect) << "Tunnel" << tnlNum;
        return m.uiIfIndex;
    }
    static u32 MembEv(u32 num, u32 ev, u32 ifIndex, u8 state = 0, u16 weight = 0, u8 role = 0)
    {
        TBDL_MEMB_INFO_S m{ifIndex, weight, role, state};
        return TBDL_BND_ProcMembEv(num, ev, &m);
    }

    static TBDL_BND_INFO_S Snap(u32 num)
    {
        TBDL_BND_INFO_S info{};
        EXPECT_EQ(TBDL_BND_GetBndInfo(num, &info), TBDL_OK);
        return info;
    }
    static std::vector<TBDL_MEMB_INFO_S> Members(u32 num)
    {
        std::vector<TBDL_MEMB_INFO_S> m(TBDL_SNAPSHOT_MEMB_MAX);
        TBDL_BND_INFO_S info{};
        info.pstMembInfo = m.data();
        EXPECT_EQ(TBDL_BND_GetBndInfo(num, &info), TBDL_OK);
        m.resize(info.usMembNum);
        return m;
    }

    /* Trace and journal from now on only. */
    static void Mark()
    {
        g_trace.clear();
        g_haPayloads.clear();
        fake::ClearJournal();
    }

    static TBDL_KBND_S LastKbnd()
    {
        auto calls = fake::CallsOf("CIOCTL");
        auto it = std::find_if(calls.rbegin(), calls.rend(),
                               [](const fake::Call &c) { return c.args.at(1) == TBDL_KCMD_BND_UPDATE; });
        return Kbnd(it == calls.rend() ? Bytes{} : it->data);
    }

    /* Waits (5 s at most) for one event on the loop and dispatches it as the main loop would. */
    void Pump()
    {
        struct epoll_event ev{};
        ASSERT_EQ(epoll_wait(epfd, &ev, 1, 5000), 1) << "no event within the deadline";
        TBDL_BAS_EpollDispatch(&ev);
    }
};

} // namespace bndtest

#endif
