#!/usr/bin/python3
"""Recovery of a product, its link, its mDNS daemon, its gateway, and fifty restarts of its service."""
import time
import unittest

from labcase import LabCase, cpu_seconds

DEATH_SECONDS = 10
RETURN_SECONDS = 60
CUT_SECONDS = 30
RESTARTS = 50


class Return(LabCase):
    def listed_by_others(self, name, state):
        return lambda tables: all(tables.state(observer, name) == state for observer in self.others(name))

    def test_death_and_return_of_a_product(self):
        self.lab.kill("kitchen")
        before = self.log_size("kitchen")
        seconds = self.lab.wait_until(self.listed_by_others("kitchen", "OFFLINE"), DEATH_SECONDS,
                                      "the dead product OFFLINE in all others")
        print(f"OFFLINE after {seconds:.1f} s")
        self.assertEqual(self.lab.look(lambda tables: tables.state("bedroom", "office")), "ONLINE")
        self.lab.start("kitchen")
        print(f"ONLINE again after {self.all_online(RETURN_SECONDS, 'after its return'):.1f} s")
        self.assert_published("kitchen", since=before)

    def test_cut_link(self):
        pids = self.service_pids()
        self.lab.cut("bedroom", CUT_SECONDS)
        cut = time.monotonic()
        seconds = self.lab.wait_until(self.listed_by_others("bedroom", "OFFLINE"), CUT_SECONDS, "OFFLINE when cut off")
        print(f"OFFLINE after {seconds:.1f} s")
        self.lab.wait_until(lambda tables: tables.own("bedroom").address == "", DEATH_SECONDS,
                            "the product that is cut off knows that it has no network")
        self.stays(lambda tables: self.listed_by_others("bedroom", "OFFLINE")(tables)
                   and tables.state("kitchen", "office") == tables.state("office", "kitchen") == "ONLINE",
                   max(0.0, cut + CUT_SECONDS - 1 - time.monotonic()), "the one OFFLINE, the others ONLINE")
        self.all_online(RETURN_SECONDS, "after the cut")
        print(f"ONLINE again {time.monotonic() - cut - CUT_SECONDS:.1f} s after the cable was plugged in")
        self.assertEqual(self.lab.look(lambda tables: tables.own("bedroom").mode), "HOST")
        self.assertEqual(self.service_pids(), pids)
        self.assert_published("bedroom")

    def test_death_and_return_of_the_mdns_daemon(self):
        pids = self.service_pids()
        self.lab.kill("office", "avahi")
        before, begin = cpu_seconds(pids["office"]), time.monotonic()
        self.stays(lambda tables: not tables.missing(), 5, "rows stay while the mDNS daemon is away")
        used = (cpu_seconds(pids["office"]) - before) / (time.monotonic() - begin)
        self.assertLess(used, 0.1, "share of a core that the service burns while it waits for the daemon")
        size = self.log_size("office")
        self.lab.start("office", "avahi")
        self.assert_published("office", since=size)
        self.all_online(RETURN_SECONDS, "after the daemon's return")

        # Browsing works again: a new product is found.
        self.lab.kill("kitchen")
        self.lab.wait_until(lambda tables: tables.state("office", "kitchen") == "OFFLINE", DEATH_SECONDS, "OFFLINE")
        self.lab.rename("kitchen", "Kitchenette")
        self.lab.start("kitchen")
        self.lab.wait_until(lambda tables: (row := tables.row("office", "kitchen")) and
                            (row.state, row.name) == ("ONLINE", "Kitchenette"), RETURN_SECONDS, "found under a new name")
        self.lab.rename("kitchen", "Kitchen")
        self.assert_published("kitchen")
        self.assertEqual({**self.service_pids(), "kitchen": None}, {**pids, "kitchen": None})

    def test_death_and_return_of_the_gateway(self):
        pids = self.service_pids()
        self.lab.kill("bedroom", "gateway")
        self.lab.wait_until(self.listed_by_others("bedroom", "OFFLINE"), DEATH_SECONDS, "OFFLINE without its gateway")
        self.lab.start("bedroom", "gateway")
        print(f"all as before after {self.all_online(RETURN_SECONDS, 'after the return of the gateway'):.1f} s")
        self.assertEqual(len(self.lab.get("bedroom", "/sonarix/products")["products"]), 3)
        self.assertEqual(self.lab.get("bedroom", "/sonarix/info")["configurations"]["currentProductMode"], "HOST")
        self.assertEqual(self.service_pids(), pids)
        self.assert_published("bedroom")

    def test_restarts_beside_a_warm_mdns_daemon(self):
        self.lab.kill("kitchen", "service")
        self.lab.wait_until(self.listed_by_others("kitchen", "OFFLINE"), DEATH_SECONDS, "OFFLINE without its service")
        self.lab.start("kitchen", "service")
        times = []
        for _ in range(RESTARTS):
            self.lab.kill("kitchen", "service")
            before = self.log_size("kitchen")
            self.lab.start("kitchen", "service")
            times.append(self.lab.wait_until(
                lambda tables: all(tables.state("kitchen", name) == "ONLINE" for name in self.others("kitchen")),
                30, "the restarted service lists all others as ONLINE"))
        print(f"restarted service complete after {max(times):.1f} s at most")
        self.all_online(RETURN_SECONDS, "after the restarts")
        self.assert_published("kitchen", since=before)


if __name__ == "__main__":
    unittest.main(verbosity=2)
