"""Counts how often the idle daemon wakes up by itself and because of other processes.

A wake-up is a voluntary context switch, summed over all threads. To separate the daemon's own wake-ups, the gateway is
stopped with SIGSTOP for a minute: all requests of other processes come through it, except signals of the mDNS daemon.
Then it continues, and the difference is caused by the gateway. SSDP is designed to wake once per second and to search
every 30 s, so its threads have a limit of that size; all other threads have the limit 0.
"""
import os
import signal
import time

from . import counters
from .discovery import Course, service_once
from .figures import Row
from .world import World

#: Longer than the timeout of 15 s of the last request of the start, whose timer still runs.
_SETTLE_SECONDS = 18
#: Names of the SSDP threads.
_SSDP = ("SsdpDiscovery", "GSSDPMainLoop")
#: Wake-ups of a search without responses: start, three requests that the own socket also receives, end.
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
    """Returns with the gateway stopped all switches without SSDP and SSDP's wake-ups, and with it wake-ups per minute."""
    with World(options.bin_dir, crowd, others, log_dir=options.logs) as world:
        service_once(world, Course(crowd, what, 1, 60), settled=True)
        time.sleep(_SETTLE_SECONDS)
        gateway = world.product.pid("gateway")
        own = {}
        if not others:  # other products would list this one as OFFLINE
            os.kill(gateway, signal.SIGSTOP)
            time.sleep(1)  # pending requests are answered
            own = _switches(world, seconds)
            os.kill(gateway, signal.SIGCONT)
            time.sleep(5)
        caused = _switches(world, seconds / 2)
    wakeups = sum(voluntary for thread, (voluntary, _) in caused.items() if not _is_ssdp(thread)) / (seconds / 2) * 60
    say(f"idle, {what}: of its own " + (_text(own) if not others else "not looked at")
        + f" in {seconds} s; with the gateway {_text(caused)} in {seconds / 2:g} s")
    return (sum(sum(counts) for thread, counts in own.items() if not _is_ssdp(thread)),
            sum(voluntary for thread, (voluntary, _) in own.items() if _is_ssdp(thread)), wakeups)


def _is_ssdp(thread):
    return thread[0].startswith(_SSDP)


def _switches(world, seconds):
    pid = world.product.pid("service")
    before = counters.switches(pid)
    time.sleep(seconds)
    return counters.switches_since(pid, before)


def _text(grown):
    return ", ".join(f"{name} {voluntary}+{involuntary}"
                     for (name, _), (voluntary, involuntary) in grown.items()) or "nothing"
