"""From the operator to the kernel: a policy file, the same over the open sockets, one change of one rule, a restart that takes
over what is there; beside a loop that does nothing but the same writes into the kernel.
"""
import json
import os
import socket
import struct
import subprocess
import time
from dataclasses import dataclass

from kit import failover, frr, policies, stats, watch
from kit.lab import Broken, Router, netlab, program

LIST_SET, NODE_SET, INTERFACE_SET, HOP_SET, CREATE, ACTIVATE = 10, 13, 16, 19, 2, 1
KINDS = {
    "file": "policy file, `pbrctl apply`",
    "again": "the same file again: nothing to do",
    "changed": "the file with another next hop in one node",
    "socket": "over the open sockets, requests sent ahead",
    "bare": "only the kernel's writes",
    "single": "one ACL rule changed over the open socket",
    "restart": "killed and started again, until it serves",
    "adopted": "killed and started again, until all is taken over",
}


@dataclass
class Plan:
    """(nodes, sets, rounds) in turn; sets as of failover.Plan."""
    points: list
    singles: int = 30
    longest_install: float = 120.0


def full():
    return Plan([(count, "shared", 3) for count in (1, 1000, 5000, 10000)] + [(1000, "different", 3), (10000, "different", 3)])


def quick():
    return Plan([(1, "shared", 2), (1000, "shared", 2), (5000, "shared", 1), (1000, "different", 1)],
                singles=15, longest_install=40.0)


def smoke():
    return Plan([(10, "shared", 1)], singles=3)


class Lines:
    """The management socket, open."""

    def __init__(self, root):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(120)
        self.socket.connect(root + "/tmp/policyroutemgmt.socket")
        self.file = self.socket.makefile("r")

    def ask(self, **words):
        self.socket.sendall(json.dumps(words).encode() + b"\n")
        answer = json.loads(self.file.readline())
        if not answer.get("ok"):
            raise Broken(f"{words['op']}: {answer.get('error')}")
        return answer

    def close(self):
        self.file.close()
        self.socket.close()


def frames(count, sets, unit):
    """The whole policy as requests of the command socket, without its ACLs. Result: bytes, and how many requests."""
    frame, name, out = netlab.Command.frame, b"wan", []

    def number(command, key, field, value):
        out.append(frame(command, key=key, field=field, number=value))

    number(LIST_SET, netlab.list_key(name), 1, CREATE)
    used = 0
    for node in range(1, count + 1):
        key = netlab.node_key(name, node)
        number(NODE_SET, key, 1, CREATE)
        if policies.has_next_hops(node, count):
            used += 1
            number(NODE_SET, key, 4, 1000 + used)
            number(NODE_SET, key, 10, 1)
            for hop, address in enumerate(failover.next_hops(node, count, sets), 1):
                number(HOP_SET, netlab.node_key(name, node, hop), 1, CREATE)
                packed = socket.inet_aton(address)
                out.append(frame(HOP_SET, key=netlab.node_key(name, node, hop), field=2, number=len(packed), data=packed))
                number(HOP_SET, netlab.node_key(name, node, hop), 1, ACTIVATE)
        else:
            number(NODE_SET, key, 4, 5000 + node)
            number(NODE_SET, key, 6, unit("upc"))
        number(NODE_SET, key, 1, ACTIVATE)
    number(LIST_SET, netlab.list_key(name), 1, ACTIVATE)
    interface = struct.pack(netlab.ORDER + "I", unit("lan0"))
    number(INTERFACE_SET, interface, 1, 1)
    out.append(frame(INTERFACE_SET, key=interface, field=2, number=len(name), data=name))
    return b"".join(out), len(out)


def acls(count):
    """The policy's ACLs as acl.replaceAll takes them."""
    found, used = {}, 0
    for node in range(1, count + 1):
        used += policies.has_next_hops(node, count)
        acl = 1000 + used if policies.has_next_hops(node, count) else 5000 + node
        found[str(acl)] = {"10": policies.words(policies.rule("single", 4, node))}
    return found


