"""The daemon dies and comes back: packets keep flowing by the policy, and the next start adopts what it finds."""
import time

import system_case
import netlab
from steering_test import both, hops, policy


class SurvivesTheDaemon(system_case.LabCase):
    options = ("host.neighbour-probe-ms=400", "host.adopt-wait-ms=60000")

    def test_packets_keep_flowing_when_the_daemon_is_killed(self):
        self.daemon.apply(policy(both("upa", "upc")))
        for family in (4, 6):
            self.all_by("upa", family=family)
        self.daemon.kill()
        for family in (4, 6):
            self.assertEqual({"upa": 20}, self.by_uplink(family=family))
        self.daemon.start()

    def test_the_same_policy_applied_again_loses_no_packet(self):
        text = policy(both("upa", "upc"))
        self.daemon.apply(text)
        for family in (4, 6):
            self.all_by("upa", family=family)
        streams = [netlab.Stream(self.lab, family) for family in (4, 6)]
        time.sleep(0.2)
        self.daemon.kill()
        time.sleep(0.2)
        self.daemon.start()
        time.sleep(0.2)
        self.daemon.apply(text)
        time.sleep(1.5)
        for stream in streams:
            result = stream.stop()
            self.assertEqual(0, result["lost"], result["lost_numbers"][:10])
            self.assertEqual({"upa"}, set(result["uplinks"]))

    def test_what_the_new_policy_does_not_want_is_removed(self):
        self.daemon.apply(policy(both("upa"), bindings="lan0: wan, lan1: wan"))
        self.all_by("upa", source_ns="lan2")
        self.daemon.kill()
        self.daemon.start()
        self.daemon.apply(policy({10: f"acl: 1502, next-hops: {hops('upc')}"}))
        self.all_by("upc", port=505)
        self.all_by("upb", port=443)
        self.all_by("upb", port=443, source_ns="lan2")
        self.all_by("upb", port=443, family=6)

    def test_an_apply_is_done_when_the_kernel_has_the_new_policy(self):
        self.daemon.apply(policy(both("upa")))
        self.daemon.kill()
        self.daemon.options = [*self.options, "host.journal=off"]
        self.daemon.start()
        self.assertEqual("held", self.daemon.json("show", "device")["state"])
        self.daemon.apply(policy(both("upc")))
        self.assertEqual("live", self.daemon.json("show", "device")["state"])
        for family in (4, 6):
            self.assertEqual({"upc": 20}, self.by_uplink(family=family))

    def test_fails_over_again_after_the_restart(self):
        text = policy(both("upa", "upc"))
        self.daemon.apply(text)
        self.all_by("upa")
        self.daemon.kill()
        self.daemon.start()
        self.daemon.apply(text)
        self.all_by("upa")
        self.lab.silence("upa")
        for family in (4, 6):
            self.all_by("upc", family=family)

    def test_a_flushed_table_is_restored(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        netlab.run("nft delete table inet policyroute", "rtr")
        self.all_by("upa")
        netlab.run("ip rule flush", "rtr")
        netlab.run("ip rule add pref 32766 lookup main", "rtr")
        self.all_by("upa")
        told = [line.split("installed")[1].strip() for line in self.daemon.errors if "the kernel held something else" in line]
        self.assertEqual("(table inet policyroute is missing); it is repaired", told[0])
        self.assertIn("(IPv4 rule 15000 is missing", told[-1])


class WithoutApply(system_case.LabCase):
    options = ("host.neighbour-probe-ms=400", "host.adopt-wait-ms=1000", "host.journal=off")

    def test_a_policy_nobody_applies_again_is_let_go_after_the_wait(self):
        self.daemon.apply(policy(both("upa")))
        self.all_by("upa")
        self.daemon.kill()
        self.assertEqual({"upa": 20}, self.by_uplink())
        self.daemon.start()
        self.all_by("upb", seconds=10)


if __name__ == "__main__":
    system_case.main()
