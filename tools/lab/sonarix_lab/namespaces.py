"""Network namespaces: one for the bridge, and one per product with its own mounts and host name."""
import json
import os
import signal
import subprocess

from . import processes
from .errors import LabError

_NETWORK = "10.77.0"
_PREFIX = 16  # includes the addresses of all simulated devices

# A host has many simulated devices with one address each. The addresses are routed to the host although they are on the
# link: otherwise each would occupy an entry of the kernel's neighbour table, which all namespaces share.
CROWD_HOSTS = 4
DEVICE_HOSTS = 2
_HOSTS_OF_MANY = CROWD_HOSTS + DEVICE_HOSTS
_FIRST_HOST_OF_MANY = 241
_MANY_PREFIX = 22

# The outer /sys would show the machine's links. A new /run separates the sockets of the products' buses and daemons.
# The machine's static mDNS services are hidden.
_PRODUCT_SETUP = """
echo "$0" > /proc/sys/kernel/hostname
mount -t sysfs sysfs /sys
mount -t tmpfs -o mode=0755 tmpfs /run
if [ -d /etc/avahi/services ]; then mount -t tmpfs tmpfs /etc/avahi/services; fi
"""


class Namespace:
    """Namespaces of one product or host. A sleeping process keeps them alive until close()."""

    def __init__(self, ledger, name, product=True):
        self.name = name
        flags = ["--net", "--mount", "--uts", "--propagation", "private"] if product else ["--net"]
        setup = "set -e" + (_PRODUCT_SETUP if product else "\n") + "ip link set lo up; echo ready; exec sleep infinity"
        self._enter_flags = ["--net", "--mount", "--uts"] if product else ["--net"]
        self._holder = subprocess.Popen(
            ["unshare", *flags, "sh", "-c", setup, name], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env={**os.environ, processes.MARK: ledger.mark}, start_new_session=True)
        ledger.record(self._holder.pid)
        if self._holder.stdout.readline() != b"ready\n":
            said = self._holder.stderr.read().decode(errors="replace").strip().splitlines()
            self._holder.wait()
            raise LabError("needs the right to create network namespaces: run as root"
                           + (f" ({said[-1]})" if said else ""))
        ledger.record_namespace(self._holder.pid)
        self._holder.stdout.close()
        self._holder.stderr.close()

    @property
    def pid(self):
        return self._holder.pid

    def enter(self):
        """The prefix of a command that runs inside. The command has the pid of the started process."""
        return ["nsenter", "--target", str(self.pid), *self._enter_flags, "--"]

    def path(self, inside):
        """The path from outside of a file inside the namespace."""
        return f"/proc/{self.pid}/root{inside}"

    def ip(self, *commands):
        """Runs commands of ip(8). Stops at the first failure and raises LabError."""
        result = subprocess.run([*self.enter(), "ip", "-batch", "-"], input="\n".join(commands) + "\n",
                                capture_output=True, text=True, check=False)
        if result.returncode != 0:
            raise LabError(f"{self.name}: ip: {result.stderr.strip()}")
        return result.stdout

    def addresses(self):
        """List of (IPv4 address, prefix length) of eth0."""
        links = json.loads(subprocess.run([*self.enter(), "ip", "-json", "-4", "address", "show", "dev", "eth0"],
                                          capture_output=True, check=True).stdout)
        return [(info["local"], info["prefixlen"]) for info in links[0]["addr_info"]]

    def close(self):
        """Kills the holder. The kernel removes the namespaces with the last process in them."""
        self._holder.send_signal(signal.SIGKILL)
        self._holder.wait()


class Bridge:
    """The network that all products share, in its own namespace, without the machine's interfaces."""

    def __init__(self, ledger):
        self._namespace = Namespace(ledger, "bridge", product=False)
        self._namespace.ip("link add bridge0 type bridge mcast_snooping 0 forward_delay 0", "link set bridge0 up")

    def close(self):
        self._namespace.close()

    def plug(self, number, namespace):
        """Connects port `number` to eth0 of the namespace and sets its address."""
        self._namespace.ip(f"link add port{number} type veth peer name eth0 netns {namespace.pid}",
                           f"link set port{number} master bridge0 up")
        # Disables duplicate address detection, which delays the link-local address and its mDNS announcements by 1 s.
        subprocess.run([*namespace.enter(), "sh", "-c", "echo 0 > /proc/sys/net/ipv6/conf/eth0/accept_dad"], check=True)
        namespace.ip(f"address add {address(number)}/{_PREFIX} dev eth0", "link set eth0 up", *_routes(number))

    def plug_many(self, index, namespace):
        """Connects a host of simulated devices, which owns all addresses of its range."""
        self.plug(_FIRST_HOST_OF_MANY + index, namespace)
        namespace.ip(f"route add local {_range_of_many(index)} dev lo")

    def set_carrier(self, number, up):
        """Down has the effect of a pulled cable: no carrier, addresses stay."""
        self._namespace.ip(f"link set port{number} {'up' if up else 'down'}")


def address(number):
    return f"{_NETWORK}.{number}"


def address_of_many(index, number):
    """The address of a simulated device on that host."""
    third, fourth = divmod(1 + number, 256)
    return f"10.77.{32 + 4 * index + third}.{fourth}"


def _range_of_many(index):
    return f"10.77.{32 + 4 * index}.0/{_MANY_PREFIX}"


def _routes(number=None):
    hosts = ((index, _FIRST_HOST_OF_MANY + index) for index in range(_HOSTS_OF_MANY))
    return ["route replace 224.0.0.0/4 dev eth0",
            *(f"route replace {_range_of_many(index)} via {address(host)}" for index, host in hosts if host != number)]


def change_address(namespace, new):
    """Like a new DHCP lease: removes the old address, then adds the new one."""
    old = [f"address del {local}/{prefix} dev eth0" for local, prefix in namespace.addresses()]
    namespace.ip(*old, f"address add {new}/{_PREFIX} dev eth0", *_routes())
