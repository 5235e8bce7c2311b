/* The creation hold after the last bundle is deleted, through the real
 * daemon. The hold lasts 30 seconds in the daemon; the test never waits for
 * its end. */
#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

TEST(ConfigHold, DeletingTheLastBundleHoldsCreationUntilTheDaemonRestarts)
{
    Chassis chassis("cfghold");
    ASSERT_TRUE(StartWithDaemon(chassis));
    tc::Outcome<tc::Client> c = tc::Client::Connect(chassis.dir(), std::nullopt);
    ASSERT_TRUE(c) << c.error();
    ASSERT_TRUE(Answers(c->CreateBundle(2, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    ASSERT_TRUE(Answers(c->CreateBundle(3, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
    ASSERT_TRUE(AddTunnel(chassis, 30));
    ASSERT_TRUE(Answers(c->AddMember(3, {30, 1, 0}), TBDL_OK));
    ProcRun run = chassis.Tbdlctl({"bundle", "delete", "2"});
    EXPECT_TRUE(Exited(run, 0));
    EXPECT_EQ(run.out, "Tunnel-Bundle2 deleted.\n");
    EXPECT_TRUE(Answers(c->DeleteBundle(3), TBDL_E_LAST_BND_DELETED));
    EXPECT_TRUE(Consistent(chassis, *c)) << "the members of the last bundle left the kernel";
    run = chassis.Tbdlctl({"bundle", "create", "4", "--mode", "loadbalancing"});
    EXPECT_TRUE(Exited(run, 1));
    EXPECT_EQ(run.err,
              "0x65140007 TBDL_E_BND_HOLD: A tunnel bundle cannot be created within 30 seconds after the last one "
              "was deleted.\n");

    /* A new daemon process starts without the hold. */
    const pid_t before = chassis.BoardPid(0);
    ASSERT_TRUE(Exited(chassis.Ctl({"board", "restart", "0"}), 0));
    ASSERT_NE(chassis.BoardPid(0), before);
    ASSERT_TRUE(WaitCfgAnswers(chassis));
    ASSERT_TRUE(Exited(chassis.Tbdlctl({"bundle", "create", "9", "--mode", "1+1"}), 0));

    /* Through the tool the deletion succeeds; the hold is a note. */
    run = chassis.Tbdlctl({"--json", "bundle", "delete", "9"});
    EXPECT_TRUE(Exited(run, 0));
    Json j = Json::parse(run.out);
    EXPECT_EQ(Json({j["result"], j["ok"]}), Json({TBDL_E_LAST_BND_DELETED, true}));
    run = chassis.Tbdlctl({"--json", "bundle", "create", "9", "--mode", "1+1"});
    EXPECT_TRUE(Exited(run, 1));
    j = Json::parse(run.out);
    EXPECT_EQ(Json({j["name"], j["ok"]}), Json({"TBDL_E_BND_HOLD", false}));
}

}  // namespace
