"""FRR's pbrd of Debian's package beside us: fetched and unpacked below build/bench, run in a router of its own, nothing
installed on the machine. Its own sockets and files are in a temporary folder.

What it can do of what is measured, as seen with 8.4.4: a map has the sequences 1 to 700, so that of more nodes the last 700
are on lan0 and the others on interfaces without traffic; a rule's ports are taken and shown, but are not in the kernel's
rule, so that only source prefixes are compared here; next hops are no order of preference but a group or one.
"""
import contextlib
import os
import shutil
import socket
import subprocess
import tempfile
import time

from kit import policies
from kit.lab import ROOT, UPLINKS, Broken, Router, netlab

FOLDER = os.path.join(ROOT, "build", "bench", "frr")
MOST = 700


def fetch():
    """Fetches the packages and unpacks them, unless that was done. Result: None, or why it cannot be."""
    if os.path.exists(os.path.join(FOLDER, "usr/lib/frr/pbrd")):
        return None
    if shutil.which("apt-get") is None or shutil.which("dpkg-deb") is None:
        return "no Debian: the package frr is not there"
    archives = os.path.join(FOLDER, "archives")
    os.makedirs(os.path.join(archives, "partial"), exist_ok=True)
    done = subprocess.run(["apt-get", "install", "--download-only", "-y", "--no-install-recommends", "-o",
                           f"Dir::Cache::archives={archives}", "frr"], capture_output=True, text=True)
    packages = [name for name in os.listdir(archives) if name.endswith(".deb")]
    if done.returncode or not any(name.startswith("frr_") for name in packages):
        last = (done.stderr.strip().splitlines() or ["no package frr"])[-1]
        return f"apt-get cannot fetch the package frr: {last}"
    for name in packages:
        subprocess.run(["dpkg-deb", "-x", os.path.join(archives, name), FOLDER], check=True)
    return None


def version():
    done = subprocess.run([os.path.join(FOLDER, "usr/lib/frr/pbrd"), "--version"], capture_output=True, text=True,
                          env=environment())
    return done.stdout.split("\n")[0].replace("pbrd version", "FRR pbrd").strip()


def environment():
    libraries = os.path.join(FOLDER, "usr/lib/x86_64-linux-gnu")
    return {**os.environ, "LD_LIBRARY_PATH": f"{libraries}/frr:{libraries}"}


