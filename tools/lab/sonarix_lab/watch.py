"""Receives the records that a product publishes, through a `portico watch` in that product."""
import json
import subprocess

# Between two attempts while the product's gateway runs but does not accept connections yet.
_RETRY_SECONDS = 0.25


class Watch:
    """One path of one product. on_record(record, fresh) is called on the reactor's thread for each published record.
    fresh() returns False after stop(), for a caller that checks it under its lock.
    """

    def __init__(self, product, path, reactor, on_record):
        self._product = product
        self._path = path
        self._reactor = reactor
        self._on_record = on_record
        self._process = None
        self._wanted = False
        self._stops = 0

    def start(self):
        self._reactor.post(self._start)

    def stop(self):
        """Drops records that were published before, also those in transit."""
        self._stops += 1
        self._reactor.post(self._stop)

    def _start(self):
        self._wanted = True
        if self._process:
            return
        stops = self._stops
        process = self._product.popen(["portico", "watch", self._path], stdout=subprocess.PIPE,
                                      stderr=subprocess.DEVNULL)
        self._process = process
        self._reactor.watch_lines(process.stdout, lambda line: self._line_received(process, stops, line))
        self._reactor.watch_end(process, lambda status: self._ended(process))

    def _stop(self):
        self._wanted = False
        if self._process:
            self._process.kill()
            self._process = None

    def _line_received(self, process, stops, line):
        if process is not self._process:
            return
        try:
            record = json.loads(line)
        except ValueError:
            return
        if isinstance(record, dict):
            self._on_record(record, lambda: self._stops == stops)

    def _ended(self, process):
        if process is not self._process:
            return
        self._process = None
        self._reactor.call_later(_RETRY_SECONDS, self._retry)

    def _retry(self):
        if self._wanted and self._product.pid("gateway"):
            self._start()
