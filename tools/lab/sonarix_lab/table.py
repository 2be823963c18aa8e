"""The lists and the own information of each product, with the times of changes."""
from dataclasses import dataclass, replace

ONLINE = "ONLINE"
OFFLINE = "OFFLINE"


@dataclass(frozen=True)
class Row:
    """One row in a product's list."""
    state: str
    name: str = ""
    address: str = ""
    protocols: tuple = ()
    record: dict = None

    @staticmethod
    def of(product):
        info = product.get("productinfo", {})
        return Row(product.get("state", "INVALID"), info.get("friendlyname", ""), info.get("ipaddress", ""),
                   tuple(product.get("protocols", ())), product)

    def shown(self):
        """The displayed fields. Only their changes count as changes of the row."""
        return (self.state, self.name, self.address, self.protocols)


@dataclass(frozen=True)
class Own:
    """A product's own information."""
    mode: str = ""
    name: str = ""
    address: str = ""
    record: dict = None

    @staticmethod
    def of(info):
        return Own(info.get("configurations", {}).get("currentProductMode", ""), info.get("friendlyname", ""),
                   info.get("ipaddress", ""), info)

    def shown(self):
        return (self.mode, self.name, self.address)


class Tables:
    """The lists of all products, by name of the listing product ("observer"). The laboratory does the locking.

    `on_change(text)` is called at each change. `clock()` returns the seconds since the laboratory's start.
    """

    def __init__(self, clock, on_change):
        self._clock = clock
        self._on_change = on_change
        self._names = {}   # guid -> product
        self._guids = {}   # product -> guid
        self._crowd = {}   # guids of simulated products, in order
        self._reported_tenths = {}    # observer -> last reported tenths of the crowd that are ONLINE
        self._hosts = []
        self._guests = []  # names of simulated products with their own row
        self._members = []
        self._own = {}     # product -> Own
        self._rows = {}    # product -> {guid: Row}
        self._since = {}   # (product, guid) -> seconds

    def add(self, name, guid, accessory):
        self._names[guid] = name
        self._guids[name] = guid
        self._members.append(name)
        if not accessory:
            self._hosts.append(name)
        self._own[name] = Own()
        self._rows[name] = {}

    def add_guest(self, name, guid):
        """A product that counts, but has no table of its own."""
        self._names[guid] = name
        self._guids[name] = guid
        self._guests.append(name)

    @property
    def guests(self):
        return list(self._guests)

    def add_crowd(self, guids):
        """Adds many simulated products, which are shown as a count only."""
        self._crowd.update(dict.fromkeys(guids))

    @property
    def crowd(self):
        return list(self._crowd)

    def crowd_online(self, observer):
        """How many of the crowd the observer lists as ONLINE."""
        rows = self._rows[observer]
        return sum(1 for guid in self._crowd if guid in rows and rows[guid].state == ONLINE)

    @property
    def members(self):
        return list(self._members)

    def own(self, name):
        return self._own[name]

    def rows(self, observer):
        """Name (guid for products outside the laboratory) -> Row."""
        return {self._names.get(guid, guid): row for guid, row in self._rows[observer].items()}

    def row(self, observer, target):
        """The row of `target`, a product or a guid, in the list of `observer`, or None."""
        return self._rows[observer].get(self._guids.get(target, target))

    def state(self, observer, target):
        row = self.row(observer, target)
        return row.state if row else None

    def since(self, observer, target):
        """Seconds from the laboratory's start to the row's last change, or None."""
        return self._since.get((observer, self._guids.get(target, target)))

    def set_list(self, observer, products):
        """Replaces the observer's list by the published one."""
        rows = {product.get("productinfo", {}).get("guid", ""): Row.of(product) for product in products}
        for guid in list(self._rows[observer]):
            if guid not in rows:
                self._drop(observer, guid)
        for guid, row in rows.items():
            old = self._rows[observer].get(guid)
            self._rows[observer][guid] = row
            if old is None or old.shown() != row.shown():
                self._since[(observer, guid)] = self._clock()
                self._report(observer, guid, row)
        self._report_crowd(observer)

    def set_own(self, name, info):
        own, old = Own.of(info), self._own[name]
        self._own[name] = own
        if own.shown() != old.shown():
            self._on_change(f"{name} says {own.mode or 'no mode'}  {own.address or 'no address'}  \"{own.name}\"")

    def clear(self, observer):
        """Clears the list and the own information of an observer that ended."""
        self._own[observer] = replace(Own(), name=self._own[observer].name)
        self._rows[observer] = {}
        self._report_crowd(observer)

    def missing(self):
        """List of (observer, target, state): a host, guest or crowd member that an observer does not list as ONLINE."""
        return [(observer, target, self.state(observer, target))
                for observer in self._members for target in [*self._hosts, *self._guests, *self._crowd]
                if observer != target and self.state(observer, target) != ONLINE]

    def online(self, target, observers=None):
        return all(self.state(observer, target) == ONLINE for observer in self._others(target, observers))

    def offline(self, target, observers=None):
        return all(self.state(observer, target) == OFFLINE for observer in self._others(target, observers))

    def _others(self, target, observers):
        return [name for name in (observers or self._members) if name != target]

    def _drop(self, observer, guid):
        del self._rows[observer][guid]
        self._since.pop((observer, guid), None)
        if guid not in self._crowd:
            self._on_change(f"{observer} no longer lists {self._names.get(guid, guid)}")

    def _report(self, observer, guid, row):
        if guid in self._crowd:
            return
        target = self._names.get(guid, guid or "a product with no guid")
        self._on_change(f"{observer} lists {target} as {row.state}  {row.address or 'no address'}  "
                        f"{'+'.join(row.protocols) or 'no protocol'}  \"{row.name}\"")

    def _report_crowd(self, observer):
        """Reports each tenth of the crowd, not each product."""
        if not self._crowd:
            return
        online = self.crowd_online(observer)
        tenths = 10 * online // len(self._crowd)
        if tenths != self._reported_tenths.get(observer, 0):
            self._reported_tenths[observer] = tenths
            self._on_change(f"{observer} lists {online}/{len(self._crowd)} of the crowd as ONLINE")


_MOST_NAMED = 5


def describe_missing(missing):
    """One line with the missing products per observer."""
    by_observer = {}
    for observer, target, state in missing:
        by_observer.setdefault(observer, []).append(f"{target} ({state or 'not listed'})")
    return "; ".join(f"{observer} lacks {', '.join(targets[:_MOST_NAMED])}"
                     + (f" and {len(targets) - _MOST_NAMED} more" if len(targets) > _MOST_NAMED else "")
                     for observer, targets in by_observer.items())
