"""The network of a bench: one real product, and a crowd of simulated ones behind the other ports of one bridge."""
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../tools/lab"))

from sonarix_lab import LabError, namespaces, processes  # noqa: E402
from sonarix_lab.certificates import Authority  # noqa: E402
from sonarix_lab.laboratory import BIN_DIR  # noqa: E402
from sonarix_lab.ledger import Ledger  # noqa: E402
from sonarix_lab.product import Product, Surroundings, check_programs, guid_of, last_line  # noqa: E402
from sonarix_lab.reactor import Reactor  # noqa: E402

from . import counters  # noqa: E402

__all__ = ["BIN_DIR", "CROWD_NAME", "LabError", "World"]

#: What the names and the guids of the crowd begin with.
CROWD_NAME = "Crowd"
CROWD_GUID = "crowd-"

_STATE_DIR = "/run/sonarix-bench"
_CROWD_NETWORK = "10.77.32.0/20"
#: Addresses of one crowd process: its namespace answers for all of them, so that no two may share any.
_BLOCK = 512
_BLOCKS = 8
_START_SECONDS = 60
_POLL_SECONDS = 0.02
_QUIET_SECONDS = 2.0


class World:
    """with World(bin_dir, crowd=100) as world: ...

    `avahi` holds further lines of the [server] section of the product's mDNS daemon. The product's programs are not
    running yet, but for its bus; the crowd has announced itself and is quiet. `others` more real products, complete
    ones, are started along with the crowd.
    """

    def __init__(self, bin_dir, crowd=0, others=0, avahi=(), log_dir=None):
        self._bin_dir = os.path.abspath(bin_dir)
        self._count = crowd
        self._others = others
        self._avahi = avahi
        self._log_dir = log_dir
        self._namespaces = []
        self._crowds = []  # (process, namespace)
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
        for process, _ in self._crowds:
            process.wait()
            process.stdin.close()
            process.stdout.close()
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
        """Ends what runs of the product, and starts these programs anew with an mDNS daemon that knows nothing yet.
        The service is not among them: whoever measures starts it.
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
        """Waits until the crowd has said nothing for two seconds."""
        last, since = None, time.monotonic()
        while time.monotonic() - since < _QUIET_SECONDS:
            sent = [counters.frames_sent(namespace.pid) for _, namespace in self._crowds]
            if sent != last:
                last, since = sent, time.monotonic()
            time.sleep(0.1)

    def watch(self):
        """A `portico watch` of the product's list, running."""
        return self.product.popen(["portico", "watch", "/sonarix/products"], stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL)

    def log(self, program):
        return self.product.log_path(program)

    # ---- inside --------------------------------------------------------------------------------------------------

    def _open(self):
        if self._count > _BLOCK * _BLOCKS - _BLOCKS:
            raise LabError(f"has no addresses for a crowd of {self._count}")
        check_programs(self._bin_dir, ("gateway", "network", "service", "hub"), lan=False)
        self._ledger = Ledger(_STATE_DIR)
        self._reactor = Reactor()
        self._scratch = tempfile.mkdtemp(prefix="sonarix-bench-")
        log_dir = self._log_dir or os.path.join(self._scratch, "logs")
        os.makedirs(log_dir, exist_ok=True)
        around = Surroundings(self._ledger, self._reactor, self._bin_dir, log_dir, "3",
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
            self._start_crowd(bridge)
        self.product.start("dbus")

    def _add_product(self, bridge, around, authority, number):
        name = "bench" if number == 0 else f"other-{number}"
        namespace = namespaces.Namespace(self._ledger, name)
        self._namespaces.append(namespace)
        bridge.plug(11 + number, namespace)
        namespace.ip(f"route add {_CROWD_NETWORK} dev eth0")
        product = Product(name, guid_of(name), namespace, around)
        product.write_files(authority)
        path = namespace.path("/run/product/avahi.conf")
        with open(path, encoding="utf-8") as file:
            text = file.read()
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace("[server]\n", "[server]\n" + "".join(line + "\n" for line in self._avahi)))
        os.truncate(product.log_path("service"), 0) if os.path.exists(product.log_path("service")) else None
        return product

    def _start_crowd(self, bridge):
        """In three processes, or as many as have the addresses."""
        blocks = max(min(3, self._count), -(-self._count // (_BLOCK - 2)))
        share = -(-self._count // blocks)
        for block in range(blocks):
            count = min(share, self._count - block * share)
            network = f"10.77.{32 + 2 * block}"
            namespace = namespaces.Namespace(self._ledger, f"crowd-{block}", product=False)
            self._namespaces.append(namespace)
            bridge.plug(100 + block, namespace)
            namespace.ip(f"route add local {network}.0/23 dev lo", f"route add {_CROWD_NETWORK} dev eth0")
            process = subprocess.Popen(
                [*namespace.enter(), os.path.join(self._bin_dir, "product-crowd"), "--count", str(count),
                 "--interface", "eth0", "--first-address", f"{network}.1", "--first-index", str(block * share),
                 "--name-prefix", CROWD_NAME, "--seed", str(block + 1)],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True,
                env={**os.environ, processes.MARK: self._ledger.mark})
            self._ledger.record(process.pid)
            self._crowds.append((process, namespace))
        for process, _ in self._crowds:
            if not process.stdout.readline().startswith(b"ready"):
                raise LabError("the crowd does not start; it says why on standard error")
        self.quiet()

    def _wait(self, what, condition):
        deadline = time.monotonic() + _START_SECONDS
        while not condition():
            if time.monotonic() > deadline:
                raise LabError(f"the product lacks {what} after {_START_SECONDS} s: "
                               + "; ".join(self.deaths or [last_line(self.log("gateway"))]))
            time.sleep(_POLL_SECONDS)

    def _avahi_runs(self):
        """Its host name is established: what it says by itself has been said."""
        asked = self.product.run(["dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.Avahi", "/",
                                  "org.freedesktop.Avahi.Server.GetState"])
        return asked.returncode == 0 and asked.stdout.split() == ["int32", "2"]

    def _answers(self, path):
        return self.product.run(["portico", "get", path], timeout=20).returncode == 0


class Reader:
    """Calls on_line(seconds since `begin`, line) on a thread of its own, for each line of a process's output."""

    def __init__(self, process, begin, on_line):
        self._process = process
        self._begin = begin
        self._on_line = on_line
        self._thread = threading.Thread(target=self._run, name="bench-reader", daemon=True)
        self._thread.start()

    def stop(self):
        """Ends the process; no line is told after the return."""
        self._process.kill()
        self._process.wait()
        self._thread.join()
        self._process.stdout.close()

    def _run(self):
        for line in self._process.stdout:
            self._on_line(time.monotonic() - self._begin, line)
