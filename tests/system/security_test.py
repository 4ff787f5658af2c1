"""Who may do what: each socket as root, as a member of the group, as a reader and as nobody; what others put in the
daemon's way; what the daemon itself may do."""
import contextlib
import json
import os
import pwd
import select
import shutil
import signal
import socket
import stat
import struct
import subprocess
import tempfile
import unittest

import system_case
import netlab

GROUP, MEMBER, OTHER = 50505, 42424, 43434
SOCKETS = ("policyroutecmd.socket", "policyroutemgmt.socket", "policyroutebus.socket")
NOT_PERMITTED = 0x03E8000D
IS_ROOT = os.geteuid() == 0 and open("/proc/self/uid_map").read().split()[2] != "1"
AS_ROOT = unittest.skipUnless(IS_ROOT, "other users are to be had by root only")


def as_user(uid, groups, function):
    """What function returns in a process of that user, of the first of the groups and the others."""
    read, write = os.pipe()
    child = os.fork()
    if child == 0:
        try:
            os.setgroups(groups[1:])
            os.setgid(groups[0])
            os.setuid(uid)
            answer = function()
        except BaseException as error:  # the parent shall see it, and this process shall not run on
            answer = repr(error)
        os.write(write, json.dumps(answer).encode())
        os._exit(0)
    os.close(write)
    with os.fdopen(read) as file:
        answer = json.load(file)
    os.waitpid(child, 0)
    return answer


def attempts(root):
    """What comes of a read and a write at each socket: "yes", "no", or "not even connected"."""
    def command(ask):
        client = netlab.Command(root)
        code = ask(client)
        client.close()
        return {0: "yes", NOT_PERMITTED: "no"}.get(code, hex(code))

    def manage(request):
        with socket.socket(socket.AF_UNIX) as mgmt:
            mgmt.settimeout(10)
            mgmt.connect(root + "/tmp/policyroutemgmt.socket")
            with contextlib.suppress(BrokenPipeError):
                mgmt.sendall(json.dumps(request).encode() + b"\n")
            answer = json.loads(mgmt.makefile().readline())
        return "yes" if answer["ok"] else "no" if "may" in answer["error"] else answer["error"]

    def bus(packet):
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
            client.settimeout(10)
            client.connect(root + "/tmp/policyroutebus.socket")
            with contextlib.suppress(BrokenPipeError):
                client.send(packet)
                client.send(struct.pack("=II", 2, 999))  # leave: answered behind what was sent
            answer = client.recv(4096)
        operation = struct.unpack_from("=I", answer)[0]
        code = struct.unpack_from("=I", answer, 8)[0] if operation == 4 else 0
        return {0: "yes", NOT_PERMITTED: "no"}.get(code, hex(code))

    message = struct.pack("=II", 3, 999) + struct.pack("=IH18x", 24, 999)
    cases = {
        "command read": lambda: command(lambda client: client.call(21, field=3)[0]),
        "command write": lambda: command(lambda client: client.call(10, key=netlab.list_key(b"made"), field=1, number=2)[0]),
        "management read": lambda: manage({"op": "version"}),
        "management write": lambda: manage({"op": "acl.set", "acl": 1501, "rule": 10, "text": "permit ip"}),
        "shell read": lambda: manage({"op": "shell.list"}),
        "shell write": lambda: manage({"op": "shell", "name": "pbrInfoShow"}),
        "bus read": lambda: bus(struct.pack("=II", 1, 999)),
        "bus write": lambda: bus(message),
    }
    seen = {}
    for name, case in cases.items():
        try:
            seen[name] = case()
        except PermissionError:
            seen[name] = "not even connected"
    return seen


def expected(read, write):
    return {f"{where} {what}": answer for where in ("command", "management", "shell", "bus")
            for what, answer in (("read", read), ("write", write))}


