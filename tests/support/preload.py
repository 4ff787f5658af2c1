"""What a daemon's system calls do otherwise while it runs: a C source beside this file, compiled and preloaded
(LD_PRELOAD), steered through a file of switches that both map."""
import mmap
import os
import shutil
import struct
import subprocess
import tempfile

import netlab

EM_386 = 3  # a program's machine in its ELF header


def compiler():
    """The C compiler whose objects the daemon can load: a 32-bit x86 program needs the cross compiler's."""
    with open(netlab.Daemon(root="none").program("policyrouted")[-1], "rb") as file:
        machine = struct.unpack("<18xH", file.read(20))[0]
    return "i686-linux-gnu-gcc" if machine == EM_386 else "cc"


class Switches:
    """The object of NAME.c, and so many bytes of switches in the file that the environment's `variable` names. Serves
    any number of processes, one after the other."""

    def __init__(self, name, variable, size):
        self.variable = variable
        self.folder = tempfile.mkdtemp(prefix=f"pbr-{name}-")
        self.object = f"{self.folder}/{name}.so"
        source = os.path.join(os.path.dirname(os.path.abspath(__file__)), name + ".c")
        subprocess.run([compiler(), "-O1", "-shared", "-fPIC", "-w", "-o", self.object, source, "-ldl", "-lpthread"],
                       check=True)
        self.path = self.folder + "/switches"
        with open(self.path, "wb") as file:
            file.write(b"\0" * size)
        with open(self.path, "r+b") as file:
            self.map = mmap.mmap(file.fileno(), 0)

    def environment(self):
        """What a process needs; the address sanitizer wants to be first else."""
        return {"LD_PRELOAD": self.object, self.variable: self.path,
                "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "verify_asan_link_order=0")}

    def close(self):
        self.map.close()
        shutil.rmtree(self.folder)


class Daemon(netlab.Daemon):
    """A daemon with such switches."""

    def __init__(self, switches, **words):
        super().__init__(**words)
        self.switches = switches

    def start(self, wait=15.0):
        own = self.switches.environment()
        before = {name: os.environ.get(name) for name in own}
        os.environ.update(own)
        try:
            return super().start(wait)
        finally:
            for name, value in before.items():
                if value is None:
                    del os.environ[name]
                else:
                    os.environ[name] = value
