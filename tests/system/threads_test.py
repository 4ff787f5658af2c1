"""Everything that makes the daemon's threads work, at once: commands, whole policies, reports, watches, messages on the
route bus, cables, probes, time ranges, repairs. What is not allowed to happen then is seen by the thread sanitizer; in
every build the daemon answers each question, and what it holds in the end is what was set last.
"""
import contextlib
import itertools
import json
import os
import random
import socket
import struct
import threading

import system_case
import netlab
import races
from explain_test import Watcher
from netlab import UPLINKS, list_key, node_key, run
from soak import bus_of

SECONDS = 25 if races.is_checked(netlab.build_folder()) else 5
LIST_GET, LIST_SET, NODE_GET, NODE_SET, IF_GET, SCALAR_GET = 9, 10, 12, 13, 15, 21
UPA, UPC = UPLINKS["upa"][1], UPLINKS["upc"][1]
UPA6, UPC6 = UPLINKS["upa"][3], UPLINKS["upc"][3]
SHOWN = ("lists", "bindings", "next-hops", "probes", "acls", "time-ranges", "device", "counters", "policy-counters")


def policy(first, second, port, interval, bindings):
    return f"""
acls:
  1501: {{10: permit udp from 10.0.0.0/8 to any port 443, 20: permit udp from 10.0.0.0/8 to any port {port}}}
  3501: {{10: "permit udp from 2001:db8::/32 to any port 443"}}
  1502: {{10: permit udp from 10.0.0.0/8 to any port 500-510}}
probes:
  ops/a: {{icmp: {UPA}, interval: {interval}, timeout: 90ms, down-after: 2}}
  ops/c: {{icmp: {UPC}, interval: 100ms, timeout: 90ms, down-after: 2}}
time-ranges:
  7: {{days: daily}}
lists:
  wan:
    10: {{acl: 1501, next-hops: [{{address: {first}, probe: ops/{"a" if first == UPA else "c"}}}, {second}]}}
    20: {{acl: 3501, next-hops: ["{UPA6}", "{UPC6}"], time-range: 7}}
    30: {{acl: 1502, ecmp: true, next-hops: [{first}, {second}], time-range: 7}}
bindings: {{{bindings}}}
"""


POLICIES = (policy(UPA, UPC, 600, "100ms", "lan0: wan"), policy(UPC, UPA, 601, "200ms", "lan0: wan, lan1: wan"),
            policy(UPC, UPA, 600, "100ms", "lan1: wan"), "lists: {}")
LAST = POLICIES[0]


