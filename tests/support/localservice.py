"""A service at a local socket, for the tests of the programs that talk to it."""
import contextlib
import os
import queue
import socket
import threading

from terminal import SECONDS


class LocalService:
    """`serve(stream)` of a derived class takes what one client says; what has been asked it puts into `asked`."""

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
        """As a service that ends: the socket's file goes, and each connection. Once more is nothing."""
        if self.listener.fileno() < 0:
            return
        os.unlink(self.path)
        for one in [self.listener, *self.peers]:
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def send(self, data):
        for peer in self.peers:
            with contextlib.suppress(OSError):  # one who has gone
                peer.sendall(data)

    def expect(self, request):
        """Waits until that has been asked; what was asked before is forgotten."""
        while self.asked.get(timeout=SECONDS) != request:
            pass

    def _accept(self, listener):
        with contextlib.suppress(OSError):  # closed
            while True:
                peer = listener.accept()[0]
                self.peers = [one for one in self.peers if one.fileno() >= 0] + [peer]
                threading.Thread(target=self._serve, args=(peer,), daemon=True).start()

    def _serve(self, peer):
        with peer, peer.makefile("rb") as stream:
            self.serve(stream)
