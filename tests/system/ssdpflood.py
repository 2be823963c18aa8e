#!/usr/bin/python3
"""Sends abnormal SSDP announcements from any address of this host.

Usage: ssdpflood.py malformed|agents|usns ADDRESS COUNT

malformed: COUNT different malformed ones. agents: COUNT valid ones for another target, each from another address and
with a SERVER header of 20 KB. usns: COUNT valid ones, each with another USN, from a thousand addresses starting at
ADDRESS, at a rate that a small machine can receive.
"""
import ipaddress
import itertools
import socket
import struct
import subprocess
import sys
import time

GROUP = ("239.255.255.250", 1900)
TYPE = "urn:schemas-upnp-org:device:MediaRenderer:1"
INTERFACE = "eth0"
SENDERS = 1000
ADDRESSES = "10.77.128"  # unused addresses on the link
PACKETS_A_SECOND = 15000


def notify(**changed):
    """A good announcement, but for the headers given; None leaves one out."""
    headers = {"HOST": "239.255.255.250:1900", "CACHE_CONTROL": "max-age=1800", "LOCATION": "http://{sender}:49152/",
               "NT": TYPE, "NTS": "ssdp:alive", "USN": "uuid:malformed-{number}::" + TYPE}
    headers.update(changed)
    lines = "".join(f"{name.replace('_', '-')}: {value}\r\n" for name, value in headers.items() if value is not None)
    return f"NOTIFY * HTTP/1.1\r\n{lines}\r\n"


def malformed():
    """Each kind of damage, in announcements and goodbyes, endlessly."""
    long = "x" * 30000
    damaged = [
        {"USN": None}, {"USN": ""}, {"USN": "no-colon-at-all"}, {"USN": "uuid:"}, {"USN": ":"}, {"USN": "uuid::" + TYPE},
        {"USN": "uuid:{number}:" + ":" * 200}, {"USN": "uuid:" + long}, {"USN": long}, {"USN": "uuid:\udcff\udcfe"},
        {"USN": "uuid:%n%s%x{number}"}, {"USN": "uuid:a\0b"}, {"NT": TYPE + "\udcff"}, {"NT": TYPE * 100},
        {"NT": ".*" + TYPE + "(((("}, {"NTS": None}, {"NTS": "ssdp:" + long}, {"LOCATION": None}, {"LOCATION": long},
        {"LOCATION": "http://{sender}:99999/"}, {"LOCATION": "\udc80"}, {"LOCATION": None, "AL": "<<<>>><" + long},
        {"CACHE_CONTROL": "max-age=-1"}, {"CACHE_CONTROL": "no-cache, max-age=10"}, {"CACHE_CONTROL": "max-age"},
        {"CACHE_CONTROL": None}, {"CACHE_CONTROL": None, "EXPIRES": "foo"}, {"CONTENT_LENGTH": "-1"},
    ]
    torn = ["NOTIFY", "NOTIFY * HTTP/1.1", "NOTIFY * HTTP/1.1\r\n\r\n", "NOTIFY * HTTP/9.9\r\nNT: " + TYPE + "\r\n\r\n",
            "HTTP/1.1 200 OK\r\nST: " + TYPE + "\r\nUSN: nothing\r\n\r\n", "", "\0" * 500, "\r\n" * 500,
            notify().replace(":", " "), notify().replace("\r\n", "\n"), notify()[:-4],
            "NOTIFY * HTTP/1.1\r\n" + "".join(f"X-{number}: y\r\n" for number in range(4000)) + "\r\n"]
    for number in itertools.count():
        for kind in ({}, {"NTS": "ssdp:byebye"}, {"NTS": "ssdp:update"}):
            for damage in damaged:
                yield notify(**{**kind, **damage}).replace("{number}", str(number))
        yield from torn


class Sender:
    def __init__(self):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4 << 20)
        self._interface = socket.if_nametoindex(INTERFACE)

    def send(self, text, sender):
        info = struct.pack("@i4s4s", self._interface, sender.packed, b"\0\0\0\0")
        self._socket.sendmsg([text.replace("{sender}", str(sender)).encode(errors="surrogateescape")],
                             [(socket.IPPROTO_IP, socket.IP_PKTINFO, info)], 0, GROUP)


def main(what, address, count):
    sender, first, begin = Sender(), ipaddress.IPv4Address(address), time.monotonic()
    if what == "malformed":
        for number, text in zip(range(int(count)), malformed()):
            sender.send(text, first + number % 100)
            time.sleep(0.002)
        return
    if what == "agents":
        subprocess.run(["ip", "route", "replace", "local", f"{ADDRESSES}.0/17", "dev", "lo"], check=True)
        for number in range(int(count)):
            sender.send(notify(NT="some:other", SERVER="s" * 20000), ipaddress.IPv4Address(f"{ADDRESSES}.1") + number)
            time.sleep(0.0005)
        return
    for number in range(int(count)):
        sender.send(notify(USN=f"uuid:flood-{number}::{TYPE}"), first + number % SENDERS)
        if number % 100 == 0:
            time.sleep(max(0.0, begin + number / PACKETS_A_SECOND - time.monotonic()))


if __name__ == "__main__":
    socket.IP_PKTINFO = getattr(socket, "IP_PKTINFO", 8)
    main(*sys.argv[1:])
