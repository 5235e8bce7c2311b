/* The emulated platform library against a running chassisd, called from
 * this process as if it were a board's daemon. */
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "chassis_env.h"
#include "chassis_harness.h"
#include "journal.h"
#include "platform.h"
#include "tbdl_ktbdl.h"
#include "rpc.h"

namespace {

using namespace tbdl::systest;

/* Points this process's platform library at a chassis and board. */
void Enter(const std::string &dir, int board)
{
    (void)(dir.empty() ? unsetenv("TBDL_CHASSIS_DIR") : setenv("TBDL_CHASSIS_DIR", dir.c_str(), 1));
    setenv("TBDL_BOARD", std::to_string(board).c_str(), 1);
    unsetenv("TBDL_JOURNAL");
    tbdl::plat::ReloadChassisEnv();
    tbdl::plat::JournalReset();
    tbdl::rpc::FailPlanReset();
}

class ChassisPlatform : public ::testing::Test {
protected:
    /* This process is not a board's daemon: the chassis must trust its user. */
    void StartChassis(std::vector<std::string> args = {"--boards", "0"})
    {
        args.insert(args.begin(), "--trust-user");
        ProcRun r = c.Start(args);
        ASSERT_EQ(r.status, 0) << r.err;
        Enter(c.dir(), 0);
    }
    void TearDown() override { Enter("", 0); }
    void Ctl(const std::vector<std::string> &args)
    {
        ProcRun r = c.Ctl(args);
        ASSERT_EQ(r.status, 0) << r.err;
    }
    Json Ktbdl(int board) const { return c.CtlJson({"dump", "ktbdl", "--board", std::to_string(board)}); }
    Chassis c;
};

constexpr u32 kNone = 0xDEADBEEF;

u32 Data(u32 ifIndex, u32 item)
{
    u32 v = kNone;
    return IF_GetDataByIfIndex(ifIndex, item, &v) == 0 ? v : kNone;
}

u32 Mode(u32 ifIndex)
{
    u32 mode = kNone;
    return TUNNEL_GetMode(ifIndex, &mode) == 0 ? mode : kNone;
}

u32 Vrf(u32 ifIndex)
{
    u16 vrf = 0xBEEF;
    return L3VPN_GetVrfIndexByIfIndex(ifIndex, &vrf) == 0 ? vrf : kNone;
}

TEST_F(ChassisPlatform, TunnelInterfacesAsTheOperatorSetsThem)
{
    StartChassis();
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel5"), 0u) << "tunnels are not made on demand";
    Ctl({"if", "add", "Tunnel5", "--mode", "3", "--state", "down", "--vrf", "7"});
    Ctl({"if", "add", "Tunnel6"});
    u32 t5 = IF_GetIfIndexByFullName("Tunnel5"), t6 = IF_GetIfIndexByFullName("Tunnel6");
    ASSERT_NE(t5, 0u);
    /* number, type, state, tunnel mode, VRF; unknown items fail */
    EXPECT_EQ(std::vector<u32>({Data(t5, 0), Data(t5, 18), Data(t5, 31), Mode(t5), Vrf(t5), Data(t5, 13)}),
              std::vector<u32>({5, 39, 0, 3, 7, kNone}));
    EXPECT_EQ(std::vector<u32>({Data(t6, 31), Mode(t6), Vrf(t6)}), std::vector<u32>({1, kNone, 0}))
        << "up, no tunnel mode and no VRF unless said otherwise";
    Ctl({"vrf", "bind", "Tunnel5", "9"});
    Ctl({"if", "set", "Tunnel5", "--state", "up", "--mode", "none"});
    EXPECT_EQ(std::vector<u32>({Data(t5, 31), Mode(t5), Vrf(t5)}), std::vector<u32>({1, kNone, 9}));
    Ctl({"vrf", "unbind", "Tunnel5"});
    EXPECT_EQ(Vrf(t5), 0u);
    Ctl({"if", "del", "Tunnel5"});
    EXPECT_EQ(std::vector<u32>({IF_GetIfIndexByFullName("Tunnel5"), Data(t5, 0), Vrf(t5)}),
              std::vector<u32>({0, kNone, kNone}));
}

TEST_F(ChassisPlatform, BundleIndexesAreMadeOnDemandAndNeverReused)
{
    StartChassis();
    Ctl({"if", "add", "Tunnel1"});
    u32 b3 = IF_GetIfIndexByFullName("Tunnel-Bundle3"), b4 = IF_GetIfIndexByFullName("Tunnel-Bundle4");
    EXPECT_EQ(std::vector<u32>({Data(b3, 0), Data(b3, 18)}), std::vector<u32>({3, 96})) << "number and type";
    for (const char *bad : {"Tunnel-Bundle", "Tunnel-Bundle-1", "Tunnel-Bundle03", "tunnel-bundle3", "Tunnel-Bundle3x"}) {
        EXPECT_EQ(IF_GetIfIndexByFullName(bad), 0u) << bad;
    }
    auto key = [](u32 ifIndex, u8 tail) {
        std::vector<u8> k(8, 0);
        std::memcpy(k.data(), &ifIndex, 4);
        k[6] = tail;
        return k;
    };
    EXPECT_EQ(IF_DeleteIf(1, key(b4, 1).data()), 0u) << "the key's last four bytes must be zero";
    EXPECT_EQ(IF_DeleteIf(2, key(b4, 0).data()), 0u) << "key type 1 only";
    u32 t1 = IF_GetIfIndexByFullName("Tunnel1");
    EXPECT_EQ(IF_DeleteIf(1, key(t1, 0).data()), 0u) << "tunnel interfaces belong to the operator";
    EXPECT_EQ(IF_DeleteIf(1, key(b4, 0).data()), 1u);
    EXPECT_EQ(IF_DeleteIf(1, key(b4, 0).data()), 0u);
    u32 b4again = IF_GetIfIndexByFullName("Tunnel-Bundle4");
    EXPECT_NE(b4again, b4) << "indexes are not reused";

    ASSERT_TRUE(c.Stop());
    StartChassis();
    EXPECT_EQ(std::vector<u32>({IF_GetIfIndexByFullName("Tunnel-Bundle3"), IF_GetIfIndexByFullName("Tunnel-Bundle4"),
                                IF_GetIfIndexByFullName("Tunnel1")}),
              std::vector<u32>({b3, b4again, t1}))
        << "indexes survive a restart of the chassis";
}

u32 Kernel(u32 cmd, u32 len, void *payload, u32 device = TBDL_KTBDL_DEV)
{
    return CIOCTL(device, cmd, len, payload, 0, 0, 0);
}

TEST_F(ChassisPlatform, KernelTablePerBoardTakesOnlyWellFormedCommands)
{
    StartChassis({"--boards", "0,1"});
    TBDL_KBND_S b{{2, {}, {10, 0, 0, 1}}, 0x1000, 4, 1, 5, 0};
    u32 add1[3] = {0x1000, 0x100, 0};
    TBDL_KMEMB_S add2{0x1000, 0x101};
    EXPECT_EQ(Kernel(TBDL_KCMD_MEMB_ADD, sizeof(TBDL_KMEMB_S), add1), 0u) << "a member may come before its bundle";
    EXPECT_EQ(Kernel(TBDL_KCMD_BND_UPDATE, sizeof(b), &b), 0u);
    EXPECT_EQ(Kernel(TBDL_KCMD_MEMB_ADD, sizeof(add2), &add2), 0u);
    EXPECT_EQ(Kernel(TBDL_KCMD_MEMB_DEL, sizeof(TBDL_KMEMB_S), add1), 0u);
    /* Refused: wrong device, command, or length. */
    EXPECT_EQ(std::vector<bool>({Kernel(TBDL_KCMD_BND_UPDATE, sizeof(b), &b, 0x1234u) != 0,
                                 Kernel(0x7c0009, sizeof(TBDL_KMEMB_S), add1) != 0,
                                 Kernel(TBDL_KCMD_BND_UPDATE, sizeof(b) - 1, &b) != 0,
                                 Kernel(TBDL_KCMD_MEMB_ADD, sizeof(add1), add1) != 0,
                                 Kernel(TBDL_KCMD_MEMB_DEL, sizeof(add2) - 1, &add2) != 0}),
              std::vector<bool>(5, true));

    Json k = Ktbdl(0);
    ASSERT_EQ(k["bundles"].size(), 1u) << k.dump();
    Json e = k["bundles"][0];
    EXPECT_EQ(Json({e["ifindex"], e["state"], e["tnl_mode"], e["vrf"], e["address"], e["members"]}),
              Json({0x1000, 1, 4, 5, "10.0.0.1", {0x101}}));
    EXPECT_EQ(k["commands"]["refused"], 5);
    EXPECT_TRUE(Ktbdl(1)["bundles"].empty()) << "each board has its own table";

    /* A board daemon's restart keeps the kernel table; a reboot clears it. */
    ASSERT_EQ(c.Ctl({"board", "restart", "0"}).status, 0);
    EXPECT_EQ(Ktbdl(0)["bundles"].size(), 1u);
    ASSERT_EQ(c.Ctl({"reboot"}).status, 0);
    EXPECT_TRUE(Ktbdl(0)["bundles"].empty());
}

/* A planned failure hits the named call of the named board, in chassisd or
 * in this process, with the call's own failure value unless a result is
 * given, and has no side effects. */
TEST_F(ChassisPlatform, PlannedFailuresHitTheNamedCallOfTheNamedBoardOnly)
{
    StartChassis({"--boards", "0,1"});
    TBDL_KMEMB_S memb{0x1000, 0x100};
    auto cioctl = [&] { return Kernel(TBDL_KCMD_MEMB_ADD, sizeof(memb), &memb); };
    auto adds = [&] { return Ktbdl(0)["commands"]["member_add"].get<int>(); };
    Ctl({"fail", "CIOCTL", "--count", "2"});
    EXPECT_EQ(std::vector<u32>({cioctl() != 0, cioctl() != 0, cioctl()}), std::vector<u32>({1, 1, 0}));
    EXPECT_EQ(adds(), 1) << "a failed call does not reach the kernel table";
    Ctl({"fail", "CIOCTL", "--always", "--result", "7"});
    EXPECT_EQ(std::vector<u32>({cioctl(), cioctl(), cioctl()}), std::vector<u32>({7, 7, 7}));
    Ctl({"fail", "clear"});
    EXPECT_EQ(cioctl(), 0u);

    Ctl({"fail", "IF_GetIfIndexByFullName", "--board", "1", "--always"});
    EXPECT_NE(IF_GetIfIndexByFullName("Tunnel-Bundle1"), 0u) << "another board's plan";
    Ctl({"fail", "IF_GetIfIndexByFullName", "--board", "0"});
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel-Bundle1"), 0u);
    EXPECT_NE(IF_GetIfIndexByFullName("Tunnel-Bundle1"), 0u);
    EXPECT_EQ(cioctl(), 0u) << "another call";
    ProcRun bad = c.Ctl({"fail", "CIOCTL", "--board", "4"});
    EXPECT_TRUE(bad.status != 0 && bad.err.find("board 4") != std::string::npos) << bad.err;

    /* Calls served in this process fail alike, without side effects. (A
     * failed database write of the daemon is shown by the configuration
     * tests.) */
    Ctl({"fail", "clear"});
    const u32 param[8] = {};
    u64 handle = 77;
    Ctl({"fail", "DBM_Open"});
    EXPECT_NE(DBM_Open("eTEST", "TEST", 7, param, &handle, 32, -1), 0u);
    EXPECT_EQ(handle, 77u) << "a failed open leaves the handle alone";
    ASSERT_EQ(DBM_Open("eTEST", "TEST", 7, param, &handle, 32, -1), 0u);
    const u8 key[1] = {1};
    u8 rec[32] = {};
    ASSERT_EQ(DBM_SetSortWord(handle, key, 1, 1, 20, 4, 0, 0), 0u);
    ASSERT_EQ(DBM_InsertSortList(handle, key, 1, 32, rec, 0), 0u);
    Ctl({"fail", "DBM_BatchGetNextSortList", "--count", "2"});
    void *iter = nullptr;
    u8 buf[4 * 32];
    EXPECT_EQ(DBM_BatchGetNextSortList(handle, key, 1, &iter, 0, 0, 32, 4, buf) +
                  DBM_BatchGetNextSortList(handle, key, 1, &iter, 0, 0, 32, 4, buf), -2);
    EXPECT_EQ(iter, nullptr) << "no iterator is made by a failed read";
    EXPECT_EQ(DBM_BatchGetNextSortList(handle, key, 1, &iter, 0, 0, 32, 4, buf), 1);
    DBM_FreeIterator(iter);
    EXPECT_EQ(DBM_Close(handle), 0u);
    u8 info[LFIB_INFO_LEN];
    std::memset(info, 0xA5, sizeof(info));
    Ctl({"fail", "LFIB_GetInfo", "--always", "--result", "9"});
    EXPECT_EQ(LFIB_GetInfo(info) + LFIB_GetInfo(info), 18u);
    EXPECT_EQ(info[11], 0xA5) << "a failed call leaves its output alone";
    const Json plan = c.CtlJson({"dump", "fail"})["boards"][0]["calls"];
    EXPECT_EQ(plan, Json::parse(R"([{"call":"DBM_Open","hits":1,"left":0,"result":null},
        {"call":"DBM_BatchGetNextSortList","hits":2,"left":0,"result":null},
        {"call":"LFIB_GetInfo","hits":2,"left":-1,"result":9}])"));
}

/* HA callbacks of this process: the stand-in daemons show the batch,
 * events and responses; this process shows the standby's own view. */
u32 RecvCb(void *msg, u16, u32)
{
    HA_FreeMsg(msg);
    return 0;
}
u32 EventCb(u32) { return 0; }
HA_CALLBACKS_S g_haCbs{RecvCb, EventCb};

/* A standby's channel reaches the master's daemon. Sends are one-way on
 * it: a burst that outruns chassisd's reading waits for room, so every
 * message arrives, in order; once chassisd is gone a send fails without
 * harm. */
TEST_F(ChassisPlatform, HaSendsOfAStandbyBeyondAFullChannelArriveInOrder)
{
    StartChassis({"--boards", "0,1", "--ha-mtu", "1500"});
    Enter(c.dir(), 1);
    u8 ident[8] = {0x7a, 0x0a, 0, 0, 0x79, 0x0a, 0, 0};
    int fd = HA_Init("TBDL", 0, "TBDL", 1, 2, ident, &g_haCbs);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::vector<u32>({HA_IsMaster(fd), HA_GetMTU(fd)}), std::vector<u32>({0, 1500}));
    int room = 1; /* the smallest send buffer: a few messages fill it */
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room)), 0);
    std::string sent;
    for (int i = 0; i < 500; ++i) {
        std::string text = "burst-" + std::to_string(i);
        ASSERT_EQ(HA_SendMsgSync(fd, text.data(), static_cast<u16>(text.size()), 0), 0u) << text;
        sent += "ha message 0 " + text + "\n";
    }
    auto received = [&] {
        std::istringstream log(ReadFile(c.Path("board0/fake.log")));
        std::string lines;
        for (std::string line; std::getline(log, line);) {
            lines += line.rfind("ha message 0 burst-", 0) == 0 ? line + "\n" : "";
        }
        return lines;
    };
    EXPECT_TRUE(WaitUntil([&] { return received() == sent; })) << received().size() << " of " << sent.size();
    const Json calls = c.CtlJson({"status"})["lib_calls"];
    const Json board1 = calls.size() == 2 ? calls[1] : Json::object();
    EXPECT_EQ(Json({board1.value("sends_by_op", Json())["9"], board1.value("by_op", Json()).contains("9")}),
              Json({500, false}))
        << "sends, not round trips: " << calls;

    u32 failures = 0; /* nothing but pushes comes back on the channel */
    for (int i = 0; i < 510; ++i) {
        failures += HA_Dispatch(EPOLLIN, static_cast<u64>(fd));
    }
    EXPECT_EQ(failures, 0u);
    char text[] = "from-test";
    EXPECT_EQ(HA_SendMsgSync(fd, text, 9, 1), 0u);
    EXPECT_TRUE(c.WaitFile("board0/fake.log", "ha message 1 from-test"));
    EXPECT_EQ(HA_Exit(fd), 0u);
    EXPECT_TRUE(WaitUntil([&] { return !c.CtlJson({"dump", "ha"})["boards"][1]["joined"].get<bool>(); }));

    fd = HA_Init("TBDL", 0, "TBDL", 1, 2, nullptr, &g_haCbs);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(c.Stop());
    EXPECT_NE(HA_SendMsgSync(fd, text, 4, 1), 0u);
    EXPECT_EQ(HA_Exit(fd), 0u);
}

