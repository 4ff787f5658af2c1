#!/usr/bin/env python3
"""Writes seeds of the fuzzers: FOLDER/NAME/SEED. Of those whose input is no text from the tables below; and of all what
earlier runs found worth keeping, from fuzz/found/NAME.txt, an input a line in Base64 (scripts/fuzz-keep.py).

    fuzz/seeds.py FOLDER

The forms of the inputs stand at the head of each fuzzer. Numbers of messages are in this machine's order, as
the daemon reads them; those of the fuzzers' own are low byte first."""
import base64
import pathlib
import socket
import sqlite3
import struct
import sys
import tempfile


def u16(value):
    return struct.pack("<H", value)


def u32(value):
    return struct.pack("<I", value)


def address(text):
    family = socket.AF_INET6 if ":" in text else socket.AF_INET
    return socket.inet_pton(family, text)


# ---- route messages -------------------------------------------------------------------------------------------

def message(kind, payload=b"", length=None):
    return struct.pack("=IH18x", 24 + len(payload) if length is None else length, kind) + payload


def peer(kind, text, vrf=0):
    return message(kind, struct.pack("=16sB3xI", address(text), 2 if ":" in text else 1, vrf))


def link(kind, unit, *attributes):
    return message(kind, struct.pack("=II16x", 0, unit) + b"".join(struct.pack("=HHI", 8, *each) for each in attributes))


def probe(admin, test, status):
    return message(349, struct.pack("=32s32sBBBx", admin, test, len(admin), len(test), status))


def card(kind, length, *words):
    return struct.pack("=IH", length, kind) + struct.pack("=9H", *(list(words) + [0] * 9)[:9])


READS = {
    "peers-up": [peer(305, "10.0.0.1"), peer(305, "10.0.0.2"), peer(305, "2001:db8::1")],
    "peers-flap": [peer(305, "10.0.0.1"), peer(306, "10.0.0.1") + peer(305, "10.0.0.2"), peer(307, "10.0.0.2"), peer(306, "10.0.0.2", 3)],
    "probe": [peer(305, "10.0.0.1"), probe(b"ops", b"t", 1), probe(b"ops", b"t", 2), probe(b"ops", b"t", 3)],
    "rules": [message(250, struct.pack("=II", 1501, 10)), message(251, struct.pack("=II", 1501, 10)), message(248, struct.pack("=I", 1501))],
    "links": [link(32, 7), link(32, 7, (52, 21)), link(32, 21, (66, 3), (67, 3)), link(34, 3), message(324, struct.pack("=II", 0, 9))],
    "cards": [card(97, 24, 1, 0, 1, 0), card(108, 24, 0, 1, 1, 1)],
    "lengths": [message(305, b"", 24), message(305, b"\0" * 24, 0), message(305, b"\0" * 24, 23), message(32, b"\0" * 24 + b"\1\0\x34\0", 52)],
}


def route_messages():
    for name, reads in READS.items():
        for settings in (1, 1 | 2 | 4, 1 | 8, 0):
            body = b"".join(u16(len(read) | (0x8000 if i % 2 else 0)) + read for i, read in enumerate(reads))
            yield f"{name}-{settings}", bytes([settings]) + body


# ---- command frames -------------------------------------------------------------------------------------------

def list_key(name):
    return struct.pack("=16sH", name, len(name))


def node_key(name, node, hop=0, mask=0):
    return struct.pack("=16sH2xIBB2x", name, len(name), node, mask, hop)


def frame(command, key=b"", field=0, kind=0, number=0, value=b"", version=1):
    body = key + value
    return struct.pack(">IBBHIIIHH", 20 + len(body), version, kind, command, 7, field, number, len(key), 0) + body


def set_bytes(command, key, field, value):
    return frame(command, key, field, 2, len(value), value)


