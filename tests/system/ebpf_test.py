"""The eBPF device: what its program decides at ingress, what it leaves to the kernel, and what of it stays or goes."""
import json

import system_case
import netlab
from steering_test import both, hops, policy

# Sees every forwarded packet of the kernel's ordinary way, and none that was sent on at once.
COUNTER = "table inet seen { chain forward { type filter hook forward priority 0; counter; }; }"


class EbpfCase(system_case.LabCase):
    device = "ebpf"

    def front(self, interface="lan0", family=4):
        shown = self.daemon.json("show", "device")["front"]
        return [row for row in shown if row["interface"] == interface and row["ipVersion"] == family][0]

    def seen_forwarded(self):
        rules = json.loads(netlab.run("nft -j list chain inet seen forward", "rtr").stdout)["nftables"]
        return [part["counter"]["packets"] for rule in rules if "rule" in rule
                for part in rule["rule"]["expr"] if "counter" in part][0]

    def count_forwarded(self):
        netlab.run(["nft", COUNTER], "rtr")
        self.addCleanup(lambda: netlab.run("nft delete table inet seen", "rtr", check=False))

    def filters(self, interface="lan0"):
        return netlab.run(f"tc filter show dev {interface} ingress", "rtr").stdout

    def packets_of(self, node):
        rows = self.daemon.json("show", "policy-counters")["counters"]
        return sum(row["packets"] for row in rows if row["node"] == node)


