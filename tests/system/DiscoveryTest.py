#!/usr/bin/python3
"""Products that find one another, seen through their gateways and on the wire."""
import json
import subprocess
import time
import unittest

from labcase import LabCase, lines_until


class Discovery(LabCase):
    shape = {"products": 3, "strangers": 1}

    def test_each_product_lists_what_the_others_say_of_themselves(self):
        for observer in ("kitchen", "bedroom", "office"):
            rows = self.lab.table(observer)
            self.assertEqual(set(rows), {"kitchen", "bedroom", "office"})
            for target, row in rows.items():
                product = self.lab.product(target)
                own = self.lab.get(target, "/sonarix/info")
                listed = row.record["productinfo"]
                self.assertEqual((row.state, row.name, row.address), ("ONLINE", product.spoken_name, own["ipaddress"]))
                self.assertIn("MDNS", row.protocols)
                self.assertEqual(row.record["serviceid"]["type"], "_kova-lanyard._tcp")
                for field in ("guid", "ecosystem", "manufacturer", "producttype", "modelname", "productcolor",
                              "softwareversion", "multiroom", "capabilities", "configurations"):
                    self.assertEqual(listed[field], own[field], f"{observer} of {target}: {field}")
            for key, value in self.assert_published(observer).items():
                if key.endswith(b"Version"):
                    self.assertIsInstance(json.loads(value), dict, key)

    def test_own_record_holds_files_network_and_description(self):
        info = self.lab.get("kitchen", "/sonarix/info")
        self.assertEqual(info["guid"], self.lab.product("kitchen").guid)
        self.assertEqual(info["configurations"]["currentProductMode"], "HOST")
        self.assertEqual(info["multiroom"]["Audio_Payload_Version"], {"major_version": 2, "minor_version": 1})
        self.assertEqual(info["multiroom"]["PlaybackRequest_Version"], {"major_version": 2, "minor_version": 2})
        self.assertEqual((info["friendlyname"], info["devicetype"], info["country"]), ("Kitchen", "RENDERER", "CH"))
        link = json.loads(self.lab.run("kitchen", ["ip", "-json", "link", "show", "eth0"]).stdout)[0]
        self.assertEqual(info["macaddress"].replace(":", "").lower(), link["address"].replace(":", ""))

    def test_portico_asks_another_product(self):
        bedroom = self.lab.product("bedroom").guid
        other = self.lab.portico("kitchen", "--guid", bedroom, "get", "/sonarix/info")
        self.assertEqual(json.loads(other.stdout)["guid"], bedroom)
        hidden = self.lab.portico("kitchen", "--guid", bedroom, "get", "/sonarix/products")
        self.assertEqual((hidden.returncode, hidden.stdout), (1, ""), "scope 1 is not for other products")

    def test_posted_description_reaches_watchers_rows_and_record(self):
        product = self.lab.product("office")
        watch = product.popen(["portico", "watch", "/sonarix/info"], stdout=subprocess.PIPE)
        description = {"deviceName": "Office", "guid": product.guid, "ecosys": "ORB2", "productType": "SPEAKER",
                       "productName": "Sonarix One", "productColor": "RED", "softwareVersion": "1.0.1",
                       "serialNumber": "1", "country": "CH"}
        try:
            post = self.lab.portico("office", "post", "/startDiscoveryAdvertisement", json.dumps(description))
            self.assertEqual(json.loads(post.stdout), description)
            heard = (json.loads(line) for line in lines_until(watch.stdout, time.monotonic() + 10))
            self.assertTrue(any(info.get("productcolor") == "RED" for info in heard), "the watcher heard nothing of it")
        finally:
            watch.kill()
            watch.wait()
            watch.stdout.close()
        self.lab.wait_until(lambda tables: all(
            tables.row(observer, "office").record["productinfo"]["productcolor"] == "RED"
            for observer in ("kitchen", "bedroom")), 15, "the others list the new colour")
        self.assert_published("office", accept=lambda _, txt: txt[b"PCOLOR"] == b"RED")

    def test_changed_name_reaches_the_others_and_stays(self):
        for new in ("Küche \"Süd\"; 2", "Kitchen"):
            def renamed(tables, new=new):
                return tables.own("kitchen").name == new and all(
                    row is not None and (row.name, row.state) == (new, "ONLINE") for row in
                    (tables.row(observer, "kitchen") for observer in ("kitchen", "bedroom", "office")))

            self.lab.rename("kitchen", new)
            seconds = self.lab.wait_until(renamed, 15, f"everybody lists the kitchen as {new}")
            print(f"new name listed by all after {seconds:.1f} s")
            # The old name goes from the network a little after the new one has come; it must not stay in the tables.
            time.sleep(3)
            self.lab.wait_until(renamed, 10, f"everybody still lists the kitchen as {new}")
            self.stays(renamed, 3, "the new name")
            self.assert_published("kitchen")

    def test_changed_address(self):
        new = self.lab.change_address("bedroom")
        seconds = self.lab.wait_until(
            lambda tables: not tables.missing() and all(tables.row(observer, "bedroom").address == new
                                                        for observer in ("kitchen", "bedroom", "office")),
            60, f"the bedroom ONLINE at {new}")
        print(f"ONLINE at the new address after {seconds:.1f} s")
        self.assert_published("bedroom", accept=lambda address, _: address == new)


if __name__ == "__main__":
    unittest.main(verbosity=2)
