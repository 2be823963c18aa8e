#!/usr/bin/python3
"""Evaluation of figures in bench/run: medians, limits, and the output of benchmark programs."""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../bench"))

from sonarix_bench.discovery import Arrivals, _online  # noqa: E402
from sonarix_bench.figures import Row, markdown, of_program  # noqa: E402


class Figures(unittest.TestCase):
    def test_limit_applies_to_median_and_fails_for_missing_samples(self):
        self.assertTrue(Row.of("b", "n", [1.0, 9.0, 1.4], limit="<= 1.5").holds)
        self.assertFalse(Row.of("b", "n", [1.0, None, 1.4], limit="<= 1.5").holds)
        self.assertFalse(Row("b", "n", 0.999, limit=">= 1").holds)
        self.assertFalse(Row("b", "n", 3, limit="2").holds)
        self.assertIsNone(Row("b", "n", 3).holds)

    def test_table_of_a_program(self):
        said = []
        script = "printf 'a b c\\nnamed x\\t1234.56\\tKiB\\t<= 1000\\ny\\t0.0123\\t\\t\\n'"
        rows = of_program("named", ["sh", "-c", script], said.append)
        self.assertEqual(markdown(rows).splitlines()[2:], [
            "| named | x      | 1,235  | KiB  | <= 1000 | **MISSED** |               |",
            "| named | y      | 0.0123 |      |         |            |               |"])
        self.assertEqual(said, ["named: a b c"])
        with self.assertRaisesRegex(RuntimeError, "status 3: why"):
            of_program("named", ["sh", "-c", "echo why >&2; exit 3"], said.append)


class Lists(unittest.TestCase):
    def test_online_rows_are_counted_without_the_own_row(self):
        def row(state, guid):
            return f'{{"state":"{state}","productinfo":{{"guid":"{guid}"}}}}'

        rows = [row("ONLINE", "a"), row("OFFLINE", "b"), row("ONLINE", "own")]
        own = b'"guid":"own"'
        self.assertEqual(_online(",".join(rows).encode(), own), (2, 1))
        self.assertEqual(_online(",".join([row("OFFLINE", "own"), *rows[:2]]).encode(), own), (1, 0))
        self.assertEqual(_online(b'{"products":[]}', own), (0, 0))

    def test_arrivals_give_first_median_and_last_of_batches(self):
        arrivals = Arrivals(4)
        for found, seconds in ((1, 0.5), (1, 0.6), (3, 0.7), (2, 0.8), (4, 0.9)):
            self.assertFalse(arrivals.complete.is_set())
            arrivals.reached(found, seconds)
        self.assertTrue(arrivals.complete.is_set())
        self.assertEqual((arrivals.first, arrivals.median, arrivals.last), (0.5, 0.7, 0.9))


if __name__ == "__main__":
    unittest.main(verbosity=2)
