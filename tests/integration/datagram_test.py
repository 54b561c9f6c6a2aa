"""Which datagrams are taken, by size, Length field and code."""

import pytest

from testbed.radius import ACCEPT, CHAP_PASSWORD, VENDOR, Reply, attribute

ONE_WORKER = {"Radius Server": {"otp_maxthread": 1}}


def padded(request, size):
    """The request filled up to `size` bytes with vendor attributes, which the server skips."""
    missing = size - len(request.bytes())
    while missing > 0:
        length = missing if missing <= 255 else min(255, missing - 3)
        request.add(VENDOR, b"\0" * (length - 2))
        missing -= length
    assert len(request.bytes()) == size
    return request


class TestDatagramSize:
    settings = ONE_WORKER

    def test_19_bytes_are_dropped(self, daemon, client):
        assert daemon.silent(client, client.request().bytes(length=19)[:19])

    @pytest.mark.parametrize("size", [1, 2, 3, 4])
    def test_a_datagram_without_a_header_is_dropped(self, daemon, client, size):
        """The Length field is missing or says what was received."""
        assert daemon.silent(client, bytes([1, 0, 0, size])[:size])

    def test_an_empty_datagram_is_dropped(self, daemon, client):
        assert daemon.silent(client, b"")

    def test_20_bytes_are_answered(self, client):
        """A request without attributes names no user."""
        assert client.ask(client.request()).unknown_user

    @pytest.mark.parametrize("wrong_by", [-1, 1, 256])
    def test_a_length_field_that_differs_from_the_size_is_dropped(self, daemon, db, client, wrong_by):
        user = db.add_user()
        request = client.request().user(user.name).pap(user.code(0))
        before = db.everything()
        assert daemon.silent(client, request.bytes(length=len(request.bytes()) + wrong_by))
        assert db.everything() == before

    @pytest.mark.parametrize("size", [255, 256, 257, 300, 511, 512])
    def test_up_to_512_bytes_are_served(self, db, client, size):
        user = db.add_user()
        reply = client.ask(padded(client.request().user(user.name).pap(user.code(0)), size))
        assert reply.code == ACCEPT and reply.valid and reply.length == 20

    @pytest.mark.parametrize("size", [513, 600, 4000])
    def test_more_than_512_bytes_are_dropped(self, daemon, db, client, size):
        user = db.add_user()
        request = padded(client.request().user(user.name).pap(user.code(0)), size)
        assert daemon.silent(client, request.bytes())
        assert db.factor(user) == 0

    def test_a_short_datagram_sees_nothing_of_the_one_before(self, db, client):
        """A good request, then its first attribute alone with a Length that reaches into what was received before."""
        user = db.add_user()
        good = client.request().user(user.name).pap(user.code(0))
        cut = client.request()
        cut.authenticator = good.authenticator
        cut.raw(good.attributes[: 2 + len(user.name)]).raw(good.attributes[2 + len(user.name) :][:2])
        assert client.ask(good).code == ACCEPT
        assert client.ask(cut).plain_reject


class TestCode:
    settings = ONE_WORKER

    @pytest.mark.parametrize("code", [0, 2, 3, 4, 5, 11, 12, 13, 40, 255])
    def test_only_an_access_request_is_answered(self, daemon, db, client, code):
        user = db.add_user()
        before = db.everything()
        assert daemon.silent(client, client.request(code=code).user(user.name).pap(user.code(0)).bytes())
        assert db.everything() == before

    def test_every_identifier_is_echoed(self, client):
        for identifier in range(256):
            request = client.request(identifier=identifier).raw(attribute(CHAP_PASSWORD, b"short"))
            client.send(request.bytes())
            assert Reply(client.receive(), request).plain_reject
