"""The command line of the laboratory."""
import argparse
import os
import signal
import socket
import subprocess
import sys
import time
import uuid

from . import control, crowd, devices, ledger, ruin
from .errors import LabError
from .laboratory import BIN_DIR, Lab
from .product import outer_environment
from .table import describe_missing
from .view import LineView, TableView

_PROG = os.environ.get("SONARIX_LAB_COMMAND", "sonarix-lab")

_DESCRIPTION = """\
Runs several products, each in its own network namespace with D-Bus, mDNS daemon, gateway, network service and
discovery service. They find each other by real multicast on a separate bridge. Shows which product lists which other
one, until Ctrl-C."""

_EPILOG = """\
--kill, --start, --link-down and --exec control a running laboratory from another terminal. If no laboratory runs,
--kill and --link-down start one and are executed in the given order after every product lists every other as ONLINE.
With --once, the laboratory also waits for their effect.

examples:
  {prog} --products 8
  {prog} --crowd 200
  {prog} --ssdp 3
  {prog} --once --kill kitchen            # measures the time until the others list it as OFFLINE
  {prog} --link-down bedroom 30           # from another terminal, or at the start
  {prog} --ruin 10 --ssdp 2               # kills random programs and checks the recovery
  {prog} --exec kitchen portico get /sonarix/products
  {prog} --exec kitchen bash              # a shell in that product"""


def main(arguments=None):
    """The exit status."""
    options = _parse(arguments)
    try:
        if options.execute:
            return _execute(options)
        actions = options.actions or []
        if actions and control.is_running(options.state_dir):
            for command in actions:
                control.send(options.state_dir, command)
            return 0
        if any(command["command"] == "start" for command in actions):
            raise LabError(f"no laboratory runs in {options.state_dir}, nothing to restart")
        return _run(options, actions)
    except LabError as error:
        print(f"{_PROG}: {error}", file=sys.stderr)
        return 1


class _Action(argparse.Action):
    """Stores --kill, --start and --link-down in one list, in order."""

    def __call__(self, parser, namespace, values, option_string=None):
        if self.dest == "link_down":
            name, seconds = values
            try:
                command = {"command": "link-down", "product": name, "seconds": float(seconds)}
            except ValueError:
                parser.error(f"--link-down: \"{seconds}\" is not a number of seconds")
        else:
            command = {"command": self.dest, "product": values}
        namespace.actions = (namespace.actions or []) + [command]


