#!/usr/bin/python3
"""A product in accessory mode reaches its hosts by mutual TLS; they do not list it."""
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

    def test_nobody_without_a_certificate_of_ours(self):
        """The hosts' port answers TLS to those that show a certificate of the same authority, and to no others."""
        address = self.lab.look(lambda tables: tables.own("kitchen").address)
        tls = "/run/product/tls"
        connect = ["openssl", "s_client", "-quiet", "-connect", f"{address}:8090", "-CAfile", f"{tls}/ca.pem",
                   "-verify_return_error", "-verify_hostname", self.lab.product("kitchen").guid]
        ours = ["-cert", f"{tls}/cert.pem", "-key", f"{tls}/key.pem"]
        upgrade = (f"GET / HTTP/1.1\r\nHost: {address}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                   "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
                   "Sec-WebSocket-Protocol: tarsier_mTLS\r\n\r\n")
        script = f"(printf %s '{upgrade}'; sleep 2) | timeout 5 \"$@\""
        with_ours = self.lab.run("accessory-1", ["bash", "-c", script, "-", *connect, *ours])
        self.assertIn("101 Switching", with_ours.stdout, with_ours.stderr)
        without = self.lab.run("accessory-1", ["bash", "-c", script, "-", *connect])
        self.assertNotIn("101 Switching", without.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