class Roles(unittest.TestCase):
    def daemon(self, *options):
        daemon = netlab.Daemon(ns=None, device="memory", options=options)
        os.chmod(daemon.root, 0o755)
        self.addCleanup(daemon.close)
        return daemon.start()

    @AS_ROOT
    def test_the_group_writes_and_others_are_kept_out(self):
        daemon = self.daemon(f"host.group={GROUP}")
        for name in SOCKETS:
            status = os.stat(f"{daemon.root}/tmp/{name}")
            self.assertEqual((0, GROUP, 0o660), (status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)), name)
        self.assertEqual(expected("yes", "yes"), as_user(0, [0], lambda: attempts(daemon.root)))
        self.assertEqual(expected("yes", "yes"), as_user(MEMBER, [MEMBER, 7, GROUP], lambda: attempts(daemon.root)))
        self.assertEqual(expected("yes", "yes"), as_user(MEMBER, [GROUP], lambda: attempts(daemon.root)))
        kept_out = expected("not even connected", "not even connected")
        self.assertEqual(kept_out, as_user(OTHER, [OTHER, 7], lambda: attempts(daemon.root)))
        self.assertEqual(kept_out, as_user(65534, [65534], lambda: attempts(daemon.root)))

    @AS_ROOT
    def test_others_may_read_when_the_option_says_so(self):
        daemon = self.daemon(f"host.group={GROUP}", "host.read-others=yes")
        self.assertEqual(expected("yes", "no"), as_user(OTHER, [OTHER], lambda: attempts(daemon.root)))
        self.assertEqual(expected("yes", "no"), as_user(65534, [65534], lambda: attempts(daemon.root)))
        self.assertEqual(expected("yes", "yes"), as_user(MEMBER, [MEMBER, GROUP], lambda: attempts(daemon.root)))

    @AS_ROOT
    def test_a_mode_that_somebody_widened_opens_nothing(self):
        daemon = self.daemon()
        for name in SOCKETS:
            os.chmod(f"{daemon.root}/tmp/{name}", 0o666)
        self.assertEqual(expected("no", "no"), as_user(65534, [65534], lambda: attempts(daemon.root)))

    @AS_ROOT
    def test_a_reader_is_told_so_by_the_tool(self):
        daemon = self.daemon("host.read-others=yes")
        copy = os.path.join(daemon.root, "pbrctl")  # from where others may come
        shutil.copy(os.path.join(daemon.build, "pbrctl"), copy)
        os.chmod(copy, 0o755)
        done = as_user(OTHER, [OTHER], lambda: (lambda run: [run.returncode, run.stderr])(
            subprocess.run([copy, "--root", daemon.root, "list", "add", "wan"], capture_output=True, text=True)))
        self.assertEqual(1, done[0])
        self.assertIn("may", done[1])
        self.assertEqual([], daemon.json("show", "lists"))


