"""The running policy comes back by itself: after a stop, after a crash, after a hundred crashes."""
import os
import random
import signal
import sqlite3
import subprocess
import tempfile
import threading
import time
import unittest

import system_case
import netlab
from steering_test import both, policy

LIST_SET, NODE_SET, NEXT_HOP_SET, IF_SET = 10, 13, 19, 16
CREATED, DESTROY = 2, 4
NOT_KEPT = 0x03E80E01


def list_key(name):
    return netlab.list_key(name.encode())


def node_key(name, node, hop=0):
    return netlab.node_key(name.encode(), node, hop=hop)


class ComesBack(system_case.MemoryCase):
    def setUp(self):
        super().setUp()
        self.addCleanup(lambda: self.client.close())  # the one of the latest start

    def export(self):
        return self.daemon.ctl("export").stdout

    def restart(self, number=signal.SIGKILL):
        self.client.close()
        self.daemon.kill(number)
        self.daemon.start()
        self.client = netlab.Command(self.daemon.root)

    def single_commands(self):
        for words in ("acl add 1501 10 permit tcp from 10.0.0.0/8 to any port 443", "acl create 3001", "list add wan",
                      "list add idle", "node add wan 10 --acl 1501", "next-hop add wan 10 198.51.100.1",
                      "next-hop add wan 10 203.0.113.1", "bind lo wan"):
            self.daemon.ctl(*words.split())

    def test_what_single_commands_made_is_there_after_a_crash_and_after_a_stop(self):
        self.single_commands()
        before = self.export()
        for number in (signal.SIGKILL, signal.SIGTERM):
            self.restart(number)
            self.assertEqual(before, self.export())
            shown = self.manage({"op": "journal.show"})
            self.assertEqual(("writing", [], []), (shown["state"], shown["findings"], shown["notRestored"]))

    def test_services_come_back(self):
        self.manage({"op": "timerange.define", "id": 5, "days": "mon-fri", "from": "08:00", "to": "18:00"})
        self.manage({"op": "timerange.define", "id": 6, "from": "01:00"})
        self.manage({"op": "timerange.set", "id": 6, "active": True})
        self.manage({"op": "timerange.set", "id": 7, "active": True})
        self.manage({"op": "probe.set", "admin": "ops", "test": "isp/a", "kind": "icmp", "target": "127.0.0.1"})
        self.manage({"op": "acl.replaceAll", "acls": {"1501": {"10": "deny ip from any to any"}, "1502": {}}})
        self.manage({"op": "acl.destroy", "acl": 1502})

        def kept():
            ranges = [(row["id"], row["schedule"], row["override"]) for row in
                      self.manage({"op": "timeranges"})["timeRanges"]]
            probes = [(row["admin"], row["test"], row["config"]) for row in self.manage({"op": "probes"})["probes"]]
            return ranges, probes, self.manage({"op": "acl.show"})["acls"]

        before = kept()
        self.assertEqual((3, 1, 1), tuple(len(part) for part in before))
        self.restart()
        self.assertEqual(before, kept())
        self.manage({"op": "timerange.set", "id": 7, "active": "auto"})
        self.manage({"op": "probe.del", "admin": "ops", "test": "isp/a"})
        before = kept()
        self.restart()
        self.assertEqual(before, kept())

    def test_a_node_whose_acl_was_destroyed_comes_back_and_matches_nothing(self):
        self.single_commands()
        self.manage({"op": "acl.destroy", "acl": 1501})
        self.restart()
        self.assertEqual([3001], [row["acl"] for row in self.manage({"op": "acl.show"})["acls"]])
        self.assertIn("1501", self.daemon.ctl("show", "lists").stdout)

    def test_a_destroyed_policy_stays_away(self):
        self.single_commands()
        for words in ("unbind lo", "list del wan", "list del idle", "acl destroy 1501", "acl destroy 3001"):
            self.daemon.ctl(*words.split())
        before = self.export()
        self.restart()
        self.assertEqual(before, self.export())
        self.assertEqual(0, self.manage({"op": "journal.show"})["rows"])

    def test_without_the_journal_nothing_comes_back_and_nothing_is_written(self):
        self.daemon.options.append("host.journal=off")
        self.restart()
        self.single_commands()
        self.restart()
        self.assertEqual("[]", self.daemon.ctl("--json", "show", "lists").stdout.strip())
        self.assertEqual("off", self.manage({"op": "journal.show"})["state"])

    def test_a_journal_of_garbage_is_moved_aside_and_said(self):
        self.single_commands()
        self.daemon.kill()
        path = self.daemon.root + "/var/lib/policyroute/journal.db"
        with open(path, "wb") as file:
            file.write(random.Random(1).randbytes(20000))
        self.daemon.start()
        self.assertTrue(self.daemon.until(lambda: any("was damaged" in line for line in self.daemon.errors)))
        self.assertTrue(os.path.exists(path + ".damaged"))
        self.assertEqual("[]", self.daemon.ctl("--json", "show", "lists").stdout.strip())
        self.single_commands()

    def test_every_set_answered_with_success_is_there_after_a_hundred_crashes(self):
        dice = random.Random(4)
        lists = {}  # name -> {node index}, as answered
        unknown = set()  # lists about which a question was open when the daemon died
        for crash in range(100):
            crowd = threading.Timer(dice.uniform(0.0, 0.03), self.daemon.process.kill)
            crowd.start()
            try:
                while True:
                    self.one_set(dice, lists, unknown)
            except OSError:
                pass
            except EOFError:
                pass
            crowd.join()
            self.daemon.process.wait(10)
            self.daemon.start()
            self.client.close()
            self.client = netlab.Command(self.daemon.root)
            seen = {row["list"]: {node["node"] for node in row["nodes"]} for row in self.daemon.json("show", "lists")}
            for name in unknown:
                if name in seen:
                    lists[name] = seen[name]
                else:
                    lists.pop(name, None)
            unknown.clear()
            self.assertEqual(lists, seen, f"after crash {crash}")

    def one_set(self, dice, lists, unknown):
        name, node = f"l{dice.randrange(8)}", dice.randrange(1, 6)
        kind = dice.randrange(6)
        unknown.add(name)
        if kind == 0:
            code = self.client.call(LIST_SET, key=list_key(name), field=1, number=CREATED)[0]
        elif kind == 1:
            code = self.client.call(LIST_SET, key=list_key(name), field=1, number=DESTROY)[0]
        elif kind < 5:
            code = self.client.call(NODE_SET, key=node_key(name, node), field=1, number=CREATED)[0]
        else:
            code = self.client.call(NODE_SET, key=node_key(name, node), field=1, number=DESTROY)[0]
        unknown.discard(name)
        if code != 0:
            return
        if kind == 0:
            lists.setdefault(name, set())
        elif kind == 1:
            lists.pop(name, None)
        elif kind < 5:
            lists[name].add(node)
        else:
            lists.get(name, set()).discard(node)


