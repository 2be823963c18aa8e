"""Measures the daemon's private dirty memory: idle, and with the connections to a crowd.

The figure includes freed heap that was not returned to the kernel. It is read three seconds after all products are
ONLINE. The peak is the kernel's maximum of resident memory, including shared pages of libraries.
"""
import os
import time

from . import counters, machine
from .discovery import LARGE_NETWORK, RECEIVE_BUFFER, Course, service_once
from .figures import Row
from .world import World

_SETTLE_SECONDS = 3
_LIMITS = {500: "<= 16"}
_SETTINGS = {machine.RECEIVE_BUFFER: RECEIVE_BUFFER}


def run(options, say):
    os.sync()  # file pages of a new binary count as dirty until they are written
    rest = _measure(options, 0)
    say(f"memory at rest: {rest}")
    rows = [Row("memory", "service at rest", rest["service"] / 1024, "MiB", "<= 8"),
            Row("memory", "service at rest, resident at the peak", rest["peak"] / 1024, "MiB")]
    for count in options.count or ([500] if options.quick else [100, 500, 1000]):
        many = _measure(options, count)
        say(f"memory with {count}: {many}")
        whole = many["found"] == count
        rows += [
            Row("memory", f"service with {count:,}", many["service"] / 1024 if whole else None, "MiB",
                _LIMITS.get(count, "")),
            Row("memory", f"service with {count:,}, resident at the peak", many["peak"] / 1024, "MiB"),
            Row("memory", f"service, for each of {count:,}", (many["service"] - rest["service"]) / count, "KiB"),
            Row("memory", f"gateway, for each of {count:,}", (many["gateway"] - rest["gateway"]) / count, "KiB"),
        ]
    return rows


def _measure(options, count):
    """Returns KiB and the number of ONLINE products."""
    with machine.raised(_SETTINGS if count else {}), \
            World(options.bin_dir, count, avahi=LARGE_NETWORK, log_dir=options.logs) as world:
        found = service_once(world, Course(count, str(count), 1, 60), settled=True).published.found
        time.sleep(_SETTLE_SECONDS)
        service = world.product.pid("service")
        return {"service": counters.private_dirty(service), "peak": counters.peak_resident(service),
                "gateway": counters.private_dirty(world.product.pid("gateway")), "found": found}
