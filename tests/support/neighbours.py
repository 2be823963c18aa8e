"""Runs a simulator in a network namespace and receives its multicast messages."""
import json
import os
import select
import socket
import subprocess
import sys
import time
import unittest


def enter_network(*commands):
    """Restarts this script in a network namespace with loopback, and runs these commands of `ip` there."""
    if os.environ.get("SONARIX_TEST_NAMESPACE") != "yes":
        os.environ["SONARIX_TEST_NAMESPACE"] = "yes"
        root = [] if os.geteuid() == 0 else ["--map-root-user"]
        os.execvp("unshare", ["unshare", "--net", "--mount", *root, sys.executable, "-B", *sys.argv])
    for command in ("link set lo up multicast on", *commands):
        subprocess.run(["ip", *command.split()], check=True)


class NeighbourCase(unittest.TestCase):
    """Starts a program that simulates devices on loopback, and a socket in their multicast group."""

    group = ()

    def start(self, *command):
        """Starts the program and returns its first line."""
        self.ear = self.socket(socket.SOCK_DGRAM)
        self.ear.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.ear.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        self.ear.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(self.group[0]) + socket.inet_aton("127.0.0.1"))
        self.ear.bind(self.group)
        self.program = subprocess.Popen([*command, "--interface", "lo"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.addCleanup(self.program.communicate)
        return self.program.stdout.readline()

    def socket(self, kind):
        return self.enterContext(socket.socket(socket.AF_INET, kind))

    @staticmethod
    def receive(source, seconds):
        """Yields (seconds since the start, sender, message) of what arrives within `seconds`."""
        begin = time.monotonic()
        while (rest := begin + seconds - time.monotonic()) > 0 and select.select([source], [], [], rest)[0]:
            message, sender = source.recvfrom(9000)
            yield time.monotonic() - begin, sender, message

    def tell(self, line):
        self.program.stdin.write(line + "\n")
        self.program.stdin.flush()
        return self.program.stdout.readline().strip()

    @staticmethod
    def info(portico, address):
        """The product's own description from the gateway at `address`, or None if there is none."""
        answer = subprocess.run([portico, "--host", address, "--port", "8090", "get", "/sonarix/info"],
                                capture_output=True, text=True, check=False)
        return json.loads(answer.stdout) if answer.returncode == 0 else None
