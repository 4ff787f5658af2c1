"""The kernel's own notifications in a router, with their times: what tells that something happened, and the changes of
rules, routes, next hops and nftables that follow."""
import select
import socket
import struct
import threading
import time

from kit.lab import netlab

NETLINK_ROUTE, NETLINK_NETFILTER, SOL_NETLINK, ADD_MEMBERSHIP, RCVBUFFORCE = 0, 12, 270, 1, 33
RTM_NEWLINK, RTM_NEWNEIGH, NUD_FAILED, LOWER_UP = 16, 28, 0x20, 0x10000
# What moves packets: new routes, rules and next hops, and routes that go; new nftables chains, rules and elements. (What is no
# longer used is removed later, when nothing refers to it any more.)
CHANGES = {24, 32, 104}
KERNELS_OWN = (2, 3, 9)  # protocols of routes that the kernel makes with an address or a link
NFT_CHANGES = {0xA03, 0xA06, 0xA0C}


def messages(data):
    offset = 0
    while offset + 16 <= len(data):
        length, kind = struct.unpack_from("=IH", data, offset)
        if length < 16:
            return
        yield kind, data[offset + 16:offset + length]
        offset += (length + 3) & ~3


class Watch:
    """Collects notifications of a router from its making until stop()."""

    def __init__(self, router, up):
        with netlab.inside(router):
            self.route = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_ROUTE)
            self.nft = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_NETFILTER)
            self.index = socket.if_nametoindex(up)
        for each in (self.route, self.nft):
            each.bind((0, 0))  # first: it clears the memberships
            each.setsockopt(socket.SOL_SOCKET, RCVBUFFORCE, 64 << 20)
        for group in (1, 3, 7, 8, 11, 19, 32):  # links, neighbours, routes, rules, next hops
            self.route.setsockopt(SOL_NETLINK, ADD_MEMBERSHIP, group)
        self.nft.setsockopt(SOL_NETLINK, ADD_MEMBERSHIP, 7)
        self.changes, self.down, self.up, self.failed = [], [], [], []  # times
        self.rules = 0  # new policy rules
        self.stopping = False
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        while not self.stopping:
            for each in select.select([self.route, self.nft], [], [], 0.02)[0]:
                now = time.monotonic()
                for kind, body in messages(each.recv(1 << 20)):
                    self._note(each is self.nft, kind, body, now)

    def _note(self, nft, kind, body, now):
        if kind in (NFT_CHANGES if nft else CHANGES) and not (not nft and kind == 24 and body[5] in KERNELS_OWN):
            self.changes.append(now)
            self.rules += not nft and kind == 32
        elif not nft and kind == RTM_NEWNEIGH:
            _, index, state = struct.unpack_from("=BxxxiH", body)
            if index == self.index and state & NUD_FAILED:
                self.failed.append(now)
        elif not nft and kind == RTM_NEWLINK:
            _, _, index, flags, _ = struct.unpack_from("=BxHiII", body)
            if index == self.index:
                (self.up if flags & LOWER_UP else self.down).append(now)

    def quiet(self, seconds, limit):
        """Waits until nothing has changed for `seconds`, `limit` at most."""
        end = time.monotonic() + limit
        while time.monotonic() < end and self.changes and time.monotonic() - self.changes[-1] < seconds:
            time.sleep(0.02)

    def stop(self):
        self.stopping = True
        self.thread.join()
        self.route.close()
        self.nft.close()

    def last_change(self, since, until=None):
        """The time of the last change in a span, None when there is none."""
        found = [each for each in self.changes if each >= since and (until is None or each <= until)]
        return found[-1] if found else None
