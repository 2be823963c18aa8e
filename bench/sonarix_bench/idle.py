"""How often the daemon wakes while nothing happens: by itself, and for what others do.

A wake-up is the end of a voluntary context switch, summed over the daemon's threads. To tell the daemon's own from
what it is woken for, the product's gateway is stopped (SIGSTOP) for a minute: everything that other processes ask of
the daemon comes through it, but for the mDNS daemon's signals. Then it goes on, and the difference is what it causes.
SSDP ticks once a second and searches every 30 s, by design: what its threads do is held against that, all others'
against nothing.
"""
import os
import signal
import time

from . import counters
from .discovery import Course, service_once
from .figures import Row
from .world import World

#: The last request of the start has its answer, but its time limit of 15 s still has a timer.
_SETTLE_SECONDS = 18
#: What the threads of SSDP are called.
_SSDP = ("SsdpDiscovery", "GSSDPMainLoop")
#: Wake-ups of a search that nobody answers: its begin, three questions that the own socket hears too, its end.
_OF_A_SEARCH = 12


def run(options, say):
    seconds = 15 if options.quick else 60
    crowd = (options.count or [100])[0]
    alone, ssdp, alone_checked = _measure(options, say, seconds, "nobody there")
    among, _, among_checked = _measure(options, say, seconds, f"{crowd} products there", crowd=crowd)
    _, _, asked = _measure(options, say, seconds, "one whole product there", others=1)
    return [
        Row("idle", f"context switches of its own in {seconds} s but for SSDP, nobody there", alone, "", "<= 0"),
        Row("idle", f"context switches of its own in {seconds} s but for SSDP, {crowd} products listed", among, "",
            "<= 0"),
        Row("idle", f"wake-ups of SSDP in {seconds} s, nobody there", ssdp, "",
            f"<= {seconds + _OF_A_SEARCH * (seconds // 30 + 1)}"),
        Row("idle", "wake-ups a minute for the gateway, nobody there", alone_checked),
        Row("idle", f"wake-ups a minute for the gateway, for each of {crowd} listed products",
            (among_checked - alone_checked) / crowd),
        Row("idle", "wake-ups a minute for a whole product that checks this one", asked - alone_checked),
    ]


def _measure(options, say, seconds, what, crowd=0, others=0):
    """With the gateway stopped, switches of any kind but SSDP's, and SSDP's wake-ups; wake-ups a minute with it."""
    with World(options.bin_dir, crowd, others, log_dir=options.logs) as world:
        service_once(world, Course(crowd, what, 1, 60), settled=True)
        time.sleep(_SETTLE_SECONDS)
        gateway = world.product.pid("gateway")
        own = {}
        if not others:  # which would take this product for dead meanwhile
            os.kill(gateway, signal.SIGSTOP)
            time.sleep(1)  # what it had asked is answered
            own = _switches(world, seconds)
            os.kill(gateway, signal.SIGCONT)
            time.sleep(5)
        caused = _switches(world, seconds / 2)
    wakeups = sum(voluntary for thread, (voluntary, _) in caused.items() if not _is_ssdp(thread)) / (seconds / 2) * 60
    say(f"idle, {what}: of its own " + (_told(own) if not others else "not looked at")
        + f" in {seconds} s; with the gateway {_told(caused)} in {seconds / 2:g} s")
    return (sum(sum(counts) for thread, counts in own.items() if not _is_ssdp(thread)),
            sum(voluntary for thread, (voluntary, _) in own.items() if _is_ssdp(thread)), wakeups)


def _is_ssdp(thread):
    return thread[0].startswith(_SSDP)


def _switches(world, seconds):
    pid = world.product.pid("service")
    before = counters.switches(pid)
    time.sleep(seconds)
    return counters.switches_since(pid, before)


def _told(grown):
    return ", ".join(f"{name} {voluntary}+{involuntary}"
                     for (name, _), (voluntary, involuntary) in grown.items()) or "nothing"
