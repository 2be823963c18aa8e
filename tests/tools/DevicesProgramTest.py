#!/usr/bin/python3
"""upnp-devices, observed through SSDP and HTTP, in a network namespace of this test.

Usage: DevicesProgramTest.py FOLDER_OF_PROGRAMS
"""
import os
import re
import select
import socket
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../support"))

from neighbours import NeighbourCase, enter_network  # noqa: E402

BIN = ""
GROUP = ("239.255.255.250", 1900)
TYPE = "urn:schemas-upnp-org:device:MediaRenderer:1"
PORT = 49152
FAMILY = b"<kova:X_ecoSystem>ORB2</kova:X_ecoSystem>"
MISBEHAVING = ["no-location", "empty-location", "long-location", "other-scheme", "loopback", "closed-port", "silent",
               "slow", "status-404", "status-500", "status-503", "redirect", "huge-body", "endless-body", "cut-xml",
               "deep-xml", "entity-xml", "latin1-xml", "utf16-xml", "nul-byte", "empty-body", "flapping"]


def address(index):
    return f"10.77.48.{index + 1}"


def guid(index):
    return f"5d0e55d9-7a1c-4c5e-9b1d-{index:012x}"


def headers(message):
    return {name.upper(): value for name, value in re.findall(rb"^([\w-]+):[ \t]*(.*?)\r$", message, re.MULTILINE)}


