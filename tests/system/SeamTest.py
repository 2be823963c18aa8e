#!/usr/bin/python3
"""The closed libraries' seam: with the lines of docs/platform.md on the command line the programs are built from the
second implementations, without a byte of ours, and products made of them find one another."""
import os
import subprocess
import time
import unittest

from labcase import BIN_DIR, LabCase, grave

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
BUILD_DIR = os.path.join(ROOT, "build/seam")  # as deep as the other build folders: ccache knows what is the same
PROGRAMS = ("sonarix-service", "hub-service", "network-status", "portico")
DEATH_SECONDS = 10
RETURN_SECONDS = 60


def build():
    begin = time.monotonic()
    for command in (
            ["cmake", "--preset", "release", "-B", BUILD_DIR, "-DBUILD_TESTING=OFF",
             "-DSONARIX_MARKUP_LIBRARY=sonarix_markup_nlohmann", "-DSONARIX_PORTICO_LIBRARY=sonarix_portico_posix"],
            ["cmake", "--build", BUILD_DIR, "-j2", "--target", *PROGRAMS]):
        result = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)
        if result.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: {result.stdout[-4000:]}{result.stderr}")
    print(f"built after {time.monotonic() - begin:.1f} s")
    gateway = os.path.join(BUILD_DIR, "bin/portico-gateway")  # stands for another program, and stays as it is
    if os.path.lexists(gateway):
        os.remove(gateway)
    os.symlink(os.path.join(os.path.realpath(BIN_DIR), "portico-gateway"), gateway)


class Seam(LabCase):
    bin_dir = os.path.join(BUILD_DIR, "bin")

    @classmethod
    def setUpClass(cls):
        build()
        super().setUpClass()

    def test_nothing_of_ours_is_linked(self):
        for program in PROGRAMS:
            symbols = subprocess.run(["nm", "--demangle", os.path.join(self.bin_dir, program)], capture_output=True,
                                     text=True, check=True).stdout
            self.assertIn("PollLoop::Run()", symbols)
            for of_ours in ("Portico::Session", "boost::beast", "JsonStringToMessage"):
                self.assertNotIn(of_ours, symbols, program)

    def test_products_find_one_another_and_outlive_their_gateway(self):
        pids = self.service_pids()
        self.lab.kill("bedroom", "gateway")
        self.lab.wait_until(lambda tables: all(tables.state(name, "bedroom") == "OFFLINE" for name in
                                               self.others("bedroom")), DEATH_SECONDS, "OFFLINE without its gateway")
        self.lab.start("bedroom", "gateway")
        print(f"all as before after {self.all_online(RETURN_SECONDS, 'after the return of the gateway'):.1f} s")
        self.assertEqual(self.lab.get("bedroom", "/sonarix/info")["configurations"]["currentProductMode"], "HOST")
        self.assertEqual(self.service_pids(), pids)
        self.assert_published("bedroom")
        for name in pids:
            lines = grave(self.log_since(name, 0))
            self.assertFalse([line for line in lines if " PorticoClient: " in line or " ProtoToMarkup: " in line])


if __name__ == "__main__":
    unittest.main(verbosity=2)
