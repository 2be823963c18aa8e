"""What the daemon has written to (private dirty): at rest, and with the connections to a crowd.

The figure counts every page that is the process's own, freed heap that was not given back included. It is read when
all products are ONLINE and three seconds have passed; the peak before that is the kernel's high-water mark of what
was resident, shared pages of libraries included.
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
    os.sync()  # pages of a program that was just built count as dirty until the kernel has written them
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
    """In KiB, and how many were ONLINE."""
    with machine.raised(_SETTINGS if count else {}), \
            World(options.bin_dir, count, avahi=LARGE_NETWORK, log_dir=options.logs) as world:
        found = service_once(world, Course(count, str(count), 1, 60), settled=True).published.found
        time.sleep(_SETTLE_SECONDS)
        service = world.product.pid("service")
        return {"service": counters.private_dirty(service), "peak": counters.peak_resident(service),
                "gateway": counters.private_dirty(world.product.pid("gateway")), "found": found}
