"""Events that this host's kernel does not tell, as pbrctl event tells them."""
import system_case
from system_case import netlab

POLICY = """
acls:
  1501: {10: permit ip from 10.0.0.0/8 to any}
lists:
  wan:
    10: {acl: 1501, interface: lo}
bindings:
  lo: wan
"""


class Events(system_case.MemoryCase):
    def setUp(self):
        super().setUp()
        self.daemon.apply(POLICY)
        self.daemon.ctl("debug", "set", "event")

    def bound(self):
        return [row["interface"] for row in self.daemon.json("show", "bindings")]

    def until_logged(self, text):
        self.assertTrue(self.daemon.until(lambda: any(text in line for line in self.daemon.errors)),
                        f"not logged: {text}\n" + "".join(self.daemon.errors[-15:]))

    def test_events_that_take_a_policy_off_its_interface(self):
        for words, text in ((("port-reset", "lo"), "pbr receive QRV_RTM_RESETPORTCONFIG,so pbr unbind(Interface=[lo],pbr=[wan])."),
                            (("gone", "lo"), "Interface unregister,so pbr unbind(Interface=[lo],pbr=[wan])."),
                            (("link", "lo", "--joined", "unit:999"),
                             "phy join agg,so pbr unbind on phy(phy=[lo],agg=[if999],pbr=[wan]).")):
            self.daemon.ctl("bind", "lo", "wan")
            self.assertEqual(["lo"], self.bound())
            self.daemon.ctl("event", *words)
            self.assertTrue(self.daemon.until(lambda: self.bound() == []), words)
            self.until_logged(text)

    def test_ports_of_an_aggregation_are_told_to_the_daemon(self):
        self.daemon.ctl("event", "link", "lo", "--added", "unit:999")
        self.daemon.ctl("event", "link", "lo", "--removed", "unit:999")
        self.until_logged(f"pbr receive agg {netlab.unit_of('lo')} remove phy 999 msg.")
        self.assertEqual(["lo"], self.bound())

    def test_cards_and_slots_that_come_up(self):
        self.daemon.ctl("event", "card-up", "--slot", 5, "--card", 6, "--type", 7)
        self.until_logged("pbr receive QRV_RTM_CARD_UP,rtm_type=7,sysId=24,slotId=")
        self.until_logged(",cardId=6,type=7.")
        self.daemon.ctl("event", "slot-up", "--type", 9)
        self.until_logged("pbr receive QRV_RTM_SLOT_UP,rtm_type=9,sysId=24,slotId=")

    def test_wrong_events_change_nothing(self):
        refused = self.daemon.ctl("event", "port-reset", "nothing", check=False)
        self.assertEqual(1, refused.returncode)
        self.assertIn("interface nothing does not exist", refused.stderr)
        self.assertEqual(1, self.daemon.ctl("event", "card-up", "--slot", 65536, check=False).returncode)
        self.assertEqual(["lo"], self.bound())


if __name__ == "__main__":
    system_case.main()
