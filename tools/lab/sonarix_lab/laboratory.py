"""The laboratory: the interface of the command line and the system tests."""
import json
import os
import shutil
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from functools import partial

from . import namespaces
from .certificates import Authority
from .control import ControlServer
from .crowd import PROGRAM as CROWD_PROGRAM, Crowd
from .devices import PROGRAM as DEVICES_PROGRAM, Devices
from .errors import LabError, LabTimeout
from .ledger import DEFAULT_FOLDER, Ledger
from .product import PROGRAMS, Product, LabContext, check_programs, guid_of
from .reactor import Reactor
from .table import Tables, describe_missing
from .watch import Watch

BIN_DIR = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../../build/release/bin"))

_ROOMS = ("kitchen", "bedroom", "office", "bath", "garage", "attic", "library", "studio", "hall", "porch", "cellar",
          "workshop")
_FIRST_ADDRESS = 11
_MOST_PRODUCTS = 100
_MOST_GUESTS = 12  # above this, products that use only SSDP are shown with the crowd as a count


class Lab:
    """Products on a separate network.

    with Lab(products=3) as lab:
        lab.wait_until(lambda tables: not tables.missing(), 60)
        lab.kill("kitchen")
        lab.wait_until(lambda tables: tables.offline("kitchen", ["bedroom", "office"]), 10)

    All methods must be called from one thread. `on_change(seconds, text)` is called from the laboratory's threads at
    each change. `programs` limits the programs that run. `mute` products have no mDNS record and are found by SSDP only.
    `crowd` and `ssdp` are numbers of simulated products, the latter with SSDP only. The real products list them; they
    list no products.
    """

    def __init__(self, products=3, accessories=0, strangers=0, crowd=0, ssdp=0, mute=0, *, bin_dir=BIN_DIR,
                 state_dir=DEFAULT_FOLDER, log_dir=None, log_levels="3", programs=PROGRAMS, on_change=None):
        if products + mute + accessories + strangers > _MOST_PRODUCTS:
            raise LabError(f"has room for {_MOST_PRODUCTS} products")
        self._plan = ([(self._room(i), "host") for i in range(products)]
                      + [(self._room(i), "mute") for i in range(products, products + mute)]
                      + [(f"accessory-{i + 1}", "accessory") for i in range(accessories)]
                      + [(f"stranger-{i + 1}", "stranger") for i in range(strangers)])
        self._crowd_size = crowd
        self._ssdp = ssdp
        self._bin_dir = os.path.abspath(bin_dir)
        self._state_dir = state_dir
        self._log_dir = log_dir
        self._log_levels = log_levels
        self._programs = programs
        self._lan_interface = None
        self._begin(on_change)

    @classmethod
    def on_lan(cls, name, guid, interface, **options):
        """One product on the machine's network, with the machine's mDNS daemon."""
        lab = cls(products=0, **options)
        lab._lan_interface = interface
        lab._lan_identity = (name, guid)
        return lab

    # ---- life ----------------------------------------------------------------------------------------------------

    def __enter__(self):
        self.open()
        return self

    def __exit__(self, *_):
        self.close()

    def open(self):
        """Creates the network and starts every program. Waits only for the buses."""
        check_programs(self._bin_dir, self._programs, lan=self._lan_interface is not None,
                       more=[CROWD_PROGRAM] * bool(self._crowd_size) + [DEVICES_PROGRAM] * bool(self._ssdp))
        try:
            self._open()
        except BaseException:
            self.close()
            raise

    def close(self):
        """Ends all processes and removes the network. May be called twice."""
        if self._control:
            self._control.stop()
            self._control = None
        self._closing = True
        for watches in self._watches.values():
            for watch in watches:
                watch.stop()
        self._watches = {}
        if self._ledger:
            self._ledger.kill_all()
        if self.crowd:
            self.crowd.close()
            self.crowd = None
        for devices in self._devices:
            devices.close()
        self._devices = []
        if self._reactor:
            self._reactor.stop()
            self._reactor = None
        for namespace in self._namespaces:
            namespace.close()
        self._namespaces = []
        if self._ledger:
            self._ledger.close()
            self._ledger = None
        if self._scratch:
            shutil.rmtree(self._scratch, ignore_errors=True)
            self._scratch = None

    # ---- state of the products -----------------------------------------------------------------------------------

    @property
    def seconds(self):
        """Seconds since the start of the programs."""
        return time.monotonic() - self._started

    def wait_until(self, condition, timeout, what="the state waited for"):
        """Waits for condition(tables), which is tested at each change. Returns the seconds. Raises LabTimeout."""
        begin = time.monotonic()
        with self._changed:
            if not self._changed.wait_for(lambda: condition(self._tables), timeout):
                lacking = describe_missing(self._tables.missing())
                raise LabTimeout(f"{what}: not within {timeout:g} s" + (f"; {lacking}" if lacking else "")
                                 + "".join(f"; {death}" for death in self._deaths))
        return time.monotonic() - begin

    def wait_change(self, timeout):
        """Waits for the next change. Returns False after the timeout."""
        with self._changed:
            return self._changed.wait(timeout)

    def look(self, question):
        """Returns question(tables), called under the lock."""
        with self._changed:
            return question(self._tables)

    def table(self, name):
        """The list of a product: name (guid for products outside the laboratory) -> Row."""
        return self.look(lambda tables: tables.rows(self.product(name).name))

    @property
    def deaths(self):
        """One line for each program that ended unexpectedly."""
        with self._changed:
            return list(self._deaths)

    # ---- actions -------------------------------------------------------------------------------------------------

    def product(self, name):
        """The product with that name or friendly name."""
        for candidate in self._products.values():
            if name.lower() in (candidate.name, candidate.spoken_name.lower()):
                return candidate
        raise LabError(f"no product \"{name}\"; there are {', '.join(self._products)}")

    @property
    def products(self):
        return list(self._products.values())

    def kill(self, name, program=None):
        """Kills one program of a product, or its service and gateway, with signal 9. Waits for the end."""
        product = self.product(name)
        for each in [program] if program else ["service", "gateway"]:
            if program is None and not product.pid(each):
                continue
            product.kill(each)
            self._program_ended(product, each)
            self._note(f"{product.name}: {each} killed")

    def start(self, name, program=None):
        """Starts one program, or all programs that do not run."""
        product = self.product(name)
        for each in [program] if program else [p for p in self._programs_of(product) if not product.pid(p)]:
            self._start(product, each)
            self._note(f"{product.name}: {each} started")

    def link_down(self, name):
        """Disconnects the product, like a pulled cable."""
        self._carrier(self.product(name), False)

    def link_up(self, name):
        self._carrier(self.product(name), True)

    def remove_link(self, name):
        """Removes the product's interface."""
        self._namespace_of(self.product(name)).ip("link del eth0")
        self._note(f"{name}: interface removed")

    def make_link(self, name):
        """Creates a new interface with the product's first address."""
        product = self.product(name)
        self._bridge.plug(self._numbers[product.name], self._namespace_of(product))
        self._note(f"{name}: interface made again")

    def cut(self, name, seconds):
        """Disconnects the product for a time. Returns immediately."""
        product = self.product(name)
        self._carrier(product, False)
        self._reactor.call_later(seconds, lambda: self._carrier(product, True))

    def change_address(self, name):
        """Changes the product's address, like a new DHCP lease. Returns the address."""
        product = self.product(name)
        self._next_address += 1
        new = namespaces.address(self._next_address)
        namespaces.change_address(self._namespace_of(product), new)
        self._note(f"{product.name}: address changed to {new}")
        return new

    def rename(self, name, new):
        """Restarts the product's hub service with another name."""
        product = self.product(name)
        product.kill("hub")
        product.spoken_name = new
        self._start(product, "hub")
        self._note(f"{product.name}: renamed to \"{new}\"")

    def start_crowd(self, count, **options):
        """Starts simulated products, at most once per laboratory. Returns when all of them listen. `crowd` controls them.
        Options as for Crowd.start.
        """
        self.crowd = Crowd(count)
        with self._changed:
            self._tables.add_crowd(self.crowd.guids)
        self.crowd.start(self._around, self._bridge, **options)
        self._note(f"a crowd of {count} started")

    def start_devices(self, kinds, *, listed=False, **options):
        """Starts UPnP devices on a separate host, one per kind (see `upnp-devices --help`). Returns them when all listen.
        With `listed`, they must be of the family, and all products are expected to list them. Options as for
        Devices.on_host.
        """
        index = sum(1 for devices in self._devices if devices.has_host)
        devices = Devices.on_host(index, list(kinds), self._around, self._bridge, **options)
        self._devices.append(devices)
        if listed:
            with self._changed:
                if len(devices) > _MOST_GUESTS:
                    self._tables.add_crowd(devices.guids)
                else:
                    for guid in devices.guids:
                        self._tables.add_guest(f"ssdp-{len(self._tables.guests) + 1}", guid)
        self._note(f"{len(devices)} UPnP devices started")
        return devices

    def start_device_of(self, name):
        """Adds a UPnP device with address and guid of the product. Returns the device."""
        product = self.product(name)
        device = Devices.at_product(product, self._namespace_of(product).addresses()[0][0], self._around)
        self._devices.append(device)
        self._note(f"{product.name}: UPnP device started")
        return device

    def watch_lines(self, pipe, on_line):
        """Calls on_line(bytes) from the laboratory's thread for each line of a pipe, and closes it at its end."""
        self._reactor.watch_lines(pipe, on_line)

    def run(self, name, command, **options):
        """Runs a command in a product and waits for it. Options and result as for subprocess.run, output as text."""
        return self.product(name).run(command, **options)

    def portico(self, name, *arguments, **options):
        """Like run(), for `portico`."""
        return self.run(name, ["portico", *arguments], **options)

    def get(self, name, path):
        """The record at a path of a product."""
        result = self.portico(name, "get", path, timeout=20)
        if result.returncode != 0:
            raise LabError(f"{name}: portico get {path}: {result.stderr.strip()}")
        return json.loads(result.stdout)

    def handle(self, command):
        """Executes a command of the control socket."""
        action, name = command["command"], command["product"]
        if action == "kill":
            self.kill(name)
        elif action == "start":
            self.start(name)
        elif action == "link-down":
            self.cut(name, float(command["seconds"]))
        else:
            raise LabError("no such command")

    # ---- inside --------------------------------------------------------------------------------------------------

    def _begin(self, on_change):
        self._changed = threading.Condition(threading.RLock())
        self._on_change = on_change
        self._started = time.monotonic()
        self._tables = Tables(lambda: self.seconds, self._note)
        self._deaths = []
        self._products = {}
        self._numbers = {}
        self._watches = {}
        self._namespaces = []
        self._next_address = 200
        self._closing = False
        self.crowd = None
        self._devices = []
        self._bridge = self._control = self._reactor = self._ledger = self._scratch = None

    def _open(self):
        self._ledger = Ledger(self._state_dir)
        self._reactor = Reactor()
        self._scratch = tempfile.mkdtemp(prefix="sonarix-lab-")
        self._around = around = LabContext(self._ledger, self._reactor, self._bin_dir, self._make_log_dir(), self._log_levels,
                                             self._died)
        authority = Authority(os.path.join(self._scratch, "ca"))
        if self._lan_interface:
            self._add_lan_product(around)
        else:
            self._bridge = namespaces.Bridge(self._ledger)
            self._namespaces.append(self._bridge)
            for number, (name, kind) in enumerate(self._plan, _FIRST_ADDRESS):
                self._add_product(around, number, name, kind)
        with ThreadPoolExecutor(2) as pool:
            list(pool.map(lambda product: product.write_files(authority), self._products.values()))
        self._control = ControlServer(self._ledger.control_socket, self.handle)

        self._started = time.monotonic()
        for product in self._products.values():
            for program in self._programs_of(product):
                self._start(product, program)
        if self._crowd_size:
            self.start_crowd(self._crowd_size)
        for product in self._products.values():
            if product.mute:
                self.start_device_of(product.name)
        if self._ssdp:
            self.start_devices(["product"] * self._ssdp, listed=True)

    def _add_product(self, around, number, name, kind):
        namespace = namespaces.Namespace(self._ledger, name)
        self._namespaces.append(namespace)
        self._bridge.plug(number, namespace)
        product = Product(name, guid_of(name), namespace, around, accessory=kind == "accessory")
        product.mute = kind == "mute"
        product.stranger = kind == "stranger"
        self._register(product, number)

    def _add_lan_product(self, around):
        name, guid = self._lan_identity
        product = Product(name, guid, None, around, files=os.path.join(self._scratch, "product"),
                          interface=self._lan_interface)
        self._register(product, None)

    def _register(self, product, number):
        self._products[product.name] = product
        self._numbers[product.name] = number
        self._ledger.record_product(product.name, product.namespace.pid if product.namespace else None,
                                    product.environment)
        if product.stranger:
            return
        self._tables.add(product.name, product.guid, product.accessory)
        if "gateway" in self._programs and "service" in self._programs:
            self._watches[product.name] = [
                Watch(product, "/sonarix/products", self._reactor, partial(self._list_received, product)),
                Watch(product, "/sonarix/info", self._reactor, partial(self._info_received, product))]

    def _programs_of(self, product):
        wanted = ("dbus", "avahi") if product.stranger else self._programs
        return [program for program in product.programs() if program in wanted]

    def _start(self, product, program):
        product.start(program)
        if program in ("gateway", "service"):
            for watch in self._watches.get(product.name, []):
                watch.start()

    def _program_ended(self, product, program):
        if program not in ("gateway", "service"):
            return
        with self._changed:
            for watch in self._watches.get(product.name, []):
                watch.stop()
            self._tables.clear(product.name)

    def _died(self, product, program, text):
        if self._closing:
            return
        self._program_ended(product, program)
        with self._changed:
            self._deaths.append(text)
            self._note(text)

    def _carrier(self, product, up):
        number = self._numbers[product.name]
        if number is None:
            raise LabError("cannot disconnect the machine's own network")
        self._bridge.set_carrier(number, up)
        self._note(f"{product.name}: link {'up' if up else 'down'}")

    def _namespace_of(self, product):
        if not product.namespace:
            raise LabError("cannot change the machine's own network")
        return product.namespace

    def _list_received(self, product, record, fresh):
        with self._changed:
            if not fresh():
                return
            self._tables.set_list(product.name, record.get("products", []))
            self._changed.notify_all()

    def _info_received(self, product, record, fresh):
        with self._changed:
            if not fresh():
                return
            self._tables.set_own(product.name, record)
            self._changed.notify_all()

    def _note(self, text):
        with self._changed:
            if self._on_change:
                self._on_change(self.seconds, text)
            self._changed.notify_all()

    def _make_log_dir(self):
        folder = os.path.abspath(self._log_dir) if self._log_dir else os.path.join(self._scratch, "logs")
        try:
            os.makedirs(folder, exist_ok=True)
            for name in os.listdir(folder):
                if name.endswith(".log"):
                    os.unlink(os.path.join(folder, name))
        except OSError as error:
            raise LabError(f"can't write logs to {folder}: {error.strerror}") from error
        return folder

    @staticmethod
    def _room(index):
        return _ROOMS[index] if index < len(_ROOMS) else f"room-{index + 1}"
