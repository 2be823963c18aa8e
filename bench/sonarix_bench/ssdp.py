"""Measures how fast the service finds UPnP devices and reads their descriptions, compared with `gssdp-discover` for the
same target in the same namespace, and its memory with misbehaving devices.

The devices have sent their announcements before. A device responds after a random part of MX = 3 s to each of the three
requests of a search. Time starts for gssdp-discover with the process, for the service with the log line of the search.
A device is "announced" with its log line, and "fetched" with the log line of its description.
"""
import os
import re
import shutil
import subprocess
import time
from datetime import datetime

from . import counters
from .discovery import Arrivals
from .figures import Row
from .world import LabError, MISBEHAVING, Reader, World

TARGET = "urn:schemas-upnp-org:device:MediaRenderer:1"
_SECONDS = 30
_POLL_SECONDS = 0.05
_SEARCH_SECONDS = 30
_HASTY = 500


def run(options, say):
    if not shutil.which("gssdp-discover"):
        raise LabError("needs gssdp-discover, of Debian's gupnp-tools")
    rows = []
    for count in options.count or ([10, 100] if options.quick else [10, 100, 500]):
        rows += _times(options, count, options.runs or (1 if options.quick else 5), say)
    if not options.quick and not options.count:
        rows += _held(options, say)
    return rows


def _times(options, count, runs, say):
    pairs = []
    with World(options.bin_dir, devices=["renderer"] * count, log_dir=options.logs) as world:
        for number in range(runs):
            theirs = _discover(world, count)
            announced, fetched = _service(world, count)
            say(f"ssdp {count}, run {number + 1} of {runs}: gssdp-discover {_text(theirs)}; service announced "
                f"{_text(announced)}, fetched {_text(fetched)}")
            pairs.append((theirs, announced, fetched))
        if world.deaths:
            raise RuntimeError("; ".join(world.deaths))

    def row(name, sample, unit="", limit=""):
        return Row.of("ssdp", f"{count}: {name}", [sample(*pair) for pair in pairs], unit, limit)

    return [
        row("last announced / last of gssdp-discover", lambda theirs, ours, _: _ratio(ours, theirs), "", "<= 1.3"),
        row("announced / there", lambda _, ours, __: ours.found / count, "", ">= 1"),
        row("last announced", lambda _, ours, __: _last(ours), "s"),
        row("last of gssdp-discover", lambda theirs, _, __: _last(theirs), "s"),
        row("last fetched, after the last announced", lambda _, ours, fetched: _after(ours, fetched), "s", "<= 2"),
    ]


def _discover(world, count):
    world.start_cold()
    arrivals, usns = Arrivals(count), set()

    def line_came(seconds, line):
        if line.startswith(b"  USN:"):
            usns.add(line)
            arrivals.reached(len(usns), seconds)

    begin = time.monotonic()
    process = world.product.popen(["stdbuf", "-oL", "gssdp-discover", "-i", "eth0", "-t", TARGET],
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    reader = Reader(process, begin, line_came)
    arrivals.complete.wait(_SECONDS)
    reader.stop()
    return arrivals


def _service(world, count):
    world.start_cold("gateway", "network")
    path = world.log("service")
    offset = os.path.getsize(path) if os.path.exists(path) else 0
    world.product.start("service")
    deadline = time.monotonic() + _SECONDS
    while True:
        announced, fetched = _of_log(path, offset, count)
        if fetched.complete.is_set() or time.monotonic() > deadline:
            return announced, fetched
        time.sleep(_POLL_SECONDS)


def _of_log(path, offset, count):
    begin, announced, fetched = None, Arrivals(count), Arrivals(count)
    with open(path, "rb") as file:
        file.seek(offset)
        for line in file:
            match = re.match(rb"(\S+) 3 (?:GSSDPHandler|SsdpDiscovery): (.*)", line)
            if not match:
                continue
            seconds = datetime.fromisoformat(match[1].decode()).timestamp()
            if b"Restarting browser" in match[2]:
                begin = begin or seconds
            elif b"Discovered a new device" in match[2]:
                announced.reached(announced.found + 1, seconds - begin)
            elif b"PARSE_SUCCESS" in match[2]:
                fetched.reached(fetched.found + 1, seconds - begin)
    return announced, fetched


def _held(options, say):
    """Private dirty memory before, during and after misbehaving devices."""
    os.sync()  # file pages of a new binary count as dirty until they are written
    kinds = [*MISBEHAVING, *["hasty"] * _HASTY]
    with World(options.bin_dir, devices=kinds, silent=True, log_dir=options.logs) as world:
        world.start_cold("gateway", "network", "hub")
        world.product.start("service")
        time.sleep(_SEARCH_SECONDS)
        pid, held = world.product.pid("service"), []
        at_rest = [counters.private_dirty(pid)]
        for _ in range(2):
            world.devices.bring_back(0, len(kinds) - 1)
            end, height = time.monotonic() + 40, 0
            while time.monotonic() < end:
                height = max(height, counters.private_dirty(pid))
                time.sleep(0.5)
            held.append(height)
            world.devices.silence(0, len(kinds) - 1)
            time.sleep(2 * _SEARCH_SECONDS + 15)
            at_rest.append(counters.private_dirty(pid))
        peak = counters.peak_resident(pid)
        if world.deaths:
            raise RuntimeError("; ".join(world.deaths))
    say(f"ssdp, {len(kinds)} that misbehave, twice: KiB at rest {at_rest}, at the height {held}, resident {peak}")
    return [
        Row("ssdp", "misbehaving: service at the height", max(held) / 1024, "MiB"),
        Row("ssdp", "misbehaving: resident at the peak", peak / 1024, "MiB"),
        Row("ssdp", "misbehaving: at rest after it, more than before", (at_rest[1] - at_rest[0]) / 1024, "MiB", "<= 1"),
        Row("ssdp", "misbehaving: after a second time, more than after the first", (at_rest[2] - at_rest[1]) / 1024,
            "MiB", "<= 1"),
    ]


def _ratio(ours, theirs):
    complete = ours.complete.is_set() and theirs.complete.is_set()
    return ours.last / theirs.last if complete else None


def _last(arrivals):
    return arrivals.last if arrivals.complete.is_set() else None


def _after(announced, fetched):
    return fetched.last - announced.last if fetched.complete.is_set() else None


def _text(arrivals):
    last = f"{arrivals.last:.2f} s" if arrivals.seconds else "never"
    return f"{arrivals.found} of {arrivals.count}, the last at {last}"
