"""Time ranges on the machine's clock: a range that begins and ends within seconds, as the operator defines it."""
import datetime
import os
import struct
import tempfile
import time

import system_case
import netlab
from steering_test import policy

ZONE_FILE = "/etc/localtime"


def local(seconds):
    """A local time so many seconds from now, and its second of the epoch."""
    at = datetime.datetime.now().replace(microsecond=0) + datetime.timedelta(seconds=seconds)
    return at, at.timestamp()


class Schedules(system_case.MemoryCase):
    def row(self, number=7):
        rows = [row for row in self.daemon.json("show", "time-ranges") if row["id"] == number]
        return rows[0] if rows else None

    def matched(self):
        """Whether node wan/10 is within its range, by the daemon's own report."""
        text = self.manage({"op": "timeranges"})
        return [row["active"] for row in text["timeRanges"] if "pbrwan-10" in row["bindings"]] == [True]

    def test_a_range_begins_and_ends_by_the_clock(self):
        start, begins = local(2)
        end, ends = local(4)
        self.daemon.ctl("time-range", "add", 7, "--start", f"{start:%Y-%m-%d %H:%M:%S}",
                        "--end", f"{end:%Y-%m-%d %H:%M:%S}")
        row = self.row()
        self.assertFalse(row["active"])
        self.assertEqual(begins, datetime.datetime.fromisoformat(row["nextChange"]).timestamp())
        self.assertTrue(self.daemon.until(lambda: self.row()["active"], 5))
        self.assertTrue(begins <= time.time() < begins + 1)
        self.assertTrue(self.daemon.until(lambda: not self.row()["active"], 5))
        self.assertTrue(ends <= time.time() < ends + 1)
        self.assertIsNone(self.row()["nextChange"])

    def test_a_hand_overrides_the_schedule(self):
        self.daemon.ctl("time-range", "add", 7, "--days", "daily")
        self.assertTrue(self.row()["active"])
        self.daemon.ctl("time-range", 7, "off")
        self.assertEqual((False, "off"), (self.row()["active"], self.row()["override"]))
        self.daemon.ctl("time-range", 7, "auto")
        self.assertEqual((True, None), (self.row()["active"], self.row()["override"]))
        self.assertIn("daily 00:00-24:00", self.daemon.ctl("show", "time-ranges").stdout)
        self.daemon.ctl("time-range", "del", 7)
        self.assertEqual("no time ranges\n", self.daemon.ctl("show", "time-ranges").stdout)

    def test_several_periods(self):
        self.daemon.ctl("time-range", "add", 7, "--period", "mon-fri 08:00-18:00", "--period", "sat",
                        "--period", "22:00-06:00")
        self.assertEqual("mon-fri 08:00-18:00; sat 00:00-24:00; daily 22:00-06:00", self.row()["text"])

    def test_what_is_wrong_is_said_and_changes_nothing(self):
        for words, status, text in (
                (("add", 7), 1, "a time range needs days"),
                (("add", 7, "--days", "someday"), 1, 'days "someday"'),
                (("add", 0, "--days", "mon"), 1, "whole number 1 to 4294967294"),
                (("add", 7, "--from", "24:00"), 1, 'from "24:00"'),
                (("add", 7, "--days", "mon", "--period", "sat"), 1, "either"),
                (("add", 7, "--period", "12:00"), 2, "FROM-TO"),
                (("add", 7, "--start", "2027-02-29 08:00"), 1, "no such day"),
                (("del", 7), 1, "time range 7 is not defined"),
                ((7, "maybe"), 2, "on|off|auto"), ((7,), 2, "on|off|auto"), (("x", "on"), 2, "ID"), ((), 2, "ID")):
            done = self.daemon.ctl("time-range", *words, check=False)
            self.assertEqual((status, True), (done.returncode, text in done.stderr), (words, done.stderr))
        self.assertIsNone(self.row())

    def test_a_used_range_is_removed_by_force_and_followed_again_when_it_is_back(self):
        self.daemon.ctl("list", "add", "wan")
        self.daemon.ctl("acl", "add", 1501, 10, "permit", "ip")
        self.daemon.ctl("time-range", "add", 7, "--days", "daily")
        self.daemon.ctl("node", "add", "wan", 10, "--acl", 1501, "--time-range", 7)
        self.daemon.ctl("debug", "set", "event")
        refused = self.daemon.ctl("time-range", "del", 7, check=False)
        self.assertEqual(1, refused.returncode)
        self.assertIn("is used by pbrwan-10", refused.stderr)
        self.assertTrue(self.matched())
        self.daemon.ctl("time-range", "del", 7, "--force")
        self.assertTrue(self.said("timerange 7 unbind"))
        self.daemon.ctl("time-range", "add", 7, "--days", "daily")
        self.assertTrue(self.said("timerange 7 start"))

    def said(self, text):
        return self.daemon.until(lambda: any("node 10 " + text in line for line in self.daemon.errors))


