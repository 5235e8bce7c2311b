/* Chassis settings and the platform calls answered from them and from the
 * chassis environment. */
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "plat_if.h"
#include "plat_lfib.h"
#include "plat_lipc.h"
#include "plat_opt.h"
#include "plat_service.h"
#include "plat_test_env.h"
#include "settings.h"

namespace {

using plattest::TempChassis;
using tbdl::plat::ChassisSettings;

TEST(Settings, MissingKeysKeepTheirDefaultsAndBadTextLeavesTheRecord)
{
    ChassisSettings s;
    std::string err;
    ASSERT_TRUE(tbdl::plat::SettingsFromJson(R"({"member_limit":3,"modes":{"ProtectionOnetoone":false}})", s, err))
        << err;
    ChassisSettings expected;
    expected.memberLimit = 3;
    expected.modeOneToOne = false;
    EXPECT_EQ(s, expected);

    const char *bad[] = {
        "{bundle_slots: 1",                         /* not JSON */
        "[1,2]",                                    /* not an object */
        R"({"bundle_slots":"1024"})",               /* wrong type */
        R"({"ha_mtu":-1})",                         /* negative */
        R"({"member_limit":256})",                  /* beyond a byte */
        R"({"bundle_slots":0})",                    /* no bundle slots */
        R"({"modes":{"LoadBalancing":1}})",         /* mode not a switch */
        R"({"boards":[0,2]})",                      /* board 2 */
        R"({"boards":[1,1],"master_board":1})",     /* repeated board */
        R"({"boards":[1]})",                        /* master not among the boards */
    };
    for (const char *text : bad) {
        SCOPED_TRACE(text);
        err.clear();
        EXPECT_FALSE(tbdl::plat::SettingsFromJson(text, s, err));
        EXPECT_NE(err, "");
        EXPECT_EQ(s, expected);
    }
}

TEST(SettingsCalls, AnswerFromTheChassisFile)
{
    TempChassis chassis;
    chassis.WriteSettings(R"({"bundle_slots":64,"member_limit":200,)"
                          R"("modes":{"LoadBalancing":true,"ProtectionOnetoone":false}})");
    u32 slots = 1024;
    ASSERT_EQ(IF_GetDataByIfType(IF_TYPE_TUNNEL_BUNDLE, IF_DATA_MAX_COUNT, &slots), 0u);
    EXPECT_EQ(slots, 64u);
    u32 other = 5;
    EXPECT_NE(IF_GetDataByIfType(IF_TYPE_TUNNEL, IF_DATA_MAX_COUNT, &other), 0u);
    EXPECT_NE(IF_GetDataByIfType(IF_TYPE_TUNNEL_BUNDLE, IF_DATA_TYPE, &other), 0u);
    EXPECT_EQ(other, 5u);

    u8 info[LFIB_INFO_LEN];
    std::memset(info, 0xee, sizeof(info));
    ASSERT_EQ(LFIB_GetInfo(info), 0u);
    for (u32 i = 0; i < LFIB_INFO_LEN; ++i) {
        EXPECT_EQ(info[i], i == LFIB_INFO_MAX_MEMB_OFFSET ? 200 : 0) << i;
    }

    /* Sizes 1, 2 and 4; an unknown option keeps its value. */
    u8 lb = 7;
    u16 oneToOne = 7, unknown = 7;
    u32 onePlusOne = 7;
    TBDL_OPT_ROW_S rows[] = {{"LoadBalancing", 0, &lb, 1},
                             {"ProtectionOnetoone", 0, &oneToOne, 2},
                             {"ProtectionOneplusone", 0, &onePlusOne, 4},
                             {"SomethingElse", 0, &unknown, 2}};
    EXPECT_EQ(TBDL_Opt_Parse(4, rows), 0u);
    EXPECT_EQ(std::vector<u32>({lb, oneToOne, onePlusOne, unknown}), std::vector<u32>({1, 0, 1, 7}))
        << "a mode missing from the file is on";
}

TEST(SettingsCalls, FailWithoutAReadableFileAndWriteNothing)
{
    for (const char *text : {static_cast<const char *>(nullptr), "{\"bundle_slots\":"}) {
        SCOPED_TRACE(text != nullptr ? "malformed file" : "no file");
        TempChassis chassis;
        if (text != nullptr) {
            chassis.WriteSettings(text);
        }
        u32 slots = 1024;
        EXPECT_NE(IF_GetDataByIfType(IF_TYPE_TUNNEL_BUNDLE, IF_DATA_MAX_COUNT, &slots), 0u);
        EXPECT_EQ(slots, 1024u);
        u8 info[LFIB_INFO_LEN] = {};
        info[LFIB_INFO_MAX_MEMB_OFFSET] = 8;
        EXPECT_NE(LFIB_GetInfo(info), 0u);
        EXPECT_EQ(info[LFIB_INFO_MAX_MEMB_OFFSET], 8);
        u16 lb = 7;
        TBDL_OPT_ROW_S row = {"LoadBalancing", 0, &lb, 2};
        EXPECT_NE(TBDL_Opt_Parse(1, &row), 0u);
        EXPECT_EQ(lb, 7);
    }
}

TEST(ChassisEnvCalls, StartCauseComesFromTheEnvironmentOnly)
{
    /* 99: the call fails and leaves both outputs alone. */
    const std::pair<const char *, u32> cases[] = {{"0", 0}, {"1", 1}, {nullptr, 99}, {"x", 99}};
    for (const auto &[text, want] : cases) {
        SCOPED_TRACE(text != nullptr ? text : "(none)");
        TempChassis chassis(0, text);
        u32 cause = 99, detail = 99;
        EXPECT_EQ(SERVICE_GetStartCause(&cause, &detail) == 0, want != 99);
        EXPECT_EQ(std::vector<u32>({cause, detail}), std::vector<u32>({want, want == 99 ? 99u : 0u}));
    }
}

TEST(ChassisEnvCalls, LocalPortsMapToPathsInTheBoardDirectory)
{
    TempChassis chassis(1);
    char path[108];
    ASSERT_EQ(LIPC_GetHostPath(2681, path, sizeof(path)), 0u);
    EXPECT_EQ(std::string(path), chassis.Dir() + "/board1/cfg.sock");
    ASSERT_EQ(LIPC_GetHostPath(2168, path, sizeof(path)), 0u);
    EXPECT_EQ(std::string(path), chassis.Dir() + "/board1/lipc-2168.sock");
    u32 exact = static_cast<u32>(chassis.Dir().size() + std::strlen("/board1/cfg.sock"));
    EXPECT_NE(LIPC_GetHostPath(2681, path, exact), 0u); /* no room for the terminating zero */
    EXPECT_EQ(LIPC_GetHostPath(2681, path, exact + 1), 0u);

    unsetenv(tbdl::plat::kEnvChassisDir);
    TempChassis::Reload();
    EXPECT_NE(LIPC_GetHostPath(2681, path, sizeof(path)), 0u);
}

} // namespace
