"""A process that simulates many devices and reads commands from its standard input."""
import os
import select
import subprocess
import threading
import time

from . import processes
from .errors import LabError
from .product import last_line

_ANSWER_SECONDS = 30


class Simulator:
    """One process of `program` in a namespace, with the log `name`.log. Runs until close()."""

    def __init__(self, name, namespace, around, program, arguments):
        self.name = name
        self._log_path = os.path.join(around.log_dir, f"{name}.log")
        self._program = program
        self._expected = False
        with open(self._log_path, "ab") as log:
            self._process = subprocess.Popen(
                [*namespace.enter(), os.path.join(around.bin_dir, program), *arguments],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log, start_new_session=True,
                env={**os.environ, processes.MARK: around.ledger.mark})
        around.ledger.record(self._process.pid)
        self._pending = b""
        self._gone = threading.Event()
        around.reactor.watch_end(self._process, lambda status: self._ended(around, status))

    def command(self, line):
        """Sends a command. Returns the response after "ok"."""
        try:
            self._process.stdin.write(line.encode() + b"\n")
            self._process.stdin.flush()
        except OSError as error:
            raise LabError(f"{self.name} has ended: {error.strerror}") from error
        return self.expect("ok")

    def stats(self):
        """The simulator's counters: name -> number."""
        return {name: int(value) for name, value in (item.split("=") for item in self.command("stats").split())}

    def expect(self, word):
        """Reads the next line, which must begin with `word`. Returns the rest of it."""
        line = self._line()
        if line.split(" ")[0] != word:
            raise LabError(f"{self.name}: {line or last_line(self._log_path) or 'ended without output'}")
        return line[len(word) + 1:]

    def close(self):
        """Kills the process and waits for its end. Must not run on the reactor's thread."""
        self._expected = True
        self._process.kill()
        self._gone.wait()
        self._process.stdin.close()
        self._process.stdout.close()

    def _ended(self, around, status):
        if not self._expected:
            around.on_death(None, self._program,
                            f"{self.name}: ended with status {status}: {last_line(self._log_path)}")
        self._gone.set()

    def _line(self):
        deadline = time.monotonic() + _ANSWER_SECONDS
        while b"\n" not in self._pending:
            if not select.select([self._process.stdout], [], [], max(0.0, deadline - time.monotonic()))[0]:
                raise LabError(f"{self.name} does not answer")
            data = os.read(self._process.stdout.fileno(), 4096)
            if not data:
                return ""
            self._pending += data
        line, _, self._pending = self._pending.partition(b"\n")
        return line.decode()
