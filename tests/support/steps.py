"""The time of day of a daemon, set forward and back while it runs: see clock.c. The machine's clock stays as it is."""
import mmap
import os
import shutil
import struct
import subprocess
import tempfile

import netlab


class Clock:
    """The clock of any number of processes, one after the other."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="pbr-clock-")
        self.object = self.folder + "/clock.so"
        source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "clock.c")
        subprocess.run(["cc", "-O1", "-shared", "-fPIC", "-w", "-o", self.object, source, "-ldl", "-lpthread"], check=True)
        self.path = self.folder + "/switch"
        with open(self.path, "wb") as file:
            file.write(b"\0" * 16)
        with open(self.path, "r+b") as file:
            self.map = mmap.mmap(file.fileno(), 0)
        self.ahead = self.steps = 0

    def step(self, seconds):
        """Sets the clock so many seconds forward, or back."""
        self.ahead += seconds
        self.steps += 1
        struct.pack_into("=q", self.map, 0, self.ahead)
        struct.pack_into("=I", self.map, 8, self.steps)  # last: this one tells it

    def close(self):
        self.map.close()
        shutil.rmtree(self.folder)


class Daemon(netlab.Daemon):
    """A daemon whose clock is that one."""

    def __init__(self, clock, **words):
        super().__init__(**words)
        self.clock = clock

    def start(self, wait=15.0):
        os.environ["LD_PRELOAD"], os.environ["PBR_CLOCK"] = self.clock.object, self.clock.path
        os.environ.setdefault("ASAN_OPTIONS", "verify_asan_link_order=0")
        try:
            return super().start(wait)
        finally:
            del os.environ["LD_PRELOAD"], os.environ["PBR_CLOCK"]
