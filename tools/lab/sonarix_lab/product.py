"""One product: its files, its programs, and commands that run in it."""
import json
import os
import shutil
import subprocess
import threading
import uuid
from dataclasses import dataclass
from typing import Callable

from . import processes
from .errors import LabError

#: In the order of start. The mDNS daemon needs the bus; the others start in any order.
PROGRAMS = ("dbus", "avahi", "gateway", "network", "service", "hub")
_OWN_PROGRAMS = {"gateway": "portico-gateway", "network": "network-status", "service": "sonarix-service",
                 "hub": "hub-service"}
_FILES = "/run/product"
_BUS = "/run/dbus/system_bus_socket"

_GUID_SPACE = uuid.UUID("5b0e1f5e-8f0e-4b52-9a4e-7a0f3c1f2d10")

# Only what the mDNS daemon needs. Without activation, a killed daemon is not restarted by D-Bus.
_DBUS_CONFIGURATION = f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <user>messagebus</user>
  <auth>EXTERNAL</auth>
  <listen>unix:path={_BUS}</listen>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>
  <include>/usr/share/dbus-1/system.d/avahi-dbus.conf</include>
</busconfig>
"""

_AVAHI_CONFIGURATION = """[server]
host-name={host}
allow-interfaces=eth0
use-ipv4=yes
use-ipv6={ipv6}
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
"""


def _version(major, minor):
    return {"major_version": major, "minor_version": minor}


_ETC = {
    "APMultiroomVersions.json": {"Audio_Payload_Version": _version(2, 1),
                                 "AudioControl_Protocol_Version": _version(3, 0)},
    "ClocksyncMultiroomVersions.json": {"ClockSync_Protocol_Version": _version(1, 4)},
    "HubMultiroomVersions.json": {"NowPlaying_Version": _version(4, 0), "PlaybackRequest_Version": _version(2, 2)},
    "GroupingMultiroomVersions.json": {"Grouping_Version": _version(1, 1)},
    "Capabilities.json": {"Capabilities": {
        "hasBattery": False, "numChannels": 2, "isWired": True, "acousticPackage": "STEREO_2_0",
        "associationType": "VERIFIED", "bondedGroupSupportStatus": "SUPPORTED",
        "groups": [{"bondedGroupType": "STEREO", "productMode": "HOST", "roles": ["STEREO_LEFT", "STEREO_RIGHT"]}],
        "activationMethod": "SELF_ACTIVATION", "updateMethod": "SELF_UPDATE"}},
}


def guid_of(name):
    """The guid of a product, derived from its name."""
    return str(uuid.uuid5(_GUID_SPACE, name))


@dataclass(frozen=True)
class LabContext:
    """State that all products of one laboratory share."""
    ledger: object
    reactor: object
    bin_dir: str
    log_dir: str
    log_levels: str
    on_death: Callable  # (product, program, text), called on the reactor's thread when a program ends unexpectedly


class Product:
    """A product, whose programs can be started and killed one by one. Each program has its own log.

    `namespace` is None for a product on the machine's network, which uses the machine's bus and mDNS daemon.
    """

    def __init__(self, name, guid, namespace, around, *, accessory=False, files=_FILES, interface="eth0"):
        self.name = name
        self.guid = guid
        self.namespace = namespace
        self.accessory = accessory
        self.mute = False  # no hub service, so no mDNS record
        self.stranger = False  # not of the family: only a bus and an mDNS daemon
        self.spoken_name = name.replace("-", " ").title()
        self.interface = interface
        self._around = around
        self._files = files
        self._running = {}  # program -> _Process
        self._guard = threading.Lock()
        self.environment = {
            "SONARIX_ETC_DIR": f"{files}/etc/",
            "SONARIX_RUN_DIR": "/run/sonarix" if namespace else f"{files}/run",
            "SONARIX_MFG_DATA": f"{files}/MfgData.json",
            "SONARIX_PRODUCT_CONFIG": f"{files}/ProductConfig.json",
            "SONARIX_LOG": around.log_levels,
            "PATH": f"{around.bin_dir}:/usr/sbin:/usr/bin:/sbin:/bin",
        }

    def programs(self):
        """The programs of this product. An accessory needs no hub service, because it announces itself."""
        own = PROGRAMS if self.namespace else PROGRAMS[2:]
        return [program for program in own if not ((self.accessory or self.mute) and program == "hub")]

    def write_files(self, authority):
        for folder in ("etc", "tls", "run"):
            os.makedirs(self._outside(f"{self._files}/{folder}"), mode=0o755, exist_ok=True)
        for name, content in _ETC.items():
            self._write(f"{self._files}/etc/{name}", json.dumps(content))
        self._write(f"{self._files}/MfgData.json", json.dumps({"guid": self.guid}))
        self._write(f"{self._files}/ProductConfig.json", json.dumps({"accessoryMode": self.accessory}))
        authority.issue(self.guid, self._outside(f"{self._files}/tls"))
        if self.namespace:
            os.makedirs(self._outside("/run/dbus"), exist_ok=True)
            self._write(f"{self._files}/dbus.conf", _DBUS_CONFIGURATION)
            # A product publishes on IPv4 only, so strangers do, too: browsers report a record on both protocols twice, and
            # resolving its IPv4 address over IPv6 fails.
            ipv6 = "no" if self.stranger else "yes"
            self._write(f"{self._files}/avahi.conf", _AVAHI_CONFIGURATION.format(host=self.name, ipv6=ipv6))

    def start(self, program):
        """Starts a program that does not run. Only for the bus this waits until it listens."""
        with self._guard:
            if program in self._running:
                raise LabError(f"{self.name}: {program} runs already")
            self._tidy_after(program)
            ready_read, ready_write = os.pipe() if program == "dbus" else (None, None)
            with open(self.log_path(program), "ab") as log:
                process = self.popen(self._command(program, ready_write), stdout=log, stderr=log,
                                     pass_fds=[ready_write] if ready_write else [])
            self._around.ledger.record(process.pid)
            self._running[program] = running = _Process(process)
        self._around.reactor.watch_end(process, lambda status: self._ended(program, running, status))
        if ready_write:
            os.close(ready_write)
            with os.fdopen(ready_read, "rb") as pipe:
                if not pipe.readline():
                    raise LabError(f"{self.name}: no D-Bus: {last_line(self.log_path(program))}")

    def kill(self, program):
        """Kills a program with signal 9 and waits for its end; for a bus also for the end of its mDNS daemon. Must not
        run on the reactor's thread."""
        with self._guard:
            running = self._running.get(program)
            if not running:
                raise LabError(f"{self.name}: {program} is not running")
            ending = [running, self._running.get("avahi")] if program == "dbus" else [running]
            ending = [each for each in ending if each]
            for each in ending:
                each.expected = True
            running.process.kill()
        for each in ending:
            each.gone.wait()

    def pid(self, program):
        """The pid of a running program, or None."""
        with self._guard:
            running = self._running.get(program)
            return running.process.pid if running else None

    def popen(self, command, **options):
        """Starts a command inside with the environment of the product's programs."""
        enter = self.namespace.enter() if self.namespace else []
        return subprocess.Popen([*enter, *command], stdin=options.pop("stdin", subprocess.DEVNULL),
                                start_new_session=True, env=self._whole_environment(), **options)

    def run(self, command, **options):
        """Runs a command inside and waits for it. Returns the result of subprocess.run with output as text."""
        options.setdefault("text", True)
        options.setdefault("stdin", subprocess.DEVNULL)
        enter = self.namespace.enter() if self.namespace else []
        return subprocess.run([*enter, *command], capture_output=True, env=self._whole_environment(), check=False,
                              **options)

    def log_path(self, program):
        return os.path.join(self._around.log_dir, f"{self.name}.{program}.log")

    def _command(self, program, ready):
        binary = self._around.bin_dir
        return {
            "dbus": ["dbus-daemon", f"--config-file={self._files}/dbus.conf", "--nofork", "--nopidfile",
                     f"--print-address={ready}"],
            "avahi": ["avahi-daemon", "--no-chroot", "--no-rlimits", "-f", f"{self._files}/avahi.conf"],
            "gateway": [f"{binary}/portico-gateway", "--port", "8084", "--lan-port", "8090",
                        "--tls-dir", f"{self._files}/tls"],
            "network": [f"{binary}/network-status", "--primary", self.interface, "--wifi-bands", "2.4,5"],
            "service": [f"{binary}/sonarix-service"],
            "hub": [f"{binary}/hub-service", "--name", self.spoken_name, "--type", "SPEAKER",
                    "--product", "Sonarix One", "--color", "BLACK", "--software", "1.0.0", "--country", "CH",
                    "--serial", self.guid[:8].upper()],
        }[program]

    def _tidy_after(self, program):
        # Files of a killed mDNS daemon prevent the start of the next one.
        leftovers = {"avahi": ["/run/avahi-daemon/pid", "/run/avahi-daemon/socket"], "dbus": [_BUS]}
        for path in leftovers.get(program, []):
            try:
                os.unlink(self._outside(path))
            except FileNotFoundError:
                pass

    def _ended(self, program, running, status):
        with self._guard:
            self._running.pop(program, None)
        if not running.expected:
            how = f"ended with status {status}" if status >= 0 else f"was ended by signal {-status}"
            said = last_line(self.log_path(program))
            self._around.on_death(self, program, f"{self.name}: {program} {how}" + (f": {said}" if said else ""))
        running.gone.set()

    def _whole_environment(self):
        return {**outer_environment(), **self.environment, processes.MARK: self._around.ledger.mark}

    def _outside(self, path):
        return self.namespace.path(path) if self.namespace else path

    def _write(self, path, text):
        with open(self._outside(path), "w", encoding="utf-8") as file:
            file.write(text)


