"""What the daemon has written to (private dirty), at rest and with the connections to a crowd, and what of it is whose.

The figure counts every page that is the process's own, heap that was freed and not given back included. What one
connection takes is counted by bench-connections, what a row and an mDNS entry take by bench-rows.
"""
import time

from . import counters, machine
from .discovery import LARGE_NETWORK, RECEIVE_BUFFER, Course, service_once
from .figures import Row
from .world import World

_SETTLE_SECONDS = 3
_SETTINGS = {machine.RECEIVE_BUFFER: RECEIVE_BUFFER, machine.NEIGHBOURS_SOFT: 8192, machine.NEIGHBOURS_HARD: 16384}


def run(options, say):
    counts = options.count or ([500] if options.quick else [100, 500, 1000])
    limits = {500: "<= 16"}
    rest = _measure(options, 0)
    say(f"memory at rest: service {rest[0]} KiB, gateway {rest[1]} KiB")
    rows = [Row("memory", "service at rest", rest[0] / 1024, "MiB", "<= 8")]
    for count in counts:
        service, gateway, found = _measure(options, count)
        say(f"memory with {count}: service {service} KiB, gateway {gateway} KiB, {found} ONLINE")
        rows += [
            Row("memory", f"service with {count:,}", service / 1024 if found == count else None, "MiB",
                limits.get(count, "")),
            Row("memory", f"service, for each of {count:,}", (service - rest[0]) / count, "KiB"),
            Row("memory", f"gateway, for each of {count:,}", (gateway - rest[1]) / count, "KiB"),
        ]
    return rows


def _measure(options, count):
    """KiB of the service, of the gateway, and how many were ONLINE."""
    with machine.raised(_SETTINGS if count else {}), \
            World(options.bin_dir, count, avahi=LARGE_NETWORK, log_dir=options.logs) as world:
        found = service_once(world, Course(count, str(count), 1, 60), settled=True).published.found
        time.sleep(_SETTLE_SECONDS)  # what was freed last has gone back, where it goes back at all
        return (counters.private_dirty(world.product.pid("service")),
                counters.private_dirty(world.product.pid("gateway")), found)
