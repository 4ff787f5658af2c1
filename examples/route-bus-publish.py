#!/usr/bin/env python3
"""Publishes a message on the route bus: the state of a probe, as a probe daemon of your own would.

    route-bus-publish.py ADMINISTRATOR TEST passing|failing|none [ROOT]      ROOT: the daemon's host.root
"""
import socket
import struct
import sys

GROUP_NQA, MESSAGE, REFUSED, TYPE_NQA = 89, 3, 4, 349

admin, test, status = sys.argv[1].encode(), sys.argv[2].encode(), ("passing", "failing", "none").index(sys.argv[3]) + 1
payload = struct.pack("=32s32sBBBx", admin, test, len(admin), len(test), status)
message = struct.pack("=IH18x", 24 + len(payload), TYPE_NQA) + payload  # the header: length, type, zeros
with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as bus:
    bus.connect((sys.argv[4] if len(sys.argv) > 4 else "") + "/tmp/policyroutebus.socket")
    bus.send(struct.pack("=II", MESSAGE, GROUP_NQA) + message)
    bus.send(struct.pack("=II", 2, GROUP_NQA))  # leave: its answer says that the message was taken
    answer = bus.recv(4096)
    if struct.unpack_from("=I", answer)[0] == REFUSED:
        sys.exit(f"refused: 0x{struct.unpack_from('=I', answer, 8)[0]:08X}")
