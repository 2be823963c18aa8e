#!/usr/bin/python3
"""Real products and hundreds of simulated ones, half of which repeatedly leave without goodbye and return.

SONARIX_CROWD_ROUNDS: number of rounds, default 3; use 10 to find leaks. With more than 3 there are two real products,
which doubles the time on a small machine.
"""
import os
import re
import time
import unittest

from labcase import LabCase, held_by

ROUNDS = int(os.environ.get("SONARIX_CROWD_ROUNDS", "3"))
CROWD = 500
OFFLINE_SECONDS = 15
MOST_GROWTH_KIB = 1024


class Crowd(LabCase):
    shape = {"products": 1 if ROUNDS <= 3 else 2, "crowd": CROWD}
    convergence_seconds = 120

    def setUp(self):
        super().setUp()
        self.wait_quiet()

    def test_half_of_the_crowd_leaves_without_goodbye_and_returns(self):
        gone, staying = self.lab.crowd.guids[:CROWD // 2], self.lab.crowd.guids[CROWD // 2:]
        observers = [product.name for product in self.lab.products]
        first = None
        for number in range(1, ROUNDS + 1):
            begin = self.lab.seconds
            self.lab.crowd.silence(0, len(gone) - 1)
            offline = self.lab.wait_until(lambda tables: all(
                tables.state(observer, guid) == "OFFLINE" for observer in observers for guid in gone),
                OFFLINE_SECONDS, f"what went in round {number} is OFFLINE")
            self.lab.crowd.bring_back(0, len(gone) - 1)
            online = self.all_online(self.convergence_seconds, f"after round {number}")
            self.wait_quiet()
            self.assertEqual(self.lab.look(lambda tables: [
                (observer, target) for observer in observers for target in [*staying, *observers]
                if tables.since(observer, target) >= begin]), [], f"rows of what never went changed in round {number}")
            held = [held_by(self.lab.product(observer).pid("service")) for observer in observers]
            print(f"round {number}: OFFLINE after {offline:.1f} s, ONLINE again after {online:.1f} s; services hold "
                  + ", ".join("{} KiB private dirty, {} threads, {} descriptors".format(*each) for each in held),
                  flush=True)
            first = first or held
        for observer, before, after in zip(observers, first, held):
            self.assertLess(after[0], before[0] + MOST_GROWTH_KIB, f"{observer}: KiB of private dirty memory")
            self.assertEqual(after[1:], before[1:], f"{observer}: threads and descriptors")

    def test_goodbye_and_new_names(self):
        guids = self.lab.crowd.guids[:20]
        observers = [product.name for product in self.lab.products]

        def all_rows(tables, accept):
            return all(accept(tables.row(observer, guid)) for observer in observers for guid in guids)

        self.lab.crowd.say_goodbye(0, len(guids) - 1)
        self.lab.wait_until(lambda tables: all_rows(tables, lambda row: row.state == "OFFLINE"), OFFLINE_SECONDS,
                            "who said goodbye is OFFLINE")
        self.lab.crowd.bring_back(0, len(guids) - 1)
        self.all_online(self.convergence_seconds, "after the goodbyes")
        self.lab.crowd.rename(0, len(guids) - 1)
        renamed = re.compile(r"Crowd \d+, 2")
        self.lab.wait_until(lambda tables: all_rows(
            tables, lambda row: row.state == "ONLINE" and renamed.fullmatch(row.name)), 30, "the new names are listed")

    def wait_quiet(self, seconds=2, limit=60):
        """Waits until no product publishes its list for a while."""
        deadline = time.monotonic() + limit
        while self.lab.wait_change(seconds):
            self.assertLess(time.monotonic(), deadline, "lists are published without end")


if __name__ == "__main__":
    unittest.main(verbosity=2)
