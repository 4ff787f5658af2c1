"""Links of the kernel that join and leave a bridge, go and come back, and what becomes of their policy."""
import unittest

import system_case
from system_case import netlab

ACLS = """
acls:
  1501: {10: permit ip from 10.0.0.0/8 to any}
  1502: {10: permit ip from 10.0.0.0/8 to any}
lists:
  port:
    10: {acl: 1501, interface: lo}
  bridge:
    10: {acl: 1502, interface: lo}
bindings:
"""


class Links(unittest.TestCase):
    """A router with an interface p0, its far end p1, and a bridge br0; a daemon for each test."""

    device, options = "kernel", ()

    def setUp(self):
        netlab.run(["ip", "netns", "add", "links"])
        self.addCleanup(netlab.run, ["ip", "netns", "del", "links"])
        self.ip("link set lo up")
        self.ip("link add br0 type bridge")
        self.ip("link set br0 up")
        self.add_port()
        self.daemon = netlab.Daemon(ns="links", device=self.device, options=self.options).start()
        self.addCleanup(self.daemon.close)
        self.addCleanup(lambda: self.assertIsNone(self.daemon.process.poll(), "the daemon died"))
        self.daemon.ctl("debug", "set", "event")

    def ip(self, words):
        netlab.run("ip " + words, "links")

    def add_port(self):
        self.ip("link add p0 type veth peer name p1")
        self.ip("link set p0 up")

    def bound(self):
        return {row["interface"]: row["list"] for row in self.daemon.json("show", "bindings")}

    def until_bound(self, expected):
        self.assertTrue(self.daemon.until(lambda: self.bound() == expected), self.bound())

    def until_logged(self, text):
        self.assertTrue(self.daemon.until(lambda: any(text in line for line in self.daemon.errors)),
                        f"not logged: {text}\n" + "".join(self.daemon.errors[-15:]))

    def unlogged(self, text):
        self.assertEqual([], [line for line in self.daemon.errors if text in line])

    def installed(self, interface):
        return f'"{interface}"' in netlab.run("nft list ruleset", "links").stdout

    def test_a_port_that_joins_a_bridge_loses_its_own_policy(self):
        self.daemon.apply(ACLS + "  p0: port\n  br0: bridge\n")
        self.assertTrue(self.daemon.until(lambda: self.installed("p0") and self.installed("br0")))
        self.ip("link set p0 master br0")
        self.until_bound({"br0": "bridge"})
        self.until_logged("phy join agg,so pbr unbind on phy(phy=[p0],agg=[br0],pbr=[port]).")
        self.until_logged("interface p0 is a port of br0 now and its own policy is unbound: bind the policy to br0")
        self.assertTrue(self.daemon.until(lambda: not self.installed("p0")))
        self.assertTrue(self.installed("br0"))

        self.ip("link set p0 nomaster")
        self.until_logged(" remove phy ")
        self.daemon.ctl("bind", "p0", "port")
        self.until_bound({"br0": "bridge", "p0": "port"})
        self.unlogged("protocol error")

    def test_a_port_that_is_one_already_may_be_bound_and_is_left_alone(self):
        self.ip("link set p0 master br0")
        self.daemon.apply(ACLS + "  p0: port\n")
        self.ip("link set p0 down")
        self.ip("link set p0 up")
        self.ip("link set p1 master br0")
        # p1's join is told after whatever p0 could have caused; the daemon says that it read it.
        self.daemon.ctl("bind", "p1", "bridge")
        self.ip("link set p1 nomaster")
        self.ip("link set p1 master br0")
        self.until_bound({"p0": "port"})

    def test_links_that_are_there_at_the_start_disturb_nothing(self):
        self.ip("link set p0 master br0")
        policy = ACLS + "  p0: port\n  br0: bridge\n"
        self.daemon.apply(policy)
        self.daemon.kill()
        self.daemon.start()
        self.daemon.apply(policy)
        self.until_bound({"p0": "port", "br0": "bridge"})
        self.unlogged("unbind")

    def test_an_interface_that_is_deleted_and_made_again_is_bound_again_by_apply(self):
        policy = ACLS + "  p0: port\n"
        self.daemon.apply(policy)
        self.assertTrue(self.daemon.until(lambda: self.installed("p0")))
        self.ip("link del p0")
        self.until_bound({})
        self.until_logged("pbr receive QRV_RTM_DELLINK_FINAL message.")
        self.until_logged("Interface unregister,so pbr unbind(Interface=[p0],pbr=[port]).")
        self.until_logged("is gone and its policy is unbound: bind it again when the interface is back")
        self.unlogged("protocol error")
        self.assertTrue(self.daemon.until(lambda: not self.installed("p0")))

        self.add_port()
        self.assertEqual({}, self.bound(), "nothing is bound by itself")
        self.assertTrue(self.daemon.until(lambda: self.daemon.apply(policy, check=False).returncode == 0))
        self.until_bound({"p0": "port"})
        self.assertTrue(self.daemon.until(lambda: self.installed("p0")))


class Members(Links):
    """A device that wants entries on the members of an aggregation."""

    device, options = "memory", ("host.memory-member-entries=on",)

    def installed(self, interface):
        records = self.daemon.json("show", "device", "--records")["records"]
        return any(record["interface"] == interface and not record["member"] for record in records)

    def members(self):
        records = self.daemon.json("show", "device", "--records")["records"]
        return [(record["interface"], record["acl"], record["action"]) for record in records if record["member"]]

    def test_members_get_and_lose_the_bridges_entries(self):
        self.daemon.apply(ACLS + "  br0: bridge\n")
        self.assertTrue(self.daemon.until(lambda: self.installed("br0")))
        self.ip("link set p0 master br0")
        self.assertTrue(self.daemon.until(lambda: self.members() == [("p0", 1502, "out-interface")]), self.members())
        self.until_logged("agg add phy,so pbr bind on phy(agg=[br0],phy=[p0],pbr=[bridge]).")
        self.assertIn("of a member port", self.daemon.ctl("show", "device", "--records").stdout)
        self.ip("link set p0 nomaster")
        self.assertTrue(self.daemon.until(lambda: self.members() == []), self.members())
        self.until_logged("agg remove phy,so pbr unbind on phy(agg=[br0],phy=[p0],pbr=[bridge]).")


if __name__ == "__main__":
    system_case.main()
