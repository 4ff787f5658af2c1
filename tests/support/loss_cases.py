"""What may happen to a running policy, each case with a stream of numbered packets in both families over it:
what is lost, how long the longest gap is, and what went another way. Used by bench/losses.py, which prints all
of them, and by the system test that holds those to their word in which nothing may be lost.

The policy: port 443 takes upa, upc when upa is not usable; the routing table's way is upb. Port 505 is another
node, so that there is something to change elsewhere.
"""
import signal
import time

import netlab
from netlab import UPLINKS

FAST = ("host.neighbour-probe-ms=400", "host.adopt-wait-ms=60000")
ACLS = """acls:
  1501: {10: permit udp from 10.0.0.0/8 to any port 443}
  1502: {10: permit udp from 10.0.0.0/8 to any port 505}
  3501: {10: "permit udp from 2001:db8::/32 to any port 443"}
  3502: {10: "permit udp from 2001:db8::/32 to any port 505"}
"""
RANGE, PROBES = "time-ranges:\n  7: {days: daily}\n", """probes:
  ops/a4: {icmp: 192.0.2.10, via: next-hop, interval: 100ms, timeout: 80ms, down-after: 3}
  ops/a6: {icmp: "2001:db8:ffff::10", via: next-hop, interval: 100ms, timeout: 80ms, down-after: 3}
"""


def policy(ways=("upa", "upc"), elsewhere="upa", probe=False, time_range=False):
    def hops(uplinks, family):
        words = ['{address: "%s"%s}' % (UPLINKS[up][1 if family == 4 else 3],
                                        f", probe: ops/a{family}" if probe and up == "upa" else "") for up in uplinks]
        return "[" + ", ".join(words) + "]"

    active = ", time-range: 7" if time_range else ""
    nodes = "".join(f"    {node}: {{acl: {acl}, next-hops: {hops(uplinks, family)}{active}}}\n" for node, acl, uplinks, family in (
        (10, 1501, ways, 4), (20, 1502, (elsewhere,), 4), (30, 3501, ways, 6), (40, 3502, (elsewhere,), 6)))
    return (ACLS + (PROBES if probe else "") + (RANGE if time_range else "") + f"lists:\n  wan:\n{nodes}" +
            "bindings:\n  lan0: wan\n")


def prepare(lab):
    """The server's answers to probes find the router's addresses at the uplinks."""
    for number, (r4, _, r6, _) in enumerate(UPLINKS.values(), 1):
        netlab.run(f"ip route replace {r4}/32 via 172.16.{number}.1", "srv")
        netlab.run(f"ip -6 route replace {r6}/128 via 2001:db8:f{number}::1", "srv")
    know_neighbours()
    speed(100)


def know_neighbours():
    """Every router of the lab has seen its next one: the first question of a fresh link may go unheard, and what
    waits for the answer to the second would be taken for lost."""
    for number, (up, (_, h4, _, h6)) in enumerate(UPLINKS.items(), 1):
        for ns, address in (("rtr", h4), ("rtr", h6), (netlab.ISP[up], f"172.16.{number}.2"),
                            (netlab.ISP[up], f"2001:db8:f{number}::2")):
            netlab.run(f"ping -c 1 -w 10 -i 0.2 -W 10 {address}", ns)


def speed(retrans_ms):
    for up in UPLINKS:
        for family in ("ipv4", "ipv6"):
            netlab.sysctl("rtr", f"{family}/neigh/{up}/retrans_time_ms", retrans_ms)


class Failed(Exception):
    pass


