#!/usr/bin/python3
"""The clients of the local sockets with a scripted service. The bytes in docs/ipc-protocol.md are compared with those
that the example client sends and parses. Usage: IpcProgramTest.py BIN_DIR
"""
import json
import os
import re
import signal
import struct
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../..")
sys.path[:0] = [os.path.join(ROOT, "examples"), os.path.join(ROOT, "tests/support")]

import ipc_client  # noqa: E402
from ipc_client import parse, record  # noqa: E402
from localservice import LocalService  # noqa: E402

BIN_DIR = sys.argv.pop(1) if len(sys.argv) > 1 else os.path.join(ROOT, "build/release/bin")
SECONDS = 20
CLOCK = "_kova-clock._tcp"
RESPONSE, NOTIFICATION, REJECT = 1, 2, 3
VOID = ("DiscoveryServiceVoid", b"")


def device(name, guid="g", version="1"):
    return record((3, guid), (7, name), (20, version))


def devices(*each):
    return ("DiscoveredDeviceList", record(*((1, one) for one in each)))


def error(text):
    return ("DeviceDiscoveryError", record((3, text)))


class Service(LocalService):
    """`answers` has the response for each identifier: a payload, "reject", or none. `asked` has the received
    identifiers."""

    def __init__(self, folder, name, answers):
        self.answers = answers
        self.kinds_asked = set()
        super().__init__(folder, name)

    def tell(self, state, one):
        self._say(NOTIFICATION, 1, 0, "DeviceDiscovery", record((1, state), (2, one)))

    def serve(self, stream):
        while head := stream.read(4):
            envelope = parse(stream.read(*struct.unpack(">I", head)))
            identifier, tid = envelope[3][0], envelope[4][0]
            answer = self.answers.get(identifier)
            if answer == "reject":
                self._say(REJECT, identifier, tid, "", b"")
            elif answer:
                self._say(RESPONSE, identifier, tid, *answer)
            self.kinds_asked.add(identifier)
            self.asked.put(identifier)

    def _say(self, kind, identifier, tid, name, payload):
        envelope = record((2, name), (3, identifier), (4, tid), (5, kind), (6, payload))
        self.send(struct.pack(">I", len(envelope)) + envelope)


class Case(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory(prefix="sonarix-ipc-"))
        self.environment = {**os.environ, "SONARIX_RUN_DIR": self.folder}

    def serve(self, name="SonarixMdnsService", **answers):
        service = Service(self.folder, name, {int(key[1:]): answer for key, answer in answers.items()})
        self.addCleanup(service.close)
        return service

    def run_client(self, *words, program=(os.path.join(BIN_DIR, "sonarix-ipc"),)):
        return subprocess.run([*program, *words], env=self.environment, capture_output=True, text=True,
                              timeout=SECONDS, check=False)

    def start_client(self, *words):
        client = self.enterContext(subprocess.Popen(
            [os.path.join(BIN_DIR, "sonarix-ipc"), *words], env=self.environment, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True))
        self.addCleanup(client.kill)
        return client


class Commands(Case):
    def test_exit_status_of_each_response(self):
        failed = "Request Failed!"
        for words, answers, status in (
                (("list", "mdns", CLOCK), {"_2": error(failed)}, 1),
                (("list", "mdns", CLOCK), {"_2": "reject"}, 1),
                (("list", "mdns", CLOCK), {"_2": ("DiscoveredDeviceList", b"\x0a\x7f")}, 1),
                (("add", "--keep", CLOCK, "Hall", "80"), {"_3": error(failed)}, 4),
                (("add", "--keep", CLOCK, "Hall", "80"), {"_3": "reject"}, 1),
                (("update", CLOCK, "Hall", "80"), {"_6": error(failed), "_2": devices()}, 4),
                (("update", CLOCK, "Hall", "80"), {"_6": "reject", "_2": devices()}, 1),
                (("remove", CLOCK, "Hall"), {"_2": error(failed)}, 1)):
            with self.subTest(words=words, answers=answers):
                service = self.serve(**answers)
                result = self.run_client(*words)
                said = result.stdout + result.stderr
                self.assertEqual((result.returncode, said.count("\n")), (status, 1), said)
                self.assertTrue(failed in said or "reject" in said or "unexpected" in said, said)
                service.close()
        self.assertEqual(self.run_client("remove", CLOCK, "Hall").returncode, 3)
        self.assertEqual(self.run_client("remove", CLOCK).returncode, 2)
        self.assertEqual(self.run_client("--version").returncode, 0)


