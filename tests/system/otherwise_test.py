"""Nodes whose packets are dropped while nothing of them is usable: no packet of theirs ever leaves otherwise."""
import time

import system_case
import netlab
from steering_test import both, hops, policy


class FailsClosed(system_case.LabCase):
    options = ("host.neighbour-probe-ms=400", "host.adopt-wait-ms=60000")

    def nothing_arrives(self, seconds=5.0, **options):
        seen = {}

        def question():
            nonlocal seen
            seen = self.by_uplink(**options)
            return seen == {}

        self.assertTrue(self.daemon.until(question, seconds), f"still arriving: {seen}")

    def explained(self):
        return self.daemon.ctl("explain", "--in", "lan0", "--src", netlab.LAN[4], "--dst", netlab.SERVER[4], "--proto", "udp",
                               "--sport", 1000, "--dport", 443).stdout

    def test_a_silent_next_hop_closes_the_node_and_its_return_opens_it(self):
        self.daemon.apply(policy(both("upa", otherwise="drop")))
        for family in (4, 6):
            self.all_by("upa", family=family)
        self.lab.silence("upa")
        for family in (4, 6):
            self.nothing_arrives(family=family)
            self.all_by("upb", family=family, port=53)
        self.assertIn("drop (now)", self.daemon.ctl("show", "next-hops").stdout)
        self.assertIn("drop (now)", self.daemon.ctl("show", "device").stdout)
        self.assertIn("\ndropped: no usable next hop\n", self.explained())
        self.lab.unsilence("upa")
        for family in (4, 6):
            self.all_by("upa", family=family)

    def test_no_packet_leaks_while_the_next_hop_is_not_known_yet(self):
        self.lab.silence("upa")
        netlab.run("ip neigh flush dev upa", "rtr")
        self.daemon.apply(policy(both("upa", otherwise="drop"), bindings=""))
        arrivals = [netlab.Arrivals(self.lab, family, 443) for family in (4, 6)]
        self.daemon.ctl("bind", "lan0", "wan", check=False)
        for _ in range(20):
            for family in (4, 6):
                netlab.send(self.lab, family, 443, 5)
            time.sleep(0.02)
        for each in arrivals:
            each.wait(1, 0.2)
            self.assertEqual({}, each.by_uplink())
            each.close()

    def test_a_link_that_goes_down_while_the_daemon_is_down_opens_no_other_way(self):
        self.daemon.apply(policy(both("upa", otherwise="drop")))
        for family in (4, 6):
            self.all_by("upa", family=family)
        self.daemon.kill()
        netlab.run("ip link set upa down", "rtr")
        self.addCleanup(netlab.run, "ip link set upa up", "rtr")
        for family in (4, 6):
            self.assertEqual({}, self.by_uplink(family=family))
            self.all_by("upb", family=family, port=53)
        netlab.run("ip link set upa up", "rtr")
        self.lab.link("upa", "up")
        self.daemon.start()
        for family in (4, 6):
            self.all_by("upa", seconds=15, family=family)

    def test_an_uplink_that_is_set_down_opens_no_way_through_the_default_route(self):
        self.daemon.apply(policy(both("upa", otherwise="drop")))
        for family in (4, 6):
            self.all_by("upa", family=family)
        netlab.run("ip link set upa down", "rtr")
        self.addCleanup(netlab.run, "ip link set upa up", "rtr")
        for family in (4, 6):
            self.nothing_arrives(family=family)
            self.all_by("upb", family=family, port=53)
        for _ in range(3):  # and it stays so
            for family in (4, 6):
                self.assertEqual({}, self.by_uplink(family=family))
        netlab.run("ip link set upa up", "rtr")
        self.lab.link("upa", "up")
        for family in (4, 6):
            self.all_by("upa", seconds=15, family=family)

    def test_a_restart_without_an_apply_stays_closed(self):
        self.daemon.apply(policy(both("upa", otherwise="drop")))
        self.lab.silence("upa")
        for family in (4, 6):
            self.nothing_arrives(family=family)
        before = self.daemon.ctl("export").stdout
        self.daemon.kill()
        self.daemon.start()
        for _ in range(4):
            for family in (4, 6):
                self.assertEqual({}, self.by_uplink(family=family))
        self.assertEqual(before, self.daemon.ctl("export").stdout)
        self.lab.unsilence("upa")
        for family in (4, 6):
            self.all_by("upa", seconds=10, family=family)

    def test_the_file_says_it_and_export_says_it_back(self):
        text = policy(both("upa", otherwise="drop"))
        self.daemon.apply(text)
        exported = self.daemon.ctl("export").stdout
        self.assertEqual(2, exported.count("otherwise: drop"), exported)
        self.assertIn("nothing to do", self.daemon.apply(exported).stdout)
        self.assertIn("otherwise drop", self.daemon.ctl("show", "lists").stdout)
        done = self.daemon.apply(policy(both("upa")))
        self.assertIn("- node wan/10: otherwise drop", done.stdout)
        self.assertNotIn("otherwise", self.daemon.ctl("export").stdout)

    def test_a_refused_apply_brings_the_last_resort_back(self):
        self.daemon.apply(policy(both("upa", otherwise="drop")))
        before = self.daemon.ctl("export").stdout
        bad = policy({10: f"acl: 1501, next-hops: {hops('upa')}", 20: f"acl: 1502, next-hops: {hops('upa')}, priority: 12"})
        self.assertNotEqual(0, self.daemon.apply(bad, check=False).returncode)
        self.assertEqual(before, self.daemon.ctl("export").stdout)

    def test_one_node_is_switched_by_hand_while_its_list_is_bound(self):
        self.daemon.apply(policy(both("upa")))
        self.daemon.ctl("node", "otherwise", "wan", 10, "drop")
        self.lab.silence("upa")
        self.nothing_arrives()
        self.all_by("upb", seconds=15, family=6)
        self.daemon.ctl("node", "otherwise", "wan", 10, "normal")
        self.all_by("upb", seconds=15)


if __name__ == "__main__":
    system_case.main()
