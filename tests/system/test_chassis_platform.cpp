/* The emulated platform library against a running chassisd, called from
 * this process as if it were a board's daemon. */
#include <poll.h>
#include <stdlib.h>
#include <sys/epoll.h>

#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "cfg_checks.h"
#include "chassis_env.h"
#include "chassis_harness.h"
#include "journal.h"
#include "platform.h"
#include "rpc.h"

namespace {

using namespace tbdl::systest;

/* Points this process's platform library at a chassis and board. */
void Enter(const std::string &dir, int board, bool journal = false)
{
    setenv("TBDL_CHASSIS_DIR", dir.c_str(), 1);
    setenv("TBDL_BOARD", std::to_string(board).c_str(), 1);
    if (journal) {
        setenv("TBDL_JOURNAL", "1", 1);
    } else {
        unsetenv("TBDL_JOURNAL");
    }
    tbdl::plat::ReloadChassisEnv();
    tbdl::plat::JournalReset();
    tbdl::rpc::FailPlanReset();
}

class ChassisPlatform : public ::testing::Test {
protected:
    void StartChassis(const std::vector<std::string> &args = {})
    {
        ProcRun r = c.Start(args);
        ASSERT_EQ(r.status, 0) << r.err;
        Enter(c.dir(), 0);
    }
    void TearDown() override
    {
        unsetenv("TBDL_CHASSIS_DIR");
        unsetenv("TBDL_JOURNAL");
        tbdl::plat::ReloadChassisEnv();
        tbdl::plat::JournalReset();
        tbdl::rpc::FailPlanReset();
    }
    void Ctl(const std::vector<std::string> &args)
    {
        ProcRun r = c.Ctl(args);
        ASSERT_EQ(r.status, 0) << r.err;
    }
    Chassis c;
};

u32 Data(u32 ifIndex, u32 item)
{
    u32 v = 0xDEADBEEF;
    return IF_GetDataByIfIndex(ifIndex, item, &v) == 0 ? v : 0xDEADBEEF;
}

TEST_F(ChassisPlatform, TunnelInterfacesAndBundleIndexes)
{
    StartChassis();
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel5"), 0u); /* tunnels are not made on demand */
    Ctl({"if", "add", "Tunnel5", "--mode", "3", "--state", "down", "--vrf", "7"});
    Ctl({"if", "add", "Tunnel6"});
    u32 t5 = IF_GetIfIndexByFullName("Tunnel5");
    u32 t6 = IF_GetIfIndexByFullName("Tunnel6");
    ASSERT_NE(t5, 0u);
    EXPECT_EQ(Data(t5, 0), 5u);
    EXPECT_EQ(Data(t5, 18), 39u);
    EXPECT_EQ(Data(t5, 31), 0u);
    EXPECT_EQ(Data(t6, 31), 1u); /* up unless said otherwise */
    EXPECT_EQ(Data(t5, 13), 0xDEADBEEFu) << "unknown items fail and leave the output alone";

    u32 mode = 37;
    EXPECT_EQ(TUNNEL_GetMode(t5, &mode), 0u);
    EXPECT_EQ(mode, 3u);
    mode = 37;
    EXPECT_NE(TUNNEL_GetMode(t6, &mode), 0u) << "an interface without a tunnel mode";
    EXPECT_EQ(mode, 37u);

    u16 vrf = 99;
    EXPECT_EQ(L3VPN_GetVrfIndexByIfIndex(t5, &vrf), 0u);
    EXPECT_EQ(vrf, 7u);
    Ctl({"vrf", "unbind", "Tunnel5"});
    EXPECT_EQ(L3VPN_GetVrfIndexByIfIndex(t5, &vrf), 0u);
    EXPECT_EQ(vrf, 0u);
    Ctl({"vrf", "bind", "Tunnel5", "9"});
    Ctl({"if", "set", "Tunnel5", "--state", "up", "--mode", "none"});
    EXPECT_EQ(L3VPN_GetVrfIndexByIfIndex(t5, &vrf), 0u);
    EXPECT_EQ(vrf, 9u);
    EXPECT_EQ(Data(t5, 31), 1u);
    mode = 37;
    EXPECT_NE(TUNNEL_GetMode(t5, &mode), 0u);

    Ctl({"if", "del", "Tunnel5"});
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel5"), 0u);
    EXPECT_EQ(Data(t5, 0), 0xDEADBEEFu);
    vrf = 99;
    EXPECT_NE(L3VPN_GetVrfIndexByIfIndex(t5, &vrf), 0u);
    EXPECT_EQ(vrf, 99u);

    /* Bundle indexes: made on demand, stable, destroyable, never reused. */
    Ctl({"if", "add", "Tunnel1"});
    u32 b3 = IF_GetIfIndexByFullName("Tunnel-Bundle3");
    u32 b4 = IF_GetIfIndexByFullName("Tunnel-Bundle4");
    EXPECT_EQ(Data(b3, 0), 3u);
    EXPECT_EQ(Data(b3, 18), 96u);
    for (const char *bad : {"Tunnel-Bundle", "Tunnel-Bundle-1", "Tunnel-Bundle03", "tunnel-bundle3", "Tunnel-Bundle3x"}) {
        EXPECT_EQ(IF_GetIfIndexByFullName(bad), 0u) << bad;
    }

    u8 key[8] = {};
    std::memcpy(key, &b4, 4);
    u8 badKey[8] = {};
    std::memcpy(badKey, &b4, 4);
    badKey[6] = 1;
    EXPECT_EQ(IF_DeleteIf(1, badKey), 0u) << "the key's last four bytes must be zero";
    EXPECT_EQ(IF_DeleteIf(2, key), 0u) << "key type 1 only";
    u32 t1 = IF_GetIfIndexByFullName("Tunnel1");
    u8 tunnelKey[8] = {};
    std::memcpy(tunnelKey, &t1, 4);
    EXPECT_EQ(IF_DeleteIf(1, tunnelKey), 0u) << "tunnel interfaces belong to the operator";
    EXPECT_EQ(IF_DeleteIf(1, key), 1u);
    EXPECT_EQ(IF_DeleteIf(1, key), 0u);
    u32 b4again = IF_GetIfIndexByFullName("Tunnel-Bundle4");
    EXPECT_NE(b4again, b4) << "indexes are not reused";

    /* Indexes survive a restart of the chassis. */
    ASSERT_TRUE(c.Stop());
    StartChassis();
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel-Bundle3"), b3);
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel-Bundle4"), b4again);
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel1"), t1);
}

struct KBnd {
    u16 usFamily;
    u8 aucCarried[2];
    u8 aucAddr[16];
    u32 uiIfIndex, uiTnlMode, uiState;
    u16 usVrf, usResv;
};
static_assert(sizeof(KBnd) == 36);

TEST_F(ChassisPlatform, KernelTablePerBoardAndPlannedFailuresOfTheNamedCall)
{
    StartChassis({"--boards", "0,1"});
    KBnd b{};
    b.usFamily = 2;
    b.aucAddr[0] = 10;
    b.aucAddr[3] = 1;
    b.uiIfIndex = 0x1000;
    b.uiTnlMode = 4;
    b.uiState = 1;
    b.usVrf = 5;
    u32 add1[2] = {0x1000, 0x100};
    u32 add2[2] = {0x1000, 0x101};
    EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x7c0003, 8, add1, 0, 0, 0), 0u) << "a member may come before its bundle";
    EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x7c0002, 36, &b, 0, 0, 0), 0u);
    EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x7c0003, 8, add2, 0, 0, 0), 0u);
    EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x7c0004, 8, add1, 0, 0, 0), 0u);
    /* Refused: wrong device, command, or length. */
    EXPECT_NE(CIOCTL(0x1234u, 0x7c0002, 36, &b, 0, 0, 0), 0u);
    EXPECT_NE(CIOCTL(0xFFFF8000u, 0x7c0009, 8, add1, 0, 0, 0), 0u);
    EXPECT_NE(CIOCTL(0xFFFF8000u, 0x7c0002, 35, &b, 0, 0, 0), 0u);
    u32 tooLong[3] = {0x1000, 0x100, 0};
    EXPECT_NE(CIOCTL(0xFFFF8000u, 0x7c0003, 12, tooLong, 0, 0, 0), 0u);

    Json k = c.CtlJson({"dump", "ktbdl", "--board", "0"});
    ASSERT_EQ(k["bundles"].size(), 1u) << k.dump();
    const Json &e = k["bundles"][0];
    EXPECT_EQ(e["ifindex"], 0x1000);
    EXPECT_EQ(e["state"], 1);
    EXPECT_EQ(e["tnl_mode"], 4);
    EXPECT_EQ(e["vrf"], 5);
    EXPECT_EQ(e["address"], "10.0.0.1");
    EXPECT_EQ(e["members"], Json::array({0x101}));
    EXPECT_EQ(k["commands"]["refused"], 4);
    EXPECT_TRUE(c.CtlJson({"dump", "ktbdl", "--board", "1"})["bundles"].empty()) << "each board has its own table";

    u32 memb[2] = {0x1000, 0x100};
    auto cioctl = [&] { return CIOCTL(0xFFFF8000u, 0x7c0003, 8, memb, 0, 0, 0); };
    auto adds = [&] { return c.CtlJson({"dump", "ktbdl", "--board", "0"})["commands"]["member_add"].get<int>(); };
    const int addsBefore = adds();

    Ctl({"fail", "CIOCTL", "--count", "2"});
    EXPECT_NE(cioctl(), 0u);
    EXPECT_NE(cioctl(), 0u);
    EXPECT_EQ(cioctl(), 0u);
    EXPECT_EQ(adds(), addsBefore + 1) << "a failed call does not reach the kernel table";

    Ctl({"fail", "CIOCTL", "--always", "--result", "7"});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(cioctl(), 7u);
    }
    Ctl({"fail", "clear"});
    EXPECT_EQ(cioctl(), 0u);

    /* Another board's plan, and other calls, are left alone. */
    Ctl({"fail", "IF_GetIfIndexByFullName", "--board", "1", "--always"});
    EXPECT_NE(IF_GetIfIndexByFullName("Tunnel-Bundle1"), 0u);
    Ctl({"fail", "IF_GetIfIndexByFullName", "--board", "0"});
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel-Bundle1"), 0u);
    EXPECT_NE(IF_GetIfIndexByFullName("Tunnel-Bundle1"), 0u);
    EXPECT_EQ(cioctl(), 0u);

    ProcRun bad = c.Ctl({"fail", "CIOCTL", "--board", "4"});
    EXPECT_NE(bad.status, 0);
    EXPECT_NE(bad.err.find("board 4"), std::string::npos);

    /* A board daemon's restart keeps the kernel table; a reboot clears it. */
    ASSERT_EQ(c.Ctl({"board", "restart", "0"}).status, 0);
    EXPECT_EQ(c.CtlJson({"dump", "ktbdl", "--board", "0"})["bundles"].size(), 1u);
    ASSERT_EQ(c.Ctl({"reboot"}).status, 0);
    EXPECT_TRUE(c.CtlJson({"dump", "ktbdl", "--board", "0"})["bundles"].empty());
}

