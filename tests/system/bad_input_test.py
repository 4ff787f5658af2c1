"""What a person sees for bad input: the table of docs/bad-input.md, made from the real programs. Prints the table with the
word `print` (scripts/show-bad-input.sh); else compares it with the page, so that neither goes its own way."""
import json
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import unittest

import system_case
import faults
import netlab

PAGE = os.path.join(netlab.ROOT, "docs", "bad-input.md")
LINES, CHARACTERS = 3, 240  # of a message; what follows is left out


class Scene:
    """A daemon with the memory device and an empty folder for those that do not start."""

    def __init__(self):
        self.daemon = netlab.Daemon(ns=None, device="memory").start()
        self.daemon.apply("acls:\n  1501: {10: permit ip}\nlists:\n  wan:\n    10: {acl: 1501, next-hops: [192.0.2.1]}\n")
        self.client = netlab.Command(self.daemon.root)
        self.root = tempfile.mkdtemp(prefix="pbr-")
        self.faults = faults.Faults()

    def close(self):
        self.client.close()
        self.daemon.close()
        self.faults.close()
        shutil.rmtree(self.root)

    def plain(self, text):
        for root, word in ((self.root, "ROOT"), (self.daemon.root, "ROOT")):
            text = text.replace(root, word)
        text = re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ", "", text)
        text = re.sub(r"process \d+", "process PID", text)
        lines = [line for line in text.strip().splitlines() if line.strip()]
        text = " / ".join(lines[:LINES])
        return text if len(text) <= CHARACTERS else text[:CHARACTERS].rsplit(" ", 1)[0] + " ..."

    # ---- those who see something ----

    def ctl(self, *words, stdin=None):
        return self.plain(self.daemon.ctl(*words, check=False, stdin=stdin).stderr)

    def apply(self, text):
        return self.plain(self.daemon.apply(text, check=False).stderr)

    def frame(self, **members):
        """A frame's result, and whether the connection ends with it."""
        client = netlab.Command(self.daemon.root)
        try:
            client.socket.sendall(netlab.Command.frame(**members))
            result = client.answer()[0]
            try:
                client.call(21, field=3)
                return f"result 0x{result:08X}"
            except (EOFError, ConnectionError):
                return f"result 0x{result:08X}, and the connection is closed"
        finally:
            client.close()

    def request(self, line):
        with socket.socket(socket.AF_UNIX) as management:
            management.settimeout(10)
            management.connect(self.daemon.root + "/tmp/policyroutemgmt.socket")
            management.sendall(line + b"\n")
            return self.plain(json.dumps(json.loads(management.makefile().readline())))

    def packet(self, packet):
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as bus:
            bus.settimeout(10)
            bus.connect(self.daemon.root + "/tmp/policyroutebus.socket")
            bus.send(packet)
            operation, _, code = struct.unpack("=III", bus.recv(4096))
            return f"operation {operation}, result 0x{code:08X}"

    def start(self, *words, front=(), device="memory"):
        """What a daemon says that does not start."""
        command = [*front, *self.daemon.program("policyrouted"), "--option", f"host.root={self.root}", "--option",
                   f"host.device={device}", "--option", "host.log=stderr", *words]
        said = []
        with subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as process:
            for text in process.stderr:
                if "serving on" in text:
                    said.append("IT RUNS")
                    process.terminate()
                elif " info " not in text and " notice " not in text:
                    said.append(text)
        return self.plain("".join(said))

    def file(self, text):
        with open(self.root + "/policyroute.conf", "w") as file:
            file.write(text)
        return self.start("--config", self.root + "/policyroute.conf")

    def journal(self, change):
        """What a daemon says that starts with a journal of which something was changed."""
        daemon = netlab.Daemon(ns=None, device="memory", root=tempfile.mkdtemp(prefix="pbr-")).start()
        try:
            daemon.ctl("list", "add", "wan")
            daemon.stop()
            path = daemon.root + "/var/lib/policyroute/journal.db"
            with open(path, "r+b") as file:
                change(file)
            try:
                daemon.start()
            except netlab.Refused:
                pass
            lines = [line for line in daemon.errors if "journal" in line and " info " not in line and " notice " not in line]
            return self.plain("".join(lines).replace(daemon.root, "ROOT"))
        finally:
            daemon.close()

    def planted(self):
        at = self.root + "/tmp/policyroutemgmt.socket"
        os.makedirs(os.path.dirname(at), exist_ok=True)
        os.symlink("/nowhere", at)
        said = self.start()
        os.unlink(at)
        return said

    def second(self):
        kept, self.root = self.root, self.daemon.root
        try:
            return self.start()
        finally:
            self.root = kept

    def without_nftables(self):
        """A kernel that knows no nftables answers so; here the sending fails in its place."""
        for skip in range(40):
            self.faults.set("sendto", "EINVAL", skip, kind="netlink")
            switches = [f"{name}={value}" for name, value in self.faults.environment().items()]
            said = self.start(front=("unshare", "--net", "env", *switches), device="kernel")
            self.faults.clear()
            if "forwarding plane" in said:
                break
        return said

    def no_daemon(self):
        command = self.daemon.program("pbrctl") + ["--root", self.root, "show", "lists"]
        return self.plain(subprocess.run(command, capture_output=True, text=True, check=False, timeout=60).stderr)

    def full(self):
        command = self.daemon.program("pbrctl") + ["--root", self.daemon.root, "export"]
        with open("/dev/full", "w") as full:
            return self.plain(subprocess.run(command, stdout=full, stderr=subprocess.PIPE, text=True, check=False, timeout=60).stderr)


def damage(file):
    file.write(b"no database at all")


def newer(file):
    file.seek(63)  # the last byte of the format's number
    file.write(b"\x09")


