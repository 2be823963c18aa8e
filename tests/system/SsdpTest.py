#!/usr/bin/python3
"""Products with SSDP and with mDNS, and SSDP through network failures."""
import contextlib
import os
import time
import unittest

from labcase import LabCase

OFFLINE_SECONDS = 10
#: A search every 30 s that takes 10 s, 1 s for the timer's resolution, and reserve for a slow machine.
SEARCH_SECONDS = 30 + 5
MISSED_SECONDS = SEARCH_SECONDS + 10
#: From the return of the network to the response of a device with MX = 3 s.
FOUND_SECONDS = 15
SEARCH_BEGINS = "Restarting browser on eth0"
#: Thread names as the kernel shows them. The threads exist from start to stop of discovery.
THREADS = {"GSSDPMainLoop", "SsdpDiscovery"}


class Ssdp(LabCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.device = cls.lab.start_devices(["product", "renderer"], silent=True)
        cls.guid = cls.device.guids[0]
        cls.device.bring_back(0, 1)
        cls.lab.start_device_of("bedroom")

    def test_each_road_and_both(self):
        bedroom, office = self.lab.product("bedroom").guid, self.lab.product("office").guid

        def is_whole(tables):
            rows = [tables.row("kitchen", target) for target in (self.guid, bedroom, office)]
            return all(rows) and [row.state for row in rows] == ["ONLINE"] * 3 and rows[1].protocols == ("SSDP", "MDNS")

        seconds = self.lab.wait_until(is_whole, SEARCH_SECONDS, "the three of them in the kitchen's table")
        print(f"found after {seconds:.1f} s")
        listed = self.lab.get("kitchen", "/sonarix/products")["products"]
        rows = {product["productinfo"]["guid"]: product for product in listed}
        self.assertEqual(len(listed), len(rows), "a row each")
        self.assertEqual(set(rows), {self.lab.product("kitchen").guid, bedroom, office, self.guid})
        self.assertEqual([rows[guid]["protocols"] for guid in (self.guid, bedroom, office)],
                         [["SSDP"], ["SSDP", "MDNS"], ["MDNS"]])
        # Fields of the sources are merged with the product's own information.
        self.assertEqual([guid for guid, row in rows.items() if "serviceid" not in row], [self.guid])
        for field in ("icons", "services", "location"):
            self.assertEqual({guid for guid, row in rows.items() if row["productinfo"].get(field)},
                             {self.guid, bedroom}, field)
        self.assertEqual(len(rows[bedroom]["productinfo"]["icons"]), len(rows[self.guid]["productinfo"]["icons"]))
        own = self.lab.get("bedroom", "/sonarix/info")
        for field in ("friendlyname", "ipaddress", "softwareversion", "capabilities", "configurations"):
            self.assertEqual(rows[bedroom]["productinfo"][field], own[field], field)

        # Absent without byebye: the heartbeat changes the row, the next search changes SSDP's list.
        log = self.log_size("kitchen")
        self.device.silence(0, 0)
        self.lab.wait_until(lambda tables: tables.state("kitchen", self.guid) == "OFFLINE", OFFLINE_SECONDS,
                            "the silent one OFFLINE")
        lines = self.wait_for_log("kitchen", log, f"Removing offline device : {self.guid}", MISSED_SECONDS)
        self.assertLessEqual(sum(SEARCH_BEGINS in line for line in lines), 1, "gone with the first search that it missed")
        self.assertFalse([line for line in lines if f"Removing offline device : {bedroom}" in line], "who answered stays")
        row = self.lab.table("kitchen")[self.guid]
        self.assertEqual((row.state, row.protocols), ("OFFLINE", ("SSDP",)))

        self.device.bring_back(0, 0)
        self.lab.wait_until(lambda tables: tables.state("kitchen", self.guid) == "ONLINE", FOUND_SECONDS, "back again")
        self.assertEqual(len(self.lab.table("kitchen")), 4)

    def test_network_changes_during_a_search(self):
        # A change so fast that the network does not count as down is detected at the next search.
        office_log = self.log_size("office")
        self.lab.change_address("office")

        # Without a network only SSDP's timer task remains.
        self.lab.kill("kitchen", "network")
        self.lab.kill("kitchen", "service")
        log = self.log_size("kitchen")
        self.lab.start("kitchen", "service")
        self.wait_for_log("kitchen", log, "HandleGetMyProductInfo", FOUND_SECONDS)  # the service has started and serves
        self.assertEqual(self.ssdp_threads() & THREADS, set())
        pids = self.service_pids()
        log = self.log_size("kitchen")
        self.lab.start("kitchen", "network")
        self.found(log, "the network's coming")
        self.assertEqual(self.ssdp_threads() & THREADS, THREADS)

        self.lab.link_down("kitchen")  # during this and each of the following searches
        self.without_network()
        log = self.log_size("kitchen")
        self.lab.link_up("kitchen")
        self.found(log, "the cable's return")

        self.lab.remove_link("kitchen")
        self.without_network()
        log = self.log_size("kitchen")
        self.lab.make_link("kitchen")
        self.found(log, "the new interface")

        self.found(office_log, "all that, at the new address", "office", "has another address: SSDP restarts",
                   SEARCH_SECONDS)
        self.assertEqual(self.service_pids(), pids)
        self.all_online(self.convergence_seconds, "at the end")

    def found(self, log, after, observer="kitchen", begin_of_search=SEARCH_BEGINS, seconds=FOUND_SECONDS):
        """Waits until a search that started after that position of the log finds the device."""
        begin = time.monotonic()
        self.wait_for_log(observer, log, (begin_of_search, f"Discovered a new device : {self.guid}"), seconds)
        print(f"found {time.monotonic() - begin:.1f} s after {after}")
        self.lab.wait_until(lambda tables: tables.state(observer, self.guid) == "ONLINE", FOUND_SECONDS, "ONLINE")

    def without_network(self):
        self.lab.wait_until(lambda tables: tables.own("kitchen").address == "", OFFLINE_SECONDS, "no network")
        self.lab.wait_until(lambda tables: not self.ssdp_threads() & THREADS, OFFLINE_SECONDS, "no thread for SSDP")

    def ssdp_threads(self):
        task = f"/proc/{self.lab.product('kitchen').pid('service')}/task"
        names = set()
        for thread in os.listdir(task):
            with contextlib.suppress(OSError):  # the process may end
                with open(f"{task}/{thread}/comm", encoding="utf-8") as file:
                    names.add(file.read().strip())
        return names


if __name__ == "__main__":
    unittest.main(verbosity=2)
