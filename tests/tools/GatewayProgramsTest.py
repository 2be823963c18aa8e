#!/usr/bin/python3
"""portico, network-status and hub-service with the real gateway, in a network namespace of this test.

Usage: GatewayProgramsTest.py FOLDER_OF_PROGRAMS
"""
import json
import os
import queue
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../support"))

from neighbours import enter_network  # noqa: E402

BIN = ""
LIMIT = 20


def ip(*words):
    subprocess.run(["ip", *words], check=True, capture_output=True)


def portico(*words, **options):
    return subprocess.run([BIN + "/portico", *words], capture_output=True, text=True, timeout=LIMIT, **options)


class Program:
    """A running program with queues of its output lines."""

    def __init__(self, name, *words):
        self.process = subprocess.Popen([f"{BIN}/{name}", *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True)
        self.out = self.reader(self.process.stdout)
        self.err = self.reader(self.process.stderr)

    @staticmethod
    def reader(stream):
        lines = queue.Queue()

        def read():
            for line in stream:
                lines.put(line)
            stream.close()
        threading.Thread(target=read, daemon=True).start()
        return lines

    def take(self, matches=lambda record: True):
        """Returns the next JSON line for which `matches` is true."""
        end = time.monotonic() + LIMIT
        while True:
            record = json.loads(self.out.get(timeout=max(0.01, end - time.monotonic())))
            if matches(record):
                return record

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()


class GatewayPrograms(unittest.TestCase):
    def start(self, name, *words):
        program = Program(name, *words)
        self.addCleanup(program.kill)
        return program

    def start_gateway(self, *words):
        gateway = self.start("portico-gateway", *words)
        end = time.monotonic() + LIMIT
        while portico("get", "/unserved").returncode == 3:
            self.assertLess(time.monotonic(), end, "the gateway does not answer")
        return gateway

    def check(self, status, said, name, *words, **options):
        result = subprocess.run([f"{BIN}/{name}", *words], capture_output=True, text=True, timeout=LIMIT, **options)
        self.assertEqual(result.returncode, status, [name, *words])
        self.assertIn(said, result.stdout if status == 0 else result.stderr)

    def test_options_and_exit_status(self):
        for name in ("portico", "network-status", "hub-service", "portico-gateway"):
            for option in ("--help", "-h", "--version", "-V"):
                self.check(0, name, name, option)
            self.check(2, "", name, "--nonsense")
        for words in (["--port"], ["--port", "x"], ["--port=65536"], ["--port", ""], ["extra"], ["--", "--port"]):
            self.check(2, "", "portico-gateway", *words)
        for words, said in (
                ([], "no command"), (["fetch", "/a"], "unknown command fetch"), (["get", "a"], "needs a path"),
                (["get", "/a", "{}"], "too many words"), (["post", "/a", ""], "no JSON"),
                (["post", "/a", "@/no/such/file"], "cannot read /no/such/file"),
                (["get", "/a", "--port", "65536"], "--port"), (["get", "/a", "--port", "8084x"], "--port"),
                (["get", "/a", "--guid"], "--guid needs a value")):
            self.check(2, said, "portico", *words)
        self.check(2, "no JSON", "hub-service", "/dev/null")
        self.check(2, "", "network-status", "--wifi-bands", "5,,6")
        for words in (["get", "/x"], ["watch", "/x"], ["post", "/x", "{}"]):
            self.check(3, "portico: no gateway at localhost:8084; is it running?\n", "portico", *words)
        self.start_gateway()
        self.check(1, "404", "portico", "post", "/unserved", "-", input='{"a": 1}')
        self.check(2, "", "portico", "post", "/unserved", "-", input="{")
        self.check(1, "Address already in use", "portico-gateway", "--lan-port", "0")
        self.check(1, "Address already in use", "portico-gateway", "--port", "0")
        self.check(1, "/nowhere/ca.pem", "portico-gateway", "--port", "0", "--lan-port", "0", "--tls-dir", "/nowhere")

    def test_refused_requests_end_with_the_gateways_error(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        peers, body = folder.name + "/peers", folder.name + "/body"
        with open(peers, "w", encoding="ascii") as file:
            file.write("other localhost\n")  # the LAN port of this gateway
        with open(body, "w", encoding="ascii") as file:
            json.dump("x" * (4 << 20), file)
        self.start_gateway("--peers", peers)
        self.start("network-status")
        self.start("portico", "watch", "/network/status").take()
        self.check(1, "larger than 4 MiB", "portico", "post", "/x", "@" + body)
        for command in ("get", "watch"):
            self.check(1, "too long a name", "portico", "--guid", "g" * 300, command, "/x")
        for way in (["--port", "8090"], ["--guid", "other"]):
            self.check(1, "error 404", "portico", *way, "watch", "/network/status")
        with open("/dev/full", "w", encoding="ascii") as full:
            status = subprocess.run([BIN + "/portico", "get", "/network/status"], stdout=full, check=False).returncode
        self.assertEqual(status, 1)

    def make_link(self, *address):
        """Creates eth0 and the other end of its cable, far0."""
        ip("link", "add", "name", "eth0", "type", "veth", "peer", "name", "far0")
        self.addCleanup(ip, "link", "del", "eth0")
        for link in ("eth0", "far0"):
            ip("link", "set", link, "up")
        ip("address", "add", *address, "dev", "eth0")

    def test_network_status_follows_kernel_and_gateway_restart(self):
        gateway = self.start_gateway()
        watch = self.start("portico", "watch", "/network/status")
        self.start("network-status", "--primary", "eth0", "--wifi-bands", "2.4,5")
        self.assertFalse(watch.take()["isPrimaryUp"])
        self.make_link("10.99.0.1/24", "broadcast", "10.99.0.255")
        status = watch.take(lambda record: record["isPrimaryUp"])
        self.assertEqual((status["primary"], status["primaryIpAddress"]), ("WIRED_ETH", "10.99.0.1"))
        self.assertEqual(status["interfaces"][0]["ipInfo"], {"ipAddress": "10.99.0.1", "subnetMask": "255.255.255.0",
                                                             "broadcastAddress": "10.99.0.255"})
        self.check(0, "WIFI_RADIO_BAND_5GHZ", "portico", "get", "/network/wifi/stationUsage")

        ip("link", "set", "far0", "down")  # like a pulled cable
        down = watch.take(lambda record: not record["isPrimaryUp"])
        self.assertNotIn("primaryIpAddress", down)

        batch = "".join(f"address add 10.98.{n // 250}.{n % 250 + 1}/32 dev eth0\n" for n in range(2000))
        batch += "address flush dev eth0\naddress add 10.97.0.9/24 dev eth0\nlink set far0 up\n"
        subprocess.run(["ip", "-force", "-batch", "-"], input=batch, text=True, check=True, capture_output=True)
        watch.take(lambda record: record.get("primaryIpAddress") == "10.97.0.9")
        ip("link", "set", "far0", "down")
        watch.take(lambda record: not record["isPrimaryUp"])

        gateway.kill()
        ip("link", "set", "far0", "up")  # while there is no gateway
        self.start_gateway()
        watch.take(lambda record: record["isPrimaryUp"])
        self.assertIn("the gateway went", watch.err.get(timeout=LIMIT))

    def test_hub_service_logs_failures_and_retries(self):
        gateway = self.start_gateway()
        self.make_link("10.99.0.1/24")
        self.start("network-status", "--primary", "eth0")
        hub = self.start("hub-service", "--name", "Kitchen")
        while "/startDiscoveryAdvertisement: error 404" not in hub.err.get(timeout=LIMIT):
            pass
        gateway.kill()
        while hub.err.get(timeout=LIMIT) != "hub-service: no gateway at localhost:8084; is it running?\n":
            pass


if __name__ == "__main__":
    enter_network()
    BIN = os.path.abspath(sys.argv.pop(1))
    subprocess.run(["mount", "-t", "sysfs", "sysfs", "/sys"], check=False, capture_output=True)
    unittest.main(verbosity=2)