class Storm:
    """The jobs, a thread each, until the time is over. done: what each was answered; faults: what must not be."""

    def __init__(self, lab, daemon, seed):
        self.lab, self.daemon, self.seed = lab, daemon, seed
        self.done, self.faults, self.stopping = {}, [], threading.Event()

    def rage(self, seconds):
        jobs = (self.commands, self.more_commands, self.requests, self.more_requests, self.policies, self.changes,
                self.reports, self.explanations, self.shell, self.switches, self.watches, self.checks, self.bus,
                self.cables, self.silence, self.ranges, self.drift)
        threads = [threading.Thread(target=self._job, args=(job, random.Random(f"{self.seed} {job.__name__}")))
                   for job in jobs]
        for thread in threads:
            thread.start()
        self.stopping.wait(seconds)
        self.stopping.set()
        for thread in threads:
            thread.join(120)

    def _job(self, job, dice):
        """Takes one step of a job after another; each step tells whether the daemon did as it was told."""
        self.done[job.__name__] = 0
        try:
            for isDone in job(dice):
                self.done[job.__name__] += isDone
                if self.stopping.wait(dice.uniform(0, 0.02)):
                    return
        except Exception as error:  # no answer, or none that can be read
            self.faults.append(f"{job.__name__}: {error!r}")

    def _ctl(self, *words):
        """Result: whether it was done. A refusal is an answer, too; anything else is a fault."""
        done = self.daemon.ctl(*words, check=False)
        if done.returncode not in (0, 1) or (done.returncode == 1 and not done.stderr and not done.stdout):
            self.faults.append(f"pbrctl {words}: exit {done.returncode} {done.stderr}")
        return done.returncode == 0

    # ---- the command socket ----
    def commands(self, dice):
        own = f"own{dice.randrange(1000)}".encode()
        frames = ({"command": SCALAR_GET, "field": 5, "kind": 2, "number": 100}, {"command": SCALAR_GET, "field": 3},
                  {"command": LIST_SET, "key": list_key(own), "field": 1, "number": 2},
                  {"command": LIST_SET, "key": list_key(own), "field": 1, "number": 4},
                  {"command": NODE_SET, "key": node_key(own, 10), "field": 1, "number": 2},
                  {"command": NODE_GET, "key": node_key(b"wan", 10), "field": 2},
                  {"command": IF_GET, "key": struct.pack("=I", dice.randrange(1, 9)), "field": 1},
                  {"command": LIST_GET, "key": list_key(b"wan"), "field": 1})
        with contextlib.closing(netlab.Command(self.daemon.root)) as client:
            for number in itertools.count(1):
                frame = dict(dice.choice(frames))
                code, _, _, _, header = client.call(frame.pop("command"), request=number, **frame)
                if header[3] != number:
                    self.faults.append(f"request {number} got the answer of {header[3]}")
                yield code == 0

    def more_commands(self, dice):
        return self.commands(dice)

    # ---- the management socket ----
    def requests(self, dice):
        acl = 1100 + dice.randrange(100)
        questions = ({"op": "acl.set", "acl": acl, "rule": 5, "text": "permit udp"}, {"op": "acl.destroy", "acl": acl},
                     {"op": "acl.set", "acl": 1501, "rule": 90, "text": f"permit udp to any port {acl}"},
                     {"op": "acl.del", "acl": 1501, "rule": 90}, {"op": "acl.show"}, {"op": "peers"}, {"op": "probes"},
                     {"op": "timeranges"}, {"op": "interfaces"}, {"op": "counters"}, {"op": "device.show"},
                     {"op": "device.counters"}, {"op": "probe.clear"}, {"op": "confirm.show"}, {"op": "version"})
        with socket.socket(socket.AF_UNIX) as mgmt:
            mgmt.settimeout(30)
            mgmt.connect(self.daemon.root + "/tmp/policyroutemgmt.socket")
            lines = mgmt.makefile()
            while True:
                mgmt.sendall(json.dumps(dice.choice(questions)).encode() + b"\n")
                yield json.loads(lines.readline())["ok"]

    def more_requests(self, dice):
        return self.requests(dice)

    # ---- the tool ----
    def policies(self, dice):
        while True:
            done = self.daemon.apply(dice.choice(POLICIES), check=False)
            if done.returncode not in (0, 1):
                self.faults.append(f"apply: exit {done.returncode} {done.stderr}")
            yield done.returncode == 0

    def changes(self, dice):
        for number in itertools.count():
            yield self._ctl(*dice.choice((("bind", "lan1", "wan"), ("unbind", "lan1"), ("acl", "del", 1501, 20),
                                          ("probe", "clear", "ops/a"), ("list", "add", f"more{number}"))))

    def reports(self, dice):
        while True:
            yield self._ctl("--json", "show", dice.choice(SHOWN))

    def explanations(self, dice):
        while True:
            yield self._ctl("explain", "--in", dice.choice(("lan0", "lan1")), "--src", "10.0.0.10", "--dst", "192.0.2.10",
                            "--proto", "udp", "--dport", dice.choice((443, 505, 53)))

    def shell(self, _):
        while True:
            yield self._ctl("shell", "pbrInfoShow")

    def switches(self, dice):
        while True:
            yield self._ctl(*dice.choice((("shell", "pbrselflog", "1"), ("shell", "pbrselflog", "0"),
                                          ("debug", "set", "hw,event"), ("debug", "set", "off"))))

    def checks(self, _):
        while True:
            yield self._ctl("export") and self._ctl("check") in (True, False)  # differences are found now

    def watches(self, _):
        while not self.stopping.is_set():
            watcher = Watcher(self.daemon)
            self.stopping.wait(1)
            watcher.close()
            yield len(watcher.events)

    # ---- what happens outside ----
    def bus(self, dice):
        with bus_of(self.daemon.root) as bus:
            bus.send(struct.pack("=II", 1, 77))  # a subscriber, too: of the peers' states
            reader = threading.Thread(target=self._read, args=(bus,), daemon=True)
            reader.start()
            while True:
                payload = struct.pack("=32s32sBBBx", b"ops", dice.choice((b"a", b"c")), 3, 1, 1 + dice.randrange(3))
                bus.send(struct.pack("=II", 3, 89) + struct.pack("=IH18x", 24 + len(payload), 349) + payload)
                yield True

    def _read(self, bus):
        bus.settimeout(None)
        try:
            while bus.recv(8192):
                pass
        except OSError:
            pass

    def cables(self, dice):
        for state in itertools.cycle(("down", "up")):
            self.lab.link("upc", state)
            self.stopping.wait(dice.uniform(0.05, 0.3))
            yield True

    def silence(self, dice):
        for change in itertools.cycle((self.lab.silence, self.lab.unsilence)):
            change("upa")
            self.stopping.wait(dice.uniform(0.2, 1.0))
            yield True

    def ranges(self, _):
        for state in itertools.cycle(("off", "on", "auto")):
            yield self._ctl("time-range", "7", state)

    def drift(self, dice):
        while not self.stopping.wait(dice.uniform(0.2, 1.0)):
            yield run("nft delete table inet policyroute", "rtr", check=False).returncode == 0


