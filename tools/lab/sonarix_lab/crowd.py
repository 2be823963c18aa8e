"""Simulated products, many per process, controlled through standard input."""
from . import namespaces
from .errors import LabError
from .simulator import Simulator

PROGRAM = "product-crowd"
PRODUCTS_A_HOST = 500
MOST = PRODUCTS_A_HOST * namespaces.CROWD_HOSTS


def guid_of(index):
    return f"crowd-{index:05}"


class Crowd:
    """Simulated products of the family on separate hosts, numbered from 0.

    crowd.silence(0, 249)      # leave without goodbye
    crowd.bring_back(0, 249)

    A command returns when the simulator has executed it. The real products notice it later.
    """

    def __init__(self, count):
        if not 0 < count <= MOST:
            raise LabError(f"a crowd has 1 to {MOST} products")
        self._hosts = []
        self._count = count

    def __len__(self):
        return self._count

    @property
    def guids(self):
        return [guid_of(index) for index in range(self._count)]

    def start(self, around, bridge, *, delay="20:120", seed=1):
        """Returns when all products listen. Their announcements are spread over the next seconds. `delay` is the range of
        response delays in milliseconds."""
        for index, first in enumerate(range(0, self._count, PRODUCTS_A_HOST)):
            self._hosts.append(_Host(index, first, min(PRODUCTS_A_HOST, self._count - first), around, bridge,
                                     ["--delay", delay, "--seed", str(seed + index)]))
        for host in self._hosts:
            host.expect("ready")

    def silence(self, first, last):
        """Stops mDNS and closes connections and ports, without goodbye."""
        self._command("silence", first, last)

    def say_goodbye(self, first, last):
        """Sends goodbye packets, then like silence()."""
        self._command("goodbye", first, last)

    def bring_back(self, first, last):
        self._command("return", first, last)

    def rename(self, first, last):
        """Gives each product a new name."""
        self._command("rename", first, last)

    def stats(self):
        """The sum of the simulators' counters."""
        total = {}
        for host in self._hosts:
            for name, value in host.stats().items():
                total[name] = total.get(name, 0) + value
        return total

    def close(self):
        for host in self._hosts:
            host.close()

    def _command(self, verb, first, last):
        if not 0 <= first <= last < self._count:
            raise LabError(f"the crowd's products are 0 to {self._count - 1}")
        for host in self._hosts:
            begin, end = max(first, host.first), min(last, host.last)
            if begin <= end:
                host.command(f"{verb} {begin - host.first} {end - host.first}")


class _Host(Simulator):
    def __init__(self, index, first, count, around, bridge, options):
        self.first = first
        self.last = first + count - 1
        name = f"crowd-host-{index + 1}"
        self._namespace = namespaces.Namespace(around.ledger, name, product=False)
        bridge.plug_many(index, self._namespace)
        super().__init__(name, self._namespace, around, PROGRAM, [
            "--interface", "eth0", "--count", str(count), "--first-index", str(first),
            "--first-address", namespaces.address_of_many(index, 0), *options])

    def close(self):
        super().close()
        self._namespace.close()
