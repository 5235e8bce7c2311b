/* The real daemon follows what the chassis reports of L3VPN bindings of
 * members and bundles and of the service port. After each change the
 * display, the kernel table and the stored records must agree. (Interface
 * events are shown on each side of the channel: the chassis's by its
 * events test, the daemon's by its unit tests.) */
#include <gtest/gtest.h>

#include "cfg_checks.h"

namespace tc = tbdl::client;
using namespace tbdl::cfgtest;

namespace {

/* L3VPN events of members and bundles, with the watch registered (the
 * service port is up from the start). */
class WatchVrf : public DaemonTest {
protected:
    WatchVrf() : DaemonTest("watch") {}

    /* "state S members T:S ..." of bundle n as displayed, members by tunnel
     * number; "" when absent. */
    std::string Shown(std::uint32_t n)
    {
        tc::Outcome<tc::Shown<tc::BndDetail>> s = m_client->ShowBundle(n);
        if (!s || s->uiResult != TBDL_OK || !s->value) {
            return "";
        }
        std::map<std::uint32_t, unsigned> members;
        for (const tc::MembDetail &m : s->value->members) {
            members[m.uiTnlNum] = m.ucState;
        }
        std::string text = "state " + std::to_string(s->value->ucState) + " members";
        for (const auto &[t, st] : members) {
            text += " " + std::to_string(t) + ":" + std::to_string(st);
        }
        return text;
    }

    /* Waits until bundle n shows want, then checks kernel and database. */
    testing::AssertionResult Becomes(std::uint32_t n, const std::string &want)
    {
        if (!tbdl::systest::WaitUntil([&] { return Shown(n) == want; })) {
            return testing::AssertionFailure() << "bundle " << n << " shows '" << Shown(n) << "', not '" << want << "'";
        }
        return Consistent(m_chassis, *m_client);
    }

    /* Bundle n bound to vrf, with member tunnels in it, all up. */
    void VrfBundle(std::uint32_t n, std::uint16_t vrf, std::vector<std::uint32_t> tunnels)
    {
        ASSERT_TRUE(WaitRegistered());
        ASSERT_TRUE(Answers(m_client->CreateBundle(n, TBDL_MODE_LOADBALANCING, 0), TBDL_OK));
        ASSERT_TRUE(Exited(m_chassis.Ctl({"vrf", "bind", BndName(n), std::to_string(vrf)}), 0));
        ASSERT_TRUE(tbdl::systest::WaitUntil([&] { return KernelVrf(n) == vrf; }));
        for (std::uint32_t t : tunnels) {
            ASSERT_TRUE(Exited(m_chassis.Ctl({"if", "add", "Tunnel" + std::to_string(t), "--mode", "0", "--vrf",
                                              std::to_string(vrf)}), 0));
            ASSERT_TRUE(Answers(m_client->AddMember(n, {t, 1, 0}), TBDL_OK)) << t;
        }
    }
    /* The VRF the kernel table of board 0 has for bundle n; -1 when none. */
    int KernelVrf(std::uint32_t n)
    {
        std::uint32_t idx = IfIndexes(m_chassis)[BndName(n)];
        const Json k = m_chassis.CtlJson({"dump", "ktbdl", "--board", "0"});
        for (const Json &b : k["bundles"]) {
            if (b["ifindex"] == idx && b.value("updated", false)) {
                return b["vrf"].get<int>();
            }
        }
        return -1;
    }
    /* The VRF of a stored bundle or member record, by its name; -1 when none. */
    int StoredVrf(const std::string &name)
    {
        const Json db = m_chassis.CtlJson({"dump", "db"});
        for (const Json &d : db.value("databases", Json::array())) {
            for (const Json &l : d["lists"]) {
                for (const Json &r : l.value("decoded", Json::array())) {
                    if (r.value("name", "") == name) {
                        return r["vrf"].get<int>();
                    }
                }
            }
        }
        return -1;
    }
    /* Board 0's daemon is registered with L3VPN and has had batches. */
    Json Registration()
    {
        const Json vrf = m_chassis.CtlJson({"dump", "vrf"});
        for (const Json &r : vrf["registrations"]) {
            if (r["board"] == 0 && r["name"] == "TBDL") {
                return r;
            }
        }
        return Json();
    }
    bool WaitRegistered(int batches = 1)
    {
        return tbdl::systest::WaitUntil([&] {
            Json r = Registration();
            return r.is_object() && r["batches"] >= batches && r["acks"] == r["events_sent"];
        });
    }
};

TEST_F(WatchVrf, MembersAndBundlesMovedToAnotherVrf)
{
    VrfBundle(3, 5, {30, 31, 32});
    ASSERT_TRUE(Becomes(3, "state 1 members 30:1 31:1 32:1"));
    ASSERT_TRUE(Exited(m_chassis.Ctl({"vrf", "bind", "Tunnel30", "6"}), 0));
    EXPECT_TRUE(Becomes(3, "state 1 members 31:1 32:1")) << "a member moved away is unbound";
    ASSERT_TRUE(Exited(m_chassis.Ctl({"vrf", "bind", BndName(3), "7"}), 0));
    EXPECT_TRUE(Becomes(3, "state 0 members")) << "a bundle moved away loses its members";
    EXPECT_EQ(std::vector<int>({KernelVrf(3), StoredVrf(BndName(3))}), std::vector<int>({7, 7}));
}

TEST_F(WatchVrf, L3vpnStoppedAndStartedSweepsBindingsThatWentAway)
{
    VrfBundle(4, 5, {40, 41});
    ASSERT_TRUE(Becomes(4, "state 1 members 40:1 41:1"));
    ASSERT_TRUE(Exited(m_chassis.Ctl({"l3vpn", "stop"}), 0));
    ASSERT_TRUE(tbdl::systest::WaitUntil([&] { return Registration().is_null(); }));
    ASSERT_TRUE(Exited(m_chassis.Ctl({"vrf", "unbind", "Tunnel41"}), 0)); /* nobody hears of it now */
    ASSERT_TRUE(Exited(m_chassis.Ctl({"l3vpn", "start"}), 0));
    EXPECT_TRUE(WaitRegistered()) << "the daemon registers again and asks for the batch";
    EXPECT_TRUE(Becomes(4, "state 1 members 40:1")) << "the batch's sweep drops the member that left";
    EXPECT_EQ(std::vector<int>({KernelVrf(4), StoredVrf(BndName(4)), StoredVrf("Tunnel40")}),
              std::vector<int>({5, 5, 5}))
        << "the bundle's VRF and its member's were confirmed by the batch";
}

TEST_F(WatchVrf, ServicePortDownAndUpDeregistersAndRegistersAgain)
{
    ASSERT_TRUE(WaitRegistered());
    ASSERT_TRUE(Exited(m_chassis.Ctl({"svcport", "down"}), 0));
    EXPECT_TRUE(tbdl::systest::WaitUntil([&] { return Registration().is_null(); }));
    ASSERT_TRUE(Exited(m_chassis.Ctl({"svcport", "up"}), 0));
    EXPECT_TRUE(WaitRegistered());
    EXPECT_EQ(m_chassis.CtlJson({"dump", "svcport"})["boards"][0]["events_sent"], 3);
}

} // namespace
