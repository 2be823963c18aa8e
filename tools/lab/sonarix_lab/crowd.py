"""Simulated products, many to a process: what they are told on their standard input."""
from . import namespaces
from .errors import LabError
from .simulator import Simulator

PROGRAM = "product-crowd"
PRODUCTS_A_HOST = 500
MOST = PRODUCTS_A_HOST * namespaces.CROWD_HOSTS


def guid_of(index):
    return f"crowd-{index:05}"


class Crowd:
    """Products of the family that are no processes of their own, on hosts of their own; known by index, from 0.

    crowd.silence(0, 249)      # gone without a word
    crowd.bring_back(0, 249)

    Each command returns when it is done there; how long the real products take to notice is theirs.
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
        """Returns when all of them listen; their first words come over the next seconds. `delay` of each answer is in
        milliseconds, least and most."""
        for index, first in enumerate(range(0, self._count, PRODUCTS_A_HOST)):
            self._hosts.append(_Host(index, first, min(PRODUCTS_A_HOST, self._count - first), around, bridge,
                                     ["--delay", delay, "--seed", str(seed + index)]))
        for host in self._hosts:
            host.expect("ready")

    def silence(self, first, last):
        """They go without goodbye: no mDNS, connections and ports closed."""
        self._command("silence", first, last)

    def say_goodbye(self, first, last):
        """They say that they go, and go."""
        self._command("goodbye", first, last)

    def bring_back(self, first, last):
        self._command("return", first, last)

    def rename(self, first, last):
        """Each takes a name that it has not had."""
        self._command("rename", first, last)

    def stats(self):
        """What they have had to do, summed up."""
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
