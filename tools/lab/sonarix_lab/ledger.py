"""The state folder: allows one laboratory at a time, records its processes, and cleans up after one that crashed."""
import fcntl
import json
import os
import threading
import uuid

from . import processes
from .errors import LabError

DEFAULT_FOLDER = "/run/sonarix-lab"


class Ledger:
    """Holds the folder's lock while the laboratory exists, and records each process.

    The constructor kills all processes that an earlier laboratory of this folder left.
    """

    def __init__(self, folder=DEFAULT_FOLDER):
        self.folder = folder
        self.mark = uuid.uuid4().hex
        self._recorded = []
        self._namespaces = []
        self._products = {}
        self._guard = threading.Lock()
        try:
            os.makedirs(folder, mode=0o700, exist_ok=True)
            self._lock = open(os.path.join(folder, "lock"), "w", encoding="ascii")
        except OSError as error:
            raise LabError(f"needs the folder {folder}: {error.strerror}; run as root, or give --state-dir") from error
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            self._lock.close()
            raise LabError(f"a laboratory runs already in {folder}; end it with Ctrl-C, or give --state-dir") from None
        self.swept = self._sweep()
        self._write()

    @property
    def control_socket(self):
        return control_socket(self.folder)

    def record(self, pid):
        with self._guard:
            self._recorded = [(old, start) for old, start in self._recorded if processes.start_time(old) == start]
            self._recorded.append((pid, processes.start_time(pid)))
            self._write()

    def record_namespace(self, pid):
        """Records that all processes in the network namespace of `pid` belong to this laboratory."""
        with self._guard:
            self._namespaces.append(processes.network_namespace(pid))
            self._write()

    def record_product(self, name, pid, environment):
        """Records how a command from another terminal enters the product; `pid` is a process in its namespaces."""
        with self._guard:
            self._products[name] = {"pid": pid, "environment": environment}
            self._write()

    def kill_all(self):
        processes.kill_all(self.mark, self._recorded, self._namespaces)

    def close(self):
        """Kills all recorded processes and releases the folder."""
        self.kill_all()
        for path in (self.control_socket, _ledger_path(self.folder)):
            _remove(path)
        self._lock.close()

    def _sweep(self):
        old = read(self.folder)
        _remove(self.control_socket)
        if not old:
            return 0
        return processes.kill_all(old["mark"], [tuple(entry) for entry in old["recorded"]], old["namespaces"])

    def _write(self):
        path = _ledger_path(self.folder)
        content = {"mark": self.mark, "recorded": self._recorded, "namespaces": self._namespaces,
                   "products": self._products}
        with open(path + ".new", "w", encoding="utf-8") as file:
            json.dump(content, file)
        os.replace(path + ".new", path)


def read(folder):
    """The record of the last laboratory of this folder, or None."""
    try:
        with open(_ledger_path(folder), encoding="utf-8") as file:
            return json.load(file)
    except (OSError, ValueError):
        return None


def control_socket(folder):
    return os.path.join(folder, "control")


def _ledger_path(folder):
    return os.path.join(folder, "lab.json")


def _remove(path):
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass
