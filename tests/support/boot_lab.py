"""The machine of package_lab, booted: the real systemd is process 1 of namespaces of its own, with its network in one of the
lab's namespaces, and runs the installed unit as it would anywhere. Its control groups are below one of our own, which is
removed in the end with everything in it. Needs root and /lib/systemd/systemd.
"""
import os
import shutil
import subprocess
import time

import package_lab

SYSTEMD = "/lib/systemd/systemd"
LIVES = ("running", "degraded")
# The file systems that process 1 finds; then it becomes process 1. $1: the machine's root, $2: hierarchies of control groups.
BOOT = r"""
set -e
mount --make-rprivate /
mount -t tmpfs tmpfs "$1/dev"
for node in null zero full random urandom tty; do cp -a /dev/$node "$1/dev/"; done
mkdir "$1/dev/shm" "$1/dev/pts"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$1/dev/pts"
ln -s pts/ptmx "$1/dev/ptmx"
ln -s /proc/self/fd "$1/dev/fd"
cd "$1"
umount --recursive proc
mount -t proc proc proc
mount -t sysfs sysfs sys
for folder in run tmp; do umount $folder; mount -t tmpfs tmpfs $folder; done
for hierarchy in $2; do
    options=${hierarchy%%@*}
    path=${hierarchy#*@}
    [ "$path" = sys/fs/cgroup ] || mountpoint -q sys/fs/cgroup || mount -t tmpfs tmpfs sys/fs/cgroup
    mkdir -p $path
    if [ "$options" = 2 ]; then mount -t cgroup2 cgroup2 $path; else mount -t cgroup -o $options cgroup $path; fi
done
mkdir -p old
pivot_root . old
umount --lazy old
exec /lib/systemd/systemd --unit=multi-user.target --log-target=journal --show-status=0
"""


def hierarchies():
    """(options, mount point) of the hierarchies that systemd needs of this machine's: its own, and the unified one."""
    found = []
    with open("/proc/self/mounts") as file:
        for _, path, kind, options, *_ in map(str.split, file):
            if kind == "cgroup2":
                found.append(("2", path))
            elif kind == "cgroup" and "name=systemd" in options:
                found.append(("none,name=systemd", path))
    return found


def can_boot():
    return package_lab.can_install() and os.path.exists(SYSTEMD) and hierarchies() != [] and \
        all(os.access(path, os.W_OK) for _, path in hierarchies())


class BootedMachine(package_lab.Machine):
    def __init__(self, ns):
        super().__init__()
        self.ns, self.process, self.first = ns, None, None
        self.groups = [os.path.join(path, f"pbr-machine-{os.getpid()}") for _, path in hierarchies()]

    def unwanted(self):
        """Of this machine's services none is started there."""
        for folder in ("/etc/systemd/system", "/lib/systemd/system"):
            for name in os.listdir(self.path(folder)):
                if name.endswith(".wants") and (folder.startswith("/etc") or name.startswith("multi-user")):
                    shutil.rmtree(self.path(os.path.join(folder, name)))

    def boot(self, seconds=60.0):
        for group in self.groups:
            os.makedirs(group, exist_ok=True)

        def enter():
            for group in self.groups:
                with open(os.path.join(group, "cgroup.procs"), "w") as file:
                    file.write(str(os.getpid()))

        mounts = " ".join(f"{options}@{path.lstrip('/')}" for options, path in hierarchies())
        self.process = subprocess.Popen(
            ["nsenter", f"--net=/run/netns/{self.ns}", "unshare", "--mount", "--pid", "--fork", "--kill-child", "--ipc",
             "--uts", "--cgroup", "sh", "-c", BOOT, "boot", self.root, mounts],
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "container": "lab"}, preexec_fn=enter, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        end = time.monotonic() + seconds
        while self.state() not in LIVES:
            if self.process.poll() is not None:
                raise AssertionError("the machine does not boot: " + self.process.stderr.read())
            if time.monotonic() > end:
                raise AssertionError(f"the machine does not come up: {self.state()}")
            time.sleep(0.1)

    def state(self):
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children") as file:
            children = file.read().split()
        if not children:
            return "starting"
        self.first = children[0]
        return self.inside("systemctl", "is-system-running", check=False).stdout.strip()

    def inside(self, *words, check=True):
        """Runs a command on the booted machine."""
        done = subprocess.run(["nsenter", "-t", self.first, "-m", "-p", "-n", "-i", "-u", "-C", *words], text=True,
                              capture_output=True, timeout=120, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"})
        if check and done.returncode != 0:
            raise AssertionError(f"{' '.join(words)}: exit {done.returncode}\n{done.stdout}{done.stderr}\n" + self.journal())
        return done

    def journal(self):
        return self.inside("journalctl", "-u", "policyroute", "--no-pager", "-n", "30", "-o", "cat", check=False).stdout

    def properties(self, unit, *names):
        text = self.inside("systemctl", "show", unit, "-p", ",".join(names)).stdout
        return dict(line.split("=", 1) for line in text.splitlines() if "=" in line)

    def power_off(self):
        """As when the plug is pulled: every process of it ends at once."""
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process.stderr.close()
            self.process = None
        for group in self.groups:
            self._group_remove(group)

    @staticmethod
    def _group_remove(group):
        end = time.monotonic() + 10
        while os.path.isdir(group):
            for folder, _, _ in os.walk(group, topdown=False):
                try:
                    os.rmdir(folder)
                except OSError:  # the last processes are still ending
                    if time.monotonic() > end:
                        raise
            time.sleep(0.02)

    def close(self):
        self.power_off()
        super().close()
