#!/usr/bin/python3
"""A client of the service's local sockets that uses only the standard library. docs/ipc-protocol.md has the format.

    ipc_client.py list [TYPE]                        list devices of an mDNS service type; without TYPE, SSDP devices
    ipc_client.py watch                              list SSDP devices and print each change until Ctrl-C
    ipc_client.py add TYPE NAME PORT [KEY=VALUE]...  publish a record; it stays published after this program ends
"""
import itertools
import os
import socket
import struct
import sys

RUN_DIR = os.environ.get("SONARIX_RUN_DIR", "/run/sonarix")


def varint(number):
    number %= 1 << 64  # negative numbers are sent as their 64-bit complement
    return bytes([number]) if number < 128 else bytes([number & 127 | 128]) + varint(number >> 7)


def record(*fields):
    """Serializes (number, value) pairs. A value is an integer, a text, or bytes, for example of a nested record."""
    values = [(number, value.encode() if isinstance(value, str) else value) for number, value in fields]
    return b"".join(varint(number << 3) + varint(value) if isinstance(value, int) else
                    varint(number << 3 | 2) + varint(len(value)) + value for number, value in values)


def read_varint(rest):
    number = shift = 0
    for byte in rest:
        number, shift = number | (byte & 127) << shift, shift + 7
        if byte < 128:
            return number
    return None


def parse(data):
    """Maps each field number to the list of its values, integers or bytes."""
    fields, rest = {}, iter(data)
    while (key := read_varint(rest)) is not None:
        value = read_varint(rest)
        fields.setdefault(key >> 3, []).append(bytes(itertools.islice(rest, value)) if key & 7 == 2 else value)
    return fields


def frame(name, identifier, payload, tid=1):
    envelope = record((2, name), (3, identifier), (4, tid), (5, 0), (6, payload))
    return struct.pack(">I", len(envelope)) + envelope


def converse(name, request):
    """Sends a request and yields (kind, payload type, payload) of each received frame until the service disconnects."""
    with socket.socket(socket.AF_UNIX) as peer, peer.makefile("rb") as stream:
        peer.connect(os.path.join(RUN_DIR, name))
        peer.sendall(request)
        while head := stream.read(4):
            envelope = parse(stream.read(*struct.unpack(">I", head)))
            yield envelope.get(5, [0])[0], envelope.get(2, [b""])[0].decode(), parse(envelope.get(6, [b""])[0])


def service(kind, name, port, *texts):
    identity = record((1, -1), (2, 0), (3, name), (4, kind), (5, "local"))
    return record((1, identity), (2, int(port)), *((3, record(*enumerate(text.split("=", 1), 1))) for text in texts))


def show(state, device):
    print(state, *(device.get(number, [b"-"])[0].decode() for number in (7, 2, 3)), sep="\t", flush=True)


def main(command, *words):
    if command == "add":
        frames = converse("SonarixMdnsService", frame("Service", 3, service(*words)))
    elif words:
        frames = converse("SonarixMdnsService", frame("ServiceId", 2, record((4, words[0]))))
    else:
        frames = converse("SonarixSsdpService", frame("DiscoveredDeviceList", 2, b""))
    for kind, name, payload in frames:
        if kind == 2:  # a notification; it may arrive before the response
            show("ONLINE" if payload[1] == [2] else "OFFLINE", parse(payload[2][0]))
        elif name not in ("DiscoveredDeviceList", "DiscoveryServiceVoid"):
            return payload.get(3, [b"the service rejects the request"])[0].decode()
        else:
            for device in payload.get(1, []):
                show("ONLINE", parse(device))
            if command != "watch":
                return 0
    return "the service has disconnected"


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]) if sys.argv[1:] else __doc__)