TEST_F(ChassisPlatform, LsmKeepsEntriesAcrossSmoothingCyclesOfTheProtocol)
{
    StartChassis();
    LSM_REG_S reg{13, {}};
    int h = LSM_RegProtocolHandler(&reg, nullptr, 13);
    ASSERT_GE(h, 0);
    LSM_LSP_PATH_S paths[LSM_LSP_PATH_MAX];
    LSM_LSP_ATTR_S attr;
    auto add = [&](u32 ifIndex, std::vector<u32> members) {
        std::memset(paths, 0, sizeof(paths));
        attr = LSM_LSP_ATTR_S{ifIndex, LSM_LSP_ATTR_ONE, LSM_LSP_MODE_LOAD_BALANCE, {}, LSM_LSP_ATTR_FLAG, {}};
        LSM_LSP_ENTRY_S entry{};
        entry.uiMode = LSM_LSP_MODE_LOAD_BALANCE;
        entry.uiProtocol = 13;
        entry.usPathNum = static_cast<u16>(members.size());
        entry.stKey.usKeyType = LSM_LSP_KEY_TYPE;
        entry.stKey.uiIfIndex = ifIndex;
        entry.pstPaths = paths;
        entry.pstAttr = &attr;
        for (size_t i = 0; i < members.size(); ++i) {
            paths[i].stPrimary.usType = LSM_LSP_PATH_TYPE;
            paths[i].stPrimary.uiIfIndex = members[i];
            paths[i].stPrimary.usWeight = static_cast<u16>(i + 1);
        }
        return LSM_AddLspEntry(h, 0, &entry, 1, ifIndex, LSM_LSP_NO_LABEL);
    };
    auto entries = [&] { return c.CtlJson({"dump", "lsm", "--board", "0"})["entries"]; };
    EXPECT_EQ(LSM_SendGrEvent(h, LSM_GR_BEGIN), 0u);
    EXPECT_EQ(add(0x1000, {0x100, 0x101}), 0u);
    EXPECT_EQ(add(0x1001, {0x102}), 0u);
    EXPECT_TRUE(entries().empty()) << "nothing before the flush";
    EXPECT_EQ(LSM_FlushLspEntry(h), 0u);
    EXPECT_EQ(LSM_SendGrEvent(h, LSM_GR_END), 0u);
    Json lsm = entries();
    ASSERT_EQ(lsm.size(), 2u);
    EXPECT_EQ(lsm[0]["path_count"], 2);
    EXPECT_EQ(lsm[0]["paths"][1]["ifindex"], 0x101);
    EXPECT_EQ(lsm[0]["attribute"], Json({{"ifindex", 0x1000}, {"mode_code", 8}, {"flag", 255}}));

    /* A cycle that refreshes only one entry drops the other at its end. */
    EXPECT_EQ(LSM_SendGrEvent(h, LSM_GR_BEGIN), 0u);
    EXPECT_EQ(add(0x1001, {0x103}), 0u);
    EXPECT_EQ(LSM_FlushLspEntry(h), 0u);
    EXPECT_EQ(LSM_SendGrEvent(h, LSM_GR_END), 0u);
    lsm = entries();
    ASSERT_EQ(lsm.size(), 1u);
    EXPECT_EQ(lsm[0]["paths"][0]["ifindex"], 0x103);

    /* A delete names the entry by its key. */
    LSM_LSP_KEY_S key{};
    key.usKeyType = LSM_LSP_KEY_TYPE;
    key.uiIfIndex = 0x1001;
    EXPECT_EQ(LSM_DeleteLspEntry(h, 0, &key, LSM_LSP_KEY_TYPE, 0), 0u);
    EXPECT_EQ(LSM_FlushLspEntry(h), 0u);
    EXPECT_TRUE(entries().empty());
    EXPECT_NE(LSM_SendGrEvent(h, LSM_GR_END), 0u) << "no cycle is open";
    EXPECT_EQ(LSM_DeregProtocolHandler(h), 0u);
    EXPECT_NE(LSM_FlushLspEntry(h), 0u);
}

