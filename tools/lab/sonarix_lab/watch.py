"""Hears what a product publishes, through a `portico watch` in that product."""
import json
import subprocess

# Between two attempts while the product's gateway runs but does not answer yet.
_AGAIN_SECONDS = 0.25


class Watch:
    """One path of one product. on_record(record, fresh) is called on the reactor's thread for each that is published;
    fresh() tells whether the watch has gone on since, for a caller that looks again under a lock.
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
        """What was published before is not told any more, even if it is still on its way."""
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
        self._reactor.watch_lines(process.stdout, lambda line: self._heard(process, stops, line))
        self._reactor.watch_end(process, lambda status: self._ended(process))

    def _stop(self):
        self._wanted = False
        if self._process:
            self._process.kill()
            self._process = None

    def _heard(self, process, stops, line):
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
        self._reactor.call_later(_AGAIN_SECONDS, self._again)

    def _again(self):
        if self._wanted and self._product.pid("gateway"):
            self._start()
