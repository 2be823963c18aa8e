"""The network of a benchmark: one real product and a crowd of simulated ones on a bridge."""
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../tools/lab"))

from sonarix_lab import LabError, namespaces  # noqa: E402
from sonarix_lab.certificates import Authority  # noqa: E402
from sonarix_lab.crowd import PROGRAM as CROWD_PROGRAM, Crowd  # noqa: E402
from sonarix_lab.devices import MISBEHAVING, PROGRAM as DEVICES_PROGRAM, Devices  # noqa: E402
from sonarix_lab.laboratory import BIN_DIR  # noqa: E402
from sonarix_lab.ledger import Ledger  # noqa: E402
from sonarix_lab.product import PROGRAMS, Product, LabContext, check_programs, guid_of, last_line  # noqa: E402
from sonarix_lab.reactor import Reactor  # noqa: E402

__all__ = ["BIN_DIR", "CROWD_GUID", "CROWD_NAME", "LabError", "MISBEHAVING", "Reader", "World"]

#: Prefixes of the crowd's names and guids.
CROWD_NAME = "Crowd"
CROWD_GUID = "crowd-"

_STATE_DIR = "/run/sonarix-bench"
_START_SECONDS = 60
_POLL_SECONDS = 0.02
_QUIET_SECONDS = 2.0


class World:
    """with World(bin_dir, crowd=100) as world: ...

    `avahi` contains additional lines for the [server] section of the product's mDNS daemon. Of the product only the
    bus runs. The crowd has sent its announcements. `others` real products and UPnP `devices` of these kinds are
    started with the crowd; devices that are `silent` stay absent.
    """

    def __init__(self, bin_dir, crowd=0, others=0, avahi=(), devices=(), silent=False, log_dir=None):
        self._bin_dir = os.path.abspath(bin_dir)
        self._count = crowd
        self._others = others
        self._avahi = avahi
        self._log_dir = log_dir
        self._namespaces = []
        self._kinds = list(devices)
        self._silent = silent
        self._crowd = None
        self.devices = None
        self._ledger = self._reactor = self._scratch = None
        self.deaths = []

    def __enter__(self):
        try:
            self._open()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        if self._ledger:
            self._ledger.kill_all()
        if self._crowd:
            self._crowd.close()
        if self.devices:
            self.devices.close()
        if self._reactor:
            self._reactor.stop()
        for namespace in self._namespaces:
            namespace.close()
        if self._ledger:
            self._ledger.close()
        if self._scratch:
            shutil.rmtree(self._scratch, ignore_errors=True)

    # ---- the product ---------------------------------------------------------------------------------------------

    def start_cold(self, *programs):
        """Stops the product's programs, then starts an mDNS daemon with an empty cache and the given programs. The
        caller starts the service.
        """
        for program in ("service", "hub", "network", "gateway", "avahi"):
            if self.product.pid(program):
                self.product.kill(program)
        self.quiet()
        self.product.start("avahi")
        self._wait("its mDNS daemon", self._avahi_runs)
        for program in programs:
            self.product.start(program)
        if "network" in programs:
            self._wait("its network status", lambda: self._answers("/network/status"))

    def quiet(self):
        """Waits until crowd and devices have sent nothing for two seconds."""
        last, since = None, time.monotonic()
        deadline = since + _START_SECONDS
        while (self._crowd or self.devices) and time.monotonic() - since < _QUIET_SECONDS:
            packets = self._crowd.stats()["packets"] if self._crowd else 0
            if self.devices:
                stats = self.devices.stats()
                packets += stats["notifies"] + stats["answers"]
            if packets != last:
                last, since = packets, time.monotonic()
            if since > deadline:
                raise LabError(f"the crowd is not quiet after {_START_SECONDS} s")
            time.sleep(0.1)

    def watch(self):
        """Starts a `portico watch` of the product's list."""
        return self.product.popen(["portico", "watch", "/sonarix/products"], stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL)

    def log(self, program):
        return self.product.log_path(program)

    # ---- inside --------------------------------------------------------------------------------------------------

    def _open(self):
        check_programs(self._bin_dir, PROGRAMS, lan=False, more=[CROWD_PROGRAM, DEVICES_PROGRAM])
        self._ledger = Ledger(_STATE_DIR)
        self._reactor = Reactor()
        self._scratch = tempfile.mkdtemp(prefix="sonarix-bench-")
        log_dir = self._log_dir or os.path.join(self._scratch, "logs")
        os.makedirs(log_dir, exist_ok=True)
        around = LabContext(self._ledger, self._reactor, self._bin_dir, log_dir, "3",
                              lambda product, program, text: self.deaths.append(text))
        authority = Authority(os.path.join(self._scratch, "ca"))
        bridge = namespaces.Bridge(self._ledger)
        self._namespaces.append(bridge)
        self.product, *others = [self._add_product(bridge, around, authority, number)
                                 for number in range(1 + self._others)]
        for other in others:
            for program in other.programs():
                other.start(program)
        if self._count:
            self._crowd = Crowd(self._count)
            self._crowd.start(around, bridge)
        if self._kinds:
            self.devices = Devices.on_host(0, self._kinds, around, bridge, silent=self._silent)
        self.product.start("dbus")

    def _add_product(self, bridge, around, authority, number):
        name = "bench" if number == 0 else f"other-{number}"
        namespace = namespaces.Namespace(self._ledger, name)
        self._namespaces.append(namespace)
        bridge.plug(11 + number, namespace)
        product = Product(name, guid_of(name), namespace, around)
        product.write_files(authority)
        path = namespace.path("/run/product/avahi.conf")
        with open(path, encoding="utf-8") as file:
            text = file.read()
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace("[server]\n", "[server]\n" + "".join(line + "\n" for line in self._avahi)))
        os.truncate(product.log_path("service"), 0) if os.path.exists(product.log_path("service")) else None
        return product

    def _wait(self, what, condition):
        deadline = time.monotonic() + _START_SECONDS
        while not condition():
            if time.monotonic() > deadline:
                raise LabError(f"the product lacks {what} after {_START_SECONDS} s: "
                               + "; ".join(self.deaths or [last_line(self.log("gateway"))]))
            time.sleep(_POLL_SECONDS)

    def _avahi_runs(self):
        """Whether the host name is established, so that no more announcements follow."""
        asked = self.product.run(["dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.Avahi", "/",
                                  "org.freedesktop.Avahi.Server.GetState"])
        return asked.returncode == 0 and asked.stdout.split() == ["int32", "2"]

    def _answers(self, path):
        return self.product.run(["portico", "get", path], timeout=20).returncode == 0


class Reader:
    """Calls on_line(seconds since `begin`, line) on a separate thread for each line of a process's output."""

    def __init__(self, process, begin, on_line):
        self._process = process
        self._begin = begin
        self._on_line = on_line
        self._thread = threading.Thread(target=self._run, name="bench-reader", daemon=True)
        self._thread.start()

    def stop(self):
        """Ends the process. on_line is not called after the return."""
        self._process.kill()
        self._process.wait()
        self._thread.join()
        self._process.stdout.close()

    def _run(self):
        for line in self._process.stdout:
            self._on_line(time.monotonic() - self._begin, line)