UNIT = struct.pack("=I", 3)
FRAMES = {
    "make": [frame(10, list_key(b"w"), 1, 1, 2), frame(13, node_key(b"w", 5), 1, 1, 2), frame(13, node_key(b"w", 5), 4, 1, 1501),
             frame(13, node_key(b"w", 5), 10, 1, 1), frame(19, node_key(b"w", 5, 1), 1, 1, 2),
             set_bytes(19, node_key(b"w", 5, 1), 2, address("10.0.0.1")), set_bytes(19, node_key(b"w", 5, 1), 4, b"ops"),
             frame(16, UNIT, 1, 1, 1), set_bytes(16, UNIT, 2, b"w")],
    "walk": [frame(1, list_key(b"")), frame(2, list_key(b"a")), frame(3, node_key(b"a", 0, mask=0x80)), frame(4, node_key(b"a", 5)),
             frame(5, UNIT), frame(6, UNIT), frame(7, node_key(b"a", 5, 0, 0xC0)), frame(8, node_key(b"a", 5, 1))],
    "get": [frame(9, list_key(b"a"), 3, 2, 200), frame(12, node_key(b"a", 5), 15, 2, 200), frame(12, node_key(b"a", 5), 4),
            frame(15, UNIT, 4, 2, 200), frame(15, UNIT, 2, 2, 16), frame(18, node_key(b"a", 5, 1), 2, 2, 16), frame(21, b"", 7, 2, 100)],
    "destroy": [frame(16, UNIT, 1, 1, 2), frame(13, node_key(b"a", 5), 13, 1, 1), frame(10, list_key(b"a"), 1, 1, 4), frame(22, b"", 4, 1, 68)],
    "wrong": [frame(10, list_key(b"w"), 1, 2, 4, b"abcd"), frame(16, UNIT, 2, 1, 4096), frame(99), frame(1, b"ab"), frame(1, version=9), b"\xff" * 8],
}


def command_frames():
    for name, frames in FRAMES.items():
        for settings in (0, 2, 3, 6):
            cuts = bytes([3, 5, 30, 1]) if settings == 3 else b"\0"
            yield f"{name}-{settings}", bytes([settings]) + cuts + b"".join(frames)


# ---- API sequences: steps as api_sequences.cpp takes them --------------------------------------------------------

COMMAND_COUNT = 23  # ids 1..23


def step(command, field, name, node=0, hop=0, unit=0):
    return bytes([command - 1, field, name, node, hop, unit])


def number_of(value):
    return bytes([255]) + u32(value)


A = [step(10, 1, 0) + number_of(2), step(13, 1, 0) + number_of(2), step(13, 4, 0) + number_of(1501), step(13, 10, 0) + number_of(1),
     step(19, 1, 0, 0, 1) + number_of(2), step(19, 2, 0, 0, 1) + bytes([0]), step(19, 1, 0, 0, 2) + number_of(2), step(19, 2, 0, 0, 2) + bytes([1]),
     step(16, 1, 0) + number_of(1), step(16, 2, 0) + bytes([102])]
UP = bytes([150, 7]) + bytes([0] * 4) + bytes([0, 1, 0])
TICK = bytes([190, 1])
SEQUENCES = {
    "bind": A,
    "bind-up": A + [UP, TICK, UP, TICK],
    "bind-faults": A[:8] + [bytes([240, 3])] + A[8:] + [UP, bytes([225, 0, 1, 2]), TICK],
    "range": A[:4] + [step(13, 19, 0) + number_of(7)] + A[4:] + [bytes([210, 0]), TICK, bytes([211, 0]), TICK],
    "unbind": A + [UP, TICK, step(16, 1, 0) + number_of(2), step(10, 1, 0) + number_of(4), TICK],
}


def api_sequences():
    for name, steps in SEQUENCES.items():
        for tight in (0, 1):
            yield f"{name}-{tight}", bytes([tight]) + b"".join(steps)


# ---- kernel answers -------------------------------------------------------------------------------------------

def attribute(kind, value=b"", nested=False):
    if isinstance(value, list):
        value, nested = b"".join(value), True
    return struct.pack("=HH", 4 + len(value), kind | (0x8000 if nested else 0)) + value + b"\0" * (-len(value) % 4)


def word(kind, value):
    return attribute(kind, struct.pack("=I", value))


def big(kind, value):
    return attribute(kind, struct.pack(">I", value))


def name(kind, text):
    return attribute(kind, text.encode() + b"\0")


