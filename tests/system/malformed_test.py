"""Malformed frames and wild keys: a clear result code, nothing changed, the daemon lives, others are served."""
import os
import random
import socket
import stat

import system_case
from netlab import Command, list_key, node_key

BAD = 0x03E8001A


class BadFramesDoNoHarm(system_case.MemoryCase):
    def setUp(self):
        super().setUp()
        self.assertEqual(0, self.client.call(10, key=list_key(b"keep"), field=1, number=2)[0])

    def served(self):
        other = Command(self.daemon.root)
        self.assertEqual((0, 1), other.call(21, field=3)[:2])
        other.close()

    def refused(self, frame, closes):
        bad = Command(self.daemon.root)
        bad.socket.sendall(frame)
        self.assertNotEqual(0, bad.answer()[0])
        if closes:
            with self.assertRaises((EOFError, ConnectionError)):
                bad.call(21, field=3)
        else:
            self.assertEqual((0, 1), bad.call(21, field=3)[:2])
        bad.close()
        self.served()

    def test_names_of_no_seventeen_and_very_many_bytes(self):
        for length in (0, 17, 65535):
            self.assertEqual(BAD, self.client.call(10, key=list_key(b"x" * 16, length), field=1, number=2)[0], length)
            self.assertNotEqual(0, self.client.call(9, key=list_key(b"x" * 16, length), field=1)[0])
            self.assertNotEqual(0, self.client.call(13, key=node_key(b"x" * 16, 1, length=length), field=1, number=2)[0])
            self.assertNotEqual(0, self.client.call(19, key=node_key(b"x" * 16, 1, 1, length=length), field=1, number=2)[0])
            self.assertIn(self.client.call(2, key=list_key(b"x" * 16, length), kind=0)[0], (0, 0xFFFFFFFF))
            self.assertIn(self.client.call(8, key=node_key(b"x" * 16, 1, 1, length=length), kind=0)[0], (0, 0xFFFFFFFF))
        self.served()

    def test_a_wrong_version_kind_or_reserved_field_is_refused(self):
        for change in ({"version": 2}, {"kind": 3}, {"reserved": 1}):
            with self.subTest(change):
                self.refused(Command.frame(21, field=3, **change), closes=False)

    def test_key_lengths_that_do_not_fit(self):
        for key in (b"", b"a", list_key(b"keep") + b"\0", b"k" * 60000):
            self.assertEqual(BAD, self.client.call(9, key=key, field=1)[0], len(key))
        self.refused(Command.frame(9, key=b"abc", key_length=500, field=1), closes=False)
        self.served()

    def test_a_length_beyond_the_limit_closes_this_connection_only(self):
        for length in (65537, 0xFFFFFFFF, 19, 0):
            self.refused(Command.frame(21, field=3, length=length), closes=True)

    def test_a_number_where_bytes_are_expected_is_never_used_as_an_address(self):
        self.client.call(13, key=node_key(b"keep", 1), field=1, number=2)
        self.client.call(13, key=node_key(b"keep", 1), field=10, number=1)
        self.client.call(19, key=node_key(b"keep", 1, 1), field=1, number=2)
        for field in (2, 4, 5):
            for number in (0, 1, 0xFFFFFFFF):
                self.assertEqual(BAD, self.client.call(19, key=node_key(b"keep", 1, 1), field=field, kind=1, number=number)[0])
                self.assertEqual(BAD, self.client.call(18, key=node_key(b"keep", 1, 1), field=field, kind=1, number=number)[0])
        self.assertEqual(BAD, self.client.call(13, key=node_key(b"keep", 1), field=7, kind=2, data=b"bytes", number=5)[0])
        self.served()

    def test_half_a_frame_waits_and_its_end_is_answered(self):
        frame = Command.frame(21, field=3)
        for byte in frame[:-1]:
            self.client.socket.sendall(bytes([byte]))
        self.served()
        self.client.socket.sendall(frame[-1:])
        self.assertEqual((0, 1), self.client.answer()[:2])

    def test_random_bytes_from_many_clients(self):
        seed = random.randrange(1 << 32)
        print("seed", seed)
        generator = random.Random(seed)
        for _ in range(200):
            bad = Command(self.daemon.root)
            data = bytes(generator.randrange(256) for _ in range(generator.randrange(1, 200)))
            if generator.random() < 0.7:
                data = Command.frame(generator.randrange(26), key=data[:generator.choice((4, 18, 28, 7))],
                                     field=generator.randrange(30), kind=generator.randrange(4),
                                     number=generator.randrange(1 << 32), data=data[:generator.randrange(40)])
            try:
                bad.socket.sendall(data)
            except OSError:
                pass
            bad.close()
        other = Command(self.daemon.root)
        self.assertEqual(0, other.call(21, field=3)[0])
        other.close()

    def test_a_client_that_never_reads_does_not_hold_up_others(self):
        lazy = Command(self.daemon.root)
        lazy.socket.setblocking(False)
        frames = Command.frame(9, key=list_key(b"keep"), field=3, kind=2, number=65000) * 1000
        try:
            while True:
                lazy.socket.send(frames)
        except (BlockingIOError, ConnectionError):
            pass
        for _ in range(50):
            self.served()
        lazy.close()


class SocketsAreGuarded(system_case.MemoryCase):
    def test_the_sockets_have_mode_0660(self):
        for name in ("policyroutecmd.socket", "policyroutemgmt.socket"):
            mode = os.stat(f"{self.daemon.root}/tmp/{name}").st_mode
            self.assertTrue(stat.S_ISSOCK(mode))
            self.assertEqual(0o660, stat.S_IMODE(mode), name)

    def test_a_second_daemon_on_the_same_root_refuses_to_start(self):
        import netlab
        second = netlab.Daemon(ns=None, device="memory", root=self.daemon.root)
        with self.assertRaises(netlab.Refused):
            second.start()
        self.assertEqual(0, self.client.call(21, field=3)[0])

    def test_lines_that_are_no_requests_get_an_error(self):
        for line in (b"\n", b"{}\n", b"[1]\n", b"{\"op\": \"no such thing\"}\n", b"\xff\xfe\n", b"{" * 5000 + b"\n"):
            with socket.socket(socket.AF_UNIX) as management:
                management.settimeout(5)
                management.connect(self.daemon.root + "/tmp/policyroutemgmt.socket")
                management.sendall(line)
                self.assertIn(b'"ok":false', management.recv(65536).replace(b" ", b""), line[:20])


if __name__ == "__main__":
    system_case.main()