class Elsewhere(system_case.MemoryCase):
    def setUp(self):
        before = os.environ.get("TZ")
        os.environ["TZ"] = "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0"
        try:
            super().setUp()
        finally:
            del os.environ["TZ"]
            if before is not None:
                os.environ["TZ"] = before

    def test_times_are_those_of_the_daemons_zone(self):
        self.manage({"op": "timerange.define", "id": 7, "start": "2100-07-01 00:00"})
        self.manage({"op": "timerange.define", "id": 8, "start": "2100-01-01 00:00"})
        changes = [row["nextChange"] for row in self.manage({"op": "timeranges"})["timeRanges"]]
        self.assertEqual(["2100-07-01T00:00:00+10:30", "2100-01-01T00:00:00+11:00"], changes)


def zone_file(seconds, rule):
    """A zone file of one offset, seconds ahead of UTC, and for later times `rule` as in TZ."""
    counts = struct.pack(">6I", 0, 0, 0, 0, 1, 4)  # of transitions none, one kind of time, four bytes of names
    body = struct.pack(">iBB", seconds, 0, 0) + b"LOC\0"
    head = b"TZif2" + bytes(15) + counts
    path = tempfile.NamedTemporaryFile(prefix="zone-", delete=False)
    with path as file:
        file.write((head + body) * 2 + b"\n" + rule.encode() + b"\n")
    return path.name


class AnotherZone(system_case.MemoryCase):
    """The machine's zone file is another one while the daemon runs: in this process's own mount namespace."""

    def setUp(self):
        self.zones = {"utc": zone_file(0, "LOC0"), "east": zone_file(37800, "<+1030>-10:30")}
        for path in self.zones.values():
            self.addCleanup(os.remove, path)
        self.zone_is("utc")
        before = os.environ.pop("TZ", None)
        if before is not None:
            self.addCleanup(os.environ.__setitem__, "TZ", before)
        super().setUp()

    def zone_is(self, name):
        netlab.run(["mount", "--bind", self.zones[name], ZONE_FILE])
        self.addCleanup(netlab.run, ["umount", ZONE_FILE])

    def seen(self):
        """What the daemon tells of its ranges: {number: (active, next change)}."""
        rows = self.manage({"op": "timeranges"})["timeRanges"]
        return {row["id"]: (row["active"], row["nextChange"]) for row in rows}

    def test_ranges_follow_the_zone_within_a_minute_and_nodes_are_told(self):
        now = datetime.datetime.now(datetime.timezone.utc)
        east = now + datetime.timedelta(hours=10, minutes=30)  # what the clocks there show
        self.daemon.ctl("acl", "add", 1501, 10, "permit", "ip")
        self.daemon.ctl("list", "add", "wan")
        self.daemon.ctl("node", "add", "wan", 10, "--acl", 1501, "--time-range", 7)
        self.daemon.ctl("time-range", "add", 7, "--from", f"{east - datetime.timedelta(minutes=30):%H:%M}",
                        "--to", f"{east + datetime.timedelta(minutes=30):%H:%M}")
        self.daemon.ctl("time-range", "add", 8, "--start", "2100-07-01 00:00")
        self.daemon.ctl("debug", "set", "event")
        before = self.seen()
        self.assertEqual((False, "2100-07-01T00:00:00+00:00"), (before[7][0], before[8][1]))
        self.zone_is("east")
        self.assertTrue(self.daemon.until(lambda: self.seen()[7][0], 65), self.seen())
        self.assertEqual("2100-07-01T00:00:00+10:30", self.seen()[8][1])
        self.assertTrue(self.daemon.until(lambda: any("node 10 timerange 7 start" in line for line in self.daemon.errors)))


class Packets(system_case.LabCase):
    def test_packets_follow_the_range(self):
        self.daemon.apply(policy({10: f"acl: 1501, next-hops: [{self.next_hop('upa')}]"}))
        self.all_by("upa")
        self.daemon.ctl("unbind", "lan0")
        self.daemon.ctl("node", "set", "wan", 10, "--time-range", 7)
        self.daemon.ctl("bind", "lan0", "wan")
        self.all_by("upb")  # the way without a policy
        start, begins = local(3)
        end, ends = local(10)
        self.manage({"op": "timerange.define", "id": 7, "start": f"{start:%Y-%m-%d %H:%M:%S}",
                     "end": f"{end:%Y-%m-%d %H:%M:%S}"})
        self.assertEqual({"upb": 20}, self.by_uplink())
        time.sleep(max(0.0, begins - time.time()))
        self.all_by("upa")
        time.sleep(max(0.0, ends - time.time()))
        self.all_by("upb")

    def manage(self, request):
        return system_case.MemoryCase.manage(self, request)


if __name__ == "__main__":
    system_case.main()
