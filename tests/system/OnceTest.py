#!/usr/bin/python3
"""The laboratory's command line: --once repeatedly, and commands from another terminal."""
import contextlib
import os
import signal
import subprocess
import tempfile
import time
import unittest

from labcase import BIN_DIR, CONVERGENCE_SECONDS, LOGS, LabCase, TOOLS, lines_until

@contextlib.contextmanager
def until_ctrl_c(case, lab):
    """A laboratory that is ended with Ctrl-C."""
    try:
        yield
    finally:
        lab.send_signal(signal.SIGINT)
        lab.stdout.read()
        case.assertEqual(lab.wait(10), 0)


class Once(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory(prefix="sonarix-lab-state-"))
        self.command = [os.path.join(TOOLS, "sonarix-lab"), "--bin-dir", BIN_DIR, "--state-dir", self.folder]

    def run_lab(self, *arguments, seconds=120):
        return subprocess.run([*self.command, *arguments], capture_output=True, text=True, timeout=seconds, check=False)

    def test_again_and_again(self):
        times = []
        for number, products in enumerate(("3", "3", "3", "3", "3", "8")):
            begin = time.monotonic()
            result = self.run_lab("--products", products, "--once", "--logs", os.path.join(LOGS, f"Once-{number + 1}"))
            times.append(time.monotonic() - begin)
            self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
            self.assertLess(times[-1], CONVERGENCE_SECONDS)
        print("converged and gone after " + " ".join(f"{seconds:.1f}" for seconds in times) + " s")

    def test_simulated_products_are_waited_for(self):
        result = self.run_lab("--products", "2", "--crowd", "30", "--ssdp", "2", "--once")
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        for name in ("kitchen", "bedroom"):
            self.assertIn(f"{name} lists 30/30 of the crowd as ONLINE", result.stdout)
            for number in (1, 2):
                self.assertRegex(result.stdout, rf"{name} lists ssdp-{number} as ONLINE  10\.77\.\S+  SSDP ")

    def test_kill_waits_for_its_effect(self):
        result = self.run_lab("--once", "--kill", "kitchen")
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        self.assertIn("every other product lists kitchen as OFFLINE", result.stdout.splitlines()[-1])

    def test_time_limit_names_missing_products(self):
        result = self.run_lab("--products", "2", "--once", "--time-limit", "0.01")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(len(result.stderr.splitlines()), 1)
        self.assertIn("kitchen lacks bedroom", result.stderr)

    def test_another_terminal(self):
        """--kill, --start, --link-down and --exec control the running laboratory; Ctrl-C ends it."""
        with subprocess.Popen([*self.command, "--products", "2"], stdout=subprocess.PIPE, text=False,
                              start_new_session=True) as lab:
            lines = lines_until(lab.stdout, time.monotonic() + 100)

            def wait_for(text):
                for line in lines:
                    if text in line:
                        return
                self.fail(f"no line \"{text}\"")

            with until_ctrl_c(self, lab):
                wait_for("every product lists every other as ONLINE")
                inside = self.run_lab("--exec", "bedroom", "portico", "get", "/sonarix/products")
                self.assertIn('"friendlyname": "Kitchen"', inside.stdout)
                self.assertEqual(self.run_lab("--kill", "kitchen").returncode, 0)
                wait_for("bedroom lists kitchen as OFFLINE")
                self.assertEqual(self.run_lab("--start", "kitchen").returncode, 0)
                wait_for("bedroom lists kitchen as ONLINE")
                self.assertEqual(self.run_lab("--link-down", "kitchen", "0.1").returncode, 0)
                wait_for("kitchen: link up")
                unknown = self.run_lab("--kill", "cupboard")
                self.assertEqual(unknown.returncode, 1)
                self.assertIn("there are kitchen, bedroom", unknown.stderr)
        self.assertEqual(os.listdir(self.folder), ["lock"])


class Lan(LabCase):
    """--lan on a laboratory's network: the stranger's bus and mDNS daemon act as those of the machine."""

    shape = {"products": 1, "strangers": 1}

    def test_one_service_on_the_machines_network(self):
        with tempfile.TemporaryDirectory() as folder:
            lan = self.staying("stranger-1", os.path.join(TOOLS, "sonarix-lab"), "--lan", "--interface", "eth0",
                               "--bin-dir", BIN_DIR, "--state-dir", folder, "--logs", os.path.join(LOGS, "Lan-machine"))
            with until_ctrl_c(self, lan):
                heard = lines_until(lan.stdout, time.monotonic() + 60)
                self.assertTrue(any("lists" in line and "ONLINE" in line and '"Kitchen"' in line for line in heard))
                self.lab.wait_until(lambda tables: any(
                    (row.state, row.name) == ("ONLINE", "Stranger 1") for row in tables.rows("kitchen").values()), 30,
                    "the kitchen lists the machine")
            self.assertEqual(os.listdir(folder), ["lock"])
        self.assertTrue(self.lab.product("stranger-1").pid("avahi"), "the machine's own daemon goes on")


if __name__ == "__main__":
    unittest.main(verbosity=2)
