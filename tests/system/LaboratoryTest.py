#!/usr/bin/python3
"""The laboratory itself: cleanup, killed processes, error messages, table."""
import os
import signal
import subprocess
import sys
import tempfile
import textwrap
import unittest

from labcase import BIN_DIR, TOOLS

from sonarix_lab import Lab, LabError, ledger, processes
from sonarix_lab.table import Tables, describe_missing
from sonarix_lab.view import table_lines

DAEMONS = ("dbus", "avahi")


def product(guid, state="ONLINE", name="", address=""):
    return {"state": state, "protocols": ["MDNS"],
            "productinfo": {"guid": guid, "friendlyname": name, "ipaddress": address}}


class Processes(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory(prefix="sonarix-lab-state-"))

    def small_lab(self, folder):
        return Lab(products=1, state_dir=folder, programs=DAEMONS)

    def lab_in_a_process(self):
        """Starts a laboratory in another process. Returns the pids of its processes."""
        script = textwrap.dedent(f"""
            import sys, time
            sys.path.insert(0, {TOOLS!r})
            from sonarix_lab import Lab
            lab = Lab(products=2, state_dir={self.folder!r}, programs={DAEMONS!r})
            lab.open()
            lab.product("kitchen").popen(["sh", "-c", "echo open; exec sleep infinity >&-"])
            time.sleep(600)
        """)
        process = self.enterContext(subprocess.Popen([sys.executable, "-B", "-c", script], stdout=subprocess.PIPE))
        self.addCleanup(process.kill)
        self.assertEqual(process.stdout.readline(), b"open\n")
        return process

    def alive(self):
        old = ledger.read(self.folder)
        return processes.find(old["mark"], [tuple(entry) for entry in old["recorded"]], old["namespaces"])

    def test_next_start_cleans_up_after_kill_9_and_spares_others(self):
        with tempfile.TemporaryDirectory() as other_folder, self.small_lab(other_folder) as other:
            process = self.lab_in_a_process()
            os.kill(process.pid, signal.SIGKILL)
            process.wait()
            left = self.alive()
            # Three namespace holders, two buses, two mDNS daemons, and the command of the script.
            self.assertEqual(len(left), 8)
            with self.small_lab(self.folder) as lab:
                self.assertEqual([pid for pid in left if processes.start_time(pid)], [])
                self.assertTrue(all(lab.product("kitchen").pid(program) for program in DAEMONS))
            self.assertTrue(all(other.product("kitchen").pid(program) for program in DAEMONS))
            self.assertEqual(other.deaths, [])

    def test_a_pid_that_is_another_process_by_now_is_spared(self):
        started = processes.start_time(os.getppid())
        self.assertEqual(processes.find("no such mark", [(os.getppid(), started)], []), {os.getppid()})
        self.assertEqual(processes.find("no such mark", [(os.getppid(), started + 1)], []), set())
        machine = [processes.network_namespace("self")]
        self.assertEqual(processes.find("no such mark", [], machine), set())

    def test_tells_of_ends_is_alone_and_leaves_nothing(self):
        with self.small_lab(self.folder) as lab:
            left = self.alive()
            self.assertEqual(len(left), 4)
            with self.assertRaisesRegex(LabError, "runs already"):
                self.small_lab(self.folder).open()
            self.assertEqual(lab.deaths, [])
            os.kill(lab.product("kitchen").pid("avahi"), signal.SIGKILL)
            lab.wait_until(lambda _: lab.deaths, 5)
            self.assertRegex(lab.deaths[0], "^kitchen: avahi was ended by signal 9")
            lab.start("kitchen", "avahi")
            lab.kill("kitchen", "avahi")
            self.assertEqual(len(lab.deaths), 1)
        self.assertEqual([pid for pid in left if processes.start_time(pid)], [])
        self.assertEqual(os.listdir(self.folder), ["lock"])


class CannotGoOn(unittest.TestCase):
    def says(self, *arguments, prefix=()):
        with tempfile.TemporaryDirectory() as folder:
            os.chmod(folder, 0o777)
            result = subprocess.run([*prefix, sys.executable, "-B", os.path.join(TOOLS, "sonarix-lab"), "--once",
                                     "--state-dir", folder, *arguments], capture_output=True, text=True, check=False,
                                    timeout=60)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
        return result.stderr

    def test_missing_requirement_is_printed_in_one_line(self):
        unprivileged = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "--"]
        self.assertIn("run as root", self.says("--bin-dir", BIN_DIR, prefix=unprivileged))
        self.assertIn("build first", self.says("--bin-dir", "/nonexistent"))
        self.assertIn("can't write logs", self.says("--bin-dir", BIN_DIR, "--logs", "/proc/logs"))
        self.assertIn("no product \"cupboard\"", self.says("--bin-dir", BIN_DIR, "--kill", "cupboard"))
        # In this namespace /run has no bus.
        alone = ["unshare", "--net", "--mount", "sh", "-c", "mount -t tmpfs tmpfs /run; exec \"$@\"", "-"]
        self.assertIn("system bus", self.says("--bin-dir", BIN_DIR, "--lan", prefix=alone))


