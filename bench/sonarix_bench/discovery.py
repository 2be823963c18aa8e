"""Measures how fast a product lists all products, compared with `avahi-browse` of the same type in the same namespace.

Both start with a new mDNS daemon with an empty cache and a silent crowd. Time starts with the measured process; for the
service, gateway and network are up. It ends for the service when a subscriber receives the list in which the product is
ONLINE: resolved, connected, and answered by the product itself. It ends for avahi-browse with the resolved line.
"""
import os
import re
import subprocess
import threading
import time
from dataclasses import dataclass, field
from datetime import datetime

from . import counters, machine
from .figures import Row
from .world import CROWD_GUID, CROWD_NAME, Reader, World

TYPE = "_kova-lanyard._tcp"
RECEIVE_BUFFER = 4 << 20
#: Settings of the mDNS daemon for more than about 1,000 products.
LARGE_NETWORK = ("cache-entries-max=20000", "objects-per-client-max=8192")


@dataclass
class Arrivals:
    """Times at which products were found."""
    count: int
    seconds: list = field(default_factory=list)  # time of the first, second, ... product
    complete: threading.Event = field(default_factory=threading.Event)

    def __post_init__(self):
        self.reached(0, 0)

    def reached(self, found, seconds):
        self.seconds += [seconds] * (found - len(self.seconds))
        if len(self.seconds) >= self.count:
            self.complete.set()

    @property
    def found(self):
        return len(self.seconds)

    @property
    def first(self):
        return self.seconds[0] if self.seconds else None

    @property
    def median(self):
        middle = (self.count - 1) // 2
        return self.seconds[middle] if len(self.seconds) > middle else None

    @property
    def last(self):
        return self.seconds[-1] if self.seconds else None


@dataclass
class ServiceRun:
    published: Arrivals
    lists: int = 0          # number of received lists
    mebibytes: float = 0.0  # size of all lists
    table: Arrivals = None  # times in the service's own table, from its log
    cpu: dict = None        # program -> CPU seconds until the last product was found


@dataclass(frozen=True)
class Course:
    count: int
    label: str
    runs: int
    seconds: float                # time limit; later products count as lost
    settings: dict = field(default_factory=dict)
    avahi: tuple = ()
    limits: dict = field(default_factory=dict)


def courses(options):
    buffer = {machine.RECEIVE_BUFFER: RECEIVE_BUFFER}
    small = {"ratio": "<= 1.5", "found": ">= 1"}
    in_time = {"last": "<= 3", "share": ">= 1"}
    every = [
        Course(10, "10", 5, 30, limits=small),
        Course(100, "100", 5, 30, limits=small),
        Course(500, "500", 3, 30, limits={"ratio": "<= 1", "found": ">= 1"}),
        Course(500, "500, 4 MiB buffer", 3, 30, buffer, limits=in_time),
        Course(1500, "1,500, all raised", 5, 60, buffer, LARGE_NETWORK, {"share": ">= 1"}),
    ]
    if options.count:
        every = [course for course in every if course.count in options.count] or [
            Course(count, str(count), 3, 30) for count in options.count]
    elif options.quick:
        every = [course for course in every if course.count <= 100 or course.label.startswith("500,")]
    return every


def run(options, say):
    rows = []
    for course in courses(options):
        runs = options.runs or (1 if options.quick else course.runs)
        with machine.raised(course.settings), \
                World(options.bin_dir, course.count, avahi=course.avahi, log_dir=options.logs) as world:
            pairs = []
            for number in range(runs):
                browse = browse_once(world, course)
                service = service_once(world, course)
                say(f"discovery {course.label}, run {number + 1} of {runs}: avahi-browse {_text(browse)}; "
                    f"service {_text(service.published)}, in its table {_text(service.table)}, {service.lists} lists of "
                    f"{service.mebibytes:.1f} MiB in all; "
                    + ", ".join(f"{name} {seconds:.2f} s" for name, seconds in service.cpu.items()) + " of processor")
                pairs.append((browse, service))
            if world.deaths:
                raise RuntimeError("; ".join(world.deaths))
        rows += _rows(course, pairs)
    return rows


def browse_once(world, course):
    world.start_cold()
    arrivals, names = Arrivals(course.count), set()

    def line_came(seconds, line):
        fields = line.split(b";")
        if fields[0] == b"=" and fields[2] == b"IPv4" and fields[3].startswith(CROWD_NAME.encode()):
            names.add(fields[3])
            arrivals.reached(len(names), seconds)

    begin = time.monotonic()
    process = world.product.popen(["stdbuf", "-oL", "avahi-browse", "-rp", TYPE], stdout=subprocess.PIPE)
    reader = Reader(process, begin, line_came)
    arrivals.complete.wait(course.seconds)
    reader.stop()
    return arrivals


