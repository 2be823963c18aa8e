#!/usr/bin/python3
"""Hosts that publish malformed records, or records with the guid of a product."""
import json
import subprocess
import unittest

from labcase import LabCase, RENDERER_TYPE, all_products_online, grave

OBSERVERS = ("kitchen", "bedroom", "office")
NEIGHBOUR = "stranger-1"
OURS = b"ECOSYS=ORB2"
# The log line of a resolve for a guid that no product has. It is repeated at each failed check.
NO_FAULT_OF_THE_RECORD = "Error getting remote product info"

NONSENSE = {
    "no equals sign": [b"GUID", b"ECOSYS", b"nothing at all"],
    "no strings": [],
    "empty keys and values": [b"=", b"=ORB2", b"GUID=", OURS],
    "binary": [OURS, b"GUID=\x01\x02\x03\x1b[2J", b"PNAME=" + bytes(range(1, 128))],
    "not UTF-8": [OURS, b"GUID=\xff\xfe\xc0\x80", b"PNAME=\xed\xa0\x80", b"\xff\xff=\xff"],
    "255 bytes": [OURS, b"GUID=" + b"g" * 250, b"k" * 255, b"PNAME=" + b"\xe2\x82\xac" * 83],
    "missing keys": [OURS],
    "repeated keys": [OURS, b"ECOSYS=OTHER", OURS, b"GUID=first", b"GUID=second", b"guid=third"],
    "numbers out of range": [OURS, b"GUID=out-of-range",
                             b'AudioPayloadVersion={"major_version":99999999999999999999,"minor_version":-1e400}',
                             b'GroupingVersion={"major_version":2147483648}'],
    "versions that are no JSON": [OURS, b"GUID=no-json", b"AudioPayloadVersion={{{{", b"AudioControlProtocolVersion=[]",
                                  b"ClockSyncProtocolVersion=\"", b"NowPlayingVersion=null",
                                  b"PlaybackRequestVersion=" + b"[" * 200, b"GroupingVersion=\xff"],
    "clock keys": [OURS, b"GUID=clock", b"MAC=" + b"Z" * 200, b"DEVICEIP=999.1.1.1", b"CONNECTIONTYPE=TIN",
                   b"LEADERELECTED=TRUE", b"BATTERY=", b"ISCLOCKSYNCED=yes"],
}


class Hostile(LabCase):
    shape = {"products": 3, "strangers": 1}

    def publish(self, instance, strings):
        """The hostile host publishes a record until the end of the test or until the returned process is killed."""
        publisher = self.staying(NEIGHBOUR, "avahi-publish-service", instance, RENDERER_TYPE, "8090", *strings,
                                 stderr=subprocess.STDOUT)
        self.assertTrue(any(b"Established" in line for line in publisher.stdout), f"{instance}: not published")
        return publisher

    def assert_one_grave_line(self, lines):
        said = [line for line in grave(lines) if NO_FAULT_OF_THE_RECORD not in line]
        self.assertLessEqual(len(said), 1, said)

    def right_rows(self, tables):
        return all((row := tables.row(observer, target)) is not None
                   and (row.state, row.name) == ("ONLINE", self.lab.product(target).spoken_name)
                   and row.record["productinfo"].get("modelname") == "Sonarix One"
                   and row.record["productinfo"].get("productcolor") == "BLACK"
                   for observer in OBSERVERS for target in OBSERVERS)

    def test_nonsense(self):
        pids = self.service_pids()
        for what, strings in NONSENSE.items():
            with self.subTest(what):
                instance = f"Nonsense: {what}"
                offsets = {name: self.log_size(name) for name in OBSERVERS}
                publisher = self.publish(instance, strings)
                for name in OBSERVERS:
                    self.wait_for_log(name, offsets[name], f"s.id: {instance} ServiceType")
                publisher.kill()
                for name in OBSERVERS:
                    lines = self.wait_for_log(name, offsets[name], f"Removed() s.id: {instance}")
                    self.assert_one_grave_line(lines)
                self.assertTrue(self.lab.look(all_products_online))
                self.assertTrue(self.lab.look(self.right_rows))
                for name in OBSERVERS:
                    self.assertEqual(self.lab.get(name, "/sonarix/info")["guid"], self.lab.product(name).guid)
                    json.dumps(self.lab.get(name, "/sonarix/products"))
        self.assertEqual(self.service_pids(), pids)

    def test_impostor(self):
        """Publishes the kitchen's guid, which is another product's for two services and the own one for the third."""
        pids = self.service_pids()
        guid = self.lab.product("kitchen").guid.encode()
        offsets = {name: self.log_size(name) for name in OBSERVERS}
        publisher = self.publish("Impostor", [
            OURS, b"GUID=" + guid, b"PNAME=Fake", b"PCOLOR=PINK", b"PTYPE=TOASTER", b"DEVICEIP=10.77.0.99",
            b'AudioPayloadVersion={"major_version":77}'])
        for name in OBSERVERS:
            self.wait_for_log(name, offsets[name], "s.id: Impostor ServiceType")
        # The kitchen's hub service detects the wrong name and posts again; the responses correct the others' rows.
        self.wait_for_log("kitchen", offsets["kitchen"], "HandleAdvertisement")
        self.lab.wait_until(self.right_rows, 15, "all rows right again, while the impostor goes on")
        self.stays(self.right_rows, 3, "all rows right, while the impostor goes on")
        kitchen = self.lab.get("kitchen", "/sonarix/info")
        self.assertEqual((kitchen["friendlyname"], kitchen["producttype"], kitchen["modelname"]),
                         ("Kitchen", "SPEAKER", "Sonarix One"))
        self.assertEqual(kitchen["multiroom"]["Audio_Payload_Version"], {"major_version": 2, "minor_version": 1})
        self.assertEqual(kitchen["ipaddress"], "10.77.0.11")

        before = self.log_size("kitchen")
        publisher.kill()
        for name in OBSERVERS:
            self.wait_for_log(name, offsets[name], "Removed() s.id: Impostor")
        self.wait_for_log("kitchen", before, "HandleAdvertisement", 15)  # the goodbye was attributed to the own record
        self.lab.wait_until(self.right_rows, 15, "all rows right after the impostor has gone")
        for name in OBSERVERS:
            self.assert_one_grave_line(self.log_since(name, offsets[name]))
        self.assertEqual(self.service_pids(), pids)
        self.assert_published("kitchen")

    def test_same_instance_name(self):
        """The mDNS daemons resolve the collision: the newcomer is renamed, the kitchen keeps its name."""
        offsets = {name: self.log_size(name) for name in OBSERVERS}
        publisher = self.publish("Kitchen", [OURS, b"GUID=squatter"])
        for name in OBSERVERS:
            self.wait_for_log(name, offsets[name], "HandleProductUpdate: guid squatter")
            rows = {row["productinfo"].get("guid"): row for row in self.lab.get(name, "/sonarix/products")["products"]}
            self.assertEqual(rows["squatter"]["state"], "OFFLINE", "no product responds with that guid")
            self.assertEqual(rows["squatter"]["productinfo"]["friendlyname"], "Kitchen #2")
        self.assertTrue(self.lab.look(self.right_rows))
        publisher.kill()
        self.assert_published("kitchen")


if __name__ == "__main__":
    unittest.main(verbosity=2)