class InTheWay(unittest.TestCase):
    """The folder may be written by everybody: what somebody put there is refused, named and left alone."""

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="pbr-")
        self.addCleanup(shutil.rmtree, self.root, True)
        os.chmod(self.root, 0o755)
        self.folder = self.root + "/tmp"
        os.mkdir(self.folder)
        os.chmod(self.folder, 0o1777)

    def start(self):
        daemon = netlab.Daemon(ns=None, device="memory", root=self.root)
        try:
            daemon.start()
            return ""
        except netlab.Refused as refused:
            return str(refused)
        finally:
            daemon.stop()

    def refused(self, path, make, text, remove=os.unlink):
        make(path)
        before = os.lstat(path)
        said = self.start()
        self.assertIn(text, said)
        self.assertIn(path, said)
        after = os.lstat(path)
        self.assertEqual((before.st_ino, before.st_mode, before.st_uid, before.st_gid),
                         (after.st_ino, after.st_mode, after.st_uid, after.st_gid))
        remove(path)

    def test_things_in_the_place_of_a_socket(self):
        precious = self.root + "/precious"
        with open(precious, "w") as file:
            file.write("precious")
        for name in ("policyroutemgmt.socket", "policyroutebus.socket"):
            path = f"{self.folder}/{name}"
            for make, remove in ((lambda at: os.symlink(precious, at), os.unlink),
                                 (lambda at: os.symlink("/nowhere", at), os.unlink),
                                 (lambda at: open(at, "w").close(), os.unlink),
                                 (os.mkdir, os.rmdir), (os.mkfifo, os.unlink)):
                self.refused(path, make, "exists and is no socket", remove)
        with open(precious) as file:
            self.assertEqual("precious", file.read())
        self.assertEqual(0o644, stat.S_IMODE(os.stat(precious).st_mode) & 0o644)
        self.assertEqual("", self.start())

    def test_things_in_the_place_of_the_command_socket(self):
        """The daemon lives on without its command socket, and says so."""
        path = self.folder + "/policyroutecmd.socket"
        for make, remove in ((lambda at: os.symlink("/nowhere", at), os.unlink), (os.mkdir, os.rmdir), (os.mkfifo, os.unlink)):
            make(path)
            before = os.lstat(path)
            daemon = netlab.Daemon(ns=None, device="memory", root=self.root)
            with self.assertRaisesRegex(netlab.Refused, f"{path} exists and is no socket"):
                daemon.start(1)  # never serves
            daemon.stop()
            self.assertEqual((before.st_ino, before.st_mode), (os.lstat(path).st_ino, os.lstat(path).st_mode))
            remove(path)

    def test_things_in_the_place_of_the_lock(self):
        path = self.root + "/run/policyroute/policyrouted.lock"
        os.makedirs(os.path.dirname(path))
        for make, remove in ((lambda at: os.symlink("/nowhere", at), os.unlink), (os.mkdir, os.rmdir), (os.mkfifo, os.unlink)):
            self.refused(path, make, "exists and is no regular file", remove)
        self.assertFalse(os.path.exists("/nowhere"))

    def test_things_in_the_place_of_the_journal(self):
        folder = self.root + "/var/lib/policyroute"
        os.makedirs(folder)
        for name in ("journal.db", "journal.db-wal"):
            self.refused(f"{folder}/{name}", lambda at: os.symlink("/nowhere", at), "exists and is no regular file")
            self.refused(f"{folder}/{name}", os.mkfifo, "exists and is no regular file")

    @AS_ROOT
    def test_things_of_another_user(self):
        def socket_of_another(path):
            def make():
                server = socket.socket(socket.AF_UNIX)
                server.bind(path)
                return ""
            self.assertEqual("", as_user(OTHER, [OTHER], make))

        self.refused(self.folder + "/policyroutemgmt.socket", socket_of_another, f"is a socket of user {OTHER}")
        os.rmdir(self.folder)

        def folder_of_another(path):
            os.mkdir(path)
            os.chown(path, OTHER, OTHER)

        def link_of_another(path):
            os.symlink("/etc", path)
            os.chown(path, OTHER, OTHER, follow_symlinks=False)

        self.refused(self.folder, folder_of_another, f"is a folder of user {OTHER}", os.rmdir)
        self.refused(self.folder, link_of_another, f"is a symbolic link of user {OTHER}")
        victim = tempfile.mkdtemp(prefix="pbr-")
        self.addCleanup(shutil.rmtree, victim)

        def link_to_victim(path):
            os.symlink(victim, path)
            os.chown(path, OTHER, OTHER, follow_symlinks=False)

        for folder in ("run", "tmp", "var"):
            if os.path.isdir(f"{self.root}/{folder}"):
                shutil.rmtree(f"{self.root}/{folder}")
            self.refused(f"{self.root}/{folder}", link_to_victim, f"is a symbolic link of user {OTHER}")
            self.assertEqual([], os.listdir(victim), folder)
        lock = self.root + "/run/policyroute/policyrouted.lock"
        os.makedirs(os.path.dirname(lock), exist_ok=True)

        def file_of_another(path):
            open(path, "w").close()
            os.chown(path, OTHER, OTHER)
            os.chmod(path, 0o666)

        self.refused(lock, file_of_another, f"belongs to user {OTHER}")

    def test_somebody_who_swaps_files_while_the_daemon_starts_has_nothing_changed(self):
        os.chmod(self.folder, 0o777)  # not even sticky: he may replace what the daemon makes
        precious, path, other = self.root + "/precious", self.folder + "/policyroutemgmt.socket", self.folder + "/other"
        with open(precious, "w") as file:
            file.write("precious")
        os.chmod(precious, 0o640)
        before = os.stat(precious)
        child = os.fork()
        if child == 0:  # waits for a socket, and puts a link in its place at once
            while True:
                os.symlink(precious, other)
                while True:
                    with contextlib.suppress(OSError):
                        if stat.S_ISSOCK(os.lstat(path).st_mode):
                            break
                with contextlib.suppress(OSError):
                    os.rename(other, path)
                    select.select([], [], [], 0.03)  # long enough to be followed
                    os.unlink(path)
        try:
            results = {self.start().split(":")[0] for _ in range(25)}  # started or refused, as it comes
        finally:
            os.kill(child, signal.SIGKILL)
            os.waitpid(child, 0)
        after = os.stat(precious)
        self.assertEqual((before.st_mode, before.st_uid, before.st_gid, before.st_ctime_ns),
                         (after.st_mode, after.st_uid, after.st_gid, after.st_ctime_ns), results)

    def test_a_stale_socket_of_ours_is_replaced_and_nothing_stays_beside(self):
        daemon = netlab.Daemon(ns=None, device="memory", root=self.root).start()
        daemon.kill()
        self.assertEqual(sorted(SOCKETS), sorted(os.listdir(self.folder)))
        daemon.start()
        self.assertEqual(sorted(SOCKETS), sorted(os.listdir(self.folder)))
        daemon.stop()
        self.assertEqual([], os.listdir(self.folder))

    def test_a_second_daemon_on_the_same_root(self):
        daemon = netlab.Daemon(ns=None, device="memory", root=self.root).start()
        self.addCleanup(daemon.stop)
        self.assertIn(f"policyrouted.lock is held by process {daemon.process.pid}: stop it", self.start())
        daemon.ctl("show", "lists")


