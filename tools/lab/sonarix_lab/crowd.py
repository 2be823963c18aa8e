"""Simulated products, many to a process: what they are told on their standard input."""
import os
import select
import subprocess
import threading
import time

from . import namespaces, processes
from .errors import LabError
from .product import last_line

PROGRAM = "product-crowd"
PRODUCTS_A_HOST = 500
MOST = PRODUCTS_A_HOST * namespaces.CROWD_HOSTS
_ANSWER_SECONDS = 30


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
            for item in host.command("stats").split():
                name, value = item.split("=")
                total[name] = total.get(name, 0) + int(value)
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


class _Host:
    def __init__(self, index, first, count, around, bridge, options):
        self.first = first
        self.last = first + count - 1
        self._name = f"crowd-host-{index + 1}"
        self._namespace = namespaces.Namespace(around.ledger, self._name, product=False)
        bridge.plug_crowd(index, self._namespace)
        self._log_path = os.path.join(around.log_dir, f"{self._name}.log")
        with open(self._log_path, "ab") as log:
            self._process = subprocess.Popen(
                [*self._namespace.enter(), os.path.join(around.bin_dir, PROGRAM), "--interface", "eth0",
                 "--count", str(count), "--first-index", str(first),
                 "--first-address", namespaces.first_crowd_address(index), *options],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log, start_new_session=True,
                env={**os.environ, processes.MARK: around.ledger.mark})
        around.ledger.record(self._process.pid)
        self._pending = b""
        self._gone = threading.Event()
        around.reactor.watch_end(self._process, lambda status: self._ended(around, status))

    def command(self, line):
        """What it answers behind "ok"."""
        try:
            self._process.stdin.write(line.encode() + b"\n")
            self._process.stdin.flush()
        except OSError as error:
            raise LabError(f"{self._name} has ended: {error.strerror}") from error
        return self.expect("ok")

    def expect(self, word):
        """The rest of the next line, which has to begin with the word."""
        line = self._line()
        if line.split(" ")[0] != word:
            raise LabError(f"{self._name}: {line or last_line(self._log_path) or 'ended without a word'}")
        return line[len(word) + 1:]

    def close(self):
        self._process.kill()
        self._gone.wait()
        self._process.stdin.close()
        self._process.stdout.close()
        self._namespace.close()

    def _ended(self, around, status):
        around.on_death(None, PROGRAM, f"{self._name}: ended with status {status}: {last_line(self._log_path)}")
        self._gone.set()

    def _line(self):
        deadline = time.monotonic() + _ANSWER_SECONDS
        while b"\n" not in self._pending:
            if not select.select([self._process.stdout], [], [], max(0.0, deadline - time.monotonic()))[0]:
                raise LabError(f"{self._name} does not answer")
            data = os.read(self._process.stdout.fileno(), 4096)
            if not data:
                return ""
            self._pending += data
        line, _, self._pending = self._pending.partition(b"\n")
        return line.decode()