class _Process:
    def __init__(self, process):
        self.process = process
        self.expected = False  # True: the laboratory kills it
        self.gone = threading.Event()


def outer_environment():
    """The caller's environment without the variables of its D-Bus."""
    return {name: value for name, value in os.environ.items() if not name.startswith("DBUS_")}


def check_programs(bin_dir, programs, lan, more=()):
    """Raises a LabError with the missing programs, if any."""
    own = [_OWN_PROGRAMS[program] for program in programs if program in _OWN_PROGRAMS]
    for program in [*own, *more] + (["portico"] if own else []):
        if not os.access(os.path.join(bin_dir, program), os.X_OK):
            raise LabError(f"needs {bin_dir}/{program}: build first, ./run does")
    path = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
    needed = ["ip", "openssl"] if lan else ["ip", "openssl", "unshare", "nsenter", "dbus-daemon", "avahi-daemon"]
    missing = [program for program in needed if not shutil.which(program, path=path)]
    if missing:
        raise LabError(f"needs {', '.join(missing)}: install packaging/debian-packages.txt, ./run does")


def last_line(path):
    try:
        with open(path, "rb") as file:
            file.seek(0, os.SEEK_END)
            file.seek(max(0, file.tell() - 4096))
            lines = file.read().decode(errors="replace").strip().splitlines()
    except OSError:
        return ""
    return lines[-1] if lines else ""