class ContinuousCommands(Case):
    def test_watch_mdns_polls_and_survives_a_restart(self):
        mdns = self.serve(_2=devices(device("Bath"), device("Hall")))
        watch = self.start_client("watch", "mdns", CLOCK, "--every", "0.1")
        change = lambda: watch.stdout.readline().split()[1:]  # noqa: E731
        self.assertEqual([change()[:2], change()[:2]], [["+", "Bath"], ["+", "Hall"]])
        mdns.answers[2] = devices(device("Bath", version="2"), device("Hall"))
        self.assertEqual(change(), ["~", "Bath", "softwareversion", "1", "->", "2"])
        mdns.close()
        self.assertIn("the service went", watch.stderr.readline())
        mdns.asked.queue.clear()
        mdns.answers[2] = devices()  # a restarted service has not found any device yet
        mdns.open()
        self.assertIn("is back", watch.stderr.readline())
        for _ in range(3):
            mdns.expect(2)
        mdns.answers[2] = devices(device("Bath", version="3"), device("Hall"))
        self.assertEqual(change(), ["~", "Bath", "softwareversion", "2", "->", "3"])
        self.assertEqual(mdns.kinds_asked, {2})

    def test_watch_ssdp_skips_repeated_reports(self):
        ssdp = self.serve("SonarixSsdpService", _2=devices(device("Bath", "g-1")))
        watch = self.start_client("watch", "ssdp", "--json")
        self.assertEqual(json.loads(watch.stdout.readline())["change"], "appeared")
        for state, one in ((2, device("Bath", "g-1")), (2, device("Hall", "g-2")), (2, device("Hall", "g-2")),
                           (1, device("Bath", "g-1")), (2, device("Bath", "g-1")), (2, device("Flur", "g-2"))):
            ssdp.tell(state, one)
        changes = [json.loads(watch.stdout.readline()) for _ in range(4)]
        self.assertEqual([(each["change"], each["device"]["friendlyname"]) for each in changes],
                         [("appeared", "Hall"), ("gone", "Bath"), ("appeared", "Bath"), ("changed", "Flur")])
        self.assertEqual(changes[3]["before"]["friendlyname"], "Hall")
        watch.stdout.close()
        ssdp.tell(1, device("Flur", "g-2"))
        self.assertEqual(watch.wait(SECONDS), 0)

    def test_second_signal_ends_at_once(self):
        mdns = self.serve(_3=VOID)
        held = self.start_client("add", CLOCK, "Hall", "9000")
        held.stdout.readline()
        held.send_signal(signal.SIGINT)
        mdns.expect(4)
        held.send_signal(signal.SIGINT)
        self.assertEqual(held.wait(SECONDS), -signal.SIGINT)


class Example(Case):
    def test_the_document(self):
        """The example client sends and parses the bytes of the document."""
        with open(os.path.join(ROOT, "docs/ipc-protocol.md"), encoding="utf-8") as file:
            example = file.read().split("\n## An example\n")[1]
        blocks = [bytes.fromhex("".join(re.findall(r"^ {4,}((?:[0-9a-f]{2} )*[0-9a-f]{2})(?:  |$)", block, re.M)))
                  for block in re.findall(r"(?:^    .*\n)+", example, re.M)]
        self.assertEqual(blocks[0], ipc_client.frame("ServiceId", 2, record((4, CLOCK)), 7))
        self.assertEqual(blocks[2], ipc_client.frame(
            "Service", 3, ipc_client.service(CLOCK, "Kitchen", 9000, "CLOCKDOMAIN=4"), 8))
        answers = [parse(block[4:]) for block in (blocks[1], blocks[3])]
        self.assertEqual([len(block) - 4 for block in blocks], [struct.unpack(">I", block[:4])[0] for block in blocks])
        self.assertEqual([(answer[2], answer[4], answer[5]) for answer in answers],
                         [([b"DiscoveredDeviceList"], [7], [RESPONSE]), ([b"DiscoveryServiceVoid"], [8], [RESPONSE])])
        listed = parse(parse(answers[0][6][0])[1][0])
        self.assertEqual(listed, {2: [b"10.0.0.7"], 3: [b"g-1"], 7: [b"Bath"], 24: [record((2, "4"))]})

    def test_the_program(self):
        client = [sys.executable, "-B", os.path.join(ROOT, "examples/ipc_client.py")]
        mdns = self.serve(_2=devices(device("Bath", "g-1")), _3=VOID)
        result = self.run_client("list", CLOCK, program=client)
        self.assertEqual((result.returncode, result.stdout), (0, "ONLINE\tBath\t-\tg-1\n"), result.stderr)
        self.assertEqual(self.run_client("add", CLOCK, "Hall", "9000", program=client).returncode, 0)
        mdns.answers[3] = error("AddService request Failed!")
        result = self.run_client("add", CLOCK, "Hall", "9000", program=client)
        self.assertEqual((result.returncode, result.stderr), (1, "AddService request Failed!\n"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
