"""Simulated UPnP devices, many per process, controlled through standard input."""
import subprocess

from . import namespaces
from .errors import LabError
from .simulator import Simulator

PROGRAM = "upnp-devices"
DEVICES_A_HOST = 1000
_INDICES_A_HOST = 10000  # keeps the uuids of hosts distinct

#: Kinds of misbehaving devices; `upnp-devices --help` explains them.
MISBEHAVING = ("no-location", "empty-location", "long-location", "other-scheme", "loopback", "closed-port", "silent",
               "slow", "status-404", "status-500", "status-503", "redirect", "huge-body", "endless-body", "cut-xml",
               "deep-xml", "entity-xml", "latin1-xml", "utf16-xml", "nul-byte", "empty-body", "flapping")


def guid_of(index):
    return f"5d0e55d9-7a1c-4c5e-9b1d-{index:012x}"


class Devices:
    """UPnP devices of one simulator process, each with its own address, numbered from 0.

    devices.silence(0, 2)      # leave without byebye
    devices.bring_back(0, 2)

    A command returns when the simulator has executed it. The products notice it later.
    """

    def __init__(self, kinds, guids, addresses, simulator, namespace=None):
        self.kinds = kinds
        self.guids = guids
        self.addresses = addresses
        self._simulator = simulator
        self._namespace = namespace  # None: that of a product
        simulator.expect("ready")

    @classmethod
    def on_host(cls, index, kinds, around, bridge, *, silent=False, seed=1):
        """Starts devices on the separate host with that index. Returns when all of them listen."""
        if not 0 < len(kinds) <= DEVICES_A_HOST or index >= namespaces.DEVICE_HOSTS:
            raise LabError(f"a host has 1 to {DEVICES_A_HOST} devices, and there are {namespaces.DEVICE_HOSTS} hosts")
        name = f"device-host-{index + 1}"
        namespace = namespaces.Namespace(around.ledger, name, product=False)
        place = namespaces.CROWD_HOSTS + index
        bridge.plug_many(place, namespace)
        first = index * _INDICES_A_HOST
        numbers = range(len(kinds))
        simulator = Simulator(name, namespace, around, PROGRAM, [
            "--interface", "eth0", "--first-index", str(first), "--first-address",
            namespaces.address_of_many(place, 0), "--seed", str(seed), *(["--silent"] if silent else []), *kinds])
        return cls(kinds, [guid_of(first + number) for number in numbers],
                   [namespaces.address_of_many(place, number) for number in numbers], simulator, namespace)

    @classmethod
    def at_product(cls, product, address, around):
        """Starts one device with guid, name and address of a real product."""
        simulator = Simulator(f"{product.name}.device", product.namespace, around, PROGRAM, [
            "--interface", "eth0", "--first-address", address, "--guid", product.guid, "--name", product.spoken_name,
            "--no-gateway", "product"])
        return cls(["product"], [product.guid], [address], simulator)

    @property
    def has_host(self):
        """Whether the devices have a separate host, not that of a product."""
        return self._namespace is not None

    def __len__(self):
        return len(self.kinds)

    def silence(self, first, last):
        """Stops SSDP and closes connections and ports, without byebye."""
        self._command("silence", first, last)

    def say_goodbye(self, first, last):
        """Sends byebye, then like silence()."""
        self._command("goodbye", first, last)

    def bring_back(self, first, last):
        self._command("return", first, last)

    def stats(self):
        """The simulator's counters: name -> number."""
        return self._simulator.stats()

    def run(self, command, **options):
        """Runs a command on the host and waits for it. Options and result as for subprocess.run, output as text."""
        return subprocess.run([*self._namespace.enter(), *command], capture_output=True, text=True, check=False,
                              **options)

    def close(self):
        """Ends the simulator, without byebye."""
        self._simulator.close()
        if self._namespace:
            self._namespace.close()

    def _command(self, verb, first, last):
        if not 0 <= first <= last < len(self.kinds):
            raise LabError(f"the devices are 0 to {len(self.kinds) - 1}")
        self._simulator.command(f"{verb} {first} {last}")
