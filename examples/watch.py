#!/usr/bin/env python3
"""Watches a name and prints every snapshot of it, with nothing but the standard library.

    watch.py NAME [COUNT]        ends after COUNT snapshots; without COUNT with the connection

It speaks the protocol of docs/protocol.md itself: frames of a 32-bit little-endian length and a
protobuf message, of which it writes and reads the few fields that it needs by hand. DS_SOCKET names
another socket than the system's.
"""
import os
import socket
import struct
import sys

VARINT, FIXED64, BYTES, FIXED32 = 0, 1, 2, 5
SCOPES = {0: "-", 1: "RACK", 2: "SYSTEM", 3: "LOCAL"}


# ---- protobuf ----

def varint(number):
    out = bytearray()
    while number > 0x7F:
        out.append(number & 0x7F | 0x80)
        number >>= 7
    out.append(number)
    return bytes(out)


def field(number, value):
    """One field: a number as a varint, text and messages with their length."""
    if isinstance(value, int):
        return varint(number << 3 | VARINT) + varint(value)
    content = value.encode() if isinstance(value, str) else value
    return varint(number << 3 | BYTES) + varint(len(content)) + content


def read_varint(message, at):
    number = shift = 0
    while True:
        byte = message[at]
        at += 1
        number |= (byte & 0x7F) << shift
        shift += 7
        if byte < 0x80:
            return number, at


def fields(message):
    """The fields of a message: {number: [value, ...]}."""
    found = {}
    at = 0
    while at < len(message):
        key, at = read_varint(message, at)
        kind = key & 7
        if kind == VARINT:
            value, at = read_varint(message, at)
        elif kind == BYTES:
            length, at = read_varint(message, at)
            value, at = message[at:at + length], at + length
        elif kind in (FIXED32, FIXED64):
            length = 4 if kind == FIXED32 else 8
            value, at = int.from_bytes(message[at:at + length], "little"), at + length
        else:
            raise ValueError(f"a field of the unknown kind {kind}")
        found.setdefault(key >> 3, []).append(value)
    return found


def text(found, number):
    return found.get(number, [b""])[-1].decode()


# ---- frames ----

def send(connection, request):
    connection.sendall(struct.pack("<I", len(request)) + request)


def receive(stream):
    """The next event, or None at the end of the connection."""
    header = stream.read(4)
    if len(header) < 4:
        return None
    (length,) = struct.unpack("<I", header)
    return fields(stream.read(length))


# ---- the directory ----

def endpoint(message):
    found = fields(message)
    if 2 in found:
        return found[2][-1].decode()
    ipv4 = fields(found[1][-1])
    address = ipv4.get(1, [0])[-1]
    octets = ".".join(str(address >> shift & 0xFF) for shift in (24, 16, 8, 0))
    return f"{octets}:{ipv4.get(2, [0])[-1]}"


def print_snapshot(message):
    snapshot = fields(message)
    instances = [fields(instance) for instance in snapshot.get(3, [])]
    note = ", more may come back" if snapshot.get(4, [0])[-1] else ""
    print(f"{text(snapshot, 1)} has {len(instances)} instances{note}", flush=True)
    for instance in instances:
        scope = SCOPES.get(instance.get(3, [0])[-1], "?")
        print(f"  {text(instance, 2) or '-'} at {endpoint(instance[6][-1])} scope {scope} "
              f"pid {instance.get(11, [0])[-1]}", flush=True)


def check(reply):
    if reply.get(2, [0])[-1] != 0:
        sys.exit(f"watch.py: refused: {text(reply, 3)}")


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    left = int(sys.argv[2]) if len(sys.argv) == 3 else -1
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.connect(os.environ.get("DS_SOCKET", "/run/ds/ds.sock"))
        hello = field(1, 1) + field(2, "watch.py")
        send(connection, field(1, 1) + field(2, hello))
        send(connection, field(1, 2) + field(5, field(1, sys.argv[1])))
        stream = connection.makefile("rb")
        while left != 0:
            event = receive(stream)
            if event is None:
                sys.exit("watch.py: the daemon ended the connection")
            if 1 in event:
                check(fields(event[1][-1]))
            if 2 in event:
                notification = fields(event[2][-1])
                print_snapshot(notification[3][-1])
                left -= 1


if __name__ == "__main__":
    main()
