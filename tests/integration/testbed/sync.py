"""A byte-level client of the synchronisation service, written without a look at the server."""

import select
import socket
import struct

PORT = 8801
REQUEST, ACCEPTED, REFUSED, CHALLENGE = 1, 2, 3, 4
USER_NAME, PASSWORD, CHALLENGE_TEXT = 1, 2, 3
DIGITS, TOKEN_TYPE, AUTH_TYPE, HIGH, LOW, KEY, PIN, CLOCK, SECRET, TIME_STEP = range(4, 14)
ORDER = [DIGITS, TOKEN_TYPE, AUTH_TYPE, HIGH, LOW, PIN, KEY, SECRET, CLOCK, TIME_STEP]
REFUSAL = b"\x03\x00\x03"
PATIENCE = 60  # seconds for an answer that must come, on a busy machine


def as_bytes(text):
    return text.encode() if isinstance(text, str) else text


def attribute(kind, value):
    value = as_bytes(value)
    return bytes([kind, len(value) + 2]) + value


def packet(attributes=b"", code=REQUEST, length=None):
    """A datagram; `length` overrides the length field."""
    length = 3 + len(attributes) if length is None else length
    return struct.pack(">BH", code, length) + attributes


def request(name, password, more=b""):
    return packet(attribute(USER_NAME, name) + attribute(PASSWORD, password) + more)


class Reply:
    """One reply, taken apart; its length field must be its size."""

    def __init__(self, octets):
        self.octets = octets
        self.code, length = struct.unpack(">BH", octets[:3])
        assert length == len(octets), octets
        self.order, self.values = [], {}
        position = 3
        while position < len(octets):
            kind, size = octets[position : position + 2]
            assert size >= 2 and position + size <= len(octets), octets
            self.order.append(kind)
            self.values[kind] = octets[position + 2 : position + size]
            position += size

    @property
    def refused(self):
        return self.octets == REFUSAL

    def number(self, kind):
        return int.from_bytes(self.values[kind], "big")

    @property
    def counter(self):
        return self.number(HIGH) * 2**32 + self.number(LOW)

    @property
    def challenge(self):
        assert self.code == CHALLENGE and self.order == [CHALLENGE_TEXT], self.octets
        text = self.values[CHALLENGE_TEXT]
        assert text.startswith(b"Challenge code:"), text
        return int(text[15:])


class SyncClient:
    """One UDP socket at one local address."""

    def __init__(self, address="127.0.0.1"):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((address, 0))

    def close(self):
        self.socket.close()

    def send(self, octets):
        self.socket.sendto(octets, ("127.0.0.1", PORT))

    def receive(self, seconds=PATIENCE):
        assert self.waiting(seconds), "no answer"
        octets, sender = self.socket.recvfrom(4096)
        assert sender == ("127.0.0.1", PORT)
        return Reply(octets)

    def waiting(self, seconds=0.0):
        """Whether a datagram has come, or comes within `seconds`."""
        return bool(select.select([self.socket], [], [], seconds)[0])

    def exchange(self, octets):
        assert not self.waiting()
        self.send(octets)
        return self.receive()

    def ask(self, name, password):
        return self.exchange(request(name, password))
