"""pbrctl watch beside what the kernel tells: each event once as a JSON line and once as text."""
import subprocess
import threading

import system_case
import netlab
from explain_test import Watcher
from netlab import SERVER, UPLINKS


class TextWatcher(Watcher):
    """The same as lines of text."""

    def __init__(self, daemon):
        self.events = []
        self.process = subprocess.Popen([*daemon.program("pbrctl"), "--root", daemon.root, "watch"],
                                        stdout=subprocess.PIPE, text=True)
        self.thread = threading.Thread(target=self.read)
        self.thread.start()

    def read(self):
        for line in self.process.stdout:
            self.events.append(line.rstrip("\n"))


class WhatTheKernelTells(system_case.LabCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        netlab.run(f"ip route add {UPLINKS['upa'][0]}/32 via 172.16.1.1", "srv")  # answers find the router's uplink

    def setUp(self):
        super().setUp()
        self.hop = UPLINKS["upa"][1]
        self.daemon.apply(f"""
acls: {{1501: {{10: permit udp from 10.0.0.0/8 to any port 443}}}}
probes: {{ops/a: {{icmp: {SERVER[4]}, via: {self.hop}, interval: 100ms, timeout: 80ms, down-after: 3}}}}
time-ranges: {{7: {{days: daily}}}}
lists: {{wan: {{10: {{acl: 1501, next-hops: [{self.hop}, {UPLINKS["upc"][1]}], time-range: 7}}}}}}
bindings: {{lan0: wan}}
""")
        self.all_by("upa")
        self.assertTrue(self.daemon.until(lambda: self.daemon.json("show", "probes")[0]["status"] == "passing"))
        self.json, self.text = Watcher(self.daemon), TextWatcher(self.daemon)
        self.addCleanup(self.json.close)
        self.addCleanup(self.text.close)
        self.begun()

    def begun(self):
        """Waits until both watch, and forgets what shows it."""
        def seen():
            self.daemon.ctl("acl", "create", "1999", check=False)
            self.daemon.ctl("acl", "add", "1999", "10", "permit", "udp")
            self.daemon.ctl("acl", "destroy", "1999")
            return self.json.events and self.text.events
        self.assertTrue(self.daemon.until(seen))

    def tells(self, kind, text=None, **members):
        """Waits for an event with these members, and for the same in words. Result: the event."""
        def found():
            for event in list(self.json.events):
                is_meant = event["event"] == kind and all(event.get(key) == value for key, value in members.items())
                if is_meant and (text is None or text in event["text"]):
                    return event
            return None
        event = self.daemon.until(found, 10)
        self.assertTrue(event, (kind, text, members, self.json.events))
        self.assertLessEqual({"time", "event", "text", *members}, set(event))
        self.assertTrue(self.daemon.until(lambda: [line for line in list(self.text.events) if line.endswith(event["text"])]),
                        (event, self.text.events))
        self.json.events.remove(event)
        return event

    def test_a_link_that_goes_down_and_comes_back(self):
        self.lab.link("upa", "down")
        self.tells("link", "interface upa is down", interface="upa", state="down", new=False)
        self.tells("next-hop", f"next hop {self.hop} is down", address=self.hop, vrf=0, state="down")
        self.tells("decision", list="wan", node=10, old=f"next hop {self.hop}", new=f"next hop {UPLINKS['upc'][1]}")
        self.lab.link("upa", "up")
        self.tells("link", "interface upa is up", interface="upa", state="up", new=False)
        self.tells("next-hop", f"next hop {self.hop} is up", address=self.hop, state="up", interface="upa")
        self.tells("decision", list="wan", node=10, new=f"next hop {self.hop}")

    def test_an_interface_that_is_made_and_removed(self):
        self.addCleanup(netlab.run, "ip link del dum0", "rtr", check=False)
        netlab.run("ip link add dum0 type veth peer name dum1", "rtr")
        self.tells("link", "interface dum0 is new and down", interface="dum0", state="down", new=True)
        netlab.run("ip link del dum0", "rtr")
        self.tells("link", interface="dum0", state="gone")

    def test_a_neighbour_that_falls_silent_and_answers_again(self):
        self.lab.silence("upa")
        self.tells("next-hop", f"next hop {self.hop} is down: no answer (upa)", address=self.hop, state="down",
                   reason="no answer", interface="upa")
        self.lab.unsilence("upa")
        self.tells("next-hop", f"next hop {self.hop} is up", address=self.hop, state="up")

    def test_a_neighbour_with_another_link_layer_address(self):
        netlab.run("ip link set eth0 address 02:00:00:00:0a:0b", netlab.ISP["upa"])
        self.addCleanup(self.lab.link, "upa", "up")
        netlab.run(f"ip neigh flush to {self.hop} dev upa", "rtr")
        self.tells("next-hop", address=self.hop, lladdr="02:00:00:00:0a:0b", interface="upa")

    def test_a_route_that_leads_a_next_hop_elsewhere(self):
        self.addCleanup(netlab.run, f"ip route del {self.hop}/32", "rtr", check=False)
        netlab.run(f"ip route add {self.hop}/32 via {UPLINKS['upb'][1]}", "rtr")
        self.tells("next-hop", address=self.hop, interface="upb")
        netlab.run(f"ip route del {self.hop}/32", "rtr")
        self.tells("next-hop", address=self.hop, interface="upa")

    def test_what_somebody_removed_and_was_repaired(self):
        netlab.run("nft delete table inet policyroute", "rtr")
        event = self.tells("drift", "the kernel held something else than was installed (table inet policyroute is missing)")
        self.assertGreaterEqual(event["repaired"], 1)

    def test_a_probe_that_fails_and_passes(self):
        isp = netlab.ISP["upa"]
        netlab.run(["nft", "add table ip behind; add chain ip behind f { type filter hook forward priority 0; policy drop; }"], isp)
        self.addCleanup(netlab.run, "nft delete table ip behind", isp, check=False)
        event = self.tells("probe", "probe ops/a is failing: ", probe="ops/a", state="failing")
        self.assertNotEqual("", event["reason"])
        netlab.run("nft delete table ip behind", isp)
        self.tells("probe", "probe ops/a is passing", probe="ops/a", state="passing")

    def test_a_time_range_that_is_switched(self):
        self.daemon.ctl("time-range", "7", "off")
        self.tells("time-range", "time range 7 is not active any more", id=7, active=False)
        self.tells("decision", list="wan", node=10, old=f"next hop {self.hop}")
        self.daemon.ctl("time-range", "7", "auto")
        self.tells("time-range", "time range 7 is active", id=7, active=True)
        self.tells("decision", list="wan", node=10, new=f"next hop {self.hop}")


if __name__ == "__main__":
    system_case.main()
