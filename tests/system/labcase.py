"""Base class of the system tests: one laboratory per class, and access to published records and logs."""
import os
import re
import selectors
import subprocess
import sys
import tempfile
import time
import unittest

TOOLS = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../tools/lab")
sys.path.insert(0, TOOLS)

from sonarix_lab import Lab, LabTimeout  # noqa: E402
from sonarix_lab.laboratory import BIN_DIR as RELEASE_BIN_DIR  # noqa: E402

BIN_DIR = os.environ.get("SONARIX_BIN_DIR", RELEASE_BIN_DIR)
LOGS = os.environ.get("SONARIX_SYSTEM_LOGS", os.path.join(tempfile.gettempdir(), "sonarix-system-logs"))
CONVERGENCE_SECONDS = 60
RENDERER_TYPE = "_kova-lanyard._tcp"
TXT_KEYS = {"GUID", "MANUFACTURER", "ECOSYS", "PTYPE", "PNAME", "PCOLOR", "SWVERSION", "AudioPayloadVersion",
            "AudioControlProtocolVersion", "ClockSyncProtocolVersion", "NowPlayingVersion", "PlaybackRequestVersion",
            "GroupingVersion"}


def all_products_online(tables):
    return not tables.missing()


class LabCase(unittest.TestCase):
    """A test class with one laboratory of the given `shape`. Each test must leave it with all products ONLINE."""

    shape = {"products": 3}
    convergence_seconds = CONVERGENCE_SECONDS
    bin_dir = BIN_DIR

    @classmethod
    def setUpClass(cls):
        cls.folder = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="sonarix-lab-state-"))
        os.makedirs(LOGS, exist_ok=True)
        changes = cls.changes = cls.enterClassContext(
            open(os.path.join(LOGS, cls.__name__ + "-changes.log"), "w", encoding="utf-8", buffering=1))
        cls.lab = Lab(**cls.shape, bin_dir=cls.bin_dir, state_dir=cls.folder,
                      log_dir=os.path.join(LOGS, cls.__name__),
                      on_change=lambda seconds, text: print(f"{seconds:9.3f} s  {text}", file=changes))
        cls.lab.open()
        cls.addClassCleanup(cls.lab.close)
        cls.lab.wait_until(all_products_online, cls.convergence_seconds, "all products ONLINE at the start")

    def setUp(self):
        print("---", self.id(), file=self.changes)
        self.all_online(self.convergence_seconds, "before the case")
        self._deaths_before = len(self.lab.deaths)

    def tearDown(self):
        self.assertEqual(self.lab.deaths[self._deaths_before:], [], "programs ended by themselves")

    # ---- programs ------------------------------------------------------------------------------------------------

    def staying(self, product, *command, **options):
        """Starts a program in a product until the end of the test. The test reads its output."""
        program = self.enterContext(self.lab.product(product).popen(command, stdout=subprocess.PIPE, **options))
        self.addCleanup(program.kill)
        return program

    # ---- states --------------------------------------------------------------------------------------------------

    def all_online(self, seconds, what):
        """Waits until every product lists every other as ONLINE. Returns the seconds."""
        return self.lab.wait_until(all_products_online, seconds, f"all products ONLINE {what}")

    def stays(self, condition, seconds, what):
        """Checks that the condition holds for that time."""
        try:
            self.lab.wait_until(lambda tables: not condition(tables), seconds)
        except LabTimeout:
            return
        self.fail(f"did not stay so for {seconds:g} s: {what}")

    def others(self, name):
        return [product.name for product in self.lab.products if product.name != name and not product.stranger]

    def service_pids(self):
        return {product.name: product.pid("service") for product in self.lab.products if not product.stranger}

    # ---- mDNS ----------------------------------------------------------------------------------------------------

    def published(self, observer, instance, service_type=RENDERER_TYPE, seconds=15, accept=lambda address, txt: True):
        """Waits for a record that `accept` accepts. Returns its (port, TXT), resolved by avahi-browse in a product.

        Repeats the query, because the mDNS daemon's cache may contain the old record for another second.
        """
        deadline, seen = time.monotonic() + seconds, []
        while time.monotonic() < deadline:
            browse = self.lab.run(observer, ["avahi-browse", "-rpt", service_type], timeout=seconds)
            records = [line.split(";", 9) for line in browse.stdout.splitlines() if line.startswith("=")]
            seen = [fields for fields in records
                    if fields[2] == "IPv4" and unescape(fields[3]) == instance.encode()]
            for fields in seen:
                if accept(fields[7], parse_txt(fields[9])):
                    return int(fields[8]), parse_txt(fields[9])
            time.sleep(0.2)
        return self.fail(f"{observer} does not resolve \"{instance}\" of {service_type} within {seconds} s: {seen}")

    def withdrawn(self, observer, instance, service_type, seconds=15):
        """Waits until avahi-browse in a product does not find the record."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            browse = self.lab.run(observer, ["avahi-browse", "-pt", service_type], timeout=seconds)
            if instance not in [unescape(line.split(";")[3]).decode() for line in browse.stdout.splitlines()]:
                return
            time.sleep(0.2)
        self.fail(f"\"{instance}\" of {service_type} is still there")

    def assert_published(self, name, since=None, **options):
        """The record of a product, resolved by another one. `since` is a size of the service's log: older records in the
        mDNS daemons' caches are ignored.
        """
        product = self.lab.product(name)
        if since is not None:
            self.wait_for_log(name, since, f"Service {product.spoken_name}: established", 15)
        port, txt = self.published(self.others(name)[0], product.spoken_name, **options)
        self.assertEqual(port, 8090)
        self.assertEqual({key.decode() for key in txt}, TXT_KEYS)
        self.assertEqual(txt[b"GUID"].decode(), product.guid)
        self.assertEqual([txt[key] for key in (b"MANUFACTURER", b"ECOSYS", b"PTYPE", b"PNAME")],
                         [b"Kova", b"ORB2", b"SPEAKER", b"Sonarix One"])
        return txt

    # ---- logs ----------------------------------------------------------------------------------------------------

    def log_size(self, name, program="service"):
        return os.path.getsize(self.lab.product(name).log_path(program))

    def log_since(self, name, offset, program="service"):
        with open(self.lab.product(name).log_path(program), "rb") as file:
            file.seek(offset)
            return file.read().decode(errors="replace").splitlines()

    def wait_for_log(self, name, offset, text, seconds=10):
        """Waits for a log line with the text after `offset`, or for lines with several texts in this order. Returns all
        lines since the offset."""
        deadline = time.monotonic() + seconds
        while True:
            lines = self.log_since(name, offset)
            rest = iter(lines)
            if all(any(each in line for line in rest) for each in ([text] if isinstance(text, str) else text)):
                return lines
            if time.monotonic() > deadline:
                self.fail(f"{name} does not log \"{text}\" within {seconds} s")
            time.sleep(0.05)


def grave(lines):
    """Lines of level 1 and 2."""
    return [line for line in lines if re.match(r"\S+ [012] ", line)]


def lines_until(pipe, deadline):
    """The lines of a pipe until `deadline`."""
    pending = b""
    with selectors.DefaultSelector() as selector:
        selector.register(pipe, selectors.EVENT_READ)
        while (rest := deadline - time.monotonic()) > 0 and selector.select(rest):
            data = os.read(pipe.fileno(), 65536)
            if not data:
                return
            *lines, pending = (pending + data).split(b"\n")
            yield from (line.decode() for line in lines)


def unescape(text):
    """Decodes avahi-browse's escapes: \\ and three decimal digits, or \\ and the character."""
    return re.sub(rb"\\(\d{3}|.)", lambda match: bytes([int(match[1])]) if match[1].isdigit() and len(match[1]) == 3
                  else match[1], text.encode(), flags=re.DOTALL)


def parse_txt(text):
    """key -> value of "a=b" "c=d" as avahi-browse prints it."""
    strings = [unescape(item) for item in re.findall(r'"((?:[^"\\]|\\.)*)"', text)]
    return dict(string.partition(b"=")[::2] for string in strings)


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", "rb") as file:
        fields = file.read().rpartition(b")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def held_by(pid):
    """(KiB of private dirty memory, threads, descriptors) of a process."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        private_dirty = int(re.search(r"Private_Dirty:\s+(\d+) kB", file.read())[1])
    return private_dirty, len(os.listdir(f"/proc/{pid}/task")), len(os.listdir(f"/proc/{pid}/fd"))
