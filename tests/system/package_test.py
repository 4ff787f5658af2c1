#!/usr/bin/env python3
"""The Debian package, on a machine of its own: installed, run as its unit says, removed without a trace."""
import glob
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest

import system_case
import netlab
import package_lab

MAN = {"policyrouted.8", "pbrctl.8", "policyroute.conf.5", "policyroute.yaml.5"}
POLICY = "/usr/share/doc/policyroute/examples/two-uplinks.yaml"
# dpkg's own books and the copies that the user tools keep of the files that they change.
BOOKS = re.compile(r"^/(var/lib/dpkg/|var/log/|var/cache/|etc/(passwd|shadow|group|gshadow|subuid|subgid)-$|etc/\.pwd\.lock$)")


def build():
    return os.environ.get("POLICYROUTE_BUILD") or os.path.join(netlab.ROOT, "build/release")


def read(path):
    with open(path) as file:
        return file.read()


class WithoutPackage(unittest.TestCase):
    """cmake --install alone, into a folder; nothing needs privileges."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="pbr-install-")
        self.addCleanup(shutil.rmtree, self.folder)

    def install(self, prefix):
        subprocess.run(["cmake", "--install", build(), "--prefix", prefix], check=True, capture_output=True,
                       env=dict(os.environ, DESTDIR=self.folder))

    def test_the_unit_names_the_program_where_it_was_installed(self):
        self.install("/opt/pbr")

        unit = read(self.folder + "/opt/pbr/lib/systemd/system/policyroute.service")
        self.assertIn("\nExecStart=/opt/pbr/sbin/policyrouted\n", unit)
        self.assertTrue(os.access(self.folder + "/opt/pbr/sbin/policyrouted", os.X_OK))

    def test_an_edited_option_file_stays(self):
        self.install("/usr")
        path = self.folder + "/etc/policyroute/policyroute.conf"
        self.assertIn("host.root = /run/policyroute", read(path))
        with open(path, "w") as file:
            file.write("# mine\n")

        self.install("/usr")

        self.assertEqual("# mine\n", read(path))

    def test_the_same_build_makes_the_same_package(self):
        made = []
        for name in ("a", "b"):
            done = subprocess.run([os.path.join(netlab.ROOT, "scripts/package.sh"), "--build", build(), "--output",
                                   os.path.join(self.folder, name)], check=True, text=True, capture_output=True)
            with open(done.stdout.strip(), "rb") as file:
                made.append(file.read())
        self.assertEqual(made[0], made[1])


@unittest.skipUnless(package_lab.can_install(), "installing a package needs root")
class PackageCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="pbr-package-")
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        done = subprocess.run([os.path.join(netlab.ROOT, "scripts/package.sh"), "--build", build(), "--output", cls.folder],
                              text=True, capture_output=True)
        assert done.returncode == 0, done.stderr
        cls.package = done.stdout.strip()
        cls.machine = package_lab.Machine()
        cls.addClassCleanup(cls.machine.close)
        cls.lab = netlab.Lab()
        cls.addClassCleanup(cls.lab.close)
        cls.machine.install(cls.package)

    def service(self):
        service = package_lab.Service(self.machine, "rtr")
        self.addCleanup(service.close)
        return service

    def ctl(self, *words, user="root", check=True):
        return self.machine.run("setpriv", "--reuid=" + user, "--init-groups", "pbrctl", *words, ns="rtr", check=check)

    def all_by(self, up):
        end = time.monotonic() + 5
        seen = system_case.by_uplink(self.lab)
        while seen != {up: 20} and time.monotonic() < end:
            seen = system_case.by_uplink(self.lab)
        self.assertEqual({up: 20}, seen)

    def kernel(self):
        """All that a policy can leave in the router's kernel."""
        return [netlab.run(words, "rtr").stdout for words in (
            "nft list tables", "ip -4 rule", "ip -6 rule", "ip nexthop", "ip -4 route show table all",
            "ip -6 route show table all")]