class Stage:
    """A lab, a running daemon, and the two streams of the case that is on."""

    def __init__(self, lab, daemon):
        self.lab, self.daemon, self.streams = lab, daemon, {}

    def play(self, case):
        """Result: family -> {"sent", "lost", "outage" in seconds, "other": packets that took none of the ways that
        the case names, "uplinks", "lost_numbers"}."""
        try:
            self.daemon.apply(case.policy)
            case.before(self)
            for family in (4, 6):
                if not self.daemon.until(lambda f=family: self.way(f) == case.begins, 20):
                    raise Failed(f"{case.name}: IPv{family} does not begin by {case.begins}")
            self.streams = {family: netlab.Stream(self.lab, family) for family in (4, 6)}
            time.sleep(0.3)
            try:
                case.action(self)
                for family, stream in self.streams.items():
                    if case.ends and not stream.wait_uplink(case.ends, 15)[0]:
                        raise Failed(f"{case.name}: IPv{family} does not end by {case.ends} but by {stream.last_uplink()}")
                time.sleep(0.3)
            finally:
                results = {family: stream.stop() for family, stream in self.streams.items()}
        finally:
            case.after(self)
        for result in results.values():
            result["other"] = sum(count for up, count in result["uplinks"].items() if up not in (case.begins, case.ends))
        return results

    def way(self, family):
        arrivals = netlab.Arrivals(self.lab, family, 443)
        netlab.send(self.lab, family, 443, 5)
        arrivals.wait(5, 0.3)
        arrivals.close()
        ways = arrivals.by_uplink()
        return next(iter(ways)) if len(ways) == 1 and sum(ways.values()) == 5 else None

    def until(self, question, what):
        if not self.daemon.until(question, 15):
            raise Failed("not within 15 s: " + what)

    def router(self, words):
        netlab.run(words, "rtr")

    def restart(self, number):
        self.daemon.kill(number)
        time.sleep(0.2)
        self.daemon.start()
        self.until(lambda: self.daemon.json("show", "device").get("state") == "live", "the device is live")

    def mend_behind(self):
        netlab.run("ip link set core up", "ispa")
        for family, server, via in ((4, netlab.SERVER[4], "172.16.1.2"), (6, netlab.SERVER[6], "2001:db8:f1::2")):
            netlab.run(f"ip -{family} route replace {server} via {via}", "ispa")

    def flush_foreign(self):
        before = self.repairs()
        self.router("nft flush ruleset")
        self.until(lambda: self.repairs() > before, "the table is restored")

    def repairs(self):
        return self.daemon.json("show", "device")["counters"]["driftRepaired"]

    def both(self, *words):
        """A command for node 10 and one for node 30: % in a word is the node, or its ACL, or its network."""
        for node, acl, network in ((10, 1501, "10.0.0.0/8"), (30, 3501, "2001:db8::/32")):
            self.daemon.ctl(*[word.format(node=node, acl=acl, network=network) for word in words])

    def not_confirmed(self):
        self.daemon.apply(policy(("upc", "upa")), "--confirm", "1")
        for stream in self.streams.values():
            stream.wait_uplink("upc", 5)
        self.until(lambda: not self.daemon.json("confirm", "--show")["pending"], "it is undone")

    def off_and_on(self):
        self.daemon.ctl("unbind", "lan0")
        self.both("node", "set", "wan", "{node}", "--priority", "3")
        self.daemon.ctl("bind", "lan0", "wan")

    def time_range_off_and_on(self):
        self.daemon.ctl("time-range", "7", "off")
        for stream in self.streams.values():
            stream.wait_uplink("upb", 5)
        self.daemon.ctl("time-range", "7", "auto")


class Case:
    """name, what decides how much is lost, what is done; how it begins and ends (uplinks), and whether it is
    promised that nothing is lost. ends None: where packets go afterwards is not asked."""

    def __init__(self, name, decides, action, ends="upa", begins="upa", promised=True, text=None, before=None, after=None,
                 slow=False):
        self.name, self.decides, self.action, self.ends, self.begins = name, decides, action, ends, begins
        self.promised, self.policy, self.slow = promised, text or policy(), slow
        self.before, self.after = before or (lambda stage: None), after or (lambda stage: None)


