"""VRFs are routing tables: next hops are resolved in the table of their node's VRF and packets leave by it."""
import system_case
import netlab
from steering_test import policy

TABLE = 1077
HOP = {4: "198.19.0.1", 6: "2001:db8:97::1"}    # on a network that only some tables know
NET = {4: "198.19.0.0/24", 6: "2001:db8:97::/64"}
FAR = {4: "198.18.0.9", 6: "2001:db8:98::9"}    # behind a gateway of the VRF
GATEWAY = {4: "100.64.0.1", 6: "2001:db8:c::1"}


class Vrf(system_case.LabCase):
    options = ("host.neighbour-probe-ms=400", f"host.vrf.blue={TABLE}")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for isp in ("ispa", "ispc"):
            netlab.run(f"ip addr add {HOP[4]}/24 dev eth0", isp)
            netlab.run(f"ip -6 addr add {HOP[6]}/64 dev eth0 nodad", isp)

    def route(self, family, route):
        """Adds a route to the router; it goes with the test, also when the kernel took it along already."""
        netlab.run(f"ip -{family} route add {route}", "rtr")
        self.addCleanup(netlab.run, f"ip -{family} route del {route}", "rtr", check=False)

    def rule(self, family, rule):
        netlab.run(f"ip -{family} rule add {rule}", "rtr")
        self.addCleanup(netlab.run, f"ip -{family} rule del {rule}", "rtr", check=False)

    def both(self, hop, vrf):
        return {10: f'acl: 1501, vrf: {vrf}, next-hops: ["{hop[4]}"]', 20: f'acl: 3501, vrf: {vrf}, next-hops: ["{hop[6]}"]'}

    def test_a_next_hop_that_only_the_vrf_knows_is_used_through_its_table(self):
        for family in (4, 6):
            self.route(family, f"{NET[family]} dev upc table {TABLE}")
        self.daemon.apply(policy(self.both(HOP, TABLE)))
        for family in (4, 6):
            self.all_by("upc", family=family)
            self.all_by("upb", family=family, port=53)
        self.daemon.apply(policy(self.both(HOP, 0)))
        for family in (4, 6):
            self.all_by("upb", family=family)  # the main table does not lead there

    def test_a_next_hop_behind_a_gateway_of_the_vrf_is_reached_through_it(self):
        for family in (4, 6):
            self.route(family, f"{GATEWAY[family]} dev upc table {TABLE}")
            self.route(family, f"{FAR[family]} via {GATEWAY[family]} dev upc table {TABLE}")
        self.daemon.apply(policy(self.both(FAR, TABLE)))
        for family in (4, 6):
            self.all_by("upc", family=family)

    def test_a_vrf_is_given_by_its_name(self):
        for family in (4, 6):
            self.route(family, f"{NET[family]} dev upc table {TABLE}")
        self.daemon.apply(policy(self.both(HOP, "blue")))
        for family in (4, 6):
            self.all_by("upc", family=family)
        self.assertEqual("", self.daemon.ctl("diff", "-", stdin=self.daemon.ctl("export").stdout).stdout)
        refused = self.daemon.apply(policy(self.both(HOP, "grey")), check=False)
        self.assertEqual(1, refused.returncode)
        self.assertIn("named are: blue", refused.stderr)
        self.all_by("upc")

    def test_packets_follow_the_routes_of_the_vrf(self):
        for family in (4, 6):
            self.route(family, f"{NET[family]} dev upc table {TABLE}")
        self.daemon.apply(policy(self.both(HOP, TABLE)))
        for family in (4, 6):
            self.all_by("upc", family=family)
            netlab.run(f"ip -{family} route del {NET[family]} dev upc table {TABLE}", "rtr")
            self.all_by("upb", family=family)
            self.route(family, f"{NET[family]} dev upa table {TABLE}")
            self.all_by("upa", family=family)

    def test_one_address_in_two_vrfs_is_two_next_hops(self):
        for family in (4, 6):
            self.route(family, f"{NET[family]} dev upa")
            self.route(family, f"{NET[family]} dev upc table {TABLE}")
        nodes = {10: f'acl: 1501, next-hops: ["{HOP[4]}"]', 20: f'acl: 1502, vrf: {TABLE}, next-hops: ["{HOP[4]}"]'}
        self.daemon.apply(policy(nodes))
        self.all_by("upa", port=443)
        self.all_by("upc", port=505)
        # The kernel takes no IPv6 gateway on an interface when the main table has it on another one: told, not bent.
        done = self.daemon.apply(policy({30: f'acl: 3502, vrf: {TABLE}, next-hops: ["{HOP[6]}"]'}), check=False)
        self.assertEqual(1, done.returncode)
        self.assertIn("node wan/30: the kernel refused the route", done.stderr)
        self.all_by("upa", port=443)  # as before
        self.all_by("upc", port=505)

    def test_an_interface_whose_packets_belong_to_a_vrf_by_rule_is_steered_before_it(self):
        for family in (4, 6):
            self.route(family, f"default via {GATEWAY[family]} dev upc table {TABLE}")
            self.route(family, f"{NET[family]} dev upa table {TABLE}")
            self.rule(family, f"pref 20000 iif lan0 lookup {TABLE}")
            self.all_by("upc", family=family)  # the VRF's own default way
        self.daemon.apply(policy(self.both(HOP, TABLE)))
        for family in (4, 6):
            self.all_by("upa", family=family)
            self.all_by("upc", family=family, port=53)
        self.assertNotIn("warning", self.daemon.ctl("check").stderr)

    def test_a_rule_of_the_vrf_before_ours_is_warned_of(self):
        for family in (4, 6):
            self.route(family, f"{NET[family]} dev upa table {TABLE}")
        self.route(4, f"default via {GATEWAY[4]} dev upc table {TABLE}")
        self.rule(4, f"pref 500 iif lan0 lookup {TABLE}")
        self.assertIn("takes every packet from lan0 before our rules", self.daemon.apply(policy(self.both(HOP, TABLE))).stderr)


if __name__ == "__main__":
    system_case.main()
