"""A device's web server on the host's own loopback, for a browser on the host and for nobody else."""

from __future__ import annotations

import socket
import threading

from .device import Device

WEB_PORT = 80
BLOCK = 64 << 10


class Forward:
    """A port of 127.0.0.1 whose connections lead to the device's web server; use it as a context manager."""

    def __init__(self, device: Device) -> None:
        self._device = device
        self._listening = socket.create_server(("127.0.0.1", 0))
        self.port: int = self._listening.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self) -> None:
        while True:
            try:
                client, _ = self._listening.accept()
            except OSError:
                return  # closed
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client: socket.socket) -> None:
        with client:
            try:
                server = self._device.connect(WEB_PORT)
            except OSError:
                return  # as if nobody listened
            with server:
                back = threading.Thread(target=_pump, args=(server, client), daemon=True)
                back.start()
                _pump(client, server)
                back.join()

    def __enter__(self) -> Forward:
        return self

    def __exit__(self, *_: object) -> None:
        # A thread that waits in accept would keep the port open; this wakes it.
        self._listening.shutdown(socket.SHUT_RDWR)
        self._listening.close()


def _pump(source: socket.socket, target: socket.socket) -> None:
    """Carry everything over until the source has no more, and tell the target so."""
    try:
        while block := source.recv(BLOCK):
            target.sendall(block)
        target.shutdown(socket.SHUT_WR)
    except OSError:
        pass  # one of the two has gone
