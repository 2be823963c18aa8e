"""The laboratory as a whole: what the command line and the system tests drive."""
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
from .product import PROGRAMS, Product, Surroundings, check_programs, guid_of
from .reactor import Reactor
from .table import Tables, describe_missing
from .watch import Watch

BIN_DIR = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../../build/release/bin"))

_ROOMS = ("kitchen", "bedroom", "office", "bath", "garage", "attic", "library", "studio", "hall", "porch", "cellar",
          "workshop")
_FIRST_ADDRESS = 11
_MOST_PRODUCTS = 100
_MOST_GUESTS = 12  # beyond this, products that speak SSDP alone are counted with the crowd


class Lab:
    """Products on a network of their own.

    with Lab(products=3) as lab:
        lab.wait_until(lambda tables: not tables.missing(), 60)
        lab.kill("kitchen")
        lab.wait_until(lambda tables: tables.offline("kitchen", ["bedroom", "office"]), 10)

    Its operations are for one thread of the caller's. `on_change(seconds, text)` is called from a thread of the
    laboratory's with each change. `programs` leaves out what a test does not need. `mute` products have no mDNS record
    and are found by SSDP alone. `crowd` simulated products and `ssdp` more, which speak SSDP alone, are listed by the
    real ones, but list nobody.
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
        """One product on the machine's own network, with the machine's own mDNS daemon."""
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
        """Makes the network and starts every program; none is waited for but the buses."""
        check_programs(self._bin_dir, self._programs, lan=self._lan_interface is not None,
                       more=[CROWD_PROGRAM] * bool(self._crowd_size) + [DEVICES_PROGRAM] * bool(self._ssdp))
        try:
            self._open()
        except BaseException:
            self.close()
            raise

    def close(self):
        """Ends all of it; nothing is left running. May be called twice."""
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

    # ---- what the products say -----------------------------------------------------------------------------------

    @property
    def seconds(self):
        """Since the start of the programs."""
        return time.monotonic() - self._started

    def wait_until(self, condition, timeout, what="the state waited for"):
        """Waits for condition(tables), tried at each change; the seconds that it took. Raises LabTimeout."""
        begin = time.monotonic()
        with self._changed:
            if not self._changed.wait_for(lambda: condition(self._tables), timeout):
                lacking = describe_missing(self._tables.missing())
                raise LabTimeout(f"{what}: not within {timeout:g} s" + (f"; {lacking}" if lacking else "")
                                 + "".join(f"; {death}" for death in self._deaths))
        return time.monotonic() - begin

    def wait_change(self, timeout):
        """Waits for the next change of anything, or for the time; False where that was over first."""
        with self._changed:
            return self._changed.wait(timeout)

    def look(self, question):
        """question(tables), asked while nothing changes."""
        with self._changed:
            return question(self._tables)

    def table(self, name):
        """What a product lists: name (or guid, where it is none of the laboratory's) -> Row."""
        return self.look(lambda tables: tables.rows(self.product(name).name))

    @property
    def deaths(self):
        """One line for each program that ended by itself."""
        with self._changed:
            return list(self._deaths)

    # ---- what is done to them ------------------------------------------------------------------------------------

    def product(self, name):
        """By its name, or by the name that people see."""
        for candidate in self._products.values():
            if name.lower() in (candidate.name, candidate.spoken_name.lower()):
                return candidate
        raise LabError(f"no product \"{name}\"; there are {', '.join(self._products)}")

    @property
    def products(self):
        return list(self._products.values())

    def kill(self, name, program=None):
        """Signal 9 to one program of a product, or to its service and its gateway. Returns when it has gone."""
        product = self.product(name)
        for each in [program] if program else ["service", "gateway"]:
            if program is None and not product.pid(each):
                continue
            product.kill(each)
            self._program_ended(product, each)
            self._note(f"{product.name}: {each} killed")

    def start(self, name, program=None):
        """Starts what was killed: one program, or all that do not run."""
        product = self.product(name)
        for each in [program] if program else [p for p in self._programs_of(product) if not product.pid(p)]:
            self._start(product, each)
            self._note(f"{product.name}: {each} started")

    def link_down(self, name):
        """Pulls the product's cable."""
        self._carrier(self.product(name), False)

    def link_up(self, name):
        self._carrier(self.product(name), True)

    def remove_link(self, name):
        """Takes the product's interface away."""
        self._namespace_of(self.product(name)).ip("link del eth0")
        self._note(f"{name}: interface removed")

    def make_link(self, name):
        """Gives it a new one, with the address that it had at the start."""
        product = self.product(name)
        self._bridge.plug(self._numbers[product.name], self._namespace_of(product))
        self._note(f"{name}: interface made again")

    def cut(self, name, seconds):
        """Pulls the product's cable for a time; returns at once."""
        product = self.product(name)
        self._carrier(product, False)
        self._reactor.call_later(seconds, lambda: self._carrier(product, True))

    def change_address(self, name):
        """Gives the product another address, as a new lease would, and returns it."""
        product = self.product(name)
        self._next_address += 1
        new = namespaces.address(self._next_address)
        namespaces.change_address(self._namespace_of(product), new)
        self._note(f"{product.name}: address changed to {new}")
        return new

    def rename(self, name, new):
        """Starts the product's hub service again with another name."""
        product = self.product(name)
        product.kill("hub")
        product.spoken_name = new
        self._start(product, "hub")
        self._note(f"{product.name}: renamed to \"{new}\"")

    def start_crowd(self, count, **options):
        """Brings simulated products onto the network, once in a laboratory's life; returns when all of them listen.
        What they can be told afterwards is `crowd`'s. Options as of Crowd.start.
        """
        self.crowd = Crowd(count)
        with self._changed:
            self._tables.add_crowd(self.crowd.guids)
        self.crowd.start(self._around, self._bridge, **options)
        self._note(f"a crowd of {count} started")

    def start_devices(self, kinds, *, listed=False, **options):
        """Brings UPnP devices onto the network, one for each kind (`upnp-devices --help` has them), on a host of their
        own; returns them when all listen. With `listed`, all products are expected to list them, which have to be of
        the family. Options as of Devices.on_host.
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
        """From now on the product speaks SSDP too, from its own address and with its own guid; returns the device."""
        product = self.product(name)
        device = Devices.at_product(product, self._namespace_of(product).addresses()[0][0], self._around)
        self._devices.append(device)
        self._note(f"{product.name}: UPnP device started")
        return device

    def watch_lines(self, pipe, on_line):
        """Calls on_line(bytes) from a thread of the laboratory's for each line of a pipe until its end, then closes it."""
        self._reactor.watch_lines(pipe, on_line)

    def run(self, name, command, **options):
        """Runs a command in a product to its end; options and result as of subprocess.run, output as text."""
        return self.product(name).run(command, **options)

    def portico(self, name, *arguments, **options):
        """The same for `portico`."""
        return self.run(name, ["portico", *arguments], **options)

    def get(self, name, path):
        """What a path of a product answers, as a record."""
        result = self.portico(name, "get", path, timeout=20)
        if result.returncode != 0:
            raise LabError(f"{name}: portico get {path}: {result.stderr.strip()}")
        return json.loads(result.stdout)

    def handle(self, command):
        """A command of the control socket."""
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
        self._around = around = Surroundings(self._ledger, self._reactor, self._bin_dir, self._make_log_dir(), self._log_levels,
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
                Watch(product, "/sonarix/products", self._reactor, partial(self._heard_list, product)),
                Watch(product, "/sonarix/info", self._reactor, partial(self._heard_info, product))]

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
            raise LabError("the machine's own network is not the laboratory's to cut")
        self._bridge.set_carrier(number, up)
        self._note(f"{product.name}: link {'up' if up else 'down'}")

    def _namespace_of(self, product):
        if not product.namespace:
            raise LabError("the machine's own network is not the laboratory's to change")
        return product.namespace

    def _heard_list(self, product, record, fresh):
        with self._changed:
            if not fresh():
                return
            self._tables.set_list(product.name, record.get("products", []))
            self._changed.notify_all()

    def _heard_info(self, product, record, fresh):
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