def netlink(kind, header, *attributes, flags=2):
    body = header + b"".join(attributes)
    return struct.pack("=IHHII", 16 + len(body), kind, flags, 0, 0) + body


DONE = netlink(3, struct.pack("=i", 0))
ACKNOWLEDGED = netlink(2, struct.pack("=i", 0) + struct.pack("=IHHII", 16, 0, 0, 0, 0))
REFUSED = netlink(2, struct.pack("=i", -16) + struct.pack("=IHHII", 16, 0, 0, 0, 0), name(1, "Device or resource busy"), word(2, 20),
                  flags=0x200 | 0x100)
OURS = "policyroute"


def nft(kind, *attributes):
    return netlink(10 << 8 | kind, struct.pack(">BBH", 1, 0, 0), *attributes)


def userdata(*pairs):
    return b"".join(struct.pack("BB", kind, len(value)) + value for kind, value in pairs)


TABLE = nft(0, name(1, OURS), big(2, 0), big(3, 1), attribute(6, userdata((0, b"policyroute: layout 1\0"))))
CHAIN = nft(3, name(1, OURS), name(3, "prerouting"), attribute(4, [big(1, 0), big(2, (1 << 32) - 151)]), big(5, 1), name(7, "filter"))
RULE = nft(6, name(1, OURS), name(2, "prerouting"), attribute(3, struct.pack(">Q", 1)),
           attribute(4, [attribute(1, [name(1, "counter"), attribute(2, [attribute(1, struct.pack(">Q", 64)), attribute(2, struct.pack(">Q", 1))])])]),
           attribute(7, userdata((0, b"wan/10\0"), (64, b"12345678"))))
SET = nft(9, name(1, OURS), name(2, "interfaces4"), big(3, 8), big(4, 41), big(5, 16), big(6, 0xFFFFFF00), big(7, 4))
ELEMENT = attribute(1, [attribute(1, [attribute(1, b"lan0".ljust(16, b"\0"))]),
                        attribute(2, [attribute(2, [big(1, (1 << 32) - 4), name(2, "wan")])])])
ELEMENTS = nft(12, name(1, OURS), name(2, "interfaces4"), attribute(3, [ELEMENT]))
# Expressions without a name, without data, with a nest that is none; a counter of half a number; attributes of other lengths.
ODD_RULE = nft(6, name(1, OURS), name(2, "prerouting"),
               attribute(4, [attribute(1, [attribute(2, [attribute(1, struct.pack(">Q", 64))])]), attribute(1, [name(1, "counter")]), attribute(1, b"x"),
                             attribute(1, [name(1, "counter"), attribute(2, [big(1, 64), big(2, 1)])])]), attribute(7, b"\x40"))
ODD_SET = nft(9, name(1, OURS), attribute(2, b""), attribute(3, b"\1"), name(5, "sixteen"), attribute(18, [attribute(1, b"\0")]))
ODD_CHAIN = nft(3, name(1, OURS), name(3, "prerouting"), big(4, 7), attribute(5, b"\1"), big(7, 0))
ODD_ELEMENTS = nft(12, name(1, OURS), big(2, 1), attribute(3, [attribute(1, [big(1, 7), big(2, 7)]), attribute(1, b""), attribute(1, b"xy")]))
RULES = netlink(32, struct.pack("=BBBBBBBBI", 2, 0, 0, 0, 254, 0, 0, 1, 0), word(6, 15000), word(10, 0x100000), word(16, 0xFFF00000), word(15, 1000000),
                attribute(21, b"\xce"))
OTHERS_RULE = netlink(32, struct.pack("=BBBBBBBBI", 2, 0, 0, 0, 253, 0, 0, 1, 0), word(6, 32766), name(3, "lan0"))


def route(kind, family, length, *attributes, protocol=206, table=254, route_type=1):
    return netlink(kind, struct.pack("=BBBBBBBBI", family, length, 0, 0, table, protocol, 0, route_type, 0), *attributes)


