"""kill -9 at random moments while the daemon is at work. Used by scripts/kill-tests.py and by the system test.

Each life of the daemon is: start with the journal, compare with what was answered, random work, death. Work is sets by
raw frames, requests to the management socket, single changes and applies with pbrctl, beside messages on the route bus
and an uplink whose cable comes and goes. What is compared after each start: every set that was answered with success is
there and nothing else (a change about which a question was open when the daemon died may be there or not); in the end
'pbrctl check' finds the kernel as desired; what is not ours in the kernel is as it was.
"""
import contextlib
import json
import random
import re
import socket
import struct
import subprocess
import threading
import time

import netlab
from netlab import list_key, node_key, run

LIST_SET, NODE_SET = 10, 13
CREATED, DESTROY = 2, 4
FOREIGN = """
table inet foreign { set s { type ipv4_addr; elements = { 10.9.9.9 } }
  chain c { type filter hook forward priority 5; policy accept; ip saddr @s accept; }; }
table ip policyroute_not { chain c { type filter hook output priority 9; policy accept; }; }
"""
FILES = {name: f"""
acls:
  1501: {{10: permit udp from any to any port {port}}}
  1502: {{10: permit ip from any to any}}
  1503: {{10: permit ip from any to any}}
lists:
  wan:
    10: {{acl: 1501, next-hops: [{first}, {second}]}}
    20: {{acl: 1502, next-hops: [{second}]}}
  spare:
    10: {{acl: 1503, interface: lan0}}
bindings: {{lan0: wan}}
""" for name, port, first, second in (("a", 443, "198.51.100.1", "100.64.0.1"), ("b", 5000, "100.64.0.1", "198.51.100.1"))}


class Died(Exception):
    """The daemon died while an answer was awaited."""


class Model:
    """What was answered with success, by kind and key; and what may be either way."""

    def __init__(self):
        self.kept = {}
        self.unknown = set()  # (kind, key), or None: everything

    def learn(self, seen):
        """Result: what differs beyond doubt; what was in doubt is taken from what is seen."""
        if None in self.unknown:
            self.kept = seen
            self.unknown = set()
            return []
        faults = []
        for key in sorted(set(self.kept) | set(seen), key=str):
            if self.kept.get(key) == seen.get(key):
                continue
            if key not in self.unknown:
                faults.append(f"{key}: answered {self.kept.get(key)}, seen {seen.get(key)}")
        self.kept, self.unknown = seen, set()
        return faults


def applied(name):
    """What is there after an apply of one of FILES."""
    port = {"a": 443, "b": 5000}[name]
    return {("list", "wan"): {10: 2, 20: 1}, ("list", "spare"): {10: 0}, ("bound", "lan0"): "wan",
            ("acl", 1501): {10: f"permit udp from any to any port {port}"},
            **{("acl", acl): {10: "permit ip from any to any"} for acl in (1502, 1503)}}