class WithoutRoom(unittest.TestCase):
    def test_a_full_disk_refuses_changes_until_there_is_room(self):
        folder = tempfile.mkdtemp(prefix="pbr-full-")
        self.addCleanup(os.rmdir, folder)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "none", folder], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", folder])
        daemon = netlab.Daemon(ns=None, device="memory", root=folder).start()
        self.addCleanup(daemon.stop)
        client = netlab.Command(folder)
        self.addCleanup(client.close)
        self.assertEqual(0, client.call(LIST_SET, key=list_key("a"), field=1, number=CREATED)[0])
        with open(folder + "/ballast", "wb", 0) as file:
            try:
                while True:
                    file.write(b"\0" * 4096)
            except OSError:
                pass
        codes = [client.call(LIST_SET, key=list_key(f"b{i}"), field=1, number=CREATED)[0] for i in range(64)]
        self.assertEqual(NOT_KEPT, codes[-1], codes)
        refused = daemon.ctl("acl", "create", "1001", check=False)
        self.assertNotEqual(0, refused.returncode)
        self.assertIn("cannot be written", refused.stderr)
        os.unlink(folder + "/ballast")
        self.assertEqual(0, client.call(LIST_SET, key=list_key("c"), field=1, number=CREATED)[0])
        daemon.ctl("acl", "create", "1001")
        daemon.kill()
        daemon.start()
        expected = {"a", "c"} | {f"b{i}" for i, code in enumerate(codes) if code == 0}
        self.assertEqual(expected, {row["list"] for row in daemon.json("show", "lists")})