TEST_F(ChassisPlatform, PlannedFailuresOfDatabaseAndLocalCallsLeaveEverythingAlone)
{
    StartChassis();
    const u32 param[8] = {};
    u64 handle = 77;
    Ctl({"fail", "DBM_Open"});
    EXPECT_NE(DBM_Open("eTEST", "TEST", 7, param, &handle, 32, -1), 0u);
    EXPECT_EQ(handle, 77u) << "a failed open leaves the handle alone";
    ASSERT_EQ(DBM_Open("eTEST", "TEST", 7, param, &handle, 32, -1), 0u);

    const u8 key[1] = {1};
    u8 rec[32] = {};
    rec[23] = 5;
    ASSERT_EQ(DBM_SetSortWord(handle, key, 1, 1, 20, 4, 0, 0), 0u);
    Ctl({"fail", "DBM_InsertSortList", "--board", "0"});
    EXPECT_NE(DBM_InsertSortList(handle, key, 1, 32, rec, 0), 0u);
    EXPECT_EQ(DBM_Len(handle, key, 1), 0u) << "a failed insert stores nothing";
    EXPECT_EQ(DBM_InsertSortList(handle, key, 1, 32, rec, 0), 0u);
    EXPECT_EQ(DBM_Len(handle, key, 1), 1u);

    Ctl({"fail", "DBM_BatchGetNextSortList"});
    void *iter = nullptr;
    u8 buf[4 * 32];
    EXPECT_EQ(DBM_BatchGetNextSortList(handle, key, 1, &iter, 0, 0, 32, 4, buf), -1);
    EXPECT_EQ(iter, nullptr) << "no iterator is made by a failed read";
    EXPECT_EQ(DBM_BatchGetNextSortList(handle, key, 1, &iter, 0, 0, 32, 4, buf), 1);
    DBM_FreeIterator(iter);

    Ctl({"fail", "DBM_RemoveSortList", "--result", "9"});
    EXPECT_EQ(DBM_RemoveSortList(handle, key, 1, 32, rec), 9u);
    EXPECT_EQ(DBM_Len(handle, key, 1), 1u) << "a failed removal removes nothing";
    Json plan = c.CtlJson({"dump", "fail"});
    ASSERT_EQ(plan["boards"][0]["calls"].size(), 4u);
    for (const Json &call : plan["boards"][0]["calls"]) {
        EXPECT_EQ(call["hits"], 1) << call;
        EXPECT_EQ(call["left"], 0) << call;
    }
    EXPECT_EQ(DBM_Close(handle), 0u);

    constexpr u32 kUntouched = 0xA5A5A5A5u;
    u32 out = kUntouched;
    u8 info[LFIB_INFO_LEN];
    char path[108];
    u8 dest = 0xA5;
    TBDL_OPT_ROW_S row{"LoadBalancing", 0, &dest, 1};
    u64 pd = IF_CreatePDInstance(0, 0, 0, 0);
    ASSERT_NE(pd, IF_PD_INSTANCE_NONE);
    int datum = 0;
    ASSERT_EQ(IF_SetPrivateData(pd, 9, &datum), 0u);
    void *got = nullptr;
    struct Case {
        const char *call;
        uint64_t fail; /* the call's own failure value */
        std::function<uint64_t()> run;
        std::function<bool()> untouched;
    };
    const Case cases[] = {
        {"IF_GetDataByIfType", 1, [&] { return IF_GetDataByIfType(96, 13, &out); },
         [&] { return out == kUntouched; }},
        {"LFIB_GetInfo", 1, [&] { return LFIB_GetInfo(info); }, [&] { return info[11] == 0xA5; }},
        {"TBDL_Opt_Parse", 1, [&] { return TBDL_Opt_Parse(1, &row); }, [&] { return dest == 0xA5; }},
        {"LIPC_GetHostPath", 1, [&] { return LIPC_GetHostPath(2681, path, sizeof(path)); },
         [&] { return path[0] == 'x'; }},
        {"IF_CreatePDInstance", IF_PD_INSTANCE_NONE, [&] { return IF_CreatePDInstance(0, 0, 0, 0); },
         [] { return true; }},
        {"IF_GetFirstPrivateData", 1, [&] { return IF_GetFirstPrivateData(pd, &out, &got); },
         [&] { return out == kUntouched && got == nullptr; }},
        {"IF_SetPrivateData", 1, [&] { return IF_SetPrivateData(pd, 10, &datum); },
         [&] { return IF_GetPrivateData(pd, 10, &got) != 0; }},
    };
    for (const Case &tc : cases) {
        SCOPED_TRACE(tc.call);
        /* Once with the call's own failure value, once with a planned one. */
        for (const std::vector<std::string> &extra : {std::vector<std::string>{}, {"--result", "9"}}) {
            std::vector<std::string> args{"fail", tc.call};
            args.insert(args.end(), extra.begin(), extra.end());
            Ctl(args);
            out = kUntouched;
            std::memset(info, 0xA5, sizeof(info));
            path[0] = 'x';
            dest = 0xA5;
            got = nullptr;
            EXPECT_EQ(tc.run(), extra.empty() ? tc.fail : 9u);
            EXPECT_TRUE(tc.untouched());
        }
        uint64_t ok = tc.run();
        EXPECT_TRUE(tc.fail == IF_PD_INSTANCE_NONE ? ok != tc.fail : ok == 0) << "the plan is spent: " << ok;
    }
    EXPECT_EQ(IF_DestroyPDInstance(pd, nullptr), 0u);
}

