"""A byte-level RADIUS client (RFC 2865), written without a look at the server."""

import hashlib
import os
import random
import select
import socket
import struct
import time

ACCEPT, REJECT, CHALLENGE = 2, 3, 11
USER_NAME, USER_PASSWORD, CHAP_PASSWORD, REPLY_MESSAGE, VENDOR, CHAP_CHALLENGE = 1, 2, 3, 18, 26, 60
NO_USER = b"USER NOT EXIST"
PATIENCE = 30  # seconds for a reply that must come, on a busy machine


def attribute(kind, value):
    return bytes([kind, len(value) + 2]) + value


def as_bytes(text):
    return text.encode() if isinstance(text, str) else text


def hide_password(password, secret, authenticator):
    """RFC 2865 section 5.2; an empty password still fills one block."""
    padded = password.ljust(max(16, -(-len(password) // 16) * 16), b"\0")
    hidden, previous = b"", authenticator
    for start in range(0, len(padded), 16):
        pad = hashlib.md5(secret + previous).digest()
        previous = bytes(a ^ b for a, b in zip(padded[start : start + 16], pad))
        hidden += previous
    return hidden


class Request:
    """An Access-Request under construction; each call adds one attribute and returns the request."""

    def __init__(self, secret, code=1, identifier=None):
        self.secret = secret
        self.code = code
        self.identifier = random.randrange(256) if identifier is None else identifier
        self.authenticator = os.urandom(16)
        self.attributes = b""

    def raw(self, octets):
        self.attributes += octets
        return self

    def add(self, kind, value):
        return self.raw(attribute(kind, as_bytes(value)))

    def user(self, name):
        return self.add(USER_NAME, name)

    def pap(self, password):
        return self.add(USER_PASSWORD, hide_password(as_bytes(password), self.secret, self.authenticator))

    def chap(self, password, challenge=None, identifier=7):
        """CHAP-Password; with a challenge a CHAP-Challenge follows, else the authenticator is the challenge."""
        asked = self.authenticator if challenge is None else challenge
        response = hashlib.md5(bytes([identifier]) + as_bytes(password) + asked).digest()
        self.add(CHAP_PASSWORD, bytes([identifier]) + response)
        return self if challenge is None else self.add(CHAP_CHALLENGE, challenge)

    def bytes(self, length=None):
        """The datagram; `length` overrides the Length field."""
        length = 20 + len(self.attributes) if length is None else length
        return struct.pack(">BBH", self.code, self.identifier, length) + self.authenticator + self.attributes


class Reply:
    """One reply datagram, taken apart."""

    def __init__(self, octets, request):
        assert len(octets) >= 20, octets
        self.octets = octets
        self.code, self.identifier, self.length = struct.unpack(">BBH", octets[:4])
        self.authenticator = octets[4:20]
        self.attributes = octets[20:]
        self._request = request
        assert self.length == len(octets), "the Length field is the size of the datagram"
        assert self.identifier == request.identifier

    def _digest(self, count):
        """MD5 over the first `count` bytes of the reply as it is signed, the secret behind its last byte."""
        signed = self.octets[:4] + self._request.authenticator + self.attributes + self._request.secret
        return hashlib.md5(signed[:count]).digest()

    @property
    def valid(self):
        """Whether a RADIUS client believes the reply (RFC 2865 section 3)."""
        return self.authenticator == self._digest(self.length + len(self._request.secret))

    @property
    def valid_short(self):
        """Whether the digest covers 20 + secret length bytes, whatever the length of the reply."""
        return self.authenticator == self._digest(20 + len(self._request.secret))

    @property
    def message(self):
        """The text of the Reply-Message that is the only attribute, or b"" when there is none."""
        if not self.attributes:
            return b""
        kind, length = self.attributes[:2]
        assert kind == REPLY_MESSAGE and length == len(self.attributes), self.attributes
        return self.attributes[2:]

    @property
    def plain_reject(self):
        return self.code == REJECT and self.length == 20 and self.valid

    @property
    def unknown_user(self):
        return self.code == REJECT and self.length == 36 and self.message == NO_USER and self.valid_short


class Client:
    """One UDP socket at one local address."""

    def __init__(self, port, secret, address="127.0.0.1"):
        self.secret = secret
        self.server = ("127.0.0.1", port)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self.socket.bind((address, 0))

    def close(self):
        self.socket.close()

    def request(self, **fields):
        return Request(self.secret, **fields)

    def send(self, octets):
        self.socket.sendto(octets, self.server)

    def waiting(self, seconds=0.0):
        """Whether a datagram has come, or comes within `seconds`."""
        return bool(select.select([self.socket], [], [], seconds)[0])

    def receive(self, seconds=PATIENCE):
        assert self.waiting(seconds), "no reply"
        octets, sender = self.socket.recvfrom(4096)
        assert sender == self.server
        return octets

    def ask(self, request):
        """Sends a request and returns the reply; nothing else may be waiting."""
        assert not self.waiting()
        self.send(request.bytes())
        return Reply(self.receive(), request)

    def try_pap(self, name, password, seconds):
        """Like pap(), for a server that may be unable to answer: returns None without a reply."""
        request = self.request().user(name).pap(password)
        self.send(request.bytes())
        deadline = time.monotonic() + seconds
        while self.waiting(max(0.0, deadline - time.monotonic())):
            octets = self.receive()
            if octets[1] == request.identifier:
                return Reply(octets, request)
        return None

    def pap(self, name, password):
        """Asks with User-Password; every reply must be signed as its kind is."""
        return self._signed(self.request().user(name).pap(password))

    def chap(self, name, password, challenge=None):
        """Asks with CHAP-Password; every reply must be signed as its kind is."""
        return self._signed(self.request().user(name).chap(password, challenge))

    def _signed(self, request):
        reply = self.ask(request)
        assert reply.valid or reply.unknown_user
        return reply