class KeepsPackets(system_case.LabCase):
    options = ("host.neighbour-probe-ms=400", "host.adopt-wait-ms=60000")

    def lost_over(self, number):
        self.daemon.apply(policy(both("upa", "upc")))
        for family in (4, 6):
            self.all_by("upa", family=family)
        before = self.daemon.ctl("export").stdout
        streams = [netlab.Stream(self.lab, family) for family in (4, 6)]
        time.sleep(0.2)
        self.daemon.kill(number)
        time.sleep(0.2)
        self.daemon.start()
        self.assertTrue(self.daemon.until(lambda: self.daemon.json("show", "device").get("state") == "live", 10))
        time.sleep(0.5)
        for stream in streams:
            result = stream.stop()
            self.assertEqual(0, result["lost"], result["lost_numbers"][:10])
            self.assertEqual({"upa"}, set(result["uplinks"]))
        self.assertEqual(before, self.daemon.ctl("export").stdout)

    def test_no_packet_is_lost_over_a_crash_and_start(self):
        self.lost_over(signal.SIGKILL)

    def test_no_packet_is_lost_over_a_stop_and_start(self):
        self.lost_over(signal.SIGTERM)

    def test_fails_over_after_a_restart_without_an_apply(self):
        self.daemon.apply(policy(both("upa", "upc")))
        self.all_by("upa")
        self.daemon.kill()
        self.daemon.start()
        self.all_by("upa")
        self.lab.silence("upa")
        for family in (4, 6):
            self.all_by("upc", family=family)

    def veth(self):
        netlab.run("ip link add gone0 type veth peer name gone1", "rtr")
        self.addCleanup(netlab.run, "ip link del gone0", "rtr", check=False)

    def bound(self):
        return {row["interface"] for row in self.daemon.json("show", "bindings")}

    def test_an_interface_that_left_while_the_daemon_ran_stays_unbound(self):
        self.veth()
        netlab.run("ip link add mine0 type bridge", "rtr")
        self.addCleanup(netlab.run, "ip link del mine0", "rtr")
        self.daemon.apply(policy(both("upa"), bindings="lan0: wan, gone0: wan, gone1: wan"))
        netlab.run("ip link set gone1 master mine0", "rtr")
        self.assertTrue(self.daemon.until(lambda: self.bound() == {"lan0", "gone0"}), self.bound())
        netlab.run("ip link del gone0", "rtr")
        self.assertTrue(self.daemon.until(lambda: self.bound() == {"lan0"}), self.bound())
        self.daemon.kill()
        self.daemon.start()
        self.assertEqual({"lan0"}, self.bound())
        self.assertEqual([], self.daemon.json("show", "journal")["notRestored"])

    def test_after_a_reboot_interfaces_are_found_by_their_names(self):
        self.veth()
        lists = both("upa")
        self.daemon.apply(policy(lists, bindings="lan0: wan, gone0: wan"))
        before = self.daemon.ctl("export").stdout
        self.daemon.kill()
        netlab.run("ip link del gone0", "rtr")
        journal = sqlite3.connect(self.daemon.root + "/var/lib/policyroute/journal.db")
        with journal:
            changed = journal.execute("UPDATE service SET text = 'another' WHERE service = 'machine' AND key = 'run'")
            self.assertEqual(1, changed.rowcount)
        journal.close()
        netlab.run("ip link add gone0 type veth peer name gone1", "rtr")
        self.daemon.start()
        self.assertEqual(before, self.daemon.ctl("export").stdout)
        self.assertEqual({"lan0", "gone0"}, self.bound())
        self.daemon.kill()  # the units of now are kept
        self.daemon.start()
        self.assertEqual(before, self.daemon.ctl("export").stdout)

    def test_an_interface_that_went_is_named_and_the_rest_comes_back(self):
        netlab.run("ip link add gone0 type veth peer name gone1", "rtr")
        self.addCleanup(netlab.run, "ip link del gone0", "rtr", check=False)
        self.daemon.apply(policy(both("upa"), bindings="lan0: wan, gone0: wan"))
        self.all_by("upa")
        self.daemon.kill()
        netlab.run("ip link del gone0", "rtr")
        self.daemon.start()
        self.all_by("upa")
        for _ in range(2):  # it is tried at each start
            shown = self.daemon.json("show", "journal")
            self.assertEqual(["interface gone0"], [row["what"] for row in shown["notRestored"]])
            self.assertIn("gone0", self.daemon.ctl("show", "journal").stdout)
            self.daemon.kill()
            self.daemon.start()

    def test_an_applied_file_is_all_that_comes_back(self):
        def gone_is_there():
            netlab.run("ip link add gone0 type veth peer name gone1", "rtr")

        gone_is_there()
        self.addCleanup(netlab.run, "ip link del gone0", "rtr", check=False)
        self.daemon.apply(policy({**both("upa"), 90: "acl: 1502, interface: gone0"}, bindings="lan0: wan, gone0: wan"))
        self.daemon.kill()
        netlab.run("ip link del gone0", "rtr")
        self.daemon.start()
        self.assertEqual({"interface gone0", "list wan node 90"},
                         {row["what"] for row in self.daemon.json("show", "journal")["notRestored"]})
        self.daemon.apply(policy(both("upa")))
        self.assertEqual([], self.daemon.json("show", "journal")["notRestored"])
        wanted = self.daemon.ctl("export").stdout
        self.daemon.kill()
        gone_is_there()
        netlab.sysctl("rtr", "ipv4/conf/gone0/forwarding", 1)
        self.daemon.start()
        self.assertEqual(wanted, self.daemon.ctl("export").stdout)
        self.assertEqual([], self.daemon.json("show", "journal")["notRestored"])


if __name__ == "__main__":
    system_case.main()
