"""What the system tests share: the lab, a daemon for each test, and the words to configure it."""
import json
import os
import socket
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import netlab  # noqa: E402
import races  # noqa: E402


class MemoryCase(unittest.TestCase):
    """A daemon with the memory device; nothing needs privileges."""

    options = ()

    def setUp(self):
        self.daemon = netlab.Daemon(ns=None, device="memory", options=self.options).start()
        self.addCleanup(self.daemon.close)
        self.addCleanup(self.check_alive)
        self.client = netlab.Command(self.daemon.root)
        self.addCleanup(self.client.close)

    def manage(self, request):
        """One request to the management socket; result: the answer, which must be ok."""
        with socket.socket(socket.AF_UNIX) as mgmt:
            mgmt.settimeout(10)
            mgmt.connect(self.daemon.root + "/tmp/policyroutemgmt.socket")
            mgmt.sendall(json.dumps(request).encode() + b"\n")
            answer = json.loads(mgmt.makefile().readline())
        self.assertTrue(answer["ok"], answer)
        return answer

    def check_alive(self):
        self.assertIsNone(self.daemon.process.poll(), "the daemon died: " + "".join(self.daemon.errors[-20:]))


def knows_kernel():
    """Whether the build asks the kernel for anything: its forwarding plane, and what kind of link an interface is."""
    return "kernel" in os.environ.get("POLICYROUTE_DEVICES", "kernel memory")


def forwarding_device():
    """The device that forwards packets in this run: kernel, or by POLICYROUTE_DEVICE ebpf."""
    return os.environ.get("POLICYROUTE_DEVICE", "kernel")


def ebpf_missing():
    """Why the eBPF device cannot be tried here, in the lab's router; empty: it can."""
    daemon = netlab.Daemon(device="ebpf")
    try:
        daemon.start()
    except netlab.Refused as refused:
        told = str(refused)
        return told if "not permitted" in told or "built without" in told else ""
    finally:
        daemon.close()
    return ""


def by_uplink(lab, family=4, port=443, count=20, **options):
    """Sends packets to the server; result: {uplink: how many arrived by it}. Options: those of netlab.send."""
    arrivals = netlab.Arrivals(lab, family, port)
    try:
        netlab.send(lab, family, port, count, **options)
        arrivals.wait(count, 1.0)
        return arrivals.by_uplink()
    finally:
        arrivals.close()


class LabCase(unittest.TestCase):
    """The lab once a class, a daemon with the kernel device for each test; afterwards everything that
    the daemon installed is flushed."""

    options = ("host.neighbour-probe-ms=400",)
    device = None  # another than that of the run
    wide = False  # whether the lab has a fourth uplink and a third LAN

    @classmethod
    def setUpClass(cls):
        if not knows_kernel():
            raise unittest.SkipTest("this build has no kernel device")
        cls.lab = netlab.Lab(wide=cls.wide)
        why = ebpf_missing() if (cls.device or forwarding_device()) == "ebpf" else ""
        if why:
            cls.lab.close()
            raise unittest.SkipTest(why)
        for up in cls.lab.uplinks:
            for family in ("ipv4", "ipv6"):
                netlab.sysctl("rtr", f"{family}/neigh/{up}/retrans_time_ms", 100)

    @classmethod
    def tearDownClass(cls):
        cls.lab.close()

    def setUp(self):
        self.daemon = netlab.Daemon(device=self.device or forwarding_device(), options=self.options).start()
        self.addCleanup(self.daemon.close)
        self.addCleanup(self.mend_lab)
        self.addCleanup(self.flush)

    def flush(self):
        """Without a policy nothing that is reported later installs it again for the next test to find."""
        self.daemon.apply("lists: {}", check=False)
        self.daemon.ctl("device", "flush", check=False)

    def mend_lab(self):
        for up, isp in self.lab.isp.items():
            netlab.run("nft delete table netdev cut", isp, check=False)
            if "state DOWN" in netlab.run("ip link show dev eth0", isp).stdout or \
                    "NO-CARRIER" in netlab.run(f"ip link show dev {up}", "rtr").stdout:
                self.lab.link(up, "up")

    def by_uplink(self, **options):
        return by_uplink(self.lab, **options)

    def all_by(self, up, seconds=5.0, **options):
        """Waits until all packets take `up`; fails with what was seen last."""
        seen = {}

        def question():
            nonlocal seen
            seen = self.by_uplink(**options)
            return seen == {up: options.get("count", 20)}

        self.assertTrue(self.daemon.until(question, seconds), f"expected all by {up}, seen {seen}; {options}")

    def next_hop(self, up, family=4):
        return self.lab.uplinks[up][1 if family == 4 else 3]


def main():
    netlab.enter_private()
    sys.exit(not races.main().result.wasSuccessful())