class Frr:
    """zebra and pbrd in a router. The process must be in a mount namespace of its own (netlab.enter_private)."""
    name, title = "frr", "FRR pbrd"

    def __init__(self):
        self.router = Router("frr")
        self.folder = tempfile.mkdtemp(prefix="frr-")
        os.chmod(self.folder, 0o755)
        self.processes, self.socket, self.others, self.lines = {}, None, 0, []
        self._names()
        self.log = open(os.path.join(self.folder, "log"), "w+")

    def _names(self):
        """Users, groups and the shell's right to log in, as the package makes them, for this mount namespace only."""
        for path, line in (("/etc/group", "frr:x:64998:root\nfrrvty:x:64999:root\n"),
                           ("/etc/passwd", "frr:x:64998:64998::/:/bin/false\n")):
            copy = os.path.join(self.folder, os.path.basename(path))
            with open(path) as source, open(copy, "w") as target:
                target.write(source.read().rstrip("\n") + "\n" + line)
            subprocess.run(["mount", "--bind", copy, path], check=True)
        pam = os.path.join(self.folder, "pam.d")
        shutil.copytree("/etc/pam.d", pam)
        shutil.copy(os.path.join(FOLDER, "etc/pam.d/frr"), pam)
        subprocess.run(["mount", "--bind", pam, "/etc/pam.d"], check=True)
        with open(os.path.join(self.folder, "vtysh.conf"), "w"):
            pass

    def start(self):
        for name in ("zebra", "pbrd"):
            words = ["nsenter", f"--net=/run/netns/{self.router.name}", os.path.join(FOLDER, "usr/lib/frr", name),
                     "-z", self.folder + "/zserv", "-i", f"{self.folder}/{name}.pid", "--vty_socket", self.folder,
                     "-u", "root", "-g", "root", "-f", "/dev/null", "-P", "0", "--log", "stdout"]
            self.processes[name] = subprocess.Popen(words, stdout=self.log, stderr=subprocess.STDOUT, env=environment())
            self._until(lambda n=name: os.path.exists(f"{self.folder}/{n}.vty"), f"{name} does not start")
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(60)
        self.socket.connect(self.folder + "/pbrd.vty")
        for line in ("enable", "configure terminal"):
            self.tell(line)

    def _until(self, question, otherwise, seconds=10):
        end = time.monotonic() + seconds
        while not question():
            if time.monotonic() > end:
                with open(self.log.name) as file:
                    raise Broken(f"{self.title}: {otherwise}: {file.read()[-300:]}")
            time.sleep(0.01)

    def tell(self, line):
        """One line of configuration to pbrd's own socket. Result: what it answers."""
        self.socket.sendall(line.strip().encode() + b"\0")
        answer = b""
        while len(answer) < 4 or answer[-4:-1] != b"\0\0\0":
            part = self.socket.recv(65536)
            if not part:
                raise Broken(f"{self.title} ended")
            answer += part
        if answer[-1] not in (0,) or b"%" in answer:
            raise Broken(f"{self.title}: {line!r}: {answer[:-4].decode(errors='replace').strip()}")
        return answer[:-4].decode(errors="replace")

    def can(self, kind, _family, _count):
        return None if kind == "single" else "its kernel rules do not compare ports"

    def configuration(self, family, count, ways=("upa",), last=None):
        """Lines: one next-hop group, and the sequences on as many maps as it takes, the last of them on lan0."""
        lines = ["nexthop-group ways"]
        lines += [f" nexthop {UPLINKS[up][1 if family == 4 else 3]}" for up in ways] + ["exit"]
        elsewhere = count - min(count, MOST)
        for number in range(1, count + 1):
            # Maps of interfaces without traffic hold what is before the last 700.
            name, sequence = (f"m{(number - 1) // MOST}", (number - 1) % MOST + 1) if number <= elsewhere else \
                ("wan", number - elsewhere)
            source = last if last and number == count else policies.rule("single", family, number)["src"]
            lines += [f"pbr-map {name} seq {sequence}", f" match src-ip {source}", " set nexthop-group ways", "exit"]
        for other in range((elsewhere + MOST - 1) // MOST):
            lines += [f"interface other{other}", f" pbr-policy m{other}", "exit"]
        return lines + ["interface lan0", " pbr-policy wan", "exit"]

    def first(self, count):
        """The first node whose sequence is on lan0."""
        return count - min(count, MOST) + 1

    def add_interfaces(self, count):
        for number in range(self.others, (max(0, count - MOST) + MOST - 1) // MOST):
            netlab.run(f"ip link add other{number} type veth peer name peer{number}", self.router.name)
            netlab.run(f"ip link set other{number} up", self.router.name)
            self.others += 1

    def rules(self, family):
        return netlab.run(f"ip -{family} rule show", self.router.name).stdout.count("proto zebra")

    def install(self, kind, family, count, by_shell=False, ways=("upa",), last=None, seconds=60):
        """Result: seconds until the kernel has all rules."""
        self.prepare(count)
        return self.configure(family, count, by_shell, ways, last, seconds)

    def prepare(self, count):
        """The processes run, and interfaces are there for as many nodes."""
        self.add_interfaces(count)
        self.start()

    def configure(self, family, count, by_shell=False, ways=("upa",), last=None, seconds=60):
        lines = self.lines = self.configuration(family, count, ways, last)
        begin = time.monotonic()
        if by_shell:
            self.shell(lines)
        else:
            for line in lines:
                self.tell(line)
        self._until(lambda: self.rules(family) >= count, f"not all {count:,} rules in the kernel after {seconds} s", seconds)
        return time.monotonic() - begin

    def change(self, number):
        """The last sequence of lan0's map gets another source, to and fro; returns when it is answered."""
        sequence = max(int(line.split()[-1]) for line in self.lines if line.startswith("pbr-map wan seq"))
        for line in (f"pbr-map wan seq {sequence}", f"match src-ip 10.0.0.{(20, 10)[number % 2]}/32", "exit"):
            self.tell(line)

    def shell(self, lines):
        path = os.path.join(self.folder, "policy.conf")
        with open(path, "w") as file:
            file.write("\n".join(lines) + "\n")
        done = subprocess.run([os.path.join(FOLDER, "usr/bin/vtysh"), "--vty_socket", self.folder, "--config_dir",
                               self.folder, "-f", path], capture_output=True, text=True, env=environment(), timeout=120)
        if done.returncode or "%" in done.stdout:
            raise Broken(f"vtysh: {done.stdout[:300]}{done.stderr[:300]}")

    def remove(self):
        """Ends it; zebra takes its rules out of the kernel, or this does."""
        if self.socket is not None:
            self.socket.close()
            self.socket = None
        for process in self.processes.values():
            process.terminate()
        for process in self.processes.values():
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(10)
            process.kill()
            process.wait()
        self.processes = {}
        for name in ("pbrd.vty", "zebra.vty"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(os.path.join(self.folder, name))
        for family in (4, 6):
            netlab.run(f"ip -{family} rule flush proto zebra", self.router.name, check=False)

    def close(self):
        self.remove()
        self.router.close()
        self.log.close()
        for path in ("/etc/pam.d", "/etc/passwd", "/etc/group"):
            subprocess.run(["umount", path], check=False)
        shutil.rmtree(self.folder, ignore_errors=True)
