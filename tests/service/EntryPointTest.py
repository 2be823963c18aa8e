#!/usr/bin/python3
"""The daemon as a process, without system bus and gateway: its signals and its single instance.

Usage: EntryPointTest.py PROGRAM
"""
import os
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

PROGRAM = ""


class EntryPoint(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        none = folder.name + "/none"
        self.environment = {**os.environ, "SONARIX_RUN_DIR": folder.name, "SONARIX_ETC_DIR": folder.name + "/",
                            "SONARIX_MFG_DATA": none, "SONARIX_PRODUCT_CONFIG": none, "SONARIX_LOG": "4",
                            "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=" + none,
                            # The crash handler is not async-signal-safe on purpose.
                            "TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + ":report_signal_unsafe=0"}

    def start(self, *arguments, umask=-1):
        service = subprocess.Popen([PROGRAM, *arguments], env=self.environment, stderr=subprocess.PIPE, text=True,
                                   umask=umask)
        self.addCleanup(service.communicate)
        self.addCleanup(service.kill)
        return service

    def start_fully(self, *arguments, umask=-1):
        service = self.start(*arguments, umask=umask)
        self.assertTrue(any("JoinTasks" in line for line in service.stderr), "ended before its start was done")
        return service

    def test_fault_logs_frames_and_exits_with_1(self):
        service = self.start_fully("--version", "--nonsense")  # arguments are ignored
        service.send_signal(signal.SIGSEGV)
        said = service.communicate(timeout=30)[1]
        self.assertEqual(service.returncode, 1)
        # Any thread may receive the signal; the handler runs on its stack.
        self.assertRegex(said, r"(?s)Segmentation Fault Start -.*SonarixService::LogCrash.*"
                               r"Segmentation Fault End -.*Shutting Down Cleanly where possible")

    def test_sigterm_and_sigint_end_without_shutdown(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            service = self.start_fully()
            service.send_signal(signal.SIGPIPE)  # ignored, as for a write to a closed socket
            service.send_signal(number)
            self.assertNotIn("Shutdown", service.communicate(timeout=30)[1])
            self.assertEqual(service.returncode, -number)

    def test_second_instance_prints_lock_holder_and_exits(self):
        self.environment["SONARIX_RUN_DIR"] += "/a/run"
        first = self.start_fully(umask=0o077)
        self.assertEqual(stat.S_IMODE(os.stat(self.environment["SONARIX_RUN_DIR"]).st_mode), 0o755)
        second = self.start()
        self.assertRegex(second.communicate(timeout=30)[1],
                         rf"\A.*already running: process {first.pid} \(sonarix-service\) holds.*\n\Z")
        self.assertEqual(second.returncode, 1)
        first.kill()  # the lock of a killed process is released
        first.wait()
        self.start_fully()


if __name__ == "__main__":
    PROGRAM = sys.argv.pop(1)
    unittest.main(verbosity=2)
