/* Shared fixture of the bundle table tests: the table on a real epoll
 * descriptor against the recording fake, with HA hooks, KTBDL commands,
 * database writes and bundle callbacks recorded into one ordered trace. */
#ifndef BND_FIXTURE_H
#define BND_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "bnd/tbdl_bnd_priv.h"
#include "fake_platform.h"
#include "tbdl_bas.h"
#include "tbdl_dbg.h"
#include "tbdl_dbm.h"
#include "tbdl_intf.h"
#include "tbdl_ktbdl.h"

namespace bndtest {

/* The ordered trace: "HA<type>", "HAF", "K<cmd hex>", "EV<ev>:<num>",
 * "DB+<num>", "DB-<num>". */
inline std::vector<std::string> g_trace;
/* Payloads handed to the HA encoder, by message. */
inline std::vector<std::vector<uint8_t>> g_haPayloads;

inline u32 HaEnc(u16 usType, const void *pData)
{
    size_t len = (usType == 1) ? sizeof(TBDL_KBND_S) : sizeof(TBDL_KMEMB_S);
    const uint8_t *p = static_cast<const uint8_t *>(pData);
    g_trace.push_back("HA" + std::to_string(usType));
    g_haPayloads.emplace_back(p, p + len);
    return 0;
}
inline u16 HaYes(void) { return 1; }
inline u32 HaFlush(u16) { g_trace.push_back("HAF"); return 0; }

inline void BndEv(u32 uiEvent, u32 uiBndNum)
{
    g_trace.push_back("EV" + std::to_string(uiEvent) + ":" + std::to_string(uiBndNum));
}

inline uint32_t BeWord(const std::vector<uint8_t> &b, size_t off)
{
    if (b.size() < off + 4) {
        return 0xFFFFFFFFu;
    }
    return (uint32_t(b[off]) << 24) | (uint32_t(b[off + 1]) << 16) | (uint32_t(b[off + 2]) << 8) | b[off + 3];
}

inline std::string Hex(uint64_t v)
{
    char buf[24];
    snprintf(buf, sizeof(buf), "%llx", (unsigned long long)v);
    return buf;
}

class BndTest : public ::testing::Test {
protected:
    int epfd = -1;
    TBDL_SPEC_S spec{1024, 8, 1, 1, 1};

    void SetUp() override
    {
        fake::Reset();
        g_trace.clear();
        g_haPayloads.clear();
        TBDL_BAS_SetAllocFault(0, 0);
        TBDL_DBG_Init();
        g_stTbdlLogVar.uiDebugSwitch = 3;
        TBDL_DBM_Init();
        static const TBDL_BAS_HA_FUNC_S hooks = {HaEnc, HaYes, HaFlush, HaYes};
        TBDL_BAS_RegHAFunc(&hooks);
        fake::OnCall("CIOCTL", [](const fake::Call &c) { g_trace.push_back("K" + Hex(c.args.at(1))); });
        fake::OnCall("DBM_InsertSortList",
                     [](const fake::Call &c) { g_trace.push_back("DB+" + std::to_string(BeWord(c.rec, 20))); });
        fake::OnCall("DBM_RemoveSortList",
                     [](const fake::Call &c) { g_trace.push_back("DB-" + std::to_string(BeWord(c.rec, 20))); });
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

    void Init(u16 lb = 1, u16 one2one = 1, u16 one4one = 1, u32 maxBnd = 1024, u32 maxMemb = 8)
    {
        spec = TBDL_SPEC_S{maxBnd, maxMemb, lb, one2one, one4one};
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

    /* Adds a tunnel interface with the given tunnel mode and binds it. */
    static u32 AddMemb(u32 num, u32 tnlNum, u8 role = 0, u8 state = 1, u16 weight = 1, u32 tnlMode = 0,
                       u32 *pIfIndex = nullptr)
    {
        TBDL_MEMB_INFO_S m{fake::AddTunnel(tnlNum, tnlMode), weight, role, state};
        if (pIfIndex != nullptr) {
            *pIfIndex = m.uiIfIndex;
        }
        return TBDL_BND_ProcMembEv(num, TBDL_MEMB_EV_ADD, &m);
    }

    static TBDL_BND_INFO_S Snap(u32 num, std::vector<TBDL_MEMB_INFO_S> *members = nullptr)
    {
        static TBDL_MEMB_INFO_S arr[TBDL_SNAPSHOT_MEMB_MAX];
        TBDL_BND_INFO_S info{};
        info.pstMembInfo = arr;
        EXPECT_EQ(TBDL_BND_GetBndInfo(num, &info), TBDL_OK);
        if (members != nullptr) {
            members->assign(arr, arr + info.usMembNum);
        }
        return info;
    }

    /* Calls the trace only from now on. */
    static void Mark()
    {
        g_trace.clear();
        g_haPayloads.clear();
        fake::ClearJournal();
    }

    static bool Logged(const std::string &line)
    {
        for (const std::string &l : fake::LogLines()) {
            if (l == line) {
                return true;
            }
        }
        return false;
    }

    /* Last KTBDL bundle update payload. */
    static TBDL_KBND_S LastKbnd()
    {
        TBDL_KBND_S k{};
        auto calls = fake::CallsOf("CIOCTL");
        for (auto it = calls.rbegin(); it != calls.rend(); ++it) {
            if (it->args.at(1) == TBDL_KCMD_BND_UPDATE) {
                EXPECT_EQ(it->data.size(), sizeof(k));
                memcpy(&k, it->data.data(), sizeof(k));
                break;
            }
        }
        return k;
    }
};

using Trace = std::vector<std::string>;

} // namespace bndtest

#endif
