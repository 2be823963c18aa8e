"""Kills random programs of a laboratory, restarts them, and checks that everything recovers."""
import json
import random
import subprocess
import time

from .errors import LabError

#: The required products: two with an mDNS record, one of them also with SSDP, and one without an mDNS record.
SHAPE = {"products": 2, "mute": 1}

_RIGHT_SECONDS = 90
_QUIET_SECONDS = 15  # longer than an absent product stays listed as ONLINE
_MOST_AT_ONCE = 3
_RENDERER_TYPE = "_kova-lanyard._tcp"
_NOTICED_SECONDS = 10


class Ruin:
    """Kills each program of each product in random order, up to three at once. A killed bus ends its mDNS daemon. After
    each round the laboratory must recover: every table and every mDNS record is correct, and only the killed programs
    have a new pid.

    In every product a local client watches each discovery source all the time. At the end its list must equal the
    service's list.
    """

    def __init__(self, lab, seed):
        self._lab = lab
        self._random = random.Random(seed)
        self._deck = []
        self._kills = 0
        self._slowest = 0.0
        self._clients = []

    def run(self, seconds):
        """Returns a summary in one line. Raises a LabError if something does not recover."""
        end = time.monotonic() + seconds
        self._lab.start_device_of(self._lab.products[1].name)
        self._lab.wait_until(self._tables_are_right, _RIGHT_SECONDS, "all products ONLINE at the start")
        self._start_clients()
        try:
            rounds = 0
            while time.monotonic() < end:
                rounds += 1
                self._round()
            time.sleep(_QUIET_SECONDS)
            self._wait_until_right(self._lab.products)
            for client in self._clients:
                client.check()
        finally:
            for client in self._clients:
                client.close()
        return (f"{self._kills} programs killed in {rounds} rounds; all was right again after each, "
                f"{self._slowest:.1f} s after the last start at most")

    # ---- ruin ----------------------------------------------------------------------------------------------------

    def _round(self):
        victims = self._draw(self._random.randint(1, _MOST_AT_ONCE))
        before = self._pids()
        steps = []
        for product, program in victims:
            begin = self._random.uniform(0, 2)
            steps.append((begin, self._kill, product, program))
            steps.append((begin + self._random.uniform(0, 4), self._start, product, program))
        began = time.monotonic()
        for due, step, product, program in sorted(steps, key=lambda each: each[0]):
            time.sleep(max(0.0, began + due - time.monotonic()))
            step(product, program)
        restarted = time.monotonic()
        self._wait_until_right([product for product, _ in victims])
        self._slowest = max(self._slowest, time.monotonic() - restarted)
        killed = {(product.name, program) for product, first in victims for program in _ended_with(first)}
        changed = {key for key, pid in self._pids().items() if before.get(key) != pid} - killed
        if changed or self._lab.deaths:
            raise LabError("; ".join([f"{name}: {program} is another process" for name, program in sorted(changed)]
                                     + self._lab.deaths))

    def _draw(self, count):
        """Draws at most `count` pairs (product, program); never a bus and another program of its product."""
        victims = []
        while len(victims) < count:
            if not self._deck:
                self._deck = [(product, program) for product in self._lab.products for program in product.programs()]
                self._random.shuffle(self._deck)
            product, program = self._deck[-1]
            if any(other is product and (each == program or "dbus" in (each, program)) for other, each in victims):
                break
            victims.append(self._deck.pop())
        return victims

    def _kill(self, product, program):
        self._lab.kill(product.name, program)
        self._kills += 1

    def _start(self, product, program):
        for each in _ended_with(program):
            self._lab.start(product.name, each)
        if program == "dbus":
            # The service creates the mDNS backend when the network comes up, and not later if the bus was missing then.
            self._lab.link_down(product.name)
            self._lab.wait_until(lambda tables: not tables.own(product.name).address, _NOTICED_SECONDS,
                                 f"{product.name} knows that it has no network")
            self._lab.link_up(product.name)

    def _pids(self):
        return {(product.name, program): product.pid(program)
                for product in self._lab.products for program in product.programs()}

    # ---- what is right -------------------------------------------------------------------------------------------

    def _wait_until_right(self, products):
        deadline = time.monotonic() + _RIGHT_SECONDS
        self._lab.wait_until(self._tables_are_right, _RIGHT_SECONDS, "all tables right")
        for product in products:
            while not product.mute and product.spoken_name not in self._records(product):
                if time.monotonic() > deadline:
                    raise LabError(f"{product.name} has no mDNS record")
                self._lab.wait_change(0.5)
        # A table that was correct above may change later, when its product notices a killed program.
        self._lab.wait_until(self._tables_are_right, _RIGHT_SECONDS, "all tables right, once all records are")

    @staticmethod
    def _tables_are_right(tables):
        known = {*tables.members, *tables.guests, *tables.crowd}
        return (not tables.missing() and all({*tables.rows(name)} <= known and tables.own(name).address
                                             for name in tables.members))

    def _records(self, product):
        """The names in the cache of the product's mDNS daemon, which is empty after a start."""
        browse = self._lab.run(product.name, ["avahi-browse", "-pt", _RENDERER_TYPE], timeout=20)
        return {line.split(";")[3] for line in browse.stdout.splitlines() if line.startswith("+")}

    # ---- local clients -------------------------------------------------------------------------------------------

    def _start_clients(self):
        for product in self._lab.products:
            self._clients.append(_Watch(self._lab, product, ["ssdp"], "guid"))
            self._clients.append(_Watch(self._lab, product, ["mdns", _RENDERER_TYPE], "friendlyname"))


def _ended_with(program):
    return ("dbus", "avahi") if program == "dbus" else (program,)


class _Watch:
    """A running `sonarix-ipc watch` and the list that results from its output."""

    def __init__(self, lab, product, source, key):
        self._lab = lab
        self._product = product
        self._source = source
        self._key = key
        self._known = set()
        self._process = product.popen(["sonarix-ipc", "watch", *source, "--json"], stdout=subprocess.PIPE,
                                      stderr=subprocess.DEVNULL)
        lab.watch_lines(self._process.stdout, self._line_received)

    def check(self):
        """Checks that it still runs and that its list equals the service's."""
        what = f"{self._product.name}: sonarix-ipc watch {' '.join(self._source)}"
        deadline = time.monotonic() + _RIGHT_SECONDS
        while True:
            if self._process.poll() is not None:
                raise LabError(f"{what} ended with status {self._process.returncode}")
            listed = self._lab.run(self._product.name, ["sonarix-ipc", "list", *self._source, "--json"], timeout=20)
            devices = {json.loads(line)[self._key] for line in listed.stdout.splitlines()}
            known = {*self._known}
            if listed.returncode == 0 and devices == known:
                return
            if time.monotonic() > deadline:
                raise LabError(f"{what} has {sorted(known)}, the service {sorted(devices)} {listed.stderr.strip()}")
            time.sleep(0.5)  # a search may be in progress

    def close(self):
        self._process.kill()
        self._process.wait()

    def _line_received(self, line):
        change = json.loads(line)
        if change["change"] == "gone":
            self._known.discard(change["device"][self._key])
        else:
            self._known.add(change["device"][self._key])
