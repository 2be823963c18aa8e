#!/usr/bin/python3
"""product-crowd, observed through mDNS and its gateway ports, in a network namespace of this test.

Usage: CrowdProgramTest.py FOLDER_OF_PROGRAMS
"""
import os
import socket
import struct
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../support"))

from neighbours import NeighbourCase, enter_network  # noqa: E402

BIN = ""
GROUP = ("224.0.0.251", 5353)
TYPE = b"\x0d_kova-lanyard\x04_tcp\x05local\x00"
PTR, SRV, TXT, A = 12, 33, 16, 1
QUIET = 0.4  # twenty times the longest response delay in this test
COUNT = 5


def query(questions, known=(), truncated=False):
    """A query. Questions are (name, type); `known` are indices of products whose PTR record is a known answer."""
    message = struct.pack("!6H", 0, 0x0200 if truncated else 0, len(questions), len(known), 0, 0)
    for name, kind in questions:
        message += name + struct.pack("!2H", kind, 1)
    for index in known:
        target = label(f"Crowd {index}") + TYPE
        message += TYPE + struct.pack("!2HIH", PTR, 1, 4500, len(target)) + target
    return message


def label(text):
    return bytes([len(text)]) + text.encode()


def skip_name(message, at):
    while message[at] not in (0,) and message[at] < 0xC0:
        at += 1 + message[at]
    return at + (2 if message[at] >= 0xC0 else 1)


def records(message):
    """(type, TTL) of all records of a response."""
    answers, _, more = struct.unpack("!3H", message[6:12])
    at, found = 12, []
    for _ in range(answers + more):
        at = skip_name(message, at)
        kind, _, ttl, length = struct.unpack("!2HIH", message[at:at + 10])
        found.append((kind, ttl))
        at += 10 + length
    assert at == len(message)
    return found


class Crowd(NeighbourCase):
    group = GROUP

    def setUp(self):
        said = self.start(BIN + "/product-crowd", "--count", str(COUNT), "--delay", "1:20")
        self.assertEqual(said, f"ready {COUNT}\n")
        self.assertEqual(self.hear(2.5), sorted(2 * list(range(COUNT))), "each announces itself twice")

    def ask(self, *messages):
        """Returns the products that respond; their last packets are in `heard`."""
        time.sleep(1)  # records of the last second are not repeated
        for message in messages:
            self.ear.sendto(message, GROUP)
        return self.hear(QUIET)

    def hear(self, seconds):
        """Indices of the products that sent packets within that time, from the source addresses."""
        self.heard, indices = {}, []
        for _, (address, port), message in self.receive(self.ear, seconds):
            if message[2] & 0x80:
                self.assertEqual((address[:9], port), ("10.77.32.", GROUP[1]))
                indices.append(int(address[9:]) - 1)
                self.heard[indices[-1]] = message
        return sorted(indices)

    def reach(self, index):
        return self.info(BIN + "/portico", f"10.77.32.{index + 1}")

    def test_each_product_sends_its_own_response(self):
        browse = [(TYPE, PTR)]
        self.assertEqual(self.ask(query(browse)), [0, 1, 2, 3, 4])
        for message in self.heard.values():
            self.assertEqual(records(message), [(PTR, 4500), (SRV, 120), (TXT, 4500), (A, 120)])
        self.assertEqual(self.ask(query(browse, known=[0, 2, 4])), [1, 3])
        self.assertEqual(self.ask(query(browse, [0, 1], truncated=True), query([], [2], truncated=True),
                                  query([], [3])), [4], "what is known may come in several messages")
        self.assertEqual(self.ask(query(browse, [0, 1, 2, 3], truncated=True))
                         or self.hear(QUIET), [4], "or not come at all")
        instance, host = label("Crowd 2") + TYPE, b"\x0bcrowd-00002\x05local\x00"
        self.assertEqual(self.ask(query([(instance, SRV), (host, A)])), [2])
        self.assertEqual(records(self.heard[2]), [(SRV, 120), (A, 120)])
        self.assertEqual(self.ask(query([(label("Crowd 9") + TYPE, SRV)])), [])
        self.assertEqual(self.reach(2)["guid"], "crowd-00002")

    def test_commands(self):
        self.assertEqual(self.tell("silence 0 1"), "ok silence 2")
        self.assertEqual(self.tell("goodbye 1 2"), "ok goodbye 2")
        self.assertEqual(self.hear(QUIET), [2])
        self.assertEqual({ttl for _, ttl in records(self.heard[2])}, {0})
        self.assertIsNone(self.reach(2))
        self.assertEqual(self.tell("return 0 2"), "ok return 3")
        self.assertEqual(self.hear(2.5), [0, 0, 1, 1, 2, 2])
        for wrong in ("silence", "silence 3 2", "silence 0 5", "silence 0 1 2", "return -1 0", "dance 0 1", ""):
            self.assertTrue(self.tell(wrong).startswith("error "), wrong)
        self.assertIn("products=5 online=5 ", self.tell("stats"))


if __name__ == "__main__":
    enter_network("route add 224.0.0.0/4 dev lo", "route add local 10.77.32.0/20 dev lo")
    BIN = sys.argv.pop(1)
    unittest.main(verbosity=2)