class Apply:
    def __init__(self, carried, plan, say):
        self.carried, self.plan, self.say, self.results = carried, plan, say, []
        self.bare = Router("bare")

    def close(self):
        self.bare.close()

    def run(self):
        """Result: list of {"kind", "carrier", "nodes", "sets", and lists by round: "seconds" until it is answered, "written"
        until the last change in the kernel (None: not seen), "cpu" of daemon and tool} or "skipped": why."""
        for carrier in self.carried:
            failover.Failover.prepare(carrier.router)
            steps = {"file": self._frr} if isinstance(carrier, frr.Frr) else {"file": self._files, "socket": self._by_sockets}
            if carrier.name == "kernel":
                steps["bare"] = self._bare
            gone = {}
            for count, sets, rounds in self.plan.points:
                for kind, measure in steps.items():
                    why = gone.get((kind, sets))
                    try:
                        if not why:
                            measure(carrier, count, sets, rounds)
                    except (Broken, subprocess.SubprocessError, netlab.Refused, OSError) as error:
                        why = gone[kind, sets] = str(error)  # more nodes will not do either
                        carrier.remove()
                    if why:
                        self.say(f"  {carrier.title}: {count:,} nodes, {sets}, {kind}: {why}")
                        self.results.append(dict(kind=kind, carrier=carrier.name, nodes=count, sets=sets, skipped=why))
        return self.results

    def _note(self, carrier, count, sets, kind, seconds, written=None, **more):
        """Adds a round to its result."""
        head = dict(kind=kind, carrier=carrier.name, nodes=count, sets=sets)
        for each in self.results:
            if all(each.get(key) == value for key, value in head.items()) and "seconds" in each:
                break
        else:
            each = dict(head, seconds=[], written=[], **{key: [] for key in more})
            self.results.append(each)
        for key, value in dict(more, seconds=seconds, written=written).items():
            each[key].append(value)
        self.say(f"  {carrier.name} {count:,} {sets} {kind}: {stats.duration(seconds)}, kernel " +
                 ("-" if written is None else stats.duration(written)))

    def _watched(self, carrier, action, quiet=0.25):
        """Result: (what action() returned, seconds until it did, seconds until the kernel's last change or None)."""
        seen = watch.Watch(carrier.router.name, "upa")
        try:
            begin = time.monotonic()
            result = action()
            took = time.monotonic() - begin
            time.sleep(0.05)
            seen.quiet(quiet, 60)
        finally:
            seen.stop()
        last = seen.last_change(begin)
        return result, took, None if last is None else last - begin

    # ---- policyroute ----
    def _files(self, carrier, count, sets, rounds):
        text = failover.policy(count, sets)
        other = failover.policy(count, sets, turned=count)
        for _ in range(rounds):
            carrier.start(count)
            cpu = carrier.cpu()
            _, took, written = self._watched(carrier, lambda: carrier.apply(text, self.plan.longest_install))
            carrier.settle(count)
            self._note(carrier, count, sets, "file", took, written, cpu=carrier.cpu() - cpu)
            self._note(carrier, count, sets, "again", carrier.apply(text, self.plan.longest_install))
            _, took, written = self._watched(carrier, lambda: carrier.apply(other, self.plan.longest_install))
            self._note(carrier, count, sets, "changed", took, written)
            carrier.settle(count)
            self._single(carrier, count, sets)
            self._restart(carrier, count, sets)
            carrier.remove()

    def _single(self, carrier, count, sets):
        """The last node's rule, to and fro."""
        lines = Lines(carrier.daemon.root)
        acl = 1000 + min(count, policies.WITH_NEXT_HOPS)
        rules = [policies.words({**policies.ANY, "src": f"10.0.0.{host}/32"}) for host in (20, 10)]
        try:
            for number in range(self.plan.singles):
                _, took, written = self._watched(
                    carrier, lambda n=number: lines.ask(op="acl.set", acl=acl, rule=10, text=rules[n % 2]), quiet=0.05)
                self._note_quietly(carrier, count, sets, took, written)
        finally:
            lines.close()

    def _note_quietly(self, carrier, count, sets, took, written):
        say, self.say = self.say, lambda _text: None
        try:
            self._note(carrier, count, sets, "single", took, written)
        finally:
            self.say = say

    def _restart(self, carrier, count, sets):
        carrier.daemon.kill()
        seen = watch.Watch(carrier.router.name, "upa")
        try:
            begin = time.monotonic()
            carrier.daemon.start(wait=self.plan.longest_install)
            served = time.monotonic() - begin
            carrier.settle(count, self.plan.longest_install)
            adopted = time.monotonic() - begin
            time.sleep(0.3)
        finally:
            seen.stop()
        self._note(carrier, count, sets, "restart", served)
        self._note(carrier, count, sets, "adopted", adopted, messages=len(seen.changes))

    def _by_sockets(self, carrier, count, sets, rounds):
        for _ in range(rounds):
            self._by_sockets_once(carrier, count, sets)

    def _by_sockets_once(self, carrier, count, sets):
        carrier.start(count)
        with netlab.inside(carrier.router.name):
            units = {name: index for index, name in socket.if_nameindex()}
        data, requests = frames(count, sets, units.__getitem__)
        rules = acls(count)
        lines, command = Lines(carrier.daemon.root), netlab.Command(carrier.daemon.root)
        command.socket.settimeout(self.plan.longest_install)
        try:
            _, took, written = self._watched(carrier, lambda: self._push(lines, command, rules, data, requests))
        finally:
            lines.close()
            command.close()
        carrier.settle(count)
        self._note(carrier, count, sets, "socket", took, written)
        carrier.remove()

    @staticmethod
    def _push(lines, command, rules, data, requests):
        lines.ask(op="acl.replaceAll", acls=rules)
        lines.ask(op="device.hold", lists=["wan"])
        piece, answered, buffer = 16384, 0, b""
        for at in range(0, len(data), piece):  # ahead, but never so far that both sides wait for room
            command.socket.sendall(data[at:at + piece])
            while answered < requests and (at + piece >= len(data) or len(buffer) > 65536):
                buffer += command.socket.recv(1 << 20)
                answered, buffer = _count(answered, buffer)
            command.socket.setblocking(False)
            try:
                buffer += command.socket.recv(1 << 20)
            except BlockingIOError:
                pass
            finally:
                command.socket.setblocking(True)
            answered, buffer = _count(answered, buffer)
        errors = lines.ask(op="device.release")["errors"]
        if errors:
            raise Broken(f"{len(errors)} entries are refused: {errors[0]}")

    def _bare(self, carrier, count, sets, rounds):
        """What the daemon writes, kept once and written again by a loop."""
        text = failover.policy(count, sets)
        path = os.path.join(self.bare_folder(), "netlink")
        if os.path.exists(path):
            os.unlink(path)
        os.environ.update(LD_PRELOAD=program("bench/libnetlink_record.so"), NETLINK_RECORD=path)
        try:
            carrier.start(count, ["host.journal=off", "host.seccomp=off"])
        finally:
            del os.environ["LD_PRELOAD"], os.environ["NETLINK_RECORD"]
        carrier.apply(text, self.plan.longest_install)
        carrier.settle(count)
        with open(path, "rb") as file:
            kept = file.read()
        carrier.remove()
        with open(path, "wb") as file:
            file.write(kept)  # without what the end of it wrote
        failover.Failover.prepare(self.bare)
        for _ in range(rounds + 1):
            done = netlab.run([program("bench/netlink_replay"), path], self.bare.name)
            told = json.loads(done.stdout)
            self._clear()
            if told["refused"]:
                raise Broken(f"the kernel refuses {told['refused']} of the writes when they are made again")
            self._note(carrier, count, sets, "bare", told["seconds"], told["seconds"], datagrams=told["datagrams"], bytes=told["bytes"])

    @staticmethod
    def bare_folder():
        folder = "/run/bench"  # a file system of this process's own
        os.makedirs(folder, exist_ok=True)
        return folder

    def _clear(self):
        netlab.run("nft flush ruleset", self.bare.name)
        for family in (4, 6):
            netlab.run(f"ip -{family} rule flush proto 206", self.bare.name, check=False)
            netlab.run(f"ip -{family} route flush table all proto 206", self.bare.name, check=False)
        netlab.run("ip nexthop flush proto 206", self.bare.name, check=False)

    # ---- FRR ----
    def _frr(self, carrier, count, sets, rounds):
        if sets != "shared":
            raise Broken("next hops are no order of preference")
        for _ in range(rounds):
            for kind, by_shell in (("file", True), ("socket", False)):
                carrier.prepare(count)
                _, took, written = self._watched(
                    carrier, lambda s=by_shell: carrier.configure(4, count, by_shell=s, seconds=self.plan.longest_install))
                self._note(carrier, count, sets, kind, took, written)
                if not by_shell:
                    for number in range(self.plan.singles):
                        _, took, written = self._watched(carrier, lambda n=number: carrier.change(n), quiet=0.1)
                        self._note_quietly(carrier, count, sets, took, written)
                carrier.remove()


def _count(answered, buffer):
    """Takes whole answers off the buffer; each must be a success."""
    at = 0
    while at + 24 <= len(buffer):
        length, _, _, command, request, code = struct.unpack_from("!IBBHII", buffer, at)
        if code != 0:
            raise Broken(f"command {command}, request {request}, the {answered + 1}th: result 0x{code:08X}")
        at += 4 + length
        answered += 1
    return answered, buffer[at:]
