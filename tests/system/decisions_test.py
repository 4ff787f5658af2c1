"""Many decisions at a time: every packet takes its own node's way, whatever number of others there are, while they come
and go, and what no decision concerns takes the way that it would take without any."""
import json

import system_case
import netlab

PERSISTENT = {"upa": "198.51.100.", "upc": "100.64.0."}
FIRST_PORT = 2000


def address(number):
    """A next hop for each node, by turns on upa and upc."""
    up = ("upa", "upc")[number % 2]
    return up, PERSISTENT[up] + str(10 + number // 2)


def policy(numbers):
    acls = "".join(f"  {1000 + n}: {{10: permit udp from 10.0.0.0/8 to any port {FIRST_PORT + n}}}\n" for n in numbers)
    nodes = "".join(f"    {n}: {{acl: {1000 + n}, next-hops: [{address(n)[1]}]}}\n" for n in numbers)
    return f"acls:\n{acls}lists:\n  wan:\n{nodes}bindings:\n  lan0: wan\n"


class ManyDecisions(system_case.LabCase):
    options = ("host.neighbour-probe-ms=60000", "policyroute.maxnodenum=512")

    def setUp(self):
        for up, network in PERSISTENT.items():  # a link that goes down forgets them
            mac = json.loads(netlab.run("ip -j link show dev eth0", self.lab.isp[up]).stdout)[0]["address"]
            netlab.run(["ip", "-batch", "-"], "rtr", input="".join(
                f"neigh replace {network}{host} lladdr {mac} nud permanent dev {up}\n" for host in range(10, 240)))
        super().setUp()

    def decisions(self):
        return [each for each in self.daemon.json("show", "device")["decisions"] if each["installed"] and each["users"]]

    def apply_numbers(self, numbers):
        self.daemon.apply(policy(numbers))
        self.assertTrue(self.daemon.until(lambda: len(self.decisions()) == len(numbers)), len(self.decisions()))

    def rules(self):
        return netlab.run("ip rule", "rtr").stdout

    def some_take_their_ways(self, numbers):
        for number in numbers:
            self.all_by(address(number)[0], port=FIRST_PORT + number, count=5)
        self.all_by("upb", port=53, count=5)

    def test_each_of_three_hundred_is_found(self):
        numbers = range(1, 301)
        self.apply_numbers(numbers)
        self.assertEqual(300, self.rules().count("goto"))
        self.assertNotIn("unresolved", self.rules())
        self.some_take_their_ways((1, 2, 3, 100, 127, 128, 255, 256, 257, 299, 300))
        self.assertIn("kernel as installed", self.daemon.ctl("check").stdout)

    def test_coming_and_going_of_others_costs_a_node_no_packet(self):
        self.apply_numbers(range(1, 101))
        streams = {number: netlab.Stream(self.lab, port=FIRST_PORT + number) for number in (3, 50, 67)}
        usual = netlab.Stream(self.lab, port=53)
        for _ in range(2):
            for numbers in ((3, 50, 67), range(1, 301), (1, 3, 50, 67, 90, 120, 200, 210, 280, 281), range(3, 90)):
                self.apply_numbers(list(numbers))
        for number, stream in streams.items():
            result = stream.stop()
            self.assertEqual(({address(number)[0]}, 0), (set(result["uplinks"]), result["lost"]), number)
        result = usual.stop()
        self.assertEqual(({"upb"}, 0), (set(result["uplinks"]), result["lost"]))

    def test_a_table_that_lost_its_route_passes_the_packet_on(self):
        self.apply_numbers(range(1, 41))
        self.daemon.kill()
        netlab.run("ip link set upa down", "rtr")
        self.addCleanup(self.lab.link, "upa", "up")
        upa, upc = (next(n for n in range(11, 41) if address(n)[0] == up) for up in ("upa", "upc"))
        self.assertEqual({"upb": 20}, self.by_uplink(port=FIRST_PORT + upa))
        self.assertEqual({"upc": 20}, self.by_uplink(port=FIRST_PORT + upc))
        netlab.run("ip link set upa up", "rtr")
        self.daemon.start()

    def test_rules_of_others_are_asked_before_behind_and_among(self):
        self.apply_numbers(range(1, 41))
        netlab.run(f"ip route add {netlab.SERVER[4]} via {self.next_hop('upc')} table 99", "rtr")
        self.addCleanup(netlab.run, "ip route flush table 99", "rtr")
        for preference, words in ((14000, "dport 53"), (20000, "dport 53"), (15020, "dport 53")):
            netlab.run(f"ip rule add pref {preference} ipproto udp {words} lookup 99", "rtr")
            self.all_by("upc", port=53)
            self.some_way_is_left()
            if preference == 15020:
                self.assertIn("stands among ours, 15000 to 15039", self.daemon.ctl("check").stderr)
            netlab.run(f"ip rule del pref {preference} ipproto udp {words} lookup 99", "rtr")
            self.all_by("upb", port=53)
        self.assertTrue(self.daemon.until(lambda: self.rules().count("goto") == 40), self.rules())
        self.assertIn("kernel as installed", self.daemon.ctl("check").stdout)

    def some_way_is_left(self):
        for number in (2, 21, 40):
            self.all_by(address(number)[0], port=FIRST_PORT + number, count=5)

    def test_flush_leaves_nothing(self):
        before = self.rules()
        self.apply_numbers(range(1, 41))
        self.daemon.ctl("device", "flush")
        self.assertEqual(before, self.rules())


if __name__ == "__main__":
    system_case.main()
