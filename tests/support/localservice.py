"""A fake service on a Unix socket, for tests of its clients."""
import contextlib
import os
import queue
import socket
import threading

from terminal import SECONDS


class LocalService:
    """A derived class implements serve(stream) for one client and puts each request into `asked`."""

    def __init__(self, folder, name):
        self.path = os.path.join(folder, name)
        self.asked = queue.Queue()
        self.peers = []
        self.listener = None
        self.open()

    def open(self):
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen()
        threading.Thread(target=self._accept, args=(self.listener,), daemon=True).start()

    def close(self):
        """Removes the socket's file and closes all connections, like a service that ends. May be called twice."""
        if self.listener.fileno() < 0:
            return
        os.unlink(self.path)
        for one in [self.listener, *self.peers]:
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def send(self, data):
        for peer in self.peers:
            with contextlib.suppress(OSError):  # the peer has closed
                peer.sendall(data)

    def expect(self, request):
        """Waits for this request; drops the requests before it."""
        while self.asked.get(timeout=SECONDS) != request:
            pass

    def _accept(self, listener):
        with contextlib.suppress(OSError):  # the listener is closed
            while True:
                peer = listener.accept()[0]
                self.peers = [one for one in self.peers if one.fileno() >= 0] + [peer]
                threading.Thread(target=self._serve, args=(peer,), daemon=True).start()

    def _serve(self, peer):
        with peer, peer.makefile("rb") as stream:
            self.serve(stream)
