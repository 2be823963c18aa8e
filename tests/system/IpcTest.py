#!/usr/bin/python3
"""The local sockets of a product, used by its command-line client and observed in another product's mDNS daemon."""
import os
import re
import signal
import sys
import time
import unittest

from labcase import LabCase, RENDERER_TYPE, lines_until

CLOCK = "_kova-clock._tcp"
HTTP = "_http._tcp"
EXAMPLE = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../examples/ipc_client.py")
SECONDS = 15
SSDP_SECONDS = 60  # a search of 10 s every 30 s


class Ipc(LabCase):
    shape = {"products": 2, "log_levels": "3,mDNS=4"}

    def ipc(self, *words, status=0):
        """Runs sonarix-ipc in the kitchen. Returns its output."""
        result = self.lab.run("kitchen", ["sonarix-ipc", *words], timeout=SECONDS)
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        return result.stdout

    def heard(self, client, pattern, seconds=SECONDS):
        for line in lines_until(client.stdout, time.monotonic() + seconds):
            if re.search(pattern, line):
                return
        self.fail(f"no line \"{pattern}\" within {seconds} s")

    def seen(self, instance, service_type, text=None):
        """Waits until another product resolves the record with these TXT keys."""
        wanted = text or {}
        self.published("bedroom", instance, service_type, SECONDS,
                       lambda address, txt: {key.decode(): value.decode() for key, value in txt.items()} == wanted)

    def test_step_by_step(self):
        listed = self.ipc("list", "mdns", RENDERER_TYPE)
        for product in self.lab.products:
            self.assertRegex(listed, rf"{product.spoken_name} +\S+ +{product.guid}")
        example = self.lab.run("kitchen", [sys.executable, "-B", EXAMPLE, "list", RENDERER_TYPE], timeout=SECONDS)
        self.assertEqual({line.split("\t")[3] for line in example.stdout.splitlines()},
                         {product.guid for product in self.lab.products})

        watching = ("sonarix-ipc", "watch", "mdns", CLOCK, "--every", "0.5")
        here = self.staying("kitchen", *watching)
        there = self.staying("bedroom", *watching)
        self.assertIn("publishes", self.ipc("add", "--keep", CLOCK, "Kitchen clock", "9000", "CLOCKDOMAIN=4"))
        self.seen("Kitchen clock", CLOCK, {"CLOCKDOMAIN": "4"})
        for watch in (here, there):
            self.heard(watch, r"\+ Kitchen clock")
        self.ipc("update", CLOCK, "Kitchen clock", "9000", "CLOCKDOMAIN=5", "BATTERY=true")
        self.seen("Kitchen clock", CLOCK, {"CLOCKDOMAIN": "5", "BATTERY": "true"})
        self.assertIn("Update Service Failed!", self.ipc("update", CLOCK, "Another clock", "9000", status=4))
        self.ipc("remove", CLOCK, "Kitchen clock")
        self.withdrawn("bedroom", "Kitchen clock", CLOCK)
        for watch in (here, there):
            self.heard(watch, "- Kitchen clock")

    def test_records_end_with_their_client(self):
        held = self.staying("kitchen", "sonarix-ipc", "add", HTTP, "Kitchen page", "80", "path=/")
        self.seen("Kitchen page", HTTP, {"path": "/"})
        held.kill()
        held.wait()
        self.ipc("list", "mdns", HTTP)  # answered after the service noticed the disconnected client
        self.seen("Kitchen page", HTTP, {"path": "/"})
        self.ipc("remove", HTTP, "Kitchen page")
        self.withdrawn("bedroom", "Kitchen page", HTTP)

        held = self.staying("kitchen", "sonarix-ipc", "add", HTTP, "Kitchen page", "80")
        self.seen("Kitchen page", HTTP)
        self.lab.kill("kitchen", "service")
        self.withdrawn("bedroom", "Kitchen page", HTTP)
        self.lab.start("kitchen", "service")
        self.seen("Kitchen page", HTTP)
        held.send_signal(signal.SIGINT)
        self.assertEqual(held.wait(SECONDS), 0)
        self.withdrawn("bedroom", "Kitchen page", HTTP)

    def test_death_and_return_of_the_mdns_daemon(self):
        pids = self.service_pids()
        self.ipc("add", "--keep", CLOCK, "Kitchen clock", "9000", "CLOCKDOMAIN=4")
        self.ipc("add", "--keep", HTTP, "Kitchen page", "80", "path=/")
        self.seen("Kitchen clock", CLOCK, {"CLOCKDOMAIN": "4"})
        self.seen("Kitchen page", HTTP, {"path": "/"})
        self.ipc("update", CLOCK, "Kitchen clock", "9000", "CLOCKDOMAIN=5")
        self.seen("Kitchen clock", CLOCK, {"CLOCKDOMAIN": "5"})
        self.lab.kill("kitchen", "avahi")
        before = self.log_size("kitchen")
        self.lab.start("kitchen", "avahi")
        self.assert_published("kitchen", since=before)
        self.seen("Kitchen page", HTTP, {"path": "/"})
        self.seen("Kitchen clock", CLOCK, {"CLOCKDOMAIN": "4"})  # an update changes only the record on the network
        published = [line.split("Service ")[1].split(":")[0] for line in self.log_since("kitchen", before)
                     if line.endswith(": uncommitted")]
        self.assertEqual(published, ["Kitchen", "Kitchen page", "Kitchen clock"])
        self.assertEqual(self.service_pids(), pids)
        for service_type, name in ((CLOCK, "Kitchen clock"), (HTTP, "Kitchen page")):
            self.ipc("remove", service_type, name)
            self.withdrawn("bedroom", name, service_type)

    def test_an_addition_while_the_network_is_down(self):
        self.lab.link_down("kitchen")
        self.lab.wait_until(lambda tables: tables.own("kitchen").address == "", SECONDS, "kitchen has no network")
        self.assertIn("once the network is up", self.ipc("add", "--keep", HTTP, "Kitchen page", "80", status=4))
        # The record waits for the product's own announcement, which the test requests before the hub service does.
        self.ipc("announce", "friendlyname=Kitchen", f"guid={self.lab.product('kitchen').guid}")
        self.lab.link_up("kitchen")
        self.seen("Kitchen page", HTTP)
        self.ipc("remove", HTTP, "Kitchen page")
        self.withdrawn("bedroom", "Kitchen page", HTTP)

    def test_ssdp_devices_come_and_go(self):
        watch = self.staying("kitchen", "sonarix-ipc", "watch", "ssdp")
        devices = self.lab.start_devices(["product"])
        self.heard(watch, rf"\+ .*{devices.addresses[0]}  {devices.guids[0]}", SSDP_SECONDS)
        devices.say_goodbye(0, 0)
        self.heard(watch, f"- .*{devices.guids[0]}", SSDP_SECONDS)
        self.assertNotIn(devices.guids[0], self.ipc("list", "ssdp"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
