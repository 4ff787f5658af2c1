"""The time of day of a daemon, set forward and back while it runs: see clock.c. The machine's clock stays as it is."""
import struct
import unittest

import preload


class Clock(preload.Switches):
    """The clock of any number of processes, one after the other."""

    def __init__(self):
        if preload.compiler() != "cc":
            raise unittest.SkipTest("32-bit programs ask for 64-bit times by names that the object does not have")
        super().__init__("clock", "PBR_CLOCK", 16)
        self.ahead = self.steps = 0

    def step(self, seconds):
        """Sets the clock so many seconds forward, or back."""
        self.ahead += seconds
        self.steps += 1
        struct.pack_into("=q", self.map, 0, self.ahead)
        struct.pack_into("=I", self.map, 8, self.steps)  # last: this one tells it