ROUTE = route(24, 2, 0, word(15, 1000000), word(6, 1), word(30, 17))
CONNECTED = route(24, 2, 24, attribute(1, address("10.0.0.0")), word(4, 2), protocol=2)
HOP = struct.pack("=HBBi", 16, 0, 0, 2) + attribute(5, address("10.0.0.1"))
SPREAD = route(24, 2, 0, attribute(9, HOP + HOP), protocol=3)
VIA = route(24, 10, 64, attribute(1, address("2001:db8::")), attribute(18, struct.pack("=H", 10) + address("fe80::1")), word(4, 3), protocol=3)
NEXT_HOP = netlink(104, struct.pack("=BBBBI", 2, 0, 206, 0, 0), word(1, 17), word(5, 2), attribute(6, address("10.0.0.1")))
GROUP = netlink(104, struct.pack("=BBBBI", 0, 0, 206, 0, 0), word(1, 18), attribute(2, struct.pack("=IBBH", 17, 0, 0, 0)))
ADDRESS = netlink(20, struct.pack("=BBBBI", 2, 24, 128, 0, 2), attribute(1, address("10.0.0.2")))
NEIGHBOUR = netlink(28, struct.pack("=BxxxiHBB", 2, 2, 2, 0, 1), attribute(1, address("10.0.0.1")), attribute(2, bytes([2, 0, 0, 0, 0, 1])), word(15, 0))
ASKING = netlink(64, struct.pack("=BBH", 2, 0, 0), name(1, "arp_cache"),
                 attribute(6, [word(1, 2), attribute(5, struct.pack("=Q", 1000)), word(9, 3), word(10, 3)]))
ANSWERS = {
    "notifications": (0, [CONNECTED, SPREAD, VIA, ROUTE, NEXT_HOP, GROUP, ADDRESS, NEIGHBOUR, RULES, TABLE, RULE, REFUSED]),
    "ruleset": (1, [TABLE + DONE, CHAIN + DONE, RULE, DONE, SET + DONE, ELEMENTS + DONE, RULE + DONE, RULE + DONE]),
    "ruleset-other": (1, [nft(0, name(1, OURS), big(2, 0), big(3, 1)) + DONE]),
    "ruleset-odd": (1, [TABLE + DONE, ODD_CHAIN + DONE, ODD_RULE + DONE, SET + ODD_SET + DONE, ODD_ELEMENTS + DONE, ELEMENTS + DONE,
                        ODD_RULE + RULE + DONE, ODD_RULE + DONE]),
    "ruleset-wrong-end": (1, [TABLE + DONE, netlink(3, struct.pack("=i", -(1 << 31))), netlink(3, struct.pack("=i", -4))]),
    "ruleset-open-text": (1, [TABLE + DONE, nft(3, name(1, OURS), name(3, "c"), attribute(7, b"filter..")) + DONE]),
    "batch": (3, [ACKNOWLEDGED, ACKNOWLEDGED + REFUSED]),
    "routing": (4, [RULES + OTHERS_RULE + DONE, DONE, ROUTE + DONE, DONE, NEXT_HOP + GROUP + DONE]),
    "table": (5, [CONNECTED + DONE, route(24, 2, 32, route_type=2), ACKNOWLEDGED]),
    "neighbours": (6, [ASKING + DONE, DONE, NEIGHBOUR, ACKNOWLEDGED, NEIGHBOUR + ACKNOWLEDGED, ACKNOWLEDGED, ACKNOWLEDGED]),
    "surroundings": (7, [OTHERS_RULE + DONE, DONE, ADDRESS + DONE]),
}


def kernel_answers():
    for title, (question, datagrams) in ANSWERS.items():
        yield title, bytes([question]) + b"".join(u16(len(each)) + each for each in datagrams)
        yield title + "-failing", bytes([question]) + b"".join(u16(0x4000 | len(each)) + bytes([1 + i % 2]) + each + u16(len(each)) + each
                                                               for i, each in enumerate(datagrams))


# ---- journals -------------------------------------------------------------------------------------------------

# Rows as rowTake() takes them: state or log, kind, list, node, hop, unit, field, value.
def row(kind, list_name, node, hop, unit, field, value):
    value = bytes([0]) + number_of(value) if isinstance(value, int) else bytes([1, 200 + len(value)]) + value
    return bytes([kind, list_name]) + number_of(node) + number_of(hop) + number_of(unit) + bytes([field]) + value