TEST_F(ChassisPlatform, EventChannelsReportTheEndOfChassisd)
{
    StartChassis();
    int ifFd = IF_Event_Init();
    ASSERT_GE(ifFd, 0);
    u8 select[16] = {}, selectData[24] = {};
    EXPECT_EQ(IF_Select_Init(5, select, selectData), 0u);
    EXPECT_EQ(IF_SelectType_Set(39, select), 0u);
    u32 handle = IF_RegIfEventEx(0x5140000, 0x20000064, 64, select,
                                 [](u32, void *, u32, u32) -> u32 { return 0; }, 0);
    EXPECT_NE(handle, 0u);
    EXPECT_EQ(IF_ResponseEventPkt(ifFd), 0u) << "nothing pending is no failure";
    int haFd = HA_Init("TBDL", 0, "TBDL", 1, 2, nullptr, &g_haCbs);
    ASSERT_GE(haFd, 0);
    EXPECT_EQ(HA_IsMaster(haFd), 1);

    ASSERT_TRUE(c.Stop());
    EXPECT_NE(IF_ResponseEventPkt(ifFd), 0u) << "the end of the channel is reported";
    EXPECT_NE(HA_Dispatch(EPOLLIN | EPOLLHUP, static_cast<u64>(haFd)), 0u);
    EXPECT_EQ(HA_Exit(haFd), 0u);
    EXPECT_EQ(IF_UnRegEvent(handle, 0x20000064), 0u);
    EXPECT_NE(IF_UnRegEvent(handle, 0x20000064), 0u);
    IF_Event_Fini(ifFd);
}

TEST_F(ChassisPlatform, WithoutChassisdEveryCallFailsAtOnce)
{
    Enter(c.dir(), 0); /* a chassis directory with no chassisd */
    TBDL_KMEMB_S memb{1, 2};
    EXPECT_NE(Kernel(TBDL_KCMD_MEMB_ADD, sizeof(memb), &memb), 0u);
    EXPECT_EQ(IF_GetIfIndexByFullName("Tunnel-Bundle1"), 0u);
    EXPECT_NE(SERVICE_SetStatus(2), 0u);
    EXPECT_LT(HA_Init("TBDL", 0, "TBDL", 1, 2, nullptr, &g_haCbs), 0);
    EXPECT_LT(IF_Event_Init(), 0);
    u8 reg[16] = {13};
    EXPECT_LT(LSM_RegProtocolHandler(reg, nullptr, 13), 0);
}

} // namespace
