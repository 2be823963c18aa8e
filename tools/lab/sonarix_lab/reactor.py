"""One thread that serves pipes, process ends and timers of a laboratory."""
import heapq
import itertools
import os
import selectors
import socket
import threading
import time

_READ_SIZE = 1 << 16


class Reactor:
    """Callbacks run on the reactor's thread, one at a time, and must not block.

    All methods may be called from any thread, also from callbacks.
    """

    def __init__(self):
        self._selector = selectors.DefaultSelector()
        self._wake_read, self._wake_write = socket.socketpair()
        self._wake_read.setblocking(False)
        self._selector.register(self._wake_read, selectors.EVENT_READ, self._drain_wake)
        self._lock = threading.Lock()
        self._posted = []
        self._timers = []
        self._order = itertools.count()
        self._stopped = False
        self._thread = threading.Thread(target=self._run, name="lab-reactor", daemon=True)
        self._thread.start()

    def stop(self):
        """Delivers the events so far and ends the thread. No callback runs after the return."""
        self._stopped = True
        self._wake_write.send(b"x")
        self._thread.join()
        self._selector.close()
        self._wake_read.close()
        self._wake_write.close()

    def post(self, callback):
        with self._lock:
            self._posted.append(callback)
        self._wake_write.send(b"x")

    def call_later(self, seconds, callback):
        due = time.monotonic() + seconds
        self.post(lambda: heapq.heappush(self._timers, (due, next(self._order), callback)))

    def watch_lines(self, pipe, on_line):
        """Calls on_line(bytes) for each line of `pipe`, and closes it at its end."""
        os.set_blocking(pipe.fileno(), False)
        pending = bytearray()

        def readable():
            try:
                data = os.read(pipe.fileno(), _READ_SIZE)
            except BlockingIOError:
                return
            pending.extend(data)
            *lines, rest = pending.split(b"\n")
            pending[:] = rest
            for line in lines:
                on_line(bytes(line))
            if not data:
                self._selector.unregister(pipe)
                pipe.close()

        self.post(lambda: self._selector.register(pipe, selectors.EVENT_READ, readable))

    def watch_end(self, process, on_end):
        """Calls on_end(status) when the Popen `process` ends. No other code may wait for it."""
        descriptor = os.pidfd_open(process.pid)

        def ended():
            self._selector.unregister(descriptor)
            os.close(descriptor)
            on_end(process.wait())

        self.post(lambda: self._selector.register(descriptor, selectors.EVENT_READ, ended))

    def _drain_wake(self):
        self._wake_read.recv(_READ_SIZE)

    def _until_due(self):
        return max(0.0, self._timers[0][0] - time.monotonic()) if self._timers else None

    def _run(self):
        stopped = False
        while not stopped:
            stopped = self._stopped  # read before the last round, so that this round serves all earlier events
            for key, _ in self._selector.select(0 if stopped else self._until_due()):
                key.data()
            with self._lock:
                posted, self._posted = self._posted, []
            for callback in posted:
                callback()
            while self._timers and self._timers[0][0] <= time.monotonic():
                heapq.heappop(self._timers)[2]()