def _parse(arguments):
    parser = argparse.ArgumentParser(prog=_PROG, description=_DESCRIPTION, epilog=_EPILOG.format(prog=_PROG),
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.set_defaults(actions=None)
    parser.add_argument("--products", type=_count, default=3, metavar="N", help="number of products, default 3")
    parser.add_argument("--accessory", type=_count, default=0, metavar="N",
                        help="additional products in accessory mode, which use mutual TLS to their hosts")
    parser.add_argument("--crowd", type=_count, default=0, metavar="N",
                        help=f"simulated products, at most {crowd.MOST}, which the others list")
    parser.add_argument("--ssdp", type=_count, default=0, metavar="N",
                        help=f"simulated products that use only SSDP, at most {devices.DEVICES_A_HOST}, which the "
                        "others list")
    parser.add_argument("--once", action="store_true",
                        help="exit with status 0 as soon as every product lists every other as ONLINE, "
                        "with 1 after the time limit and the missing products")
    parser.add_argument("--time-limit", type=float, default=60, metavar="SECONDS", help="for --once, default 60")
    parser.add_argument("--kill", action=_Action, metavar="NAME",
                        help="kill that product's service and gateway with signal 9")
    parser.add_argument("--start", action=_Action, metavar="NAME",
                        help="start all programs of that product that do not run")
    parser.add_argument("--link-down", action=_Action, nargs=2, metavar=("NAME", "SECONDS"),
                        help="disconnect that product for a time")
    parser.add_argument("--ruin", type=float, metavar="MINUTES",
                        help="kill and restart random programs for that time, in three products: one without mDNS "
                        "record, two with SSDP. Exits with status 1 at the first state that does not recover")
    parser.add_argument("--seed", type=int, metavar="N", help="seed of --ruin; the same seed kills in the same order")
    parser.add_argument("--logs", metavar="DIR", help="write the log of each program of each product there")
    parser.add_argument("--log-levels", default="3", metavar="LEVELS",
                        help="SONARIX_LOG of the services, e.g. 3,MdnsService=6; default 3")
    parser.add_argument("--lan", action="store_true",
                        help="run one service on this machine's real network, with its own gateway and network "
                        "service and the machine's mDNS daemon")
    parser.add_argument("--interface", metavar="IFACE", help="interface for --lan, default: that of the default route")
    parser.add_argument("--bin-dir", default=BIN_DIR, metavar="DIR", help="directory of the programs")
    parser.add_argument("--state-dir", default=ledger.DEFAULT_FOLDER, metavar="DIR",
                        help=f"state of the laboratory, one laboratory per directory; default {ledger.DEFAULT_FOLDER}")
    parser.add_argument("--exec", dest="execute", nargs=argparse.REMAINDER, metavar="NAME COMMAND",
                        help="run a command in a product of the running laboratory; must be the last option")
    options = parser.parse_args(arguments)
    if options.execute is not None and len(options.execute) < 2:
        parser.error("--exec needs the name of a product and a command")
    if options.crowd > crowd.MOST:
        parser.error(f"--crowd is limited to {crowd.MOST}")
    if options.ssdp > devices.DEVICES_A_HOST:
        parser.error(f"--ssdp is limited to {devices.DEVICES_A_HOST}")
    if options.products < 1:
        parser.error("--products must be at least 1")
    return options


def _count(text):
    number = int(text)
    if number < 0:
        raise ValueError
    return number


def _execute(options):
    name, *command = options.execute
    known = ledger.read(options.state_dir)
    if not known or not control.is_running(options.state_dir):
        raise LabError(f"no laboratory runs in {options.state_dir}: start one with ./run")
    product = known["products"].get(name.lower())
    if not product:
        raise LabError(f"no product \"{name}\"; there are {', '.join(known['products'])}")
    if product["pid"]:
        command = ["nsenter", "--target", str(product["pid"]), "--net", "--mount", "--uts", "--wd=.", "--", *command]
    environment = {**outer_environment(), **product["environment"]}
    try:
        os.execvpe(command[0], command, environment)
    except OSError as error:
        raise LabError(f"{command[0]}: {error.strerror}") from error


def _run(options, actions):
    signal.signal(signal.SIGTERM, _interrupt)
    signal.signal(signal.SIGHUP, _interrupt)
    view = TableView() if sys.stdout.isatty() and not options.ruin else LineView()
    lab = _make_lab(options, view)
    message, status = None, 0
    try:
        lab.open()
        if options.ruin:
            message = _ruin(lab, options, view)
        else:
            message, status = _Course(lab, options, actions).follow(view)
    except KeyboardInterrupt:
        pass
    finally:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        view.close(lab)
        lab.close()
    if message:
        print(message, file=sys.stderr if status else sys.stdout)
    return status


def _ruin(lab, options, view):
    seed = options.seed if options.seed is not None else int(time.time())
    view.changed(lab.seconds, f"ruin of seed {seed}")
    try:
        return ruin.Ruin(lab, seed).run(60 * options.ruin)
    except LabError as error:
        raise LabError(f"ruin of seed {seed}, {lab.seconds:.1f} s: {error}") from error


def _interrupt(_number, _frame):
    raise KeyboardInterrupt


def _make_lab(options, view):
    common = {"bin_dir": options.bin_dir, "state_dir": options.state_dir, "log_dir": options.logs,
              "log_levels": options.log_levels, "on_change": view.changed}
    if options.ruin:
        return Lab(**ruin.SHAPE, ssdp=options.ssdp, **common)
    if not options.lan:
        return Lab(options.products, options.accessory, crowd=options.crowd, ssdp=options.ssdp, **common)
    return Lab.on_lan(_machine_name(), _machine_guid(), _lan_interface(options.interface), **common)


class _Course:
    """The steps of a run: wait until all products are ONLINE, then execute each action and wait for its effect."""

    def __init__(self, lab, options, actions):
        self._lab = lab
        self._options = options
        self._steps = [(None, self._all_online, "every product lists every other as ONLINE")]
        for command in actions:
            name = lab.product(command["product"]).name
            if command["command"] == "kill":
                self._steps.append((command, lambda tables, name=name: tables.offline(name, self._alive()),
                                    f"every other product lists {name} as OFFLINE"))
            else:
                seconds = command["seconds"]
                self._steps.append((command, lambda tables, seconds=seconds:
                                    self._step_seconds() > seconds and self._all_online(tables),
                                    f"every product lists every other as ONLINE, after {name} was cut for {seconds:g} s"))
        self._step_begin = 0.0

    def follow(self, view):
        """Returns (message, status) at the end of --once, otherwise runs until it is interrupted."""
        while True:
            view.draw(self._lab, self._lab.look(self._headline))
            if self._steps and self._lab.look(self._steps[0][1]):
                done = f"{self._steps.pop(0)[2]} ({self._step_seconds():.1f} s)"
                view.changed(self._lab.seconds, done)
                self._step_begin = self._lab.seconds
                if self._steps:
                    self._lab.handle(self._steps[0][0])
                elif self._options.once:
                    return done, 0
                continue
            if self._options.once and self._step_seconds() > self._time_limit():
                return self._failure(), 1
            self._lab.wait_change(1.0)

    def _headline(self, tables):
        missing = tables.missing()
        return describe_missing(missing) if missing else "every product lists every other as ONLINE"

    def _step_seconds(self):
        return self._lab.seconds - self._step_begin

    def _time_limit(self):
        command = self._steps[0][0] or {}
        return self._options.time_limit + command.get("seconds", 0)

    def _alive(self):
        return [product.name for product in self._lab.products if product.pid("service")]

    def _all_online(self, tables):
        if self._options.lan:
            return all(tables.state(name, name) == "ONLINE" for name in tables.members)
        alive = self._alive()
        counting = {*alive, *tables.guests, *tables.crowd}
        return not [1 for observer, target, _ in tables.missing() if observer in alive and target in counting]

    def _failure(self):
        missing = self._lab.look(lambda tables: tables.missing())
        parts = [f"{_PROG}: not within {self._time_limit():g} s: {self._steps[0][2]}", describe_missing(missing),
                 *self._lab.deaths]
        return "; ".join(part for part in parts if part)


def _lan_interface(given):
    """Checks the requirements of --lan. Returns the interface."""
    bus = subprocess.run(["dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.DBus",
                          "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner",
                          "string:org.freedesktop.Avahi"], capture_output=True, text=True, check=False)
    if bus.returncode != 0:
        raise LabError("--lan needs this machine's D-Bus system bus: start dbus")
    if "true" not in bus.stdout:
        raise LabError("--lan needs this machine's mDNS daemon: start avahi-daemon")
    route = subprocess.run(["ip", "-4", "route", "show", "default"], capture_output=True, text=True, check=False)
    words = route.stdout.split()
    interface = given or (words[words.index("dev") + 1] if "dev" in words else None)
    if not interface:
        raise LabError("--lan needs a network: no default route, give --interface")
    if not os.path.exists(f"/sys/class/net/{interface}"):
        raise LabError(f"--lan: no interface {interface}")
    return interface


def _machine_name():
    return socket.gethostname().split(".")[0].lower() or "sonarix"


def _machine_guid():
    try:
        with open("/etc/machine-id", encoding="ascii") as file:
            return str(uuid.uuid5(uuid.NAMESPACE_OID, file.read().strip()))
    except OSError:
        return str(uuid.uuid5(uuid.NAMESPACE_DNS, socket.gethostname()))
