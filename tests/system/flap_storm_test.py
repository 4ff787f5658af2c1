"""A short storm of next hops that come and go while packets flow and the policy is applied again and again: when it
is quiet, store, device, kernel and packets agree with what is true. FLAP_SEED chooses another one; the long
one is bench/flap_storm.py."""
import os
import unittest

import system_case
import flap_storm


class Storm(unittest.TestCase):
    def storm(self, seconds, count):
        storm = flap_storm.Storm(seconds, count, int(os.environ.get("FLAP_SEED", "1")))
        self.addCleanup(storm.close)
        storm.blow()
        storm.settle()
        return storm

    def test_everything_agrees_when_it_is_quiet_again(self):
        storm = self.storm(10, 50)
        faults = storm.check()
        self.assertEqual([], faults, storm.head())
        self.assertGreater(storm.head()["next hops that came or went"], 50)

    def test_each_part_tells_a_next_hop_that_is_not_as_it_should_be(self):
        storm = self.storm(1, 20)
        wrong = next(node.hops[0] for node in storm.nodes if node.hops[0].up and not node.ecmp)
        wrong.up = False  # it lives, and everybody uses it
        for part in ("_store_faults", "_device_faults", "_kernel_faults", "_packet_faults"):
            self.assertNotEqual([], getattr(storm, part)(), part)


if __name__ == "__main__":
    system_case.main()
