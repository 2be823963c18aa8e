#!/usr/bin/python3
"""Every debug command, typed at a product's terminal, and its effects on gateway and local sockets."""
import json
import os
import queue
import sys
import threading
import time
import unittest

from labcase import LabCase, RENDERER_TYPE

HERE = os.path.dirname(os.path.realpath(__file__))
EXAMPLES = os.path.join(HERE, "../../examples")
sys.path.insert(0, os.path.join(HERE, "../support"))

from terminal import Terminal  # noqa: E402

SECONDS = 15
TESTING_TYPE = "_kova_testing._tcp"
NOTHING = "( 0 products )"
SSDP_HEAD = "---  Remote SSDP Product list -----"
MDNS_HEAD = " ---  Testing devices list -----"
ADD = "adddevice guid=1111 friendlyname=\"Living Room\" ipaddress=192.0.2.7 ecosystem=ORB2"
ROW = "FRIENDLYNAME: Living Room IP: 192.0.2.7 GUID: 1111 ECOSYSTEM: ORB2"
CLEARED = ["Offline device list cleared"]
LISTENER = f"""
import sys
sys.path.insert(0, {EXAMPLES!r})
from ipc_client import converse, frame, parse, record
for kind, name, payload in converse(sys.argv[1], frame(sys.argv[2], 2, record((4, {RENDERER_TYPE!r})))):
    device = parse(payload[2][0]) if kind == 2 else {{3: [b"answered"]}}
    print({{2: "ONLINE", 1: "OFFLINE"}}[payload[1][0]] if kind == 2 else "", device[3][0].decode(), flush=True)
"""