TEST_F(ChassisPlatform, DaemonKeepsItsBundleWhenTheDatabaseWriteFails)
{
    namespace cfg = tbdl::cfgtest;
    ASSERT_TRUE(cfg::StartWithDaemon(c));
    tbdl::client::Outcome<tbdl::client::Client> client = cfg::Connect(c);
    ASSERT_TRUE(client) << client.error();
    ASSERT_TRUE(cfg::Answers(client->SetDebug(true, tbdl::client::kDebugError), 0));

    Ctl({"fail", "DBM_InsertSortList", "--board", "0"});
    EXPECT_TRUE(cfg::Exited(c.Tbdlctl({"bundle", "create", "5", "--mode", "loadbalancing"}), 0))
        << "a failed database write does not fail the change";
    EXPECT_TRUE(c.WaitFile("board0/tbdld.log", "Failed to save tunnel bundle interface (5) to DBM."));
    EXPECT_TRUE(cfg::Exited(c.Tbdlctl({"bundle", "create", "6", "--mode", "1:1"}), 0));

    auto shown = client->ShowBundle(5);
    ASSERT_TRUE(shown) << shown.error();
    EXPECT_EQ(shown->uiResult, 0u) << "bundle 5 stays in the table";
    EXPECT_TRUE(cfg::KtbdlMatches(c, *client)) << "and reached the kernel";
    std::optional<cfg::Stored> stored = cfg::ReadStored(c);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->bundles.count(5), 0u) << "its write failed";
    EXPECT_EQ(stored->bundles.count(6), 1u) << "the next write went through";
}