class Installed(PackageCase):
    def test_every_file_is_at_its_place_with_its_owner(self):
        listed = set(self.machine.run("dpkg", "--listfiles", "policyroute").stdout.split("\n"))
        for path in ["/usr/sbin/policyrouted", "/usr/bin/pbrctl", "/etc/policyroute/policyroute.conf",
                     "/usr/lib/systemd/system/policyroute.service", "/usr/share/bash-completion/completions/pbrctl",
                     POLICY] + [f"/usr/share/man/man{name[-1]}/{name}.gz" for name in MAN]:
            self.assertIn(path, listed)
            status = os.stat(self.machine.path(path))
            self.assertEqual((0, 0), (status.st_uid, status.st_gid), path)
            self.assertEqual(0, status.st_mode & 0o022, path)
        self.assertEqual("", self.machine.run("dpkg", "--verify", "policyroute").stdout)
        self.assertIn("/etc/policyroute/policyroute.conf",
                      self.machine.run("dpkg-query", "-W", "-f", "${Conffiles}", "policyroute").stdout)
        self.assertIn("libnftnl", self.machine.run("dpkg-query", "-W", "-f", "${Depends}", "policyroute").stdout)

    def test_the_daemon_has_a_user_of_its_own_who_cannot_log_in(self):
        name, _, uid, _, _, _, shell = self.machine.run("getent", "passwd", "policyroute").stdout.strip().split(":")
        self.assertEqual("policyroute", name)
        self.assertLess(int(uid), 1000)
        self.assertEqual("/usr/sbin/nologin", shell)

    def test_the_pages_of_the_manual_are_without_warnings(self):
        def warnings(path):
            environment = dict(os.environ, LC_ALL="C.UTF-8", MANROFFSEQ="")
            return subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", path], text=True,
                                  capture_output=True, env=environment).stderr
        for page in sorted(MAN):
            self.assertEqual("", warnings(os.path.join(netlab.ROOT, "packaging/man", page)), page)
        with tempfile.NamedTemporaryFile("w", suffix=".8") as broken:
            broken.write(".Dd today\n.Dt X 8\n.Os\n.Sh NAME\n.Nm x\n.Nd y\n.Unheardof\n")
            broken.flush()
            self.assertNotEqual("", warnings(broken.name), "man tells nothing at all")

    def page(self, name):
        text = read(os.path.join(netlab.ROOT, "packaging/man", name))
        return re.sub(r"\s+", " ", text.replace(" Ns Ar ", " ").replace("host.vrf. NAME", "host.vrf.NAME"))

    def test_the_manual_names_every_option_and_every_command(self):
        # given what the programs themselves say
        options = set(re.findall(r"^  (host\.[A-Za-z.-]+)", self.machine.run("policyrouted", "--help").stdout, re.MULTILINE))
        commands = set(re.findall(r"^  ([a-z][a-z-]*)  ", self.machine.run("pbrctl", "--help").stdout, re.MULTILINE))
        self.assertGreater(len(options), 10)
        self.assertGreater(len(commands), 10)
        # then each has its place in the manual, and the options in the operator's page
        operations = read(os.path.join(netlab.ROOT, "docs/operations.md"))
        for option in options:
            self.assertRegex(self.page("policyroute.conf.5"), rf"\.It Cm {re.escape(option)} ")
            self.assertIn(f"`{option}`", operations)
        for command in commands:
            self.assertRegex(self.page("pbrctl.8"), rf"\.It Cm {command} ", command)
        reports = set(re.findall(r"^  ([a-z][a-z-]*)  ", self.machine.run("pbrctl", "show", "--help").stdout, re.MULTILINE))
        self.assertGreater(len(reports), 5)
        for report in reports:
            self.assertRegex(self.page("pbrctl.8"), rf"\.It Cm show {report} ", report)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd-analyze here")
    def test_the_unit_is_understood_whole(self):
        done = self.machine.run("systemd-analyze", "verify", "--man=no", "/usr/lib/systemd/system/policyroute.service",
                                check=False)
        ours = [line for line in (done.stdout + done.stderr).split("\n") if "policyroute" in line]
        self.assertEqual([], ours)

    def test_the_installed_options_are_the_defaults_but_for_root_and_group(self):
        text = read(self.machine.path("/etc/policyroute/policyroute.conf"))
        given = dict(re.findall(r"^([a-z.-]+) = (.*)$", text, re.MULTILINE))
        self.assertEqual({"host.root": "/run/policyroute", "host.group": "policyroute"},
                         {key: value for key, value in given.items() if key in ("host.root", "host.group")})
        defaults = dict(re.findall(r"^  (host\.[a-z-]+) \((.*?)\):", self.machine.run("policyrouted", "--help").stdout,
                                   re.MULTILINE))
        for key, value in re.findall(r"^#(host\.[a-z-]+) = (.*)$", text, re.MULTILINE):
            self.assertEqual(defaults[key], value, key)

    def test_the_service_steers_with_two_capabilities_and_without_root(self):
        # given the service as its unit says
        service = self.service()
        self.assertEqual("READY=1\nSTATUS=Serving.", service.start())
        self.addCleanup(lambda: self.ctl("device", "flush", check=False))
        with open(f"/proc/{self.pid()}/status") as file:
            status = dict(line.rstrip("\n").split(":\t", 1) for line in file)
        self.assertNotIn("0", status["Uid"].split())
        for kind, kept in (("CapEff", 0x3000), ("CapPrm", 0x3000), ("CapBnd", 0x3000), ("CapAmb", 0), ("CapInh", 0)):
            self.assertEqual(kept, int(status[kind], 16), kind)
        self.assertEqual("1", status["NoNewPrivs"])

        # what is to survive a boot is not below /run
        self.assertEqual(self.machine.run("realpath", "/run/policyroute/var/lib/policyroute").stdout, "/var/lib/policyroute\n")

        # when a policy with a probe is applied, without a word about where the daemon is
        self.ctl("apply", POLICY)
        self.ctl("probe", "add", "ops/isp-a", "icmp", "198.51.100.1", "--via", "198.51.100.1", "--interval", "50ms")

        # then packets take its way, the probe is answered, and the service says that it lives
        self.all_by("upa")
        self.assertTrue(self.until(lambda: "passing" in self.ctl("show", "probes").stdout), self.ctl("show", "probes").stdout)
        self.assertEqual(["WATCHDOG=1"] * 3, [service.told() for _ in range(3)])
        self.assertEqual(["STOPPING=1\nSTATUS=Ending; what is installed stays."], service.stop())
        self.all_by("upa")

        # and the next start takes over what is installed
        stream = netlab.Stream(self.lab)
        service.start()
        self.ctl("apply", POLICY)
        self.assertEqual(0, stream.stop()["lost"])
        service.stop()
        service.start()

    def test_members_of_the_group_may_change_the_policy_and_others_may_not_look(self):
        service = self.service()
        service.start()
        self.machine.run("useradd", "--groups", "policyroute", "--no-create-home", "pbr-operator")
        self.addCleanup(self.machine.run, "userdel", "pbr-operator")

        self.ctl("list", "add", "mine", user="pbr-operator")
        self.assertIn("mine", self.ctl("show", "lists", user="pbr-operator").stdout)

        refused = self.ctl("show", "lists", user="nobody", check=False)
        self.assertEqual(3, refused.returncode, refused.stderr)
        self.ctl("list", "del", "mine", user="pbr-operator")

    def pid(self):
        with open(self.machine.path("/run/policyroute/run/policyroute/policyrouted.lock")) as file:
            return int(file.read())

    def until(self, question):
        end = time.monotonic() + 5
        while not question() and time.monotonic() < end:
            time.sleep(0.05)
        return question()