class AllAtOnce(system_case.LabCase):
    def calm(self):
        """Everything outside is as it was."""
        run("nft delete table netdev cut", self.lab.isp["upa"], check=False)
        self.lab.link("upc", "up")

    def exported(self):
        return self.daemon.ctl("export").stdout

    def wait_in_order(self):
        checked = None

        def question():
            nonlocal checked
            checked = self.daemon.ctl("check", check=False)
            return checked.returncode == 0

        self.assertTrue(self.daemon.until(question, 30), checked.stdout)

    def test_what_is_set_last_is_what_the_daemon_holds(self):
        seed = int(os.environ.get("PBR_SEED", random.randrange(1 << 20)))
        print("seed", seed, flush=True)
        self.daemon.apply(LAST)
        expected, storm = self.exported(), Storm(self.lab, self.daemon, seed)
        self.addCleanup(self.calm)

        storm.rage(SECONDS)

        print(storm.done, flush=True)
        self.assertEqual([], storm.faults, f"seed {seed}")
        self.assertEqual([], [name for name, count in storm.done.items() if count == 0], storm.done)
        self.assertIsNone(self.daemon.process.poll(), self.daemon.errors[-20:])
        self.calm()
        self.daemon.ctl("time-range", "7", "auto", check=False)
        self.daemon.apply("lists: {}")  # next hops made anew ask for the probes' states: what the bus told last is no truth
        self.daemon.apply(LAST)
        self.daemon.ctl("time-range", "7", "auto")
        self.wait_in_order()
        self.assertEqual(expected, self.exported(), f"seed {seed}")
        self.all_by("upa", seconds=20)
        self.all_by("upa", family=6, seconds=20)
        self.daemon.stop()
        self.assertEqual(0, self.daemon.process.returncode, self.daemon.errors[-20:])
        self.daemon.start()
        self.assertEqual(expected, self.exported(), f"seed {seed}")
        self.wait_in_order()


if __name__ == "__main__":
    system_case.main()
