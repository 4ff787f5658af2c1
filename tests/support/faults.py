"""System calls of the daemon that fail on demand, while it runs: see faults.c."""
import errno
import struct

import preload

NAMES = ("socket", "sendto", "send", "sendmsg", "recv", "recvfrom", "recvmsg", "accept4", "open", "pwrite", "write", "read",
         "fdatasync", "epoll_wait", "bind")
KINDS = ("any", "netlink", "unix", "inet", "regular")
SLOT, SHORT = struct.Struct("=5I"), 9999


class Faults(preload.Switches):
    """The switches. One object serves any number of processes, one after the other."""

    def __init__(self):
        super().__init__("faults", "PBR_FAULTS", SLOT.size * len(NAMES))

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
