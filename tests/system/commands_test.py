"""All 24 commands over the real socket, as frames made by hand."""
import struct

import system_case
from system_case import netlab
from netlab import list_key, node_key, unit_of

OK, FAIL, BAD, NO_ROW, IN_USE = 0, 0xFFFFFFFF, 0x03E8001A, 0x03E80002, 0x03E8000C
CREATE, DESTROY = 2, 4


class EveryCommandAnswers(system_case.MemoryCase):
    def code(self, command, **options):
        return self.client.call(command, **options)[0]

    def make_node(self, name=b"wan", index=10, acl=1501):
        self.daemon.ctl("acl", "add", acl, 10, "permit ip from any to any")
        self.assertEqual(OK, self.code(10, key=list_key(name), field=1, number=CREATE))
        self.assertEqual(OK, self.code(13, key=node_key(name, index), field=1, number=CREATE))
        self.assertEqual(OK, self.code(13, key=node_key(name, index), field=10, number=1))
        self.assertEqual(OK, self.code(13, key=node_key(name, index), field=4, number=acl))

    def test_an_empty_store_walks_to_its_end_at_once(self):
        for command, key in ((1, list_key(b"")), (2, list_key(b"a")), (3, node_key(b"", 0)), (4, node_key(b"a", 1)),
                             (5, b"\0" * 4), (6, b"\0" * 4), (7, node_key(b"", 0)), (8, node_key(b"a", 1, 1))):
            self.assertEqual(FAIL, self.code(command, key=key, kind=0), command)

    def test_the_empty_entry_and_unknown_ids_are_refused(self):
        for command in (0, 24, 65535):
            self.assertEqual(BAD, self.code(command, kind=0), command)

    def test_lists_are_created_walked_read_and_destroyed(self):
        for name in (b"b", b"ab", b"a"):
            self.assertEqual(OK, self.code(10, key=list_key(name), field=1, number=CREATE))
        walked = []
        code, _, key, _, _ = self.client.call(1, key=list_key(b""), kind=0)
        while code == OK:
            walked.append(key[:struct.unpack_from(netlab.ORDER + "H", key, 16)[0]])
            code, _, key, _, _ = self.client.call(2, key=key, kind=0)
        self.assertEqual([b"a", b"ab", b"b"], walked)
        self.assertEqual((OK, 2), self.client.call(9, key=list_key(b"a"), field=1)[:2])
        row = self.client.call(9, key=list_key(b"a"), field=3, kind=2, number=100)
        self.assertEqual(struct.pack("!6I", 1, 4, 2, 2, 4, 0), row[3])
        self.assertEqual(NO_ROW, self.code(9, key=list_key(b"c"), field=1))
        self.assertEqual(FAIL, self.code(10, key=list_key(b"a"), field=2, number=1))
        self.assertEqual(OK, self.code(11, key=list_key(b"a"), field=1, number=DESTROY))
        self.assertEqual(NO_ROW, self.code(9, key=list_key(b"a"), field=1))

    def test_nodes_and_next_hops_are_set_and_read_back(self):
        self.make_node()
        key, hop = node_key(b"wan", 10), node_key(b"wan", 10, 1)
        self.assertEqual(OK, self.code(13, key=key, field=5, number=3))
        self.assertEqual((OK, 3), self.client.call(12, key=key, field=5)[:2])
        self.assertEqual(OK, self.code(19, key=hop, field=1, number=CREATE))
        self.assertEqual(OK, self.code(19, key=hop, field=2, data=b"\xc6\x33\x64\x01", number=4))
        self.assertEqual((OK, 4, b"\xc6\x33\x64\x01"),
                         tuple(self.client.call(18, key=hop, field=2, kind=2, number=16)[i] for i in (0, 1, 3)))
        self.assertEqual(OK, self.code(20, key=hop, field=4, data=b"ops", number=3))
        self.assertEqual(b"ops", self.client.call(18, key=hop, field=4, kind=2, number=33)[3])
        found = self.client.call(7, key=node_key(b"", 0), kind=0)
        self.assertEqual((OK, 1), (found[0], found[2][25]))
        self.assertEqual(FAIL, self.code(8, key=found[2], kind=0))
        self.assertEqual(OK, self.client.call(3, key=node_key(b"", 0), kind=0)[0])
        self.assertEqual(FAIL, self.code(4, key=key, kind=0))
        self.assertEqual(OK, self.code(14, key=key, field=7, number=77))
        self.assertEqual((OK, 77), self.client.call(12, key=key, field=7)[:2])

    def test_published_refusals_of_nodes_and_next_hops(self):
        self.make_node()
        self.daemon.ctl("acl", "create", 3501)
        key, hop = node_key(b"wan", 10), node_key(b"wan", 10, 1)
        for field, number, expected in ((4, 1999, 0x044B0004), (4, 1501, 0x044B0005), (4, 3501, 0x044B000D),
                                        (10, 2, 0x044B000E), (14, 1, FAIL), (20, 1, FAIL)):
            self.assertEqual(expected, self.code(13, key=key, field=field, number=number), (field, number))
        self.assertEqual(BAD, self.code(13, key=node_key(b"wan", 0), field=1, number=CREATE))
        self.assertEqual(BAD, self.code(19, key=node_key(b"wan", 10, 0), field=1, number=CREATE))
        self.assertEqual(0x03E80001, self.code(13, key=node_key(b"none", 1), field=1, number=CREATE))
        self.assertEqual(OK, self.code(19, key=hop, field=1, number=CREATE))
        self.assertEqual(0x044B0006, self.code(19, key=hop, field=2, data=b"\0\0\0\0", number=4))
        self.assertEqual(FAIL, self.code(19, key=hop, field=2, data=b"\1" * 16, number=16))
        self.assertEqual(OK, self.code(19, key=node_key(b"wan", 10, 2), field=1, number=CREATE))
        self.assertEqual(OK, self.code(19, key=hop, field=1, number=DESTROY))
        self.assertEqual(0x044B0001, self.code(19, key=hop, field=1, number=CREATE))
        self.assertEqual(0x044B000C, self.code(13, key=key, field=6, number=1))

    def test_interfaces_are_created_bound_and_destroyed(self):
        self.make_node()
        self.code(19, key=node_key(b"wan", 10, 1), field=1, number=CREATE)
        self.code(19, key=node_key(b"wan", 10, 1), field=2, data=b"\xc6\x33\x64\x01", number=4)
        unit = struct.pack(netlab.ORDER + "I", unit_of("lo"))
        self.assertEqual(NO_ROW, self.code(15, key=unit, field=1))
        self.assertEqual(OK, self.code(16, key=unit, field=1, number=1))
        self.assertEqual(0x044B0003, self.code(16, key=unit, field=2, data=b"none", number=4))
        self.assertEqual(OK, self.code(16, key=unit, field=2, data=b"wan", number=3))
        self.assertEqual(IN_USE, self.code(10, key=list_key(b"wan"), field=1, number=DESTROY))
        self.assertEqual(0x044B0008, self.code(17, key=unit, field=2, data=b"none", number=4))
        self.assertEqual((OK, 3, b"wan"), tuple(self.client.call(15, key=unit, field=2, kind=2, number=16)[i] for i in (0, 1, 3)))
        self.assertEqual(22, self.code(15, key=unit, field=2, kind=2, number=2))
        self.assertEqual(unit, self.client.call(5, key=b"\0" * 4, kind=0)[2])
        self.assertEqual(FAIL, self.code(6, key=unit, kind=0))
        self.assertEqual(OK, self.code(16, key=unit, field=1, number=2))
        self.assertEqual(FAIL, self.code(5, key=b"\0" * 4, kind=0))

    def test_scalars(self):
        self.assertEqual([64, 128, 0, 0], [self.client.call(21, field=field)[1] for field in (1, 2, 3, 4)])
        self.assertEqual(b"PBR_V7.00.00.00", self.client.call(21, field=5, kind=2, number=100)[3])
        self.assertEqual(b"PBR_", self.client.call(21, field=5, kind=2, number=4)[3])
        self.assertEqual(struct.pack(netlab.ORDER + "3I", 1, 0, 2), self.client.call(21, field=6, kind=2, number=12)[3])
        self.assertEqual(OK, self.code(21, field=9))
        self.assertEqual(OK, self.code(22, field=4, number=64))
        self.assertEqual(64, self.client.call(21, field=4)[1])
        self.assertEqual(OK, self.code(23, field=4, number=0))
        self.assertEqual(FAIL, self.code(22, field=1, number=1))

    def test_pipelined_requests_are_answered_in_order(self):
        frames = b"".join(self.client.frame(21, field=1 + number % 4, request=number) for number in range(500))
        self.client.socket.sendall(frames)
        self.assertEqual(list(range(500)), [self.client.answer()[4][3] for _ in range(500)])


if __name__ == "__main__":
    system_case.main()