/* HA callbacks of this process. */
std::vector<u32> g_events;
std::vector<std::pair<std::string, u32>> g_messages;
u32 RecvCb(void *msg, u16 len, u32 flag)
{
    g_messages.emplace_back(std::string(static_cast<char *>(msg), len), flag);
    HA_FreeMsg(msg);
    return 0;
}
u32 EventCb(u32 event)
{
    g_events.push_back(event);
    return 0;
}

/* Waits for the HA descriptor and dispatches one push. */
bool DispatchOne(int fd)
{
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 5000) != 1) {
        return false;
    }
    return HA_Dispatch(EPOLLIN, static_cast<u64>(fd)) == 0;
}

TEST_F(ChassisPlatform, HaChannelDeliversEventsAndRelaysTheMastersMessages)
{
    StartChassis({"--boards", "0,1", "--ha-mtu", "1500"});
    g_events.clear();
    g_messages.clear();
    /* Joining as board 1, this process gets the master stand-in's batch. */
    Enter(c.dir(), 1);
    u8 ident[8] = {0x7a, 0x0a, 0, 0, 0x79, 0x0a, 0, 0};
    HA_CALLBACKS_S cbs{RecvCb, EventCb};
    int fd = HA_Init("TBDL", 0, "TBDL", 1, 2, ident, &cbs);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(HA_IsMaster(fd), 0);
    EXPECT_EQ(HA_GetMTU(fd), 1500u);
    ASSERT_TRUE(DispatchOne(fd));
    ASSERT_EQ(g_messages.size(), 1u);
    EXPECT_EQ(g_messages[0].first, "batch-from-0");
    EXPECT_EQ(g_messages[0].second, 0u);

    /* Events on request reach the event callback; the response is kept. */
    ASSERT_EQ(c.Ctl({"ha", "event", "2", "--board", "1"}).status, 0);
    ASSERT_TRUE(DispatchOne(fd));
    EXPECT_EQ(g_events, std::vector<u32>({2}));
    EXPECT_EQ(HA_Response(fd, 2, nullptr), 0u);
    Json ha = c.CtlJson({"dump", "ha"});
    ASSERT_FALSE(ha["responses"].empty());
    EXPECT_EQ(ha["responses"].back()["board"], 1);
    EXPECT_EQ(ha["responses"].back()["event"], 2);

    /* Messages this board sends go to board 0's daemon. */
    char text[] = "from-test";
    EXPECT_EQ(HA_SendMsgSync(fd, text, 9, 1), 0u);
    EXPECT_TRUE(c.WaitFile("board0/fake.log", "ha message 1 from-test"));

    EXPECT_EQ(HA_Exit(fd), 0u);
    /* With the standby gone, the master's sends find no peer. */
    Json after = c.CtlJson({"dump", "ha"});
    EXPECT_FALSE(after["boards"][1]["joined"].get<bool>());
}

