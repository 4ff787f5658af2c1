"""Many clients with mixed commands beside an event storm and clients that misbehave. Used by bench/soak.py and by the
system test.

64 clients, each with objects of its own, so that each answer is known beforehand: 32 at the command socket, 32 at the
management socket. Beside them: states of probes on the route bus as fast as a subscriber takes them, a cable that comes
and goes, a list that is bound and unbound; silent clients, clients with half a frame, clients that send a byte now and then,
clients that ask and do not read, and a subscriber of the bus that does not read.
"""
import contextlib
import json
import multiprocessing
import os
import random
import socket
import struct
import threading
import time

import netlab
from netlab import list_key, node_key, run

LIST_GET, LIST_SET, NODE_GET, NODE_SET, SCALAR_GET = 9, 10, 12, 13, 21
CLIENTS, PROCESSES = 64, 4
OPTIONS = ("host.neighbour-probe-ms=400", "policyroute.maxlistnum=256", "policyroute.maxnodenum=1024")
POLICY = """
acls:
  1001: {10: permit udp from any to any port 443}
  1002: {10: permit ip from any to any}
probes:
  ops/far: {icmp: 198.51.100.1, interval: 200ms, timeout: 100ms}
lists:
  wan:
    10: {acl: 1001, next-hops: [{address: 198.51.100.1, probe: ops/far}, 100.64.0.1]}
    20: {acl: 1002, next-hops: [100.64.0.1, 203.0.113.1]}
bindings: {lan0: wan}
"""


class Commander:
    """A client of the command socket, with a list of its own."""

    def __init__(self, root, number, dice):
        self.client, self.dice, self.name = netlab.Command(root), dice, f"soak{number}".encode()
        self.nodes, self.exists = {}, False  # node -> its match value

    def ask(self):
        """One question; result: "" or how the answer was wrong."""
        node, kind = self.dice.randrange(1, 8), self.dice.randrange(8)
        key = node_key(self.name, node)
        if kind == 0:
            code, expected = self.client.call(LIST_SET, key=list_key(self.name), field=1, number=2)[0], 0
            self.exists = True
        elif kind == 1 and self.dice.random() < 0.2:
            code, expected = self.client.call(LIST_SET, key=list_key(self.name), field=1, number=4)[0], 0
            self.exists, self.nodes = False, {}
        elif kind == 2 and self.exists:
            code, expected = self.client.call(NODE_SET, key=key, field=1, number=2)[0], 0
            self.nodes.setdefault(node, 0)
        elif kind == 3 and node in self.nodes:
            value = self.dice.randrange(65536)
            code, expected = self.client.call(NODE_SET, key=key, field=2, number=value)[0], 0
            self.nodes[node] = value
        elif kind == 4 and node in self.nodes:
            code, expected = self.client.call(NODE_SET, key=key, field=1, number=4)[0], 0
            del self.nodes[node]
        elif kind == 5:
            answer = self.client.call(SCALAR_GET, field=1)
            code, expected = answer[:2], (0, 256)
        else:
            answer = self.client.call(NODE_GET, key=key, field=2)
            if node in self.nodes:
                code, expected = answer[:2], (0, self.nodes[node])
            else:
                code, expected = answer[0] != 0, True
        return "" if code == expected else f"{self.name} node {node} kind {kind}: {code} instead of {expected}"

    def close(self):
        self.client.close()


class Manager:
    """A client of the management socket, with an ACL and a time range of its own."""

    def __init__(self, root, number, dice):
        self.dice, self.acl, self.rules = dice, 1100 + number, {}
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(20)
        self.socket.connect(root + "/tmp/policyroutemgmt.socket")
        self.lines = self.socket.makefile()

    def manage(self, **request):
        self.socket.sendall(json.dumps(request).encode() + b"\n")
        return json.loads(self.lines.readline())

    def ask(self):
        kind, rule = self.dice.randrange(6), self.dice.randrange(1, 6)
        if kind == 0:
            text = f"permit udp from any to any port {self.dice.randrange(1, 60000)}"
            answer = self.manage(op="acl.set", acl=self.acl, rule=rule, text=text)
            self.rules[rule] = text
            return "" if answer["ok"] and answer["text"] == text else f"acl.set: {answer}"
        if kind == 1 and self.dice.random() < 0.2:
            answer = self.manage(op="acl.destroy", acl=self.acl)
            right, self.rules = answer["ok"] == bool(self.rules) or answer["ok"], {}
            return "" if right else f"acl.destroy: {answer}"
        if kind == 2:
            answer = self.manage(op="timerange.define", id=self.acl, **{"from": "08:00", "to": "18:00"})
            return "" if answer["ok"] else f"timerange.define: {answer}"
        if kind == 3:
            answer = self.manage(op="no such operation")
            return "" if not answer["ok"] and "unknown operation" in answer["error"] else f"unknown: {answer}"
        answer = self.manage(op="acl.show")
        mine = [row for row in answer["acls"] if row["acl"] == self.acl]
        seen = {row["rule"]: row["text"] for row in mine[0]["rules"]} if mine else {}
        return "" if seen == self.rules else f"acl.show: {seen} instead of {self.rules}"

    def close(self):
        self.lines.close()
        self.socket.close()


