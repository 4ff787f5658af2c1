"""Many clients, a storm of events, and clients that misbehave, for a short while."""
import os
import random
import unittest

import system_case
import soak


class Soaked(unittest.TestCase):
    def test_64_clients_get_right_answers_beside_a_storm_and_clients_that_misbehave(self):
        seed = random.randrange(1 << 20)
        print("seed", seed)
        # The address sanitizer keeps up to 256 MB of what was freed, and every way to an allocation for good.
        os.environ.setdefault("ASAN_OPTIONS", "quarantine_size_mb=4:thread_local_quarantine_size_kb=64:malloc_context_size=0")
        one = soak.Soak(20, seed)
        self.addCleanup(one.close)
        one.blow()
        self.assertEqual([], one.faults, f"seed {seed}")
        self.assertGreater(one.questions, 1000)
        self.assertGreater(one.published, 1000)
        self.assertLess(one.growth, 8192, f"kilobytes that the memory grew by: {one.samples}")


if __name__ == "__main__":
    system_case.main()
