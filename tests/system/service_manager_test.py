#!/usr/bin/env python3
"""The installed package under a booted systemd: started, restarted, killed, hung, switched on at boot."""
import json
import os
import shutil
import subprocess
import tempfile
import time
import unittest

import system_case
import boot_lab
import netlab

POLICY = "/usr/share/doc/policyroute/examples/two-uplinks.yaml"
DROP_IN = "/etc/systemd/system/policyroute.service.d/test.conf"


def build():
    return os.environ.get("POLICYROUTE_BUILD") or os.path.join(netlab.ROOT, "build/release")


def is_sanitized():
    with open(os.path.join(build(), "CMakeCache.txt")) as file:
        return "-fsanitize" in file.read()


@unittest.skipIf(is_sanitized(), "the sanitizers need system calls that the unit forbids")
@unittest.skipUnless(boot_lab.can_boot(), "booting a machine needs root and systemd")
class Booted(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.mkdtemp(prefix="pbr-package-")
        cls.addClassCleanup(shutil.rmtree, folder)
        done = subprocess.run([os.path.join(netlab.ROOT, "scripts/package.sh"), "--build", build(), "--output", folder],
                              text=True, capture_output=True)
        assert done.returncode == 0, done.stderr
        cls.lab = netlab.Lab()
        cls.addClassCleanup(cls.lab.close)
        cls.machine = boot_lab.BootedMachine("rtr")
        cls.addClassCleanup(cls.machine.close)
        cls.machine.unwanted()
        cls.machine.install(done.stdout.strip())
        cls.machine.boot()

    def setUp(self):
        self.inside, self.properties = self.machine.inside, self.machine.properties
        self.inside("systemctl", "start", "policyroute")
        self.addCleanup(self.begin_again)
        self.inside("pbrctl", "apply", POLICY)
        self.all_by("upa")

    def begin_again(self):
        if os.path.exists(self.machine.path(DROP_IN)):
            os.unlink(self.machine.path(DROP_IN))
            self.inside("systemctl", "daemon-reload")
        self.inside("systemctl", "reset-failed", "policyroute", check=False)

    def until(self, question, seconds=20.0):
        end = time.monotonic() + seconds
        while not question() and time.monotonic() < end:
            time.sleep(0.05)
        return question()

    def all_by(self, up):
        seen = {}

        def question():
            seen["now"] = system_case.by_uplink(self.lab)
            return seen["now"] == {up: 20}

        self.assertTrue(self.until(question), f"{seen}\n{self.machine.journal()}")

    def main_pid(self):
        return self.properties("policyroute", "MainPID")["MainPID"]

    def another_runs_than(self, pid):
        now = self.properties("policyroute", "ActiveState", "MainPID")
        return now["ActiveState"] == "active" and now["MainPID"] not in ("0", pid)

    def test_the_manager_hears_that_it_serves_and_confines_it(self):
        now = self.properties("policyroute", "ActiveState", "SubState", "StatusText", "Type")
        self.assertEqual({"ActiveState": "active", "SubState": "running", "StatusText": "Serving.", "Type": "notify"}, now)

        text = self.inside("cat", f"/proc/{self.main_pid()}/status").stdout
        status = dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)
        self.assertNotIn("0", status["Uid"].split())
        self.assertEqual({"CapEff": 0x3000, "CapBnd": 0x3000},
                         {name: int(status[name], 16) for name in ("CapEff", "CapBnd")})
        self.assertEqual(("1", "2"), (status["NoNewPrivs"], status["Seccomp"]))

        # its view of the files: the system is read-only, homes and devices are not there
        pid = self.main_pid()
        mounts = {line.split()[1]: line.split()[3].split(",") for line in self.inside("cat", f"/proc/{pid}/mounts").stdout.splitlines()}
        self.assertIn("ro", mounts["/"])
        self.assertIn("rw", mounts["/run/policyroute"])
        self.assertIn("rw", mounts["/var/lib/policyroute"])
        self.assertIn("/dev", mounts)

    def test_a_restart_loses_no_packet(self):
        pid, stream = self.main_pid(), netlab.Stream(self.lab)
        self.inside("systemctl", "restart", "policyroute")
        self.assertTrue(self.another_runs_than(pid))
        self.all_installed()
        result = stream.stop()
        self.assertEqual((0, {"upa": result["sent"]}), (result["lost"], result["uplinks"]))

    def test_a_crash_is_healed_by_the_manager_and_loses_no_packet(self):
        pid, stream = self.main_pid(), netlab.Stream(self.lab)
        self.inside("systemctl", "kill", "--signal=KILL", "--kill-who=main", "policyroute")
        self.assertTrue(self.until(lambda: self.another_runs_than(pid)), self.machine.journal())
        self.all_installed()
        result = stream.stop()
        self.assertEqual((0, {"upa": result["sent"]}), (result["lost"], result["uplinks"]))

    def all_installed(self):
        """Nobody applied anything: the policy is there by itself, and the kernel holds it."""
        self.assertTrue(self.until(lambda: self.inside("pbrctl", "check", check=False).returncode == 0),
                        self.inside("pbrctl", "check", check=False).stdout)
        self.assertIn("nothing to do", self.inside("pbrctl", "apply", POLICY).stdout)

    def test_a_daemon_that_hangs_is_replaced(self):
        self.drop_in("[Service]\nWatchdogSec=1\n")
        self.inside("systemctl", "restart", "policyroute")
        pid = self.main_pid()
        self.inside("systemctl", "kill", "--signal=STOP", "--kill-who=main", "policyroute")
        self.assertTrue(self.until(lambda: self.another_runs_than(pid)), self.machine.journal())
        self.assertIn("watchdog", self.inside("journalctl", "--no-pager", "-o", "cat").stdout.lower())
        self.all_by("upa")

    def drop_in(self, text):
        os.makedirs(os.path.dirname(self.machine.path(DROP_IN)), exist_ok=True)
        with open(self.machine.path(DROP_IN), "w") as file:
            file.write(text)
        self.inside("systemctl", "daemon-reload")

    def test_a_refused_option_is_told_and_not_tried_again(self):
        self.drop_in("[Service]\nExecStart=\nExecStart=/usr/sbin/policyrouted --option host.device=moon\n")
        done = self.inside("systemctl", "restart", "policyroute", check=False)
        self.assertNotEqual(0, done.returncode)
        now = self.properties("policyroute", "ActiveState", "NRestarts", "ExecMainStatus")
        self.assertEqual({"ActiveState": "failed", "NRestarts": "0", "ExecMainStatus": "1"}, now)
        self.assertIn("host.device", self.machine.journal())
        self.all_by("upa")  # what is installed goes on

    def test_stopped_it_leaves_the_packets_their_way(self):
        stream = netlab.Stream(self.lab)
        self.inside("systemctl", "stop", "policyroute")
        self.assertEqual("inactive", self.properties("policyroute", "ActiveState")["ActiveState"])
        result = stream.stop()
        self.assertEqual((0, {"upa": result["sent"]}), (result["lost"], result["uplinks"]))

    def test_after_a_boot_the_policy_is_there(self):
        # given a service that is switched on, and a kernel that has forgotten everything
        self.inside("systemctl", "enable", "policyroute")
        self.machine.power_off()
        netlab.run("nft flush ruleset", "rtr")
        for family in ("-4", "-6"):
            for rule in json.loads(netlab.run(f"ip -N -j -d {family} rule", "rtr").stdout):
                if str(rule.get("protocol")) == "206":
                    netlab.run(f"ip {family} rule del pref {rule['priority']}", "rtr")
        netlab.run("ip nexthop flush proto 206", "rtr", check=False)
        self.assertEqual({"upb": 20}, system_case.by_uplink(self.lab))
        # when the machine is switched on
        self.machine.boot()
        # then nobody has to do anything
        self.all_by("upa")
        self.assertIn("nothing to do", self.inside("pbrctl", "apply", POLICY).stdout)


if __name__ == "__main__":
    system_case.main()
