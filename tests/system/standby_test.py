"""The next usable next hop stands ready in the kernel: when a link goes, no packet leaves by another way than the policy's,
also before the daemon hears of it and when there is none, whatever the number of nodes; and their change is one route."""
import system_case
import netlab

SPACING = 50e-6


def policy(count, hops=("198.51.100.1", "100.64.0.1"), more=""):
    ports = {n: 443 if n == count else 2000 + n for n in range(1, count + 1)}
    acls = "".join(f"  {1000 + n}: {{10: permit udp from 10.0.0.0/8 to any port {port}}}\n" for n, port in ports.items())
    nodes = "".join(f"    {n}: {{acl: {1000 + n}, next-hops: [{', '.join(hops)}]{more}}}\n" for n in ports)
    return f"acls:\n{acls}lists:\n  wan:\n{nodes}bindings:\n  lan0: wan\n"


class Standby(system_case.LabCase):
    options = ("host.neighbour-probe-ms=400", "policyroute.maxnodenum=1024")

    def applied(self, *words, **options):
        self.daemon.apply(policy(*words, **options))
        self.all_by("upa")
        self.assertTrue(self.daemon.until(lambda: "metric 2 " in self.table()), self.table())

    def table(self):
        return netlab.run("ip route show table 1000001", "rtr").stdout

    def chosen(self):
        return [path["interface"] for each in self.daemon.json("show", "device")["decisions"] if each["users"] for path in each["paths"]]

    def over(self, action):
        """What a stream saw over an action, and until it takes upc."""
        stream = netlab.Stream(self.lab, interval=SPACING)
        self.assertTrue(stream.wait_uplink("upa", 5)[0])
        try:
            action()
            self.assertTrue(stream.wait_uplink("upc", 5)[0], self.table())
        finally:
            result = stream.stop()
        self.assertEqual({"upa", "upc"}, set(result["uplinks"]), result["uplinks"])
        return result

    def down(self):
        netlab.run("ip link set upa down", "rtr")
        self.addCleanup(netlab.run, "ip link set upa up", "rtr")

    def carrier_lost(self):
        self.lab.link("upa", "down")
        self.addCleanup(self.lab.link, "upa", "up")

    def test_a_link_that_goes_down_sends_nothing_astray_and_its_return_loses_nothing(self):
        for count in (1, 1000):
            with self.subTest(count=count):
                self.applied(count)
                self.over(self.carrier_lost)
                self.assertTrue(self.daemon.until(lambda: self.chosen() == ["upc"]), self.chosen())
                messages = self.daemon.json("show", "device")["counters"]["kernelMessages"]
                self.lab.link("upa", "up")
                self.all_by("upa", seconds=15)
                self.assertTrue(self.daemon.until(lambda: self.chosen() == ["upa"]), self.chosen())
                now = self.daemon.json("show", "device")["counters"]["kernelMessages"]
                self.assertLess(now - messages, 30, "the work does not grow with the nodes")

    def test_an_interface_that_is_set_down_sends_nothing_astray(self):
        self.applied(2)
        self.over(self.down)

    def test_without_the_daemon_the_kernel_takes_the_second_choice(self):
        self.applied(2)
        self.daemon.kill()
        self.over(self.down)
        self.daemon.start()

    def test_a_node_that_drops_has_its_standby_before_it_drops(self):
        self.applied(1, more=", otherwise: drop")
        self.over(self.down)
        netlab.run("ip link set upc down", "rtr")
        self.addCleanup(netlab.run, "ip link set upc up", "rtr")
        self.assertEqual({}, self.by_uplink())

    def test_a_next_hop_that_is_not_usable_is_no_standby(self):
        self.applied(1)
        self.lab.silence("upc")
        self.addCleanup(self.lab.unsilence, "upc")
        self.assertTrue(self.daemon.until(lambda: "metric 2 " not in self.table(), 10), self.table())
        self.assertIn("via 198.51.100.1", self.table())


if __name__ == "__main__":
    system_case.main()