class SentOnAtOnce(EbpfCase):
    options = ("host.neighbour-probe-ms=400", "host.ebpf-redirect=on")

    def test_steered_packets_do_not_pass_the_forwarding_path(self):
        self.daemon.apply(policy(both("upa")))
        self.count_forwarded()
        for family in (4, 6):
            self.all_by("upa", family=family)
            self.all_by("upb", port=53, family=family)  # so that the neighbour is known
            self.assertTrue(self.front(family=family)["redirect"])
        before = self.seen_forwarded()
        for family in (4, 6):
            self.all_by("upa", family=family)
        self.assertEqual(before, self.seen_forwarded())
        for family in (4, 6):
            self.all_by("upb", port=53, family=family)
        self.assertEqual(before, self.seen_forwarded())

    def test_what_is_routed_as_usual_obeys_the_rules_and_marks_of_others(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        netlab.run(f"ip route add default via {self.next_hop('upc')} table 77", "rtr")
        netlab.run("ip rule add pref 100 iif lan0 lookup 77", "rtr")
        self.addCleanup(lambda: netlab.run("ip rule del pref 100", "rtr", check=False))
        self.addCleanup(lambda: netlab.run("ip route flush table 77", "rtr", check=False))
        self.all_by("upc", port=53)

    def test_a_node_with_nothing_usable_routes_as_usual_and_counts(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        self.count_forwarded()
        self.lab.silence("upa")
        self.all_by("upb")
        self.daemon.ctl("counters", "clear")
        before = self.seen_forwarded()
        self.assertEqual({"upb": 20}, self.by_uplink())
        self.assertEqual(before, self.seen_forwarded())
        self.assertEqual(20, self.packets_of(10))

    def test_packets_are_counted_wherever_they_were_decided(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        self.daemon.ctl("counters", "clear")
        self.all_by("upa", count=30)
        self.assertEqual(30, self.packets_of(10))
        netlab.run("tc filter del dev lan0 ingress", "rtr")
        self.all_by("upa", count=5)
        self.assertEqual(35, self.packets_of(10))

    def test_a_filter_that_was_removed_is_put_back(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        netlab.run("tc filter del dev lan0 ingress", "rtr")
        self.assertTrue(self.daemon.until(lambda: "policyroute" in self.filters(), 5))
        netlab.run("tc qdisc del dev lan0 clsact", "rtr")
        self.assertTrue(self.daemon.until(lambda: "policyroute" in self.filters(), 5))
        self.all_by("upa")

    def test_what_others_attached_stays_through_a_flush(self):
        netlab.run("tc qdisc add dev lan0 clsact", "rtr")
        netlab.run(["tc", "filter", "add", "dev", "lan0", "ingress", "pref", "7", "protocol", "all", "bpf", "bytecode",
                    "1,6 0 0 0,"], "rtr")
        self.addCleanup(lambda: netlab.run("tc qdisc del dev lan0 clsact", "rtr", check=False))
        self.daemon.apply(policy(both("upa"), bindings="lan0: wan, lan1: wan"))
        self.all_by("upa", source_ns="lan2")
        self.daemon.ctl("device", "flush")
        self.assertNotIn("policyroute", self.filters())
        self.assertIn("pref 7", self.filters())
        self.assertNotIn("clsact", netlab.run("tc qdisc show dev lan1", "rtr").stdout)

    def test_the_program_forwards_on_while_the_daemon_is_dead_and_a_link_goes_down(self):
        self.daemon.apply(policy(both("upa")))
        self.count_forwarded()
        self.all_by("upa")
        self.daemon.kill()
        before = self.seen_forwarded()
        self.assertEqual({"upa": 20}, self.by_uplink())
        self.assertEqual(before, self.seen_forwarded())
        self.lab.link("upa", "down")
        self.assertEqual({"upb": 20}, self.by_uplink())
        self.daemon.start()

    def test_a_time_to_live_that_ends_is_answered(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        self.daemon.apply(policy({10: f"acl: 1501, next-hops: {hops('upa')}"},
                                 acls="acls:\n  1501: {10: permit ip from 10.0.0.0/8 to any}\n"))
        self.assertTrue(self.daemon.until(lambda: self.front()["on"], 5))
        answer = netlab.run("ping -c 1 -W 2 -t 1 198.51.100.99", "lan", check=False).stdout
        self.assertIn("Time to live exceeded", answer)

    def test_a_check_warns_of_what_others_have_and_packets_pass_by(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        self.count_forwarded()
        self.assertTrue(self.daemon.until(lambda: "passed-by" in [
            notice["code"] for notice in json.loads(self.daemon.ctl("--json", "check", check=False).stdout)["warnings"]], 5))


class AsTheMachineAllows(EbpfCase):
    def test_packets_take_the_ordinary_way_while_others_have_rules_there(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        self.assertTrue(self.daemon.until(lambda: self.front()["redirect"], 5), self.front())
        self.count_forwarded()
        self.assertTrue(self.daemon.until(lambda: not self.front()["redirect"], 5))
        self.assertIn("chain forward of nftables table seen", self.front()["noRedirect"])
        before = self.seen_forwarded()
        self.all_by("upa")
        self.assertEqual(before + 20, self.seen_forwarded())
        netlab.run("nft delete table inet seen", "rtr")
        self.assertTrue(self.daemon.until(lambda: self.front()["redirect"], 5))

    def test_packets_whose_source_the_kernel_checks_take_the_ordinary_way(self):
        self.daemon.apply(policy(both("upa")))
        self.assertTrue(self.daemon.until(lambda: self.front()["redirect"], 5), self.front())
        netlab.sysctl("rtr", "ipv4/conf/lan0/rp_filter", 2)
        self.addCleanup(lambda: netlab.sysctl("rtr", "ipv4/conf/lan0/rp_filter", 0))
        self.assertTrue(self.daemon.until(lambda: not self.front()["redirect"], 5))
        self.assertTrue(self.front(family=6)["redirect"])
        self.all_by("upa")


class ManyRules(EbpfCase):
    options = ("host.neighbour-probe-ms=400", "host.ebpf-redirect=on")

    def test_an_address_that_the_router_gets_is_its_own_at_once(self):
        self.daemon.apply(policy(both("upa"), acls="acls:\n  1501: {10: permit ip from any to any}\n"
                                                   "  3501: {10: permit ip from any to any}\n"))
        self.all_by("upa")
        netlab.run("ip addr add 10.77.0.1/32 dev lo", "rtr")
        self.addCleanup(lambda: netlab.run("ip addr del 10.77.0.1/32 dev lo", "rtr", check=False))
        self.assertTrue(self.daemon.until(
            lambda: "1 received" in netlab.run("ping -c 1 -W 1 10.77.0.1", "lan", check=False).stdout, 5))

    def test_rules_that_do_not_fit_are_left_to_nftables_and_none_is_missed(self):
        # More pairs of prefix lengths than the program has room for: the last rule stays behind.
        rules = ", ".join(f"{n}: permit udp from 10.0.0.0/{8 + n % 10} to 198.0.0.0/{8 + n // 10} port 99"
                          for n in range(1, 81))
        self.daemon.apply(policy({10: f"acl: 1501, next-hops: {hops('upc')}", 20: f"acl: 1502, next-hops: {hops('upa')}"},
                                 acls=f"acls:\n  1501: {{{rules}}}\n  1502: {{10: permit udp from any to any port 443}}\n"))
        self.all_by("upa")
        row = self.front()
        self.assertLess(row["rulesInFront"], row["rules"])
        self.assertIn("different sets of bits", row["rest"])


if __name__ == "__main__":
    system_case.main()
