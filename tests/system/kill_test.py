"""kill -9 at random moments of random work: what was answered with success is there, and nothing else is disturbed."""
import random
import unittest

import system_case
import kill_storm


class Killed(unittest.TestCase):
    def test_whatever_was_answered_is_there_after_each_of_25_kills(self):
        seed = random.randrange(1 << 30)
        print("seed", seed)
        storm = kill_storm.Storm(25, seed)
        self.addCleanup(storm.close)
        storm.blow()
        self.assertEqual([], storm.faults, f"seed {seed}")
        self.assertGreater(storm.answered, 100)
        self.assertGreater(storm.open, 5)
        self.assertGreater(storm.checks, 0)


if __name__ == "__main__":
    system_case.main()