TEST_F(ChassisPlatform, LsmKeepsEntriesAcrossSmoothingCyclesOfTheProtocol)
{
    StartChassis();
    u8 reg[16] = {13};
    int h = LSM_RegProtocolHandler(reg, nullptr, 13);
    ASSERT_GE(h, 0);
    auto entryFor = [](u32 ifIndex, u8 (&entry)[96], u8 (&paths)[2048], u8 (&attr)[16], std::vector<u32> members) {
        auto put = [](u8 *at, auto v) { std::memcpy(at, &v, sizeof(v)); };
        std::memset(entry, 0, sizeof(entry));
        std::memset(paths, 0, sizeof(paths));
        std::memset(attr, 0, sizeof(attr));
        put(entry, u32{8}); /* mode */
        put(entry + 4, u32{13}); /* protocol */
        put(entry + 8, static_cast<u16>(members.size()));
        put(entry + 12, u16{24}); /* key start */
        put(entry + 16, ifIndex);
        put(entry + 56, static_cast<void *>(paths));
        put(entry + 72, static_cast<void *>(attr));
        for (size_t i = 0; i < members.size(); ++i) {
            put(paths + 64 * i, u16{68});
            put(paths + 64 * i + 8, members[i]);
            put(paths + 64 * i + 14, static_cast<u16>(i + 1)); /* weight */
        }
    };
    u8 entry[96], paths[2048], attr[16];
    EXPECT_EQ(LSM_SendGrEvent(h, 1), 0u);
    entryFor(0x1000, entry, paths, attr, {0x100, 0x101});
    EXPECT_EQ(LSM_AddLspEntry(h, 0, entry, 1, 0x1000, 0xFFFFFFFF), 0u);
    entryFor(0x1001, entry, paths, attr, {0x102});
    EXPECT_EQ(LSM_AddLspEntry(h, 0, entry, 1, 0x1001, 0xFFFFFFFF), 0u);
    EXPECT_TRUE(c.CtlJson({"dump", "lsm", "--board", "0"})["entries"].empty()) << "nothing before the flush";
    EXPECT_EQ(LSM_FlushLspEntry(h), 0u);
    EXPECT_EQ(LSM_SendGrEvent(h, 2), 0u);
    Json lsm = c.CtlJson({"dump", "lsm", "--board", "0"});
    ASSERT_EQ(lsm["entries"].size(), 2u);
    EXPECT_EQ(lsm["entries"][0]["path_count"], 2);
    EXPECT_EQ(lsm["entries"][0]["paths"][1]["ifindex"], 0x101);

    /* A cycle that refreshes only one entry drops the other at its end. */
    EXPECT_EQ(LSM_SendGrEvent(h, 1), 0u);
    entryFor(0x1001, entry, paths, attr, {0x103});
    EXPECT_EQ(LSM_AddLspEntry(h, 0, entry, 1, 0x1001, 0xFFFFFFFF), 0u);
    EXPECT_EQ(LSM_FlushLspEntry(h), 0u);
    EXPECT_EQ(LSM_SendGrEvent(h, 2), 0u);
    lsm = c.CtlJson({"dump", "lsm", "--board", "0"});
    ASSERT_EQ(lsm["entries"].size(), 1u);
    EXPECT_EQ(lsm["entries"][0]["paths"][0]["ifindex"], 0x103);

    /* A delete names the entry by its key (entry bytes 12 on). */
    EXPECT_EQ(LSM_DeleteLspEntry(h, 0, entry + 12, 24, 0), 0u);
    EXPECT_EQ(LSM_FlushLspEntry(h), 0u);
    EXPECT_TRUE(c.CtlJson({"dump", "lsm", "--board", "0"})["entries"].empty());
    EXPECT_NE(LSM_SendGrEvent(h, 2), 0u) << "no cycle is open";
    EXPECT_EQ(LSM_DeregProtocolHandler(h), 0u);
    EXPECT_NE(LSM_FlushLspEntry(h), 0u);
}

