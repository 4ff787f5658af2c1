#!/usr/bin/env python3
"""What the benchmarks make of their measurements, by values that are known."""
import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from kit import plot, policies, stats  # noqa: E402


class Ratios(unittest.TestCase):
    def test_a_machine_that_becomes_slower_does_not_count(self):
        self.assertEqual([0.5, 0.5], stats.neighbour_ratios([100, 45, 80, 35, 60]))

    def test_a_yardstick_stands_before_and_behind(self):
        for series in ([], [1], [1, 2], [1, 2, 3, 4]):
            with self.assertRaises(ValueError):
                stats.neighbour_ratios(series)

    def test_flat_is_zero(self):
        self.assertEqual(0, stats.flatness([0.7, 0.7]))
        self.assertAlmostEqual(0.1, stats.flatness([0.9, 1.0, 0.95]))


class Growth(unittest.TestCase):
    def test_the_exponent_is_found_whatever_the_factor(self):
        for exponent in (0, 0.5, 1, 2):
            points = [(n, 3e-6 * n ** exponent) for n in (10, 100, 1000, 10000)]
            self.assertAlmostEqual(exponent, stats.growth(points))

    def test_one_size_has_no_growth(self):
        self.assertIsNone(stats.growth([(10, 1.0), (10, 2.0)]))
        self.assertIsNone(stats.growth([(10, 1.0), (100, 0.0)]))


class Percentiles(unittest.TestCase):
    def test_of_a_hundred_the_last_but_one(self):
        self.assertEqual(99, stats.percentile(range(100, 0, -1), 0.99))
        self.assertEqual(100, stats.percentile(range(1, 101), 1))
        self.assertEqual(1, stats.percentile([1], 0.5))


class Texts(unittest.TestCase):
    def test_three_digits_and_a_unit(self):
        self.assertEqual(["1.23 s", "12.3 ms", "999 us", "0.500 us"],
                         [stats.duration(each) for each in (1.234, 0.01234, 0.000999, 0.0000005)])
        self.assertEqual(["0", "1,012,345", "0.0468"], [stats.three(each) for each in (0, 1012345, 0.0468)])

    def test_a_table_has_a_line_below_its_head(self):
        self.assertEqual(["| a | b |", "|---|---|", "| 1 | x |"], stats.table(["a", "b"], [[1, "x"]]))


class Policies(unittest.TestCase):
    def test_each_node_is_another_rule(self):
        for kind in policies.KINDS:
            for family in (4, 6):
                self.assertEqual(10000, len({policies.words(policies.rule(kind, family, n)) for n in range(1, 10001)}))

    def test_a_thousand_nodes_have_next_hops_the_first_and_the_last_among_them(self):
        for count in (1, 1000, 1001, 5000, 10000):
            have = [n for n in range(1, count + 1) if policies.has_next_hops(n, count)]
            self.assertEqual(min(count, 1000), len(have))
            self.assertEqual((1, count), (have[0], have[-1]))


class Plot(unittest.TestCase):
    def test_each_line_has_its_points_and_its_name(self):
        text = plot.svg("title", {"one": [(1, 1.0), (100, 0.5)], "two": [(1, 0.5)]}, "y")
        self.assertEqual(3, text.count("<circle"))
        self.assertIn(">one</text>", text)
        self.assertEqual(1, text.count("<polyline"))  # one point is no line


if __name__ == "__main__":
    unittest.main()
