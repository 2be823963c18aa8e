#!/usr/bin/python3
"""Products that find each other, observed through their gateways and on the network."""
import json
import time
import unittest

from labcase import LabCase, lines_until

CHILDREN = "/sonarix/private/products"


class Discovery(LabCase):
    shape = {"products": 3, "strangers": 1}

    def test_rows_equal_own_information_of_the_products(self):
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
        watch = self.staying("office", "portico", "watch", "/sonarix/info")
        description = {"deviceName": "Office", "guid": product.guid, "ecosys": "ORB2", "productType": "SPEAKER",
                       "productName": "Sonarix One", "productColor": "RED", "softwareVersion": "1.0.1",
                       "serialNumber": "1", "country": "CH"}
        post = self.lab.portico("office", "post", "/startDiscoveryAdvertisement", json.dumps(description))
        self.assertEqual(json.loads(post.stdout), description)
        heard = (json.loads(line) for line in lines_until(watch.stdout, time.monotonic() + 10))
        self.assertTrue(any(info.get("productcolor") == "RED" for info in heard), "the watcher heard nothing of it")
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
            seconds = self.lab.wait_until(renamed, 15, f"all products list the kitchen as {new}")
            print(f"new name listed by all after {seconds:.1f} s")
            # The old record disappears shortly after the new one appears. The tables must not keep it.
            time.sleep(3)
            self.lab.wait_until(renamed, 10, f"all products still list the kitchen as {new}")
            self.stays(renamed, 3, "the new name")
            self.assert_published("kitchen")

    def test_children_come_and_go_with_their_parent(self):
        def is_child_of_kitchen(tables, expected):
            records = [tables.own("kitchen").record, *(tables.row(observer, "kitchen").record["productinfo"]
                                                       for observer in ("kitchen", "bedroom", "office"))]
            return all(record.get("children", []) == expected for record in records)

        def change(verb, child, expected):
            answer = self.lab.portico("kitchen", verb, CHILDREN, json.dumps(child))
            self.assertEqual((answer.returncode, json.loads(answer.stdout)), (0, {}), answer.stderr)
            self.lab.wait_until(lambda tables: is_child_of_kitchen(tables, [each["productinfo"] for each in expected]),
                                10, f"{verb} of {child['productinfo']['guid']} has reached all records of its parent")
            # At the end of the list, although their guids sort before all others.
            products = self.lab.get("kitchen", "/sonarix/products")["products"]
            self.assertEqual(products[3:], expected)
            self.assertEqual(len(self.lab.get("bedroom", "/sonarix/products")["products"]), 3, "no rows of their own")

        bass = {"state": "ONLINE", "productinfo": {"guid": "!bass", "friendlyname": "Bass", "ecosystem": "ORB2"}}
        rear = {"state": "OFFLINE", "productinfo": {"guid": "!rear", "friendlyname": "Rear", "ecosystem": "ORB2",
                                                    "configurations": {"currentProductMode": "ACCESSORY"}}}
        bare = {"productinfo": {"guid": "!rear", "ecosystem": "ORB2"}}
        change("put", rear, [rear])
        change("post", bass, [bass, rear])
        change("post", bare, [bass, bare])
        change("delete", rear, [bass])
        change("delete", bass, [])

    def test_invalid_child_gets_an_error_message(self):
        before = self.lab.get("kitchen", "/sonarix/info")
        for verb in ("post", "put", "delete"):
            for body, words in (('{"state":', "the body is no JSON"), ("[1]", "the JSON is no object"),
                                ('{"productinfo":"x"}', 'invalid value "x"'), ('{"protocols":"MDNS"}', "is no list"),
                                ('{"state":["ONLINE"]}', "Product.state has a value of another kind"),
                                ('{"productinfo":{"guid":7,"ecosystem":"ORB2"}}', "invalid value 7")):
                answer = self.lab.portico("kitchen", verb, CHILDREN, body)
                self.assertNotEqual(answer.returncode, 0, body)
                self.assertEqual((answer.stdout, len(answer.stderr.splitlines())), ("", 1), body)
                self.assertIn(words, answer.stderr)
        kitchen = self.lab.product("kitchen").guid
        stranger = {"productinfo": {"guid": "x", "ecosystem": "ORB2"}}
        elsewhere = self.lab.portico("bedroom", "--guid", kitchen, "post", CHILDREN, json.dumps(stranger))
        self.assertEqual((elsewhere.returncode, elsewhere.stdout), (1, ""))
        self.assertIn("nobody serves " + CHILDREN, elsewhere.stderr)
        self.assertEqual(self.lab.get("kitchen", "/sonarix/info"), before)

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