class Console(LabCase):
    shape = {"products": 2}

    def listener(self, *command):
        """A queue of the output lines of a program that runs in the product."""
        process = self.staying("kitchen", *command, text=True)
        lines = queue.Queue()
        reader = threading.Thread(target=lambda: [lines.put(line.rstrip("\n")) for line in process.stdout])
        reader.start()
        self.addCleanup(reader.join)
        self.addCleanup(process.kill)  # also ends the reader
        return lines

    def setUp(self):
        super().setUp()
        self.gateway = self.listener("portico", "watch", "/sonarix/products")
        self.sockets = [self.listener(sys.executable, "-B", "-c", LISTENER, *words) for words in (
            ("SonarixMdnsService", "ServiceId"), ("SonarixSsdpService", "DiscoveredDeviceList"))]
        for lines in self.sockets:
            self.heard(lines, lambda line: line == " answered")
        self.terminal = Terminal(["sonarix-console"], {"HOME": self.folder}, columns=400,
                                 start=self.lab.product("kitchen").popen)
        self.addCleanup(self.terminal.close)
        self.terminal.wait_for(">")

    def type(self, command):
        """Types a command. Returns the lines of its output."""
        before = len(self.terminal.lines())
        self.terminal.type(command)
        self.terminal.wait(lambda lines: len(lines) > before and lines[-1] == ">")
        self.assertEqual(self.terminal.lines()[before - 1], "> " + command)
        return self.terminal.lines()[before:-1]

    def heard(self, lines, accept):
        deadline, seen = time.monotonic() + SECONDS, []
        while not seen or not accept(seen[-1]):
            try:
                seen.append(lines.get(timeout=max(0, deadline - time.monotonic())))
            except queue.Empty:
                self.fail(f"not heard within {SECONDS} s: {seen}")

    def announced(self, state, guid):
        """Waits until every subscriber of the list and every client of the sockets is notified."""
        def is_alone(line):
            rows = json.loads(line).get("products", [])
            return [(row["state"], row["productinfo"]["guid"]) for row in rows] == [(state, guid)]

        self.heard(self.gateway, is_alone)
        for lines in self.sockets:
            self.heard(lines, lambda line: line == f"{state} {guid}")

    def test_mdns_commands(self):
        bedroom = self.lab.product("bedroom")
        listed = self.type("sonarix mdns list")
        self.assertIn(bedroom.guid, "".join(listed))
        self.assertEqual(listed[0], f"---  Remote devices list  for service name :{RENDERER_TYPE}-----")
        self.assertEqual(listed[-5:], ["---  Remote devices list  for service name :_kova-clock._tcp-----", NOTHING, "",
                                       MDNS_HEAD, NOTHING])
        self.assertEqual(self.type("sonarix mdns list _foo._tcp"),
                         ["---  Remote devices list  for service name :_foo._tcp-----", NOTHING, "", MDNS_HEAD, NOTHING])
        self.assertEqual(self.type("sonarix mdns start"), ["MDNS discovery is already running"])
        self.assertEqual(self.type("sonarix mdns " + ADD), [ROW, "( 1 products )"])
        self.announced("ONLINE", "1111")
        self.assertEqual(self.type("sonarix mdns removedevice 192.0.2.7"), [NOTHING])
        self.announced("OFFLINE", "1111")
        self.assertEqual(self.type(f"sonarix mdns addservice type={TESTING_TYPE} name=testing1 domain=local guid=3"), [])
        self.assertEqual(self.published("bedroom", "testing1", TESTING_TYPE, SECONDS)[1][b"guid"], b"3")
        self.assertEqual(self.type(f"sonarix mdns removeservice type={TESTING_TYPE} name=testing1 domain=local"), [])
        self.withdrawn("bedroom", "testing1", TESTING_TYPE)

        self.type("sonarix mdns adddevice guid=4444")
        self.announced("ONLINE", "4444")
        self.assertEqual(self.type("sonarix mdns clearall"), CLEARED)
        self.announced("OFFLINE", "4444")
        self.announced("OFFLINE", bedroom.guid)
        rows = self.lab.get("kitchen", "/sonarix/products")["products"]  # unchanged by the command
        self.assertEqual({row["productinfo"]["guid"]: row["state"] for row in rows}[bedroom.guid], "ONLINE")

        self.assertEqual(self.type("sonarix mdns stop"), [])
        self.assertEqual(self.type("sonarix mdns list"), ["( MDNS not running! )", "", MDNS_HEAD, NOTHING])
        self.assertEqual(self.type("sonarix mdns stop"),
                         ["MDNS discovery is already stopped", "( Here is the Testing device list )", NOTHING])
        self.assertEqual(self.type("sonarix mdns start"), [])
        deadline = time.monotonic() + SECONDS
        while bedroom.guid not in "".join(self.type("sonarix mdns list")):
            self.assertLess(time.monotonic(), deadline, "mDNS does not find the bedroom again")

    def test_ssdp_commands(self):
        self.assertEqual(self.type("sonarix ssdp list"), [SSDP_HEAD, NOTHING, "", " ---  Testing device list -----", NOTHING])
        self.assertEqual(self.type("SONARIX ssdp  Start"), ["SSDP discovery is already running"])
        self.assertEqual(self.type("sonarix ssdp " + ADD), [ROW, "( 1 products )"])
        self.announced("ONLINE", "1111")
        self.assertEqual(self.type("sonarix ssdp removedevice 192.0.2.8"), [ROW, "( 1 products )"])
        self.assertEqual(self.type("sonarix ssdp removedevice 192.0.2.7"), [NOTHING])
        self.announced("OFFLINE", "1111")
        self.type("sonarix ssdp adddevice guid=2222")
        self.announced("ONLINE", "2222")
        self.assertEqual(self.type("sonarix ssdp clearall"), CLEARED)
        self.announced("OFFLINE", "2222")
        self.assertEqual(self.type("sonarix ssdp stop"), [])
        self.assertEqual(self.type("sonarix ssdp list"), ["( SSDP not running - here is the Testing device list )", NOTHING])
        self.assertEqual(self.type("sonarix ssdp stop"),
                         ["SSDP discovery is already stopped", "( Here is the Testng device list )", NOTHING])
        self.assertEqual(self.type("sonarix ssdp start"), [])
        self.assertEqual(self.type("sonarix ssdp list")[0], SSDP_HEAD)

    def test_unknown_command_and_killed_service(self):
        self.assertEqual(len(self.type("help")), 14)
        self.assertEqual(self.type("sonarix tea"), ["unknown command: sonarix tea"])
        self.terminal.type("", "ctrl-d")
        self.assertEqual(self.terminal.end(), 0)
        self.lab.kill("kitchen", "service")
        self.assertEqual(self.lab.run("kitchen", ["sonarix-console", "sonarix ssdp list"]).returncode, 3)
        self.lab.start("kitchen", "service")  # the killed service left its socket file
        self.all_online(self.convergence_seconds, "after the service's return")
        self.assertEqual(self.lab.run("kitchen", ["sonarix-console", "sonarix", "ssdp", "stop"]).returncode, 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
