#!/usr/bin/python3
"""A product in accessory mode connects to its hosts with mutual TLS. The hosts do not list it."""
import unittest

from labcase import CONVERGENCE_SECONDS, LabCase


class Accessory(LabCase):
    shape = {"products": 2, "accessories": 1}

    def test_lists_hosts_through_mutual_tls(self):
        rows = self.lab.table("accessory-1")
        self.assertEqual({name: row.state for name, row in rows.items()}, {"kitchen": "ONLINE", "bedroom": "ONLINE"})
        self.assertEqual(self.lab.look(lambda tables: tables.own("accessory-1").mode), "ACCESSORY")
        log = "\n".join(self.log_since("accessory-1", 0))
        for host in ("kitchen", "bedroom"):
            self.assertIn(f"Creating GW client for guid |{self.lab.product(host).guid}| and protocol |tarsier_mTLS|", log)
            self.assertNotIn(f"{self.lab.product(host).guid}| and protocol |tarsier|", log)

    def test_announces_itself_and_hosts_do_not_list_it(self):
        port, txt = self.published("kitchen", "Accessory", "_kova-accessory._tcp")
        self.assertEqual((port, txt), (8090, {b"GUID": self.lab.product("accessory-1").guid.encode()}))
        for host in ("kitchen", "bedroom"):
            self.assertNotIn("accessory-1", self.lab.table(host))

    def test_link_cut_and_death_of_a_host(self):
        self.lab.kill("kitchen")
        self.lab.wait_until(lambda tables: tables.state("accessory-1", "kitchen") == "OFFLINE", 10, "host OFFLINE")
        self.lab.start("kitchen")
        self.all_online(CONVERGENCE_SECONDS, "after the host's return")

        self.lab.link_down("accessory-1")
        self.lab.wait_until(lambda tables: tables.own("accessory-1").address == "", 10, "no network")
        self.lab.link_up("accessory-1")
        self.all_online(CONVERGENCE_SECONDS, "after the accessory's return")
        self.published("kitchen", "Accessory", "_kova-accessory._tcp")


if __name__ == "__main__":
    unittest.main(verbosity=2)