class Storm:
    def __init__(self, kills, seed, build=None):
        self.kills, self.dice = kills, random.Random(seed)
        self.lab = netlab.Lab()
        for up in self.lab.uplinks:
            for family in ("ipv4", "ipv6"):
                netlab.sysctl("rtr", f"{family}/neigh/{up}/retrans_time_ms", 100)
        self.daemon = netlab.Daemon(build=build, options=("host.neighbour-probe-ms=400", "host.adopt-wait-ms=60000"))
        self.model, self.faults, self.starts = Model(), [], []
        self.answered = self.refused = self.open = self.checks = self.messages = self.flaps = self.at_start = 0
        self.stopping = threading.Event()
        self._foreign_make()
        self.foreign = self._foreign()

    # ---- what is not ours ----
    def _foreign_make(self):
        with netlab.inside("rtr"):
            subprocess.run(["nft", "-f", "-"], input=FOREIGN, text=True, check=True)
        for words in ("ip rule add pref 100 from 10.99.0.0/16 lookup 500", "ip -6 rule add pref 16000 fwmark 0x1/0xff lookup 500",
                      "ip rule add pref 15500 iif lan1 lookup main", "ip route add 10.98.0.0/16 dev lan0 table 500",
                      "ip route add unreachable 10.97.0.0/16", "ip -6 route add blackhole 2001:db8:97::/64 table 500",
                      "ip nexthop add id 77 dev lan0", "ip nexthop add id 1000077 blackhole"):
            run(words, "rtr")

    def _foreign(self):
        """Everything of rules, routes, next hops and tables that has not our number or name."""
        seen = {}
        for words in ("ip rule", "ip -6 rule", "ip -4 route show table all", "ip -6 route show table all", "ip nexthop"):
            lines = run(words, "rtr").stdout.splitlines()
            # A cable without carrier shows in the flags of routes over it; with IPv6 the kernel makes and removes some itself.
            seen[words] = sorted(re.sub(r" (linkdown|dead)\b", "", line).rstrip() for line in lines
                                 if "proto 206" not in line and not ("-6 route" in words and "dev upc" in line))
        tables = [line for line in run("nft list tables", "rtr").stdout.splitlines() if not line.endswith(" policyroute")]
        seen["nft"] = tables + [run("nft list " + line, "rtr").stdout for line in tables]
        return seen

    # ---- what goes on beside ----
    def _flap(self):
        dice = random.Random(self.dice.random())
        while not self.stopping.wait(dice.uniform(0.05, 0.4)):
            run("ip link set eth0 " + ("down" if self.flaps % 2 == 0 else "up"), "ispc", check=False)
            self.flaps += 1
        run("ip link set eth0 up", "ispc")

    def _publish(self, stop, seed):
        """States of a probe, cards and slots, on the route bus."""
        dice = random.Random(seed)
        with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as bus:
            bus.settimeout(5)
            bus.connect(self.daemon.root + "/tmp/policyroutebus.socket")
            while not stop.wait(dice.uniform(0, 0.01)):
                kind = dice.randrange(3)
                if kind == 0:
                    payload = struct.pack("=32s32sBBBx", b"ops", b"p1", 3, 2, dice.randrange(1, 4))
                    packet = struct.pack("=II", 3, 89) + struct.pack("=IH18x", 24 + len(payload), 349) + payload
                else:
                    packet = struct.pack("=II", 3, 1) + struct.pack("=IHHBB14x", 24, (97, 108)[kind - 1], 3, 1, 1)
                bus.send(packet)
                self.messages += 1

    # ---- work: each is one question, and what it means when it is answered with success ----
    def _ask(self, keys, question, success):
        """keys: what is in doubt until the answer is there."""
        self.model.unknown |= keys
        try:
            done = question()
        except (OSError, EOFError, json.JSONDecodeError) as died:
            self.open += 1
            raise Died() from died
        self.model.unknown -= keys
        if done:
            self.answered += 1
            success(self.model.kept)
        else:
            self.refused += 1

    def _frame(self):
        name, node = f"k{self.dice.randrange(6)}", self.dice.randrange(1, 7)
        key = ("list", name)
        of_list, create = self.dice.random() < 0.3, self.dice.random() < 0.75
        words = {"key": list_key(name.encode()) if of_list else node_key(name.encode(), node), "field": 1,
                 "number": CREATED if create else DESTROY}

        def success(kept):
            if of_list and create:
                kept.setdefault(key, {})
            elif of_list:
                kept.pop(key, None)
            elif create:
                kept[key] = {**kept[key], node: kept[key].get(node, 0)}
            elif key in kept:
                kept[key] = {each: hops for each, hops in kept[key].items() if each != node}

        self._ask({key}, lambda: self.client.call(LIST_SET if of_list else NODE_SET, **words)[0] == 0, success)

    def _manage(self):
        kind, number = self.dice.randrange(6), self.dice.randrange(4)
        acl, rule = 1601 + number, self.dice.randrange(1, 4)
        text = f"permit udp from any to any port {self.dice.randrange(1, 60000)}"
        target = f"192.0.2.{self.dice.randrange(1, 200)}"
        start = f"{self.dice.randrange(24):02d}:30"
        key, request, success = (
            (("acl", acl), {"op": "acl.set", "acl": acl, "rule": rule, "text": text},
             lambda kept: kept.__setitem__(("acl", acl), {**kept.get(("acl", acl), {}), rule: text})),
            (("acl", acl), {"op": "acl.destroy", "acl": acl}, lambda kept: kept.pop(("acl", acl), None)),
            (("probe", f"p{number}"), {"op": "probe.set", "admin": "ops", "test": f"p{number}", "kind": "icmp", "target": target},
             lambda kept: kept.__setitem__(("probe", f"p{number}"), target)),
            (("probe", f"p{number}"), {"op": "probe.del", "admin": "ops", "test": f"p{number}"},
             lambda kept: kept.pop(("probe", f"p{number}"), None)),
            (("range", number + 1), {"op": "timerange.define", "id": number + 1, "from": start, "to": "24:00"},
             lambda kept: kept.__setitem__(("range", number + 1), start)),
            (("range", number + 1), {"op": "timerange.remove", "id": number + 1},
             lambda kept: kept.pop(("range", number + 1), None)))[kind]

        def question():
            self.mgmt.sendall(json.dumps(request).encode() + b"\n")
            line = self.lines.readline()
            if not line.endswith("\n"):
                raise EOFError
            return json.loads(line)["ok"]

        self._ask({key}, question, success)

    def _ctl(self, *words):
        done = self.daemon.ctl(*words, check=False)
        if done.returncode != 0 and (self.daemon.process.poll() is not None or self.death.is_set()):
            raise EOFError  # its words cannot be told from a refusal's
        return done.returncode == 0

    def _single(self):
        name, node = f"k{self.dice.randrange(6)}", self.dice.randrange(1, 7)
        kind = self.dice.randrange(4)
        if kind == 0:
            self._ask({("bound", "lan1")}, lambda: self._ctl("bind", "lan1", "spare"),
                      lambda kept: kept.__setitem__(("bound", "lan1"), "spare"))
        elif kind == 1:
            self._ask({("bound", "lan1")}, lambda: self._ctl("unbind", "lan1"), lambda kept: kept.pop(("bound", "lan1"), None))
        elif kind == 2:
            self._ask({("list", name)}, lambda: self._ctl("node", "clear", name, node),
                      lambda kept: kept[("list", name)].__setitem__(node, 0))
        else:
            self._ask({("list", name)}, lambda: self._ctl("next-hop", "add", name, node, f"198.51.100.{self.dice.randrange(1, 200)}"),
                      lambda kept: kept[("list", name)].__setitem__(node, kept[("list", name)][node] + 1))

    def _apply(self):
        name = self.dice.choice("ab")

        def success(kept):
            kept.clear()
            kept.update(applied(name))

        def question():
            done = self.daemon.apply(FILES[name], check=False)
            if done.returncode != 0:
                if self.daemon.process.poll() is None and not self.death.is_set():
                    self.faults.append(f"apply was refused: {done.stderr}")
                raise EOFError
            return True

        self._ask({None}, question, success)

    def _work(self):
        self.client = netlab.Command(self.daemon.root)
        self.mgmt = socket.socket(socket.AF_UNIX)
        self.mgmt.settimeout(10)
        self.mgmt.connect(self.daemon.root + "/tmp/policyroutemgmt.socket")
        self.lines = self.mgmt.makefile()
        try:
            while True:
                self.dice.choices((self._frame, self._manage, self._single, self._apply), (70, 50, 4, 2))[0]()
        finally:
            self.client.close()
            self.lines.close()
            self.mgmt.close()

    # ---- one life ----
    def seen(self):
        """The daemon's state in the shape of the model."""
        def manage(op):
            with socket.socket(socket.AF_UNIX) as mgmt:
                mgmt.settimeout(10)
                mgmt.connect(self.daemon.root + "/tmp/policyroutemgmt.socket")
                mgmt.sendall(json.dumps({"op": op}).encode() + b"\n")
                return json.loads(mgmt.makefile().readline())

        state = {("list", row["list"]): {node["node"]: len(node["nextHops"]) for node in row["nodes"]}
                 for row in self.daemon.json("show", "lists")}
        state |= {("bound", row["interface"]): row["list"] for row in self.daemon.json("show", "bindings")}
        state |= {("acl", row["acl"]): {rule["rule"]: rule["text"] for rule in row["rules"]} for row in manage("acl.show")["acls"]}
        state |= {("probe", row["test"]): row["config"]["target"] for row in manage("probes")["probes"] if "config" in row}
        state |= {("range", row["id"]): row["schedule"]["from"] for row in manage("timeranges")["timeRanges"] if row["schedule"]}
        return state

    def _start(self):
        begin = time.monotonic()
        self.daemon.start()
        self.starts.append(time.monotonic() - begin)

    def check(self):
        """The kernel is as desired: at once, or when what an earlier run left has been taken over."""
        self.checks += 1
        answer = None

        def question():
            nonlocal answer
            if self.daemon.json("show", "device").get("state") != "live":
                answer = "the device is not live"
                return False
            done = self.daemon.ctl("check", check=False)
            answer = done.stdout + done.stderr
            return done.returncode == 0

        if not self.daemon.until(question, 20):
            self.faults.append("check: " + str(answer))

    def blow(self, progress=lambda count: None):
        flapping = threading.Thread(target=self._flap)
        self._start()
        flapping.start()
        try:
            for count in range(self.kills):
                self._life()
                self._start()
                self.faults += [f"after kill {count + 1}: {fault}" for fault in self.model.learn(self.seen())]
                foreign = self._foreign()
                self.faults += [f"after kill {count + 1}: not ours, {what}: was {self.foreign[what]}, is {foreign[what]}"
                                for what in foreign if foreign[what] != self.foreign[what]]
                if self.dice.random() < 0.25 or count + 1 == self.kills:
                    self.check()
                progress(count + 1)
        finally:
            self.stopping.set()
            flapping.join()

    def _life(self):
        self.death = threading.Event()
        publishing = threading.Thread(target=self._publish, args=(self.death, self.dice.random()))
        publishing.start()

        def kill():
            self.death.set()
            self.daemon.process.kill()

        death = threading.Timer(self.dice.uniform(0.0, 0.25), kill)
        death.start()
        with contextlib.suppress(Died, OSError):
            self._work()
        death.join()
        publishing.join()
        self.daemon.process.wait(10)
        while self.dice.random() < 0.1:  # and dies again before it serves
            self.at_start += 1
            with contextlib.suppress(netlab.Refused):
                again = threading.Timer(self.dice.uniform(0.0, 0.04), lambda: self.daemon.process.kill())
                again.start()
                self.daemon.start()
            again.join()
            self.daemon.kill()  # also one that was not there yet

    def head(self):
        starts = sorted(self.starts)
        return {"kills during work": self.kills, "kills during a start": self.at_start,
                "changes answered with success": self.answered, "refused": self.refused, "open at a kill": self.open,
                "messages on the route bus": self.messages, "changes of a cable": self.flaps,
                "kernel compared (pbrctl check)": self.checks,
                "start until it serves: median, 99 of 100, most":
                    ", ".join(f"{starts[int(len(starts) * share / 1000)] * 1000:.0f} ms" for share in (500, 990, 999.999)),
                "starts of more than 1 s": f"{sum(start > 1 for start in starts)} of {len(starts)}"}

    def close(self):
        self.daemon.close()
        self.lab.close()