def link_up(stage):
    stage.lab.link("upa", "up")


def unsilence(stage):
    stage.lab.unsilence("upa")


CASES = {
    "nothing": Case("nothing happens", "the sender's and the receiver's own jitter", lambda stage: time.sleep(1)),
    "silent-slow": Case(
        "neighbour falls silent, the kernel's settings", "`host.neighbour-probe-ms` 1000 / 2, then 3 x `retrans_time_ms` 1000",
        lambda stage: stage.lab.silence("upa"), ends="upc", promised=False, after=unsilence, slow=True),
    "silent": Case(
        "neighbour falls silent, fast settings", "`host.neighbour-probe-ms` 400 / 2, then 3 x `retrans_time_ms` 100",
        lambda stage: stage.lab.silence("upa"), ends="upc", promised=False, after=unsilence),
    "answers": Case(
        "neighbour answers again", "the second choice carries until the first answers",
        unsilence, begins="upc", before=lambda stage: stage.lab.silence("upa")),
    "probe": Case(
        "probe fails, the neighbour lives", "`interval` 100 ms x `down-after` 3, `timeout` 80 ms",
        lambda stage: netlab.run("ip link set core down", "ispa"), ends="upc", promised=False, text=policy(probe=True),
        after=Stage.mend_behind),
    "link": Case(
        "link down (carrier lost)", "how soon the kernel tells, and what was on its way",
        lambda stage: stage.lab.link("upa", "down"), ends="upc", promised=False, after=link_up),
    "link-up": Case(
        "link up again", "the second choice carries until the neighbour answers", link_up, begins="upc",
        before=lambda stage: stage.lab.link("upa", "down")),
    "admin-down": Case(
        "uplink set down at the router", "the kernel stops the link some moments before it drops the routes",
        lambda stage: stage.router("ip link set upa down"), ends="upc", promised=False,
        after=lambda stage: stage.router("ip link set upa up")),
    "apply-elsewhere": Case(
        "apply, another node changes", "one transaction of the kernel",
        lambda stage: stage.daemon.apply(policy(elsewhere="upc"))),
    "apply-node": Case(
        "apply, this very node changes", "one transaction of the kernel",
        lambda stage: stage.daemon.apply(policy(("upc", "upa"))), ends="upc"),
    "apply-same": Case(
        "apply of the same file", "nothing is done", lambda stage: stage.daemon.apply(policy())),
    "rule": Case(
        "single command: a rule more in this node's ACL", "one transaction of the kernel",
        lambda stage: stage.both("acl", "add", "{acl}", "20", "permit", "udp", "from", "{network}", "to", "any", "port", "777")),
    "otherwise": Case(
        "single command: `node otherwise drop`", "one transaction; the new way is made before the old one goes",
        lambda stage: stage.both("node", "otherwise", "wan", "{node}", "drop")),
    "bind": Case(
        "single command: the list on one more interface", "one transaction of the kernel",
        lambda stage: stage.daemon.ctl("bind", "lan1", "wan")),
    "off-and-on": Case(
        "single commands: unbind, change the node, bind", "routed as usual between unbind and the next hops' first reports",
        Stage.off_and_on),
    "time-range": Case(
        "time range off and on", "one transaction of the kernel; routed as usual between", Stage.time_range_off_and_on,
        text=policy(time_range=True)),
    "stop": Case(
        "stop and start (SIGTERM)", "the kernel goes on by what is installed", lambda stage: stage.restart(signal.SIGTERM)),
    "crash": Case(
        "crash and start (SIGKILL)", "the kernel goes on by what is installed", lambda stage: stage.restart(signal.SIGKILL)),
    "rollback": Case(
        "`apply --confirm 1` that nobody confirms", "two transactions of the kernel, there and back", Stage.not_confirmed),
    "flush": Case(
        "another program's `nft flush ruleset`", "the routing table's way until it is restored", Stage.flush_foreign),
}