class Table(unittest.TestCase):
    def setUp(self):
        self.seconds = 0.0
        self.said = []
        self.tables = Tables(lambda: self.seconds, self.said.append)
        for name in ("kitchen", "bedroom"):
            self.tables.add(name, f"guid-{name}", accessory=False)
        self.tables.add("remote", "guid-remote", accessory=True)

    def test_hosts_must_list_hosts_and_accessories_must_list_hosts(self):
        both = [product("guid-kitchen"), product("guid-bedroom")]
        self.assertEqual(len(self.tables.missing()), 4)
        for name in ("kitchen", "bedroom"):
            self.tables.set_list(name, both)
        self.assertEqual(self.tables.missing(), [("remote", "kitchen", None), ("remote", "bedroom", None)])
        self.tables.set_list("remote", [product("guid-kitchen"), product("guid-bedroom", "OFFLINE")])
        self.assertEqual(describe_missing(self.tables.missing()), "remote lacks bedroom (OFFLINE)")
        self.tables.set_list("remote", both)
        self.assertEqual(self.tables.missing(), [])

    def test_only_displayed_fields_count_as_changes(self):
        self.seconds = 1.5
        self.tables.set_list("kitchen", [product("guid-bedroom", "OFFLINE", "Bedroom")])
        self.seconds = 2.5
        changed = product("guid-bedroom", "OFFLINE", "Bedroom")
        changed["serviceid"] = {}
        self.tables.set_list("kitchen", [changed])
        self.assertEqual(self.tables.since("kitchen", "bedroom"), 1.5)
        self.seconds = 3.5
        self.tables.set_list("kitchen", [product("guid-bedroom", "ONLINE", "Bedroom", "10.77.0.12")])
        self.assertEqual(self.tables.since("kitchen", "bedroom"), 3.5)
        self.tables.set_list("kitchen", [])
        self.assertIsNone(self.tables.row("kitchen", "bedroom"))
        self.assertEqual(len(self.said), 3, self.said)

    def test_drawn(self):
        self.seconds = 4.25
        self.tables.set_own("kitchen", {"configurations": {"currentProductMode": "HOST"}, "ipaddress": "10.77.0.11"})
        self.tables.set_list("bedroom", [product("guid-kitchen"), product("other", "OFFLINE")])
        wide = table_lines(self.tables, 200)
        self.assertEqual(wide[1].split(), ["PRODUCT", "MODE", "ADDRESS", "PROTOCOL", "kitchen", "bedroom", "remote"])
        self.assertEqual(wide[2].split(), ["kitchen", "HOST", "10.77.0.11", "MDNS", ".", "ONLINE", "4.2", "-"])
        self.assertEqual(wide[-1].split(), ["other", "-", "-", "MDNS", "-", "OFFLINE", "4.2", "-"])

    def test_a_crowd_is_counted(self):
        crowd = [f"crowd-{index:05}" for index in range(20)]
        self.tables.add_crowd(crowd)
        before = len(self.tables.missing())
        for online in range(20):
            self.tables.set_list("kitchen", [product(guid, "ONLINE" if index < online else "OFFLINE")
                                             for index, guid in enumerate(crowd)])
        self.assertEqual(len(self.said), 9, self.said)  # at each tenth
        self.assertEqual(self.said[-1], "kitchen lists 18/20 of the crowd as ONLINE")
        self.assertEqual(len(self.tables.missing()), before - 19)
        self.assertIn("bedroom lacks kitchen (not listed), crowd-00000 (not listed), crowd-00001 (not listed), "
                      "crowd-00002 (not listed), crowd-00003 (not listed) and 16 more",
                      describe_missing(self.tables.missing()))
        lines = table_lines(self.tables, 200)
        self.assertEqual(lines[-1].split(), ["crowd", "-", "-", "-", "19/20", "ONLINE", "0/20", "ONLINE", "0/20", "ONLINE"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
