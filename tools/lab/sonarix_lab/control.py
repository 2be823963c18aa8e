"""Commands from another terminal to the running laboratory: one JSON line in each direction on a local socket."""
import json
import os
import socket
import threading

from . import ledger
from .errors import LabError

_TIMEOUT_SECONDS = 30


class ControlServer:
    """Serves one command at a time on its own thread. handle(dict) raises LabError on failure."""

    def __init__(self, path, handle):
        self._handle = handle
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.bind(path)
        os.chmod(path, 0o600)
        self._socket.listen()
        self._thread = threading.Thread(target=self._run, name="lab-control", daemon=True)
        self._thread.start()

    def stop(self):
        self._socket.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._socket.close()

    def _run(self):
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            with connection:
                connection.settimeout(_TIMEOUT_SECONDS)
                try:
                    self._serve(connection)
                except OSError:
                    pass  # the client disconnected

    def _serve(self, connection):
        with connection.makefile("rw", encoding="utf-8") as stream:
            try:
                self._handle(json.loads(stream.readline(4096)))
                answer = {"ok": True}
            except LabError as error:
                answer = {"error": str(error)}
            except (ValueError, KeyError, TypeError, AttributeError):
                answer = {"error": "no such command"}
            stream.write(json.dumps(answer) + "\n")


def is_running(folder):
    """Whether a laboratory with this state folder accepts commands."""
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(ledger.control_socket(folder)) == 0


def send(folder, command):
    """Sends a command to the running laboratory. Raises LabError with its response if the command failed."""
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(_TIMEOUT_SECONDS)
        try:
            client.connect(ledger.control_socket(folder))
            with client.makefile("rw", encoding="utf-8") as stream:
                stream.write(json.dumps(command) + "\n")
                stream.flush()
                answer = json.loads(stream.readline() or "{}")
        except (OSError, ValueError):
            raise LabError(f"no laboratory runs in {folder}: start one with ./run") from None
    if not answer.get("ok"):
        raise LabError(answer.get("error", "the laboratory ended before it answered"))