def service_once(world, course, settled=False):
    """`settled`: also waits until the product lists itself, which follows its announcement."""
    world.start_cold("gateway", "network", "hub")
    published = Arrivals(course.count)
    run_ = ServiceRun(published)
    own = f'"guid":"{world.product.guid}"'.encode()

    self_listed = threading.Event()

    def list_came(seconds, line):
        run_.lists += 1
        run_.mebibytes += len(line) / (1 << 20)
        online, is_own = _online(line, own)
        published.reached(online - is_own, seconds)
        if is_own:
            self_listed.set()

    log_begin = os.path.getsize(world.log("service")) if os.path.exists(world.log("service")) else 0
    before = {program: counters.cpu_seconds(world.product.pid(program)) for program in ("avahi", "gateway")}
    watch = world.watch()
    begin, begin_clock = time.monotonic(), time.time()
    reader = Reader(watch, begin, list_came)
    world.product.start("service")
    published.complete.wait(course.seconds)
    after = {program: counters.cpu_seconds(world.product.pid(program)) for program in ("service", "avahi", "gateway")}
    if settled:
        self_listed.wait(course.seconds)
    reader.stop()
    run_.cpu = {program: seconds - before.get(program, 0) for program, seconds in after.items()}
    run_.table = _table_of_log(world.log("service"), log_begin, begin_clock, course.count)
    return run_


def _online(line, own_guid):
    """The number of ONLINE rows of a list, and 1 if the product itself is one of them. Counts in the text, because
    parsing large lists would need more CPU time than the measured programs."""
    state = b'"state":"ONLINE"'
    at = line.find(own_guid)
    own = line.rfind(b'"state":', 0, at) if at >= 0 else -1
    return line.count(state), int(own >= 0 and line.startswith(state, own))


def _table_of_log(path, offset, begin_clock, count):
    """Times from the service's log, which has a line per product response before the list is published."""
    arrivals, seen = Arrivals(count), set()
    with open(path, "rb") as file:
        file.seek(offset)
        for line in file:
            match = re.match(rb"(\S+) 3 DiscoveryServiceAggregator: HandleRemoteProductInfo: guid (\S+)", line)
            if match and match[2].startswith(CROWD_GUID.encode()) and match[2] not in seen:
                seen.add(match[2])
                arrivals.reached(len(seen), datetime.fromisoformat(match[1].decode()).timestamp() - begin_clock)
    return arrivals


def _rows(course, pairs):
    browses = [browse for browse, _ in pairs]
    services = [service for _, service in pairs]
    published = [service.published for service in services]

    def row(name, samples, unit="", limit=None):
        return Row.of("discovery", f"{course.label}: {name}", samples, unit, course.limits.get(limit, ""))

    rows = [
        row("last ONLINE / last of avahi-browse", [_ratio(service.last, browse.last)
                                                   for service, browse in zip(published, browses)], "", "ratio"),
        row("found / found by avahi-browse", [_ratio(service.found, browse.found)
                                              for service, browse in zip(published, browses)], "", "found"),
        row("found / there", [service.found / course.count for service in published], "", "share"),
    ]
    for name in ("first", "median", "last"):
        rows.append(row(f"{name} ONLINE", [getattr(service, name) for service in published], "s",
                        "last" if name == "last" else None))
    rows.append(row("last ONLINE in the service's own table", [service.table.last for service in services], "s"))
    for name in ("first", "median", "last"):
        rows.append(row(f"{name} of avahi-browse", [getattr(browse, name) for browse in browses], "s"))
    rows.append(row("found by avahi-browse / there", [browse.found / course.count for browse in browses]))
    for program in ("service", "avahi", "gateway"):
        rows.append(row(f"processor time of the {'mDNS daemon' if program == 'avahi' else program}",
                        [service.cpu[program] for service in services], "s"))
    rows.append(row("lists published", [service.lists for service in services], "lists"))
    return rows


def _ratio(ours, theirs):
    return ours / theirs if ours is not None and theirs else None


def _text(arrivals):
    last = f"{arrivals.last:.2f} s" if arrivals.seconds else "never"
    return f"{arrivals.found} of {arrivals.count}, the last at {last}"