class Removed(PackageCase):
    def test_a_daemon_that_cannot_start_does_not_keep_the_package(self):
        self.addCleanup(self.machine.install, self.package)
        with open(self.machine.path("/etc/policyroute/policyroute.conf"), "a") as file:
            file.write("host.nonsense = 1\n")

        done = self.machine.dpkg("--purge", "policyroute", ns="rtr")

        self.assertIn("what it installed in the kernel could not be removed", done.stderr)
        self.assertIn("unknown option 'host.nonsense'", done.stderr)
        self.assertFalse(os.path.exists(self.machine.path("/usr/sbin/policyrouted")))

    def test_nothing_is_left_of_it(self):
        # given a policy that is installed and goes on without the service
        kernel = self.kernel()
        service = self.service()
        service.start()
        self.ctl("apply", POLICY)
        self.all_by("upa")
        service.stop()
        self.assertNotEqual(kernel, self.kernel())
        with open(self.machine.path("/etc/policyroute/policyroute.conf"), "a") as file:
            file.write("# mine\n")

        # when the package is upgraded, policy and edited options stay
        self.machine.dpkg("--force-confold", "--install", "/tmp/policyroute.deb", ns="rtr")
        self.all_by("upa")
        self.assertIn("# mine", read(self.machine.path("/etc/policyroute/policyroute.conf")))

        # when it is removed, the kernel is as before, and the options stay
        done = self.machine.dpkg("--remove", "policyroute", ns="rtr")
        self.assertNotIn("could not be removed", done.stderr)
        self.assertEqual(kernel, self.kernel())
        self.all_by("upb")
        self.assertEqual([], self.machine.programs())
        self.assertTrue(os.path.exists(self.machine.path("/etc/policyroute/policyroute.conf")))
        self.assertFalse(os.path.exists(self.machine.path("/usr/sbin/policyrouted")))

        # when it is purged, the machine is as before
        os.makedirs(self.machine.path("/var/lib/policyroute/sub"))
        self.machine.dpkg("--purge", "policyroute", ns="rtr")
        left = {path: how for path, how in self.machine.changes().items() if not BOOKS.match(path)}
        self.assertEqual({}, left)
        self.assertEqual(set(), {path for path in self.machine.new_folders() if "policyroute" in path})
        self.assertEqual([], glob.glob(self.machine.path("/run/policyroute*")) + glob.glob(self.machine.path("/tmp/tmp.*")))
        self.assertNotEqual(0, self.machine.run("getent", "passwd", "policyroute", check=False).returncode)


if __name__ == "__main__":
    system_case.main()
