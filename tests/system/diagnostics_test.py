"""The daemon's own report and texts on a running daemon: pbrctl shell, debug texts, self-log records."""
import re
import subprocess
import threading

import system_case
from netlab import unit_of

POLICY = """
acls:
  1501: {10: permit ip from any to any}
  1502: {10: permit udp from any to any}
  1503: {10: permit tcp from any to any}
lists:
  wan:
    10: {acl: 1501, next-hops: [198.51.100.1, 203.0.113.1]}
    20: {acl: 1502, interface: lo}
  idle:
    5: {acl: 1503, priority: 3}
bindings:
  lo: wan
"""


class Shell(system_case.MemoryCase):
    options = ("host.next-hop-via-gateway=off",)  # else this machine's default route may lead to the next hops

    def bytes_of(self, *words):
        return subprocess.run([*self.daemon.program("pbrctl"), "--root", self.daemon.root, "shell", *words],
                              capture_output=True, check=True).stdout

    def apply_until_nothing_changes(self):
        self.daemon.apply(POLICY)
        # Once the list has left the ready table.
        self.assertTrue(self.daemon.until(lambda: b"ready table :\n\r ---" in self.bytes_of("pbrInfoShow")))

    def test_the_report_shows_what_is_configured(self):
        self.apply_until_nothing_changes()
        text = self.bytes_of("pbrInfoShow").decode()
        self.assertTrue(text.startswith("\n\r ---------show pbr information :\n\r"
                                        "maxPbrNum=64,maxPbrNodeNum=128,maxIfNum=48 \r\n"), text[:200])
        tables = re.split(r"\n\r ---------show (?:pbr )?([a-z ]+) :", text)
        self.assertEqual(["information", "ifbind table", "ready table", "used table", "nqa table"], tables[1::2])
        by_name = dict(zip(tables[1::2], tables[2::2]))
        rows = [re.split(r"\s*--\s*", line.strip()) for line in by_name["ifbind table"].split("\n\r")
                if re.match(r"\s*\d", line)]
        # number, interface, list, node, and of node 10 its next hops, of node 20 its out interface
        self.assertEqual([["1", "lo", "wan", "10", "1"], ["2", "lo", "wan", "10", "2"],
                          ["3", "lo", "wan", "20", str(unit_of("lo"))]], [row[:5] for row in rows])
        used = [row.split() for row in by_name["used table"].replace("\r", "\n").split("\n") if row.strip()]
        self.assertEqual([["1", "--idle", "--0"], ["acl", "1503"], ["2", "--wan", "--1"], ["acl", "1501"],
                          ["acl", "1502"]], [row for row in used if row[0] != "num"])
        self.assertTrue(text.endswith("\r\n"))
        self.assertEqual(text, self.daemon.json("shell", "pbrInfoShow")["output"])

    def test_reports_asked_for_at_once_come_whole(self):
        self.apply_until_nothing_changes()
        expected, seen = self.bytes_of("pbrInfoShow"), []

        def ask():
            for _ in range(5):
                seen.append(self.bytes_of("pbrInfoShow"))
        threads = [threading.Thread(target=ask) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([expected] * 20, seen)

    def test_switches_and_refusals(self):
        self.assertEqual("pbrselflog = 0\n", self.daemon.ctl("shell", "pbrselflog").stdout)
        self.daemon.ctl("shell", "pbrselflog", "=", "1")
        self.assertEqual("pbrselflog = 1\n", self.daemon.ctl("shell", "pbrselflog").stdout)
        self.daemon.ctl("shell", "pbrdebug")
        self.assertEqual("pbrDebug = 1\n", self.daemon.ctl("shell", "pbrDebug").stdout)
        self.assertEqual("command  pbrInfoShow\ncommand  pbrdebug\nswitch   pbrselflog\nswitch   pbrDebug\n",
                         self.daemon.ctl("shell").stdout)
        refused = self.daemon.ctl("shell", "pbrInfo", check=False)
        self.assertEqual((1, ""), (refused.returncode, refused.stdout))
        self.assertIn("commands are pbrInfoShow, pbrdebug; switches are pbrselflog, pbrDebug", refused.stderr)
        self.assertEqual(1, self.daemon.ctl("shell", "pbrInfoShow", "now", check=False).returncode)

    def test_trace_texts_appear_when_their_bit_is_set(self):
        self.daemon.apply(POLICY)
        self.assertEqual([], [line for line in self.daemon.errors if "QRV_RTM_ACL" in line])
        self.daemon.ctl("debug", "set", "event")
        self.daemon.ctl("acl", "add", 1501, 20, "permit tcp from any to any")
        text = "pbr receive QRV_RTM_ACL_ADDACLRULE,listNum=1501,ruleNum=20,name=wan,nodeIndex=10."
        self.assertTrue(self.daemon.until(lambda: any(text in line for line in self.daemon.errors)),
                        self.daemon.errors[-10:])


if __name__ == "__main__":
    system_case.main()