class Devices(NeighbourCase):
    group = GROUP

    def start(self, *arguments):
        self.assertRegex(super().start(BIN + "/upnp-devices", *arguments), r"^ready \d+$")

    def info(self, index):
        return super().info(BIN + "/portico", address(index))

    def notified(self, seconds):
        """(index, NTS, NT) of all announcements within that time."""
        return [(int(host[9:]) - 1, head[b"NTS"].decode(), head[b"NT"].decode())
                for _, (host, _), message in self.receive(self.ear, seconds)
                if message.startswith(b"NOTIFY") and (head := headers(message))]

    def search(self, target, mx):
        """(seconds, index, headers) of each response."""
        asker = self.socket(socket.SOCK_DGRAM)
        lines = ["M-SEARCH * HTTP/1.1", "Host: 239.255.255.250:1900", "Man: \"ssdp:discover\"", f"St:{target}"]
        asker.sendto("\r\n".join(lines + ([f"Mx: {mx}"] if mx else []) + ["", ""]).encode(), GROUP)
        return [(seconds, int(host[9:]) - 1, headers(message))
                for seconds, (host, _), message in self.receive(asker, (mx or 1) + 0.3)]

    def get(self, index, seconds=1.5, most=2 << 20, path="/description.xml"):
        """(received bytes, whether the server closed the connection)."""
        client, answer, end = self.socket(socket.SOCK_STREAM), b"", time.monotonic() + seconds
        client.connect((address(index), PORT))
        client.sendall(f"GET {path} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        while len(answer) < most and (rest := end - time.monotonic()) > 0 and select.select([client], [], [], rest)[0]:
            data = client.recv(1 << 16)
            if not data:
                return answer, True
            answer += data
        client.close()
        return answer, False

    def test_good_devices_speak_answer_and_go(self):
        self.start("product:2", "renderer", "hasty", "--guid", "own-guid", "--name", "Own Name")
        guids = ["own-guid", guid(1), guid(2), guid(3)]
        said = self.notified(1.9)
        self.assertEqual(sorted(said), sorted(2 * [(index, "ssdp:alive", target) for index in range(4) for target in (
            "upnp:rootdevice", f"uuid:{guids[index]}", TYPE)]), "each announces itself twice")

        answers = self.search(TYPE, 2)
        self.assertEqual(sorted(index for _, index, _ in answers), [0, 1, 2, 3])
        for seconds, index, head in answers:
            self.assertEqual((head[b"ST"].decode(), head[b"USN"].decode(), head[b"LOCATION"].decode(), head[b"EXT"]),
                             (TYPE, f"uuid:{guids[index]}::{TYPE}", f"http://{address(index)}:{PORT}/description.xml",
                              b""))
            self.assertLess(seconds, 0.2 if index == 3 else 2.1)
        self.assertGreater(max(seconds for seconds, _, _ in answers), 0.2, "not all at once")
        self.assertEqual([index for _, index, _ in self.search(f"uuid:{guid(2)}", 1)], [2])
        self.assertEqual(self.search(TYPE, 0) + self.search("urn:schemas-upnp-org:device:MediaServer:1", 1), [])
        self.assertEqual(len(self.search("ssdp:all", 1)), 12)

        (own, _), (renderer, _) = self.get(0), self.get(2)
        self.assertTrue(FAMILY in own and b"<friendlyName>Own Name<" in own and b"<UDN>uuid:own-guid<" in own, own)
        self.assertFalse(FAMILY in renderer or self.info(2))
        self.assertEqual((self.info(0)["guid"], self.info(0)["friendlyname"], self.info(1)["guid"]),
                         ("own-guid", "Own Name", guid(1)))

        self.notified(0.1)
        self.assertEqual((self.tell("silence 0 0"), self.notified(0.3)), ("ok silence 1", []))
        self.assertEqual(self.tell("goodbye 1 2"), "ok goodbye 2")
        self.assertEqual({(index, kind) for index, kind, _ in self.notified(0.3)},
                         {(1, "ssdp:byebye"), (2, "ssdp:byebye")})
        self.assertIsNone(self.info(0))
        self.assertRaises(ConnectionRefusedError, self.get, 1)
        self.assertEqual({index for _, index, _ in self.search(TYPE, 1)}, {3})
        self.assertEqual(self.tell("return 0 3"), "ok return 4")
        self.assertEqual({index for index, kind, _ in self.notified(0.8) if kind == "ssdp:alive"}, {0, 1, 2})
        self.assertEqual(self.info(0)["guid"], "own-guid")
        for wrong in ("silence", "return 0 4", "goodbye 1 0", "dance 0 1", ""):
            self.assertTrue(self.tell(wrong).startswith("error "), wrong)
        self.assertIn("devices=4 present=4 ", self.tell("stats"))

    def test_each_misbehaves_as_it_is_called(self):
        self.start("misbehaving", "--silent", "--seed", "7")
        self.assertEqual(self.search(TYPE, 1), [])
        self.assertEqual(self.tell("return 0 20"), "ok return 21")
        locations = {MISBEHAVING[index]: head.get(b"LOCATION") for _, index, head in self.search(TYPE, 1)}
        self.assertEqual(sorted(locations), sorted(MISBEHAVING[:-1]))
        self.assertIsNone(locations.pop("no-location"))
        self.assertEqual(locations.pop("empty-location"), b"")
        self.assertGreater(len(locations.pop("long-location")), 2000)
        self.assertTrue(locations.pop("other-scheme").startswith(b"ftp://10.77.48."))
        self.assertTrue(locations.pop("loopback").startswith(b"http://127.0.0.1:"))
        for name, location in locations.items():
            self.assertEqual(location.decode(), f"http://{address(MISBEHAVING.index(name))}:{PORT}/description.xml")

        got = {name: self.get(MISBEHAVING.index(name)) for name in MISBEHAVING[6:21]}
        whole = {name for name, (_, closed) in got.items() if closed}
        self.assertEqual(set(got) - whole, {"silent", "slow", "huge-body", "endless-body"})
        self.assertEqual((got["silent"][0], got["slow"][0]), (b"", b"HT"))
        self.assertGreaterEqual(min(len(got[name][0]) for name in ("huge-body", "endless-body")), 2 << 20)
        self.assertIn(b"CONTENT-LENGTH: 104857600\r\n", got["huge-body"][0])
        moved = headers(got["redirect"][0])[b"LOCATION"].decode()
        self.assertIn(FAMILY, self.get(MISBEHAVING.index("redirect"), path=moved)[0])
        bodies = {name: got[name][0].partition(b"\r\n\r\n")[2] for name in whole}
        self.assertNotIn(b"</root>", bodies["cut-xml"])
        self.assertEqual(bodies["deep-xml"].count(b"<a>"), 100_000)
        self.assertEqual(bodies["entity-xml"].count(b"<!ENTITY"), 10)
        self.assertRaises(UnicodeDecodeError, bodies["latin1-xml"].decode)
        self.assertIn(FAMILY, bodies["utf16-xml"].decode("utf-16").encode())
        self.assertEqual((bodies["nul-byte"].count(b"\0"), bodies["empty-body"]), (1, b""))
        self.tell("return 21 21")
        self.assertEqual(self.info(21)["guid"], guid(21))


if __name__ == "__main__":
    enter_network("route add 224.0.0.0/4 dev lo", "route add local 10.77.48.0/22 dev lo")
    BIN = sys.argv.pop(1)
    unittest.main(verbosity=2)