NODE = "acls:\n  1501: {{10: permit ip}}\nlists:\n  wan:\n    10: {}\n"
CASES = (
    ("command frame", "a key shorter than its table's", lambda at: at.frame(command=9, key=b"a", field=1)),
    ("command frame", "a version that is not 1", lambda at: at.frame(command=21, field=3, version=9)),
    ("command frame", "a length beyond the limit", lambda at: at.frame(command=21, field=3, length=65537)),
    ("command frame", "a list that is not there", lambda at: at.frame(command=9, key=netlab.list_key(b"none"), field=1)),
    ("management request", "no JSON", lambda at: at.request(b"hello")),
    ("management request", "an operation that is none", lambda at: at.request(b'{"op": "acl.burn"}')),
    ("management request", "a member of the wrong kind", lambda at: at.request(b'{"op": "acl.destroy", "acl": "x"}')),
    ("route bus packet", "shorter than its head", lambda at: at.packet(b"abc")),
    ("route bus packet", "a message whose length is wrong", lambda at: at.packet(struct.pack("=IIIH18x", 3, 77, 99, 305))),
    ("policy file", "no YAML", lambda at: at.apply("lists: {\n")),
    ("policy file", "two documents", lambda at: at.apply("lists: {}\n---\nlists: {}\n")),
    ("policy file", "an unknown key", lambda at: at.apply(NODE.format("{acl: 1501, next-hop: [192.0.2.1]}"))),
    ("policy file", "an address that is none", lambda at: at.apply(NODE.format("{acl: 1501, next-hops: [192.0.2.300]}"))),
    ("policy file", "an ACL that is not defined", lambda at: at.apply(NODE.format("{acl: 1502, priority: 3}"))),
    ("policy file", "an interface that is not there", lambda at: at.apply(NODE.format("{acl: 1501, priority: 3}") + "bindings: {nosuch0: wan}\n")),
    ("policy file", "it is not there", lambda at: at.ctl("apply", "/nowhere/policy.yaml")),
    ("ACL rule", "a port that is none", lambda at: at.ctl("acl", "add", 1501, 20, "permit tcp to any port 70000")),
    ("ACL rule", "an unknown word", lambda at: at.ctl("acl", "add", 1501, 20, "permit ip from everywhere")),
    ("ACL rule", "a port without a protocol", lambda at: at.ctl("acl", "add", 1501, 20, "permit ip from any to any port 443")),
    ("option file", "a line that is none", lambda at: at.file("host.journal\n")),
    ("option file", "an unknown option", lambda at: at.file("# mine\nhost.colour = red\n")),
    ("option file", "a key twice", lambda at: at.file("host.defrag = on\nhost.defrag = off\n")),
    ("option file", "it is not there", lambda at: at.start("--config", "/nowhere.conf")),
    ("option value", "a word that is none of them", lambda at: at.start("--option", "host.journal=perhaps")),
    ("option value", "a number out of range", lambda at: at.start("--option", "host.table-base=7")),
    ("option value", "a user that is not there", lambda at: at.start("--option", "host.user=no-such-user-here")),
    ("command line", "policyrouted: an unknown argument", lambda at: at.start("--colour")),
    ("command line", "pbrctl: an unknown command", lambda at: at.ctl("shew")),
    ("command line", "pbrctl: an argument is missing", lambda at: at.ctl("list", "add")),
    ("command line", "pbrctl: a number that is none", lambda at: at.ctl("node", "add", "wan", "ten")),
    ("command line", "pbrctl: a list's name is too long", lambda at: at.ctl("list", "add", "seventeen-letters")),
    ("schedule", "a day that is none", lambda at: at.ctl("time-range", "add", 7, "--days", "someday")),
    ("schedule", "a time that is none", lambda at: at.ctl("time-range", "add", 7, "--from", "25:00", "--to", "26:00")),
    ("schedule", "a date that is none", lambda at: at.ctl("time-range", "add", 7, "--start", "2027-02-29 08:00")),
    ("journal", "it is damaged", lambda at: at.journal(damage)),
    ("journal", "of a newer version", lambda at: at.journal(newer)),
    ("start", "a link in the place of a socket", Scene.planted),
    ("start", "a second daemon", Scene.second),
    ("start", "without the right CAP_NET_ADMIN", lambda at: at.start(front=("unshare", "--net", "setpriv", "--bounding-set=-net_admin"), device="kernel")),
    ("start", "a kernel without nftables", Scene.without_nftables),
    ("pbrctl", "the daemon does not run", Scene.no_daemon),
    ("pbrctl", "no room for its output", Scene.full),
)


def rows():
    scene = Scene()
    try:
        return [(kind, wrong, show(scene).replace("|", "\\|")) for kind, wrong, show in CASES]
    finally:
        scene.close()


def line(row):
    return "| {} | {} | `{}` |".format(*row)


class BadInput(unittest.TestCase):
    maxDiff = None

    def test_the_page_says_what_is_seen(self):
        if "POLICYROUTE_EMULATOR" in os.environ or not system_case.knows_kernel():
            self.skipTest("the page is that of this machine's own build")
        with open(PAGE) as file:
            said = [text for text in file.read().splitlines() if text.startswith("| ") and text.endswith("` |")]
        seen = [line(row) for row in rows()]
        for text in seen:
            self.assertNotIn("IT RUNS", text)
            self.assertNotRegex(text, r"\| `` \|$")
        self.assertEqual(seen, said, "scripts/show-bad-input.sh prints the table")


if __name__ == "__main__":
    if sys.argv[1:] == ["print"]:
        netlab.enter_private()
        print("\n".join(line(row) for row in rows()))
    else:
        system_case.main()
