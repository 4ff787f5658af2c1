"""Where it is promised that no packet is lost: what other tests do not show, with 1 ms between packets, in both
families. `bench/losses.py` prints the same cases, and those that lose some."""
import system_case
import loss_cases


class NothingIsLost(system_case.LabCase):
    options = loss_cases.FAST

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        loss_cases.prepare(cls.lab)

    def over(self, key):
        case = loss_cases.CASES[key]
        results = loss_cases.Stage(self.lab, self.daemon).play(case)
        for family, result in results.items():
            self.assertEqual(0, result["lost"], (case.name, family, result["lost_numbers"][:10]))
        return results

    def test_over_an_apply_that_nobody_confirms(self):
        for result in self.over("rollback").values():
            self.assertEqual({"upa", "upc"}, set(result["uplinks"]))  # it was there, and upb never

    def test_when_the_preferred_neighbour_answers_again(self):
        for result in self.over("answers").values():
            self.assertEqual({"upa", "upc"}, set(result["uplinks"]))

    def test_when_the_preferred_link_comes_up_again(self):
        for result in self.over("link-up").values():
            self.assertEqual({"upa", "upc"}, set(result["uplinks"]))

    def test_over_a_rule_that_is_added_to_the_nodes_acl(self):
        for result in self.over("rule").values():
            self.assertEqual({"upa"}, set(result["uplinks"]))

    def test_over_a_switch_of_what_the_node_does_otherwise(self):
        for result in self.over("otherwise").values():
            self.assertEqual({"upa"}, set(result["uplinks"]))

    def test_over_one_more_binding_of_the_list(self):
        for result in self.over("bind").values():
            self.assertEqual({"upa"}, set(result["uplinks"]))

    def test_over_unbinding_and_binding_by_hand(self):
        for result in self.over("off-and-on").values():
            self.assertEqual({"upa", "upb"}, set(result["uplinks"]))

    def test_over_a_time_range_that_ends_and_begins(self):
        for result in self.over("time-range").values():
            self.assertEqual({"upa", "upb"}, set(result["uplinks"]))

    def test_over_a_foreign_flush_of_all_tables(self):
        for result in self.over("flush").values():
            self.assertLessEqual(set(result["uplinks"]), {"upa", "upb"})


if __name__ == "__main__":
    system_case.main()
