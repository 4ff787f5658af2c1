"""What `pbrctl check` says of a real daemon and a real kernel, and what is warned of when a policy is applied."""
import json

import system_case
import netlab
from steering_test import both, hops, policy


class Check(system_case.LabCase):
    def text(self):
        return self.daemon.ctl("check", check=False)

    def test_an_applied_policy_agrees_in_one_line(self):
        self.daemon.apply(policy(both("upa")))
        done = self.text()
        self.assertEqual(("ok: 2 entries on 1 interface, kernel as installed\n", "", 0),
                         (done.stdout, done.stderr, done.returncode))

    def test_forwarding_that_is_off_is_told_with_the_policy_and_by_check(self):
        netlab.sysctl("rtr", "ipv4/ip_forward", 0)
        self.addCleanup(netlab.sysctl, "rtr", "ipv4/ip_forward", 1)
        self.assertIn("warning: this machine forwards no IPv4 packets", self.daemon.apply(policy(both("upa"))).stderr)
        done = self.text()
        self.assertEqual(0, done.returncode)
        self.assertIn("warning: this machine forwards no IPv4 packets. What to do: sysctl -w", done.stderr)
        self.daemon.ctl("unbind", "lan0")
        self.assertIn("forwards no IPv4 packets", self.daemon.ctl("bind", "lan0", "wan").stderr)

    def test_an_entry_that_the_kernel_cannot_do_is_a_difference(self):
        self.daemon.apply(policy({10: f"acl: 1501, next-hops: {hops('upa')}"}))
        self.daemon.ctl("unbind", "lan0")
        self.daemon.ctl("node", "set", "wan", 10, "--priority", 12)
        self.daemon.ctl("bind", "lan0", "wan", check=False)
        done = self.daemon.ctl("check", "--json", check=False)
        self.assertEqual(1, done.returncode, done.stdout)
        self.assertEqual({"refused"}, {each["code"] for each in json.loads(done.stdout)["differences"]})

    def test_what_was_repaired_is_counted(self):
        self.daemon.apply(policy(both("upa")))
        netlab.run("nft flush ruleset", "rtr")
        self.assertTrue(self.daemon.until(lambda: "repaired 1 time" in self.text().stdout), self.text().stdout)


if __name__ == "__main__":
    system_case.main()