def clients_run(root, numbers, seed, seconds, pipe):
    """A process with some of the clients, a thread each. Sends (questions, wrong answers, longest wait)."""
    questions, wrong, waits = [0] * len(numbers), [], [0.0] * len(numbers)
    end = time.monotonic() + seconds

    def one(at, number):
        dice = random.Random(seed * 1000 + number)
        client = (Commander if number % 2 == 0 else Manager)(root, number, dice)
        try:
            while time.monotonic() < end:
                begin = time.monotonic()
                fault = client.ask()
                waits[at] = max(waits[at], time.monotonic() - begin)
                questions[at] += 1
                if fault:
                    wrong.append(fault)
                time.sleep(dice.uniform(0, 0.01))
        except Exception as error:  # no answer, or none that can be read
            wrong.append(f"client {number}: {error!r}")
        client.close()

    threads = [threading.Thread(target=one, args=each) for each in enumerate(numbers)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    pipe.send((questions, wrong[:20], max(waits)))


class Subscriber(threading.Thread):
    """Reads the group of probe states and looks that the numbered ones come whole and in order."""

    def __init__(self, root):
        super().__init__(daemon=True)
        self.bus = bus_of(root)
        self.bus.settimeout(0.2)
        self.bus.send(struct.pack("=II", 1, 89))
        self.next, self.faults, self.stopping = 0, [], False

    def run(self):
        while not self.stopping:
            with contextlib.suppress(TimeoutError):
                packet = self.bus.recv(8192)
                if not packet:
                    self.faults.append("the subscriber was hung up on")
                    return
                if struct.unpack_from("=II", packet)[0] != 3 or b"soak" not in packet:
                    continue
                number = int(packet[packet.index(b"soak-") + 5:][:10])
                if number != self.next:
                    self.faults.append(f"message {number} instead of {self.next}")
                self.next = number + 1


def bus_of(root):
    bus = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    bus.settimeout(10)
    bus.connect(root + "/tmp/policyroutebus.socket")
    return bus


class Soak:
    def __init__(self, seconds, seed):
        self.seconds, self.seed, self.dice = seconds, seed, random.Random(seed)
        self.lab = netlab.Lab()
        self.daemon = netlab.Daemon(options=OPTIONS).start()
        self.daemon.apply(POLICY)
        self.stopping, self.faults, self.samples = threading.Event(), [], []
        self.published = self.flaps = self.binds = self.hung_up = 0
        self.questions = self.longest = 0

    # ---- the storm ----
    def _flap(self):
        while not self.stopping.wait(self.dice.uniform(0.05, 0.3)):
            run("ip link set eth0 " + ("down" if self.flaps % 2 == 0 else "up"), "ispc", check=False)
            self.flaps += 1

    def _bind(self):
        while not self.stopping.wait(self.dice.uniform(0.1, 0.5)):
            done = self.daemon.ctl(*(("bind", "lan1", "wan") if self.binds % 2 == 0 else ("unbind", "lan1")), check=False)
            if done.returncode != 0:
                self.faults.append("bind: " + done.stderr)
            self.binds += 1

    def _publish(self):
        with bus_of(self.daemon.root) as bus:
            while not self.stopping.is_set():
                if self.published > self.subscriber.next + 500:  # as fast as it is taken
                    time.sleep(0.002)
                    continue
                test = b"soak-%010d" % self.published
                payload = struct.pack("=32s32sBBBx", b"ops", test, 3, len(test), 1 + self.published % 3)
                bus.send(struct.pack("=II", 3, 89) + struct.pack("=IH18x", 24 + len(payload), 349) + payload)
                self.published += 1
                time.sleep(0.001)

    def _misbehave(self):
        """Result: the sockets, kept until the end."""
        root, frame = self.daemon.root, netlab.Command.frame(SCALAR_GET, field=5, kind=2, number=60000)
        kept = []
        for number in range(10):
            for name in ("policyroutecmd.socket", "policyroutemgmt.socket"):
                for data in (b"", frame[:7] if "cmd" in name else b'{"op": "vers'):
                    client = socket.socket(socket.AF_UNIX)
                    client.connect(f"{root}/tmp/{name}")
                    client.sendall(data)
                    kept.append(client)
        for number in range(4):  # asks and does not read
            for name, data in (("policyroutecmd.socket", netlab.Command.frame(9, key=list_key(b"wan"), field=3, kind=2,
                                                                              number=65000) * 500),
                               ("policyroutemgmt.socket", b'{"op": "acl.show"}\n' * 5000)):
                client = socket.socket(socket.AF_UNIX)
                client.connect(f"{root}/tmp/{name}")
                client.setblocking(False)
                with contextlib.suppress(BlockingIOError):
                    while True:
                        client.send(data)
                kept.append(client)
        deaf = bus_of(root)
        for group in (1, 77, 89):
            deaf.send(struct.pack("=II", 1, group))
        kept.append(deaf)
        return kept

    def _drip(self):
        """A byte of a frame now and then; the whole frame must be answered."""
        frame = netlab.Command.frame(SCALAR_GET, field=1)
        while not self.stopping.is_set():
            client = netlab.Command(self.daemon.root)
            try:
                for at in range(len(frame)):
                    client.socket.sendall(frame[at:at + 1])
                    if self.stopping.wait(0.05):
                        return
                if client.answer()[:2] != (0, 256):
                    self.faults.append("a frame that came byte by byte was answered wrongly")
            finally:
                client.close()

    # ---- what is measured ----
    def _sample(self):
        """(descriptors, resident kilobytes) of the daemon."""
        pid = self.daemon.process.pid
        with open(f"/proc/{pid}/status") as file:
            resident = next(int(line.split()[1]) for line in file if line.startswith("VmRSS"))
        return len(os.listdir(f"/proc/{pid}/fd")), resident

    def blow(self):
        before = self._sample()[0]
        self.subscriber = Subscriber(self.daemon.root)
        self.subscriber.start()
        kept = self._misbehave()
        storm = [threading.Thread(target=each) for each in (self._flap, self._bind, self._publish, self._drip)]
        pipes, processes = [], []
        for number in range(PROCESSES):
            mine, theirs = multiprocessing.Pipe()
            share = CLIENTS // PROCESSES
            numbers = range(number * share, (number + 1) * share)
            process = multiprocessing.get_context("fork").Process(
                target=clients_run, args=(self.daemon.root, numbers, self.seed, self.seconds, theirs))
            process.start()
            pipes.append(mine)
            processes.append(process)
        for thread in storm:
            thread.start()
        end = time.monotonic() + self.seconds
        while time.monotonic() < end:
            time.sleep(max(0.0, min(self.seconds / 40, end - time.monotonic())))
            self.samples.append(self._sample())
        for pipe, process in zip(pipes, processes):
            if not pipe.poll(60):
                self.faults.append("clients did not come to an end")
                process.kill()
            else:
                questions, wrong, longest = pipe.recv()
                self.questions += sum(questions)
                self.faults += wrong
                self.longest = max(self.longest, longest)
                for same in (questions[0::2], questions[1::2]):  # of one socket: the two have different work to do
                    if min(same) * 20 < max(same):
                        self.faults.append(f"some clients got far less: {questions}")
            process.join()
        self.stopping.set()
        for thread in storm:
            thread.join()
        if not self.daemon.until(lambda: self.subscriber.next == self.published, 20):
            self.faults.append(f"{self.published} messages published, {self.subscriber.next} received")
        self.subscriber.stopping = True
        self.subscriber.join()
        self.subscriber.bus.close()
        self.faults += self.subscriber.faults[:5]
        for client in kept:
            client.close()
        run("ip link set eth0 up", "ispc")
        self._end(before)

    def _end(self, before):
        if self.daemon.process.poll() is not None:
            self.faults.append("the daemon died: " + "".join(self.daemon.errors[-10:]))
            return
        if not self.daemon.until(lambda: self._sample()[0] <= before, 10):  # the client before ours may still end
            self.faults.append(f"descriptors: {before} before, {self._sample()[0]} after")
        if "SOAK_SAMPLES" in os.environ:
            print(self.samples)
        self.growth = self._resident(-1) - self._resident(1)
        if not self.daemon.until(lambda: self.daemon.ctl("check", check=False).returncode == 0, 20):
            self.faults.append("check: " + self.daemon.ctl("check", check=False).stdout)
        self.descriptors = (before, self._sample()[0])

    def _resident(self, quarter):
        """The mean of the second quarter (1) or the last (-1)."""
        size = max(1, len(self.samples) // 4)
        part = self.samples[size:2 * size] if quarter == 1 else self.samples[-size:]
        return sum(each[1] for each in part) // len(part)

    def head(self):
        return {"seconds": self.seconds, "clients, and beside them clients that misbehave": f"{CLIENTS}, 50",
                "questions answered": self.questions, "longest wait for an answer": f"{self.longest * 1000:.0f} ms",
                "messages on the route bus": self.published, "changes of a cable": self.flaps,
                "bound and unbound": self.binds,
                "resident memory, second quarter of the time and last": f"{self._resident(1)} KB, {self._resident(-1)} KB",
                "descriptors before and after": f"{self.descriptors[0]}, {self.descriptors[1]}"}

    def close(self):
        self.daemon.close()
        self.lab.close()
