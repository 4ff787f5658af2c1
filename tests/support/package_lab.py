"""A machine to install the package on: this machine's files under an overlay in a private mount namespace. dpkg and the
maintainer scripts are the real ones and see a whole system; what they change is in the overlay's upper folder and gone
with the namespace. Needs root (an overlay with more than one user in it).
"""
import configparser
import os
import resource
import shlex
import socket
import stat
import subprocess
import tempfile

import netlab


def can_install():
    """Whether this process may make users: root, and not only in a user namespace."""
    with open("/proc/self/uid_map") as file:
        return os.geteuid() == 0 and file.read().split()[2] == "4294967295"


class Machine:
    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="pbr-machine-")
        netlab.run(["mount", "-t", "tmpfs", "tmpfs", self.folder])
        self.upper, self.root = os.path.join(self.folder, "upper"), os.path.join(self.folder, "root")
        for path in (self.upper, os.path.join(self.folder, "work"), self.root):
            os.mkdir(path)
        # What some run left in the state folder of this machine is not there on that one.
        mask = os.path.join(self.folder, "mask")
        os.makedirs(mask + "/var/lib")
        os.mknod(mask + "/var/lib/policyroute", stat.S_IFCHR, os.makedev(0, 0))
        netlab.run(["mount", "-t", "overlay", "overlay", "-o",
                    f"lowerdir={mask}:/,upperdir={self.upper},workdir={self.folder}/work", self.root])
        for name in ("proc", "dev"):
            netlab.run(["mount", "--rbind", "/" + name, self.path("/" + name)])
        for name in ("run", "tmp"):
            netlab.run(["mount", "-t", "tmpfs", "tmpfs", self.path("/" + name)])

    def path(self, path):
        return self.root + path

    def words(self, words, ns=None):
        """The command that runs `words` on the machine, in a network namespace."""
        inside = ["chroot", self.root] + list(words)
        return inside if ns is None else ["nsenter", f"--net=/run/netns/{ns}"] + inside

    def run(self, *words, ns=None, check=True, **options):
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive"}
        done = subprocess.run(self.words(words, ns), text=True, capture_output=True, env=environment, **options)
        if check and done.returncode != 0:
            raise AssertionError(f"{' '.join(words)}: exit {done.returncode}\n{done.stdout}{done.stderr}")
        return done

    def dpkg(self, *words, ns=None):
        # Other packages' triggers (the manual's index) are slow and none of ours.
        return self.run("dpkg", "--force-unsafe-io", "--no-triggers", *words, ns=ns)

    def install(self, package, ns=None):
        with open(package, "rb") as source, open(self.path("/tmp/policyroute.deb"), "wb") as target:
            target.write(source.read())
        return self.dpkg("--install", "/tmp/policyroute.deb", ns=ns)

    def programs(self):
        """Programs that run on the machine."""
        found = []
        for number in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.readlink(f"/proc/{number}/root") == self.root:
                    found.append(os.readlink(f"/proc/{number}/exe"))
            except OSError:
                pass  # it ended meanwhile
        return found

    def changes(self):
        """Paths that are otherwise than before, folders left out: {path: "new", "changed" or "gone"}."""
        found = {}
        for folder, _, names in os.walk(self.upper):
            for name in names:
                upper = os.path.join(folder, name)
                path = "/" + os.path.relpath(upper, self.upper)
                status = os.lstat(upper)
                if stat.S_ISCHR(status.st_mode) and status.st_rdev == 0:
                    found[path] = "gone"
                elif not os.path.lexists(path):
                    found[path] = "new"
                elif stat.S_ISREG(status.st_mode) and self._bytes(upper) != self._bytes(path):
                    found[path] = "changed"
        return found

    def new_folders(self):
        return {"/" + os.path.relpath(folder, self.upper) for folder, _, _ in os.walk(self.upper)
                if not os.path.isdir("/" + os.path.relpath(folder, self.upper))}

    @staticmethod
    def _bytes(path):
        with open(path, "rb") as file:
            return file.read()

    def close(self):
        netlab.run(["umount", "--recursive", "--lazy", self.root], check=False)
        netlab.run(["umount", "--lazy", self.folder], check=False)
        os.rmdir(self.folder)


class Service:
    """The installed service, started as its unit says: program, user, capabilities, folder and limits are read from the
    unit; the service manager's end of the notification socket is here."""

    def __init__(self, machine, ns):
        self.machine, self.ns, self.process, self.log = machine, ns, None, None
        # Keys may stand twice in a unit; these do not.
        unit = configparser.ConfigParser(strict=False, interpolation=None)
        unit.optionxform = str
        unit.read(machine.path("/usr/lib/systemd/system/policyroute.service"))
        self.unit = unit["Service"]
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(machine.path("/run/notify"))
        os.chmod(machine.path("/run/notify"), 0o666)
        self.socket.settimeout(15)

    def start(self, watchdog_us=400000):
        user = self.unit["User"]
        for parent, key in (("/run/", "RuntimeDirectory"), ("/var/lib/", "StateDirectory")):
            os.makedirs(self.machine.path(parent + self.unit[key]), exist_ok=True)
            self.machine.run("chown", f"{user}:{self.unit['Group']}", parent + self.unit[key])
        ambient = self.capabilities("AmbientCapabilities")
        # No more than this machine allows us; the manager of a real one may exceed that.
        files = min(int(self.unit["LimitNOFILE"]), resource.getrlimit(resource.RLIMIT_NOFILE)[1])
        rights = ["prlimit", f"--nofile={files}", "setpriv", f"--reuid={user}", f"--regid={self.unit['Group']}",
                  "--init-groups", f"--inh-caps=-all,{ambient}", f"--ambient-caps=-all,{ambient}",
                  f"--bounding-set=-all,{self.capabilities('CapabilityBoundingSet')}", "--no-new-privs"]
        self.machine.run(*rights, *self.command("ExecStartPre"), ns=self.ns)
        words = rights + self.command("ExecStart")
        if self.log is not None:
            self.log.close()
        self.log = open(self.machine.path("/tmp/service.log"), "w+")
        self.process = subprocess.Popen(self.machine.words(words, self.ns), stdout=self.log, stderr=self.log, env={
            "PATH": "/usr/sbin:/usr/bin", "NOTIFY_SOCKET": "/run/notify", "WATCHDOG_USEC": str(watchdog_us)})
        return self.told()

    def command(self, key):
        return shlex.split(self.unit[key].replace("%t", "/run").replace("%S", "/var/lib"))

    def capabilities(self, key):
        return ",".join("+" + name.removeprefix("CAP_").lower() for name in self.unit[key].split())

    def told(self):
        """The next message to the service manager."""
        try:
            return self.socket.recv(4096).decode()
        except TimeoutError:
            self.log.seek(0)
            raise AssertionError("the service tells nothing: " + self.log.read()) from None

    def stop(self):
        """Result: what it told, signs of life left out."""
        self.process.terminate()
        self.process.wait(10)
        told = []
        self.socket.setblocking(False)
        try:
            while True:
                text = self.socket.recv(4096).decode()
                told += [text] if text != "WATCHDOG=1" else []
        except BlockingIOError:
            self.socket.settimeout(15)
        return told

    def close(self):
        if self.process is not None:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()
            self.log.close()
        self.socket.close()
        os.unlink(self.machine.path("/run/notify"))
