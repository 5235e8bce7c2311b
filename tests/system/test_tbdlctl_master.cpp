/* tbdlctl and the configuration client on a chassis of two boards: they
 * find the master board by asking the chassis, refuse a standby board in
 * one line, and report a connection cut by a change of master as lost. */
#include <fstream>

#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

std::vector<std::string> PairArgs(int master) { return {"--boards", "0,1", "--master-board", std::to_string(master)}; }

/* A standby board is refused at once, in one line, with nothing on stdout. */
void ExpectStandbyRefused(const Chassis &chassis, int standby, int master)
{
    ProcRun run = chassis.Tbdlctl({"--board", std::to_string(standby), "show", "limits"});
    EXPECT_TRUE(Exited(run, 2));
    EXPECT_EQ(run.err, "tbdlctl: board " + std::to_string(standby) + " is not the master board (board " +
                           std::to_string(master) + " is); only the master takes configuration\n");
    EXPECT_TRUE(run.out.empty()) << run.out;
}

TEST(TbdlctlMaster, FollowsTheMasterTheChassisNamesAndRefusesTheStandby)
{
    Chassis chassis("tbdlctl-master");
    ASSERT_TRUE(StartWithDaemon(chassis, PairArgs(1)));
    /* The settings file names the master the chassis started with; the tool asks the chassis instead. */
    std::ofstream(chassis.Path("chassis.json")) << Json{{"master_board", 0}, {"boards", {0, 1}}}.dump();
    EXPECT_TRUE(Exited(chassis.Tbdlctl({"bundle", "create", "1", "--mode", "loadbalancing"}), 0));
    EXPECT_TRUE(Exited(chassis.Tbdlctl({"--board", "1", "show", "bundle", "1"}), 0));
    ExpectStandbyRefused(chassis, 0, 1);

    tc::Outcome<tc::Client> old = tc::Client::Connect(chassis.dir(), std::nullopt);
    ASSERT_TRUE(old) << old.error();

    /* The chassis comes back with board 0 as master: the same commands reach it, and it has the stored bundle. */
    ASSERT_TRUE(chassis.Stop());
    ASSERT_TRUE(StartWithDaemon(chassis, PairArgs(0)));
    ProcRun run = chassis.Tbdlctl({"--json", "show", "bundle", "1"});
    ASSERT_TRUE(Exited(run, 0));
    EXPECT_EQ(Json::parse(run.out, nullptr, false).value("name", ""), "Tunnel-Bundle1") << run.out;
    ExpectStandbyRefused(chassis, 1, 0);

    /* A request on the connection to the old master is lost, not answered, and says who is master now. */
    tc::Outcome<tc::Shown<tc::Limits>> limits = old->GetLimits();
    ASSERT_FALSE(limits);
    EXPECT_NE(limits.error().find("was lost before the reply"), std::string::npos) << limits.error();
    EXPECT_NE(limits.error().find("(board 1 is no longer the master board; board 0 is)"), std::string::npos)
        << limits.error();
}

} // namespace