TEST_F(ChassisPlatform, JournalAndEventChannelsUntilChassisdGoesAway)
{
    StartChassis();
    Enter(c.dir(), 0, true);
    u32 memb[2] = {0x01020304, 0x0a0b0c0d};
    EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x7c0003, 8, memb, 0, 0, 0), 0u);
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel99"), 0u);
    std::string journal = ReadFile(c.Path("board0/journal.jsonl"));
    std::vector<Json> lines;
    size_t start = 0;
    for (size_t nl; (nl = journal.find('\n', start)) != std::string::npos; start = nl + 1) {
        lines.push_back(Json::parse(journal.substr(start, nl - start)));
    }
    ASSERT_EQ(lines.size(), 2u) << journal;
    EXPECT_EQ(lines[0]["call"], "CIOCTL");
    EXPECT_EQ(lines[0]["args"]["cmd"], 0x7c0003);
    EXPECT_EQ(lines[0]["args"]["payload"], "040302010d0c0b0a");
    EXPECT_EQ(lines[0]["result"], 0);
    EXPECT_EQ(lines[1]["call"], "IF_GetIfIndexByFullName");
    EXPECT_EQ(lines[1]["args"]["name"], "Tunnel99");

    int ifFd = IF_Event_Init();
    ASSERT_GE(ifFd, 0);
    u8 select[16] = {}, selectData[24] = {};
    EXPECT_EQ(IF_Select_Init(5, select, selectData), 0u);
    EXPECT_EQ(IF_SelectType_Set(39, select), 0u);
    u32 handle = IF_RegIfEventEx(0x5140000, 0x20000064, 64, select,
                                 [](u32, void *, u32, u32) -> u32 { return 0; }, 0);
    EXPECT_NE(handle, 0u);
    EXPECT_EQ(IF_ResponseEventPkt(ifFd), 0u) << "nothing pending is no failure";

    HA_CALLBACKS_S cbs{RecvCb, EventCb};
    int haFd = HA_Init("TBDL", 0, "TBDL", 1, 2, nullptr, &cbs);
    ASSERT_GE(haFd, 0);
    EXPECT_EQ(HA_IsMaster(haFd), 1);

    ASSERT_TRUE(c.Stop());
    EXPECT_NE(IF_ResponseEventPkt(ifFd), 0u) << "the end of the channel is reported";
    EXPECT_NE(HA_Dispatch(EPOLLIN | EPOLLHUP, static_cast<u64>(haFd)), 0u);
    /* The dead HA descriptor no longer wakes a loop; the role is cached. */
    pollfd p{haFd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 50), 0);
    EXPECT_EQ(HA_IsMaster(haFd), 1);
    EXPECT_EQ(HA_Exit(haFd), 0u);
    EXPECT_EQ(IF_UnRegEvent(handle, 0x20000064), 0u);
    EXPECT_NE(IF_UnRegEvent(handle, 0x20000064), 0u);
    IF_Event_Fini(ifFd);
}

TEST_F(ChassisPlatform, WithoutChassisdEveryCallFailsAtOnce)
{
    Enter(c.dir(), 0); /* a chassis directory with no chassisd */
    u32 memb[2] = {1, 2};
    EXPECT_NE(CIOCTL(0xFFFF8000u, 0x7c0003, 8, memb, 0, 0, 0), 0u);
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel-Bundle1"), 0u);
    EXPECT_NE(SERVICE_SetStatus(2), 0u);
    HA_CALLBACKS_S cbs{RecvCb, EventCb};
    EXPECT_LT(HA_Init("TBDL", 0, "TBDL", 1, 2, nullptr, &cbs), 0);
    EXPECT_LT(IF_Event_Init(), 0);
    u8 reg[16] = {13};
    EXPECT_LT(LSM_RegProtocolHandler(reg, nullptr, 13), 0);
}

} // namespace
