"""Records that the daemon hands to the device, as the memory device keeps and pbrctl shows them: single
rules, and members of an aggregation."""
import system_case
from netlab import unit_of

POLICY = """
acls:
  1501: {10: permit ip from 10.0.0.0/8 to any}
lists:
  wan:
    10: {acl: 1501, interface: lo}
bindings:
  lo: wan
"""


class Rules(system_case.MemoryCase):
    def rules(self):
        return self.daemon.json("show", "device", "--records")["ruleRecords"]

    def rule_numbers(self):
        return [rule["rule"] for rule in self.rules()]

    def setUp(self):
        super().setUp()
        # The rule's own message comes over the bus in its own time: bound before it, the rule would be a record too.
        self.daemon.apply(POLICY.split("bindings:")[0] + "bindings: {}\n")
        self.assertTrue(self.daemon.until(lambda: "rcvRtmAclAddCnt=1" in self.daemon.ctl("shell", "pbrInfoShow").stdout))
        self.daemon.apply(POLICY)
        self.assertTrue(self.daemon.until(lambda: self.daemon.json("show", "bindings")[0]["installed"] == 1))

    def test_a_rule_that_is_added_and_removed_comes_and_goes_as_a_record(self):
        self.assertEqual([], self.rules())
        self.daemon.ctl("acl", "add", 1501, 20, "permit tcp from 10.1.0.0/16 to any port 443")
        self.assertTrue(self.daemon.until(lambda: self.rule_numbers() == [20]), self.rules())
        record = self.rules()[0]
        fields = {field["name"]: field["value"] for field in record["fields"]}
        self.assertEqual(("lo", 1501, ["out-interface"]), (record["interface"], record["acl"], record["actions"]))
        self.assertEqual((6, "10.1.0.0", 16, 443, 443, 2, 1, unit_of("lo"), [4], 1501, 20, 20),
                         tuple(fields[name] for name in ("protoType", "srcAddr", "srcPrefix", "destPort", "destEndPort",
                                                         "layerType", "ipVer", "outIfUnit", "action", "lstIdx",
                                                         "ruleIdx", "priority")))
        self.assertEqual("0006", record["hex"][:4])
        text = self.daemon.ctl("show", "device", "--records").stdout
        self.assertIn(f"rule record: interface lo (unit {unit_of('lo')}), acl 1501, rule 20, action out-interface\n", text)
        self.assertIn("  srcAddr         10.1.0.0\n", text)
        self.assertIn("  000  0006", text)
        self.daemon.ctl("acl", "del", 1501, 20)
        self.assertTrue(self.daemon.until(lambda: self.rule_numbers() == []), self.rules())
        counters = self.daemon.json("show", "device")["counters"]
        self.assertEqual((1, 1, 0), tuple(counters[name] for name in ("ruleAdds", "ruleDels", "ruleDelsAbsent")))

    def test_a_rule_that_the_device_refuses_is_counted_by_the_daemon(self):
        before = self.daemon.ctl("shell", "pbrInfoShow").stdout
        self.assertIn("adderr 0,", before)
        self.manage({"op": "device.fail", "count": 1, "call": "rule-add", "code": 5})
        self.daemon.ctl("acl", "add", 1501, 20, "permit tcp from any to any")
        self.assertTrue(self.daemon.until(lambda: "adderr 1" in self.daemon.ctl("shell", "pbrInfoShow").stdout))
        self.assertEqual([], self.rules())

    def test_the_bound_interfaces_own_record_has_every_field_by_its_name(self):
        record = self.daemon.json("show", "device", "--records")["records"][0]
        self.assertEqual([("ifUnit", unit_of("lo")), ("lstIndex", 1501), ("direction", 0), ("action", 4), ("newIpPri", 0),
                          ("vrfId", 0)], [(field["name"], field["value"]) for field in record["fields"][:6]])
        self.assertFalse(record["member"])
        self.assertIn(f"record: interface lo (unit {unit_of('lo')}), acl 1501, action out-interface\n",
                      self.daemon.ctl("show", "device", "--records").stdout)


if __name__ == "__main__":
    system_case.main()