POLICY = [(1, 0, 0, 0, 0, 1, 2), (2, 0, 5, 0, 0, 1, 2), (2, 0, 5, 0, 0, 4, 1501), (2, 0, 5, 0, 0, 10, 1), (3, 0, 5, 1, 0, 1, 2),
          (3, 0, 5, 1, 0, 2, address("10.0.0.1")), (3, 0, 5, 1, 0, 4, b"ops"), (4, 3, 0, 0, 3, 1, 1), (4, 3, 0, 0, 3, 2, b"a")]


def database(page_bytes, wrong=False):
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "journal.db"
        db = sqlite3.connect(path)
        db.execute(f"PRAGMA page_size={page_bytes}")
        columns = "kind INTEGER NOT NULL, list BLOB NOT NULL, node INTEGER NOT NULL, hop INTEGER NOT NULL, unit INTEGER NOT NULL, field INTEGER NOT NULL, number INTEGER, bytes BLOB"
        db.execute(f"CREATE TABLE log (seq INTEGER PRIMARY KEY, {columns})")
        db.execute(f"CREATE TABLE state ({columns}, PRIMARY KEY (kind, list, node, hop, unit, field)) WITHOUT ROWID")
        if not wrong:
            db.execute("CREATE TABLE service (service TEXT NOT NULL, key TEXT NOT NULL, text TEXT NOT NULL, PRIMARY KEY (service, key)) WITHOUT ROWID")
        for kind, list_name, node, hop, unit, field, value in POLICY:
            values = (kind, b"a" if list_name == 0 else b"", node, hop, unit, field,
                      value if isinstance(value, int) else None, None if isinstance(value, int) else value)
            db.execute("INSERT INTO state VALUES (?,?,?,?,?,?,?,?)", values)
        db.execute(f"PRAGMA user_version={2 if wrong else 1}")
        db.commit()
        db.close()
        return path.read_bytes()


def journal():
    for title, store in (("state", 0), ("log", 1)):
        yield title, b"\2" + b"".join(bytes([store]) + row(*each) for each in POLICY)
    for title, store in (("state", 0), ("log", 1)):  # a number of 33 bits, which is another one when it is read as one of 32
        strange = bytes([store, 2, 0, 12]) + number_of(0) * 2 + bytes([4, 0]) + number_of(1)
        yield "strange-" + title, b"\2" + b"".join(bytes([store]) + row(*each) for each in POLICY) + bytes([store]) + row(2, 0, 0, 0, 0, 4, 7) + \
            strange + bytes([1]) + row(2, 0, 0, 0, 0, 4, 9)
    yield "fieldless", b"\2" + bytes([1]) + row(2, 0, 5, 0, 0, 19, 0xFFFFFFFF)
    yield "destroyed", b"\2" + b"".join(bytes([0]) + row(*each) for each in POLICY) + bytes([1]) + row(1, 0, 0, 0, 0, 1, 4)
    yield "empty", b"\0"
    yield "text", b"\0no database\n"
    yield "database", b"\0" + database(512)
    yield "database-of-others", b"\0" + database(512, wrong=True)
    yield "log-of-others", b"\1" + u16(32) + struct.pack(">IIIIIIII", 0x377f0682, 3007000, 1024, 0, 1, 2, 3, 4) + database(1024)


def main():
    folder = pathlib.Path(sys.argv[1])
    for fuzzer in (route_messages, command_frames, api_sequences, kernel_answers, journal):
        target = folder / fuzzer.__name__
        target.mkdir(parents=True, exist_ok=True)
        for title, data in fuzzer():
            (target / title).write_bytes(data)
    for path in sorted((pathlib.Path(__file__).resolve().parent / "found").glob("*.txt")):
        target = folder / path.stem
        target.mkdir(parents=True, exist_ok=True)
        for number, line in enumerate(path.read_text().split()):
            (target / f"found-{number:03}").write_bytes(base64.b64decode(line))


main()
