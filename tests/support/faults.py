"""System calls of the daemon that fail on demand, while it runs: see faults.c."""
import errno
import mmap
import os
import shutil
import struct
import subprocess
import tempfile

import netlab

NAMES = ("socket", "sendto", "send", "sendmsg", "recv", "recvfrom", "recvmsg", "accept4", "open", "pwrite", "write", "read",
         "fdatasync", "epoll_wait", "bind")
KINDS = ("any", "netlink", "unix", "inet", "regular")
SLOT, SHORT = struct.Struct("=5I"), 9999
EM_386 = 3  # a program's machine in its ELF header


def compiler():
    """The C compiler whose objects the daemon can load: a 32-bit x86 program needs the cross compiler's."""
    with open(netlab.Daemon(root="none").program("policyrouted")[-1], "rb") as file:
        machine = struct.unpack("<18xH", file.read(20))[0]
    return "i686-linux-gnu-gcc" if machine == EM_386 else "cc"


class Faults:
    """The switches. One object serves any number of processes, one after the other."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="pbr-faults-")
        self.object = self.folder + "/faults.so"
        source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "faults.c")
        subprocess.run([compiler(), "-O1", "-shared", "-fPIC", "-w", "-o", self.object, source, "-ldl"], check=True)
        self.path = self.folder + "/switches"
        with open(self.path, "wb") as file:
            file.write(b"\0" * SLOT.size * len(NAMES))
        with open(self.path, "r+b") as file:
            self.map = mmap.mmap(file.fileno(), 0)

    def set(self, name, error, skip=0, count=1, kind="any"):
        """The calls of that name, on descriptors of that kind: `skip` pass, `count` fail. error: "ENOBUFS", "SHORT"."""
        number = SHORT if error == "SHORT" else getattr(errno, error)
        at = NAMES.index(name) * SLOT.size
        SLOT.pack_into(self.map, at, skip, 0, number, KINDS.index(kind), 0)
        struct.pack_into("=I", self.map, at + 4, count)  # last: this one arms it

    def clear(self):
        """Nothing fails any more; result: how many calls failed since the set."""
        hits = 0
        for number in range(len(NAMES)):
            struct.pack_into("=I", self.map, number * SLOT.size + 4, 0)
            hits += SLOT.unpack_from(self.map, number * SLOT.size)[4]
            struct.pack_into("=I", self.map, number * SLOT.size + 16, 0)
        return hits

    def close(self):
        self.map.close()
        shutil.rmtree(self.folder)


class Daemon(netlab.Daemon):
    """A daemon whose system calls can be made to fail."""

    def __init__(self, faults, **words):
        super().__init__(**words)
        self.faults = faults

    def start(self, wait=15.0):
        os.environ["LD_PRELOAD"], os.environ["PBR_FAULTS"] = self.faults.object, self.faults.path
        os.environ.setdefault("ASAN_OPTIONS", "verify_asan_link_order=0")
        try:
            return super().start(wait)
        finally:
            del os.environ["LD_PRELOAD"], os.environ["PBR_FAULTS"]