def status_of(process):
    with open(f"/proc/{process.pid}/status") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file)


class Rights(unittest.TestCase):
    """What the running process has left."""

    def daemon(self, *options, device="memory", root=None):
        daemon = netlab.Daemon(ns=None, device=device, options=options, root=root)
        self.addCleanup(daemon.close)
        return daemon.start()

    def check_confined(self, status):
        self.assertEqual("1", status["NoNewPrivs"])
        self.assertEqual("2", status["Seccomp"])  # a filter
        for name in ("CapInh", "CapAmb"):
            self.assertEqual(0, int(status[name], 16), name)
        for name in ("CapPrm", "CapEff", "CapBnd"):
            self.assertEqual(0, int(status[name], 16) & ~0x3000, name)  # CAP_NET_ADMIN, CAP_NET_RAW

    def test_two_capabilities_no_new_privileges_and_a_filter(self):
        daemon = self.daemon()
        status = status_of(daemon.process)
        self.check_confined(status)
        if os.geteuid() == 0:
            self.assertEqual(0x3000, int(status["CapEff"], 16))
        for task in os.listdir(f"/proc/{daemon.process.pid}/task"):
            with open(f"/proc/{daemon.process.pid}/task/{task}/status") as file:
                lines = file.read().split("\n")
            self.assertIn("Seccomp:\t2", lines)
            self.assertIn("NoNewPrivs:\t1", lines)

    def test_the_filter_can_be_left_out(self):
        self.assertEqual("0", status_of(self.daemon("host.seccomp=off").process)["Seccomp"])

    def test_a_wrong_word_for_the_filter_is_refused(self):
        with self.assertRaisesRegex(netlab.Refused, "'maybe' is no value for host.seccomp: one of on, off is expected"):
            self.daemon("host.seccomp=maybe")

    @AS_ROOT
    def test_a_user_of_its_own(self):
        root = tempfile.mkdtemp(prefix="pbr-")
        os.chmod(root, 0o755)
        nobody = pwd.getpwnam("nobody")
        daemon = self.daemon("host.user=nobody", f"host.group={GROUP}", root=root)
        status = status_of(daemon.process)
        self.check_confined(status)
        self.assertEqual([str(nobody.pw_uid)] * 4, status["Uid"].split())
        self.assertEqual([str(nobody.pw_gid)] * 4, status["Gid"].split())
        self.assertIn(str(GROUP), status["Groups"].split())
        self.assertEqual(0x3000, int(status["CapEff"], 16))
        for name in SOCKETS:
            at = os.stat(f"{root}/tmp/{name}")
            self.assertEqual((nobody.pw_uid, GROUP), (at.st_uid, at.st_gid))
        daemon.ctl("list", "add", "wan")
        daemon.kill()
        daemon.start()
        self.assertEqual(["wan"], [row["list"] for row in daemon.json("show", "lists")])
        self.assertEqual(0, os.stat(root).st_uid)  # what was there is not given away

    @AS_ROOT
    def test_a_user_that_is_not_there_or_cannot_be_become(self):
        with self.assertRaisesRegex(netlab.Refused, "option host.user: there is no user 'no-such-user-here'"):
            self.daemon("host.user=no-such-user-here")
        with self.assertRaisesRegex(netlab.Refused, "option host.group: there is no group 'no-such-group-here'"):
            self.daemon("host.group=no-such-group-here")
        copy = tempfile.mkdtemp(prefix="pbr-")
        self.addCleanup(shutil.rmtree, copy, True)
        os.chmod(copy, 0o755)
        program = shutil.copy(os.path.join(netlab.Daemon(root=copy).build, "policyrouted"), copy)
        os.chmod(program, 0o755)
        said = as_user(OTHER, [OTHER], lambda: subprocess.run([program, "--option", "host.user=nobody"], capture_output=True,
                                                              text=True, timeout=20).stderr)
        self.assertIn("option host.user: only root can become user nobody", said)
        said = as_user(OTHER, [OTHER], lambda: subprocess.run([program, "--option", f"host.root={copy}"], capture_output=True,
                                                              text=True, timeout=20).stderr)
        self.assertIn("run as root, or name a folder of yours with host.root", said)

    @AS_ROOT
    def test_root_has_no_right_to_a_folder_of_somebody_else(self):
        root = tempfile.mkdtemp(prefix="pbr-")
        self.addCleanup(shutil.rmtree, root, True)
        os.chown(root, OTHER, OTHER)
        os.chmod(root, 0o755)
        with self.assertRaisesRegex(netlab.Refused, "name their owner with host.user"):
            self.daemon(root=root)


if __name__ == "__main__":
    system_case.main()
