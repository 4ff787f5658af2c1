"""What carries a policy in a router: nothing, policyroute with one of its devices, or FRR's pbrd (frr.py)."""
import os
import resource
import subprocess
import time

from kit import policies
from kit.lab import Broken, Router, netlab


class Plain:
    """Routing without any policy: what everything is compared with."""
    name, title = "plain", "plain routing"

    def __init__(self):
        self.router = Router(self.name)

    def close(self):
        self.router.close()


class Policyroute:
    """policyrouted with `device`, in a router of its own. One process for each policy, without a journal."""

    def __init__(self, device):
        self.name, self.title, self.device = device, f"policyroute, device {device}", device
        self.router = Router("pr-" + device)
        self.daemon = None

    def start(self, count, options=()):
        self.daemon = netlab.Daemon(ns=self.router.name, device=self.device,
                                    options=[f"policyroute.maxnodenum={max(128, count)}", *options]).start()
        return self.daemon

    def missing(self):
        """None, or why there is no such device here."""
        try:
            self.start(1, ["host.journal=off"])
        except netlab.Refused as error:
            return str(error).strip().splitlines()[-1]
        finally:
            if self.daemon is not None:
                self.remove()
        return None

    def can(self, _kind, _family, _count):
        """None, or why this policy cannot be measured."""
        return None

    def install(self, kind, family, count, seconds=60):
        """Brings the policy into the kernel, whole. Result: seconds that `pbrctl apply` took."""
        self.start(count, ["host.journal=off"])
        took = self.apply(policies.text(kind, family, count), seconds)
        self.whole(count)
        return took

    def apply(self, text, seconds=60):
        """Result: how long `pbrctl apply` took, which must be less than `seconds`."""
        path = os.path.join(self.daemon.root, "policy.yaml")
        with open(path, "w") as file:
            file.write(text)
        begin = time.monotonic()
        try:
            done = subprocess.run(self.daemon.program("pbrctl") + ["--root", self.daemon.root, "apply", path],
                                  capture_output=True, text=True, timeout=seconds)
        except subprocess.TimeoutExpired:
            raise Broken(f"{text.count('permit'):,} nodes: apply was not done after {seconds:g} s") from None
        if done.returncode:
            raise Broken(f"{self.title}: {(done.stdout + done.stderr).strip().splitlines()[-1]}")
        return time.monotonic() - begin

    def cpu(self):
        """Processor seconds of the daemon, and of the tools that ran so far."""
        with open(f"/proc/{self.daemon.process.pid}/stat") as file:
            words = file.read().rsplit(")", 1)[1].split()
        tools = resource.getrusage(resource.RUSAGE_CHILDREN)
        return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK") + tools.ru_utime + tools.ru_stime

    def whole(self, count):
        device = self.daemon.json("show", "device")
        missing = [entry for entry in device["entries"] if not entry["installed"]]
        if device["state"] != "live" or len(device["entries"]) != count or missing:
            raise Broken(f"{self.title}: {device['state']}, {len(device['entries'])} entries of {count}, "
                         f"{len(missing)} not installed: {missing[:1]}")

    def settle(self, count, seconds=20.0):
        """Waits until all nodes are in the kernel: their next hops have answered."""
        end = time.monotonic() + seconds
        while True:
            try:
                return self.whole(count)
            except Broken:
                if time.monotonic() > end:
                    raise
                time.sleep(0.05)

    def remove(self):
        """Ends the process and takes what it installed out of the kernel."""
        if self.daemon is None:
            return
        try:
            self.daemon.ctl("device", "flush")
            self.daemon.close()
        except (subprocess.SubprocessError, netlab.Refused, AssertionError):  # busy for too long: a new router then
            self.daemon.kill()
            self.daemon.close()
            self.router.close()
            self.router = Router("pr-" + self.device)
        self.daemon = None

    def close(self):
        self.remove()
        self.router.close()
