"""The duplicate filter: the same client port, address and Identifier within an interval."""

import time

from testbed.radius import ACCEPT, REJECT, Reply


def resend_until_answered(client, octets, request, limit=60):
    """Repeats a datagram every 0.2 s; returns the reply and the seconds until it came."""
    started = time.monotonic()
    while time.monotonic() < started + limit:
        client.send(octets)
        if client.waiting(0.2):
            return Reply(client.receive(), request), time.monotonic() - started
    raise AssertionError("never answered")


class TestLongInterval:
    settings = {"Radius Server": {"otp_packetchecktime": 3000, "otp_maxthread": 1}, "options": {"otp_logmode": 0}}

    def test_the_same_datagram_again_is_dropped(self, daemon, db, client):
        user = db.add_user()
        request = client.request().user(user.name).pap("000000")
        assert client.ask(request).code == REJECT
        assert daemon.silent(client, request.bytes())
        assert db.user(user)["failaccum"] == 1 and db.audit(user) == ["auth failed."]

    def test_another_request_with_that_identifier_is_dropped_too(self, daemon, db, client):
        user = db.add_user()
        assert client.ask(client.request(identifier=5).user(user.name).pap("000000")).code == REJECT
        assert daemon.silent(client, client.request(identifier=5).user(user.name).pap(user.code(0)).bytes())
        assert client.ask(client.request(identifier=6).user(user.name).pap(user.code(0))).code == ACCEPT

    def test_another_port_is_another_client(self, daemon, db):
        user = db.add_user(window=10)
        for factor in range(3):
            client = daemon.client()
            assert client.ask(client.request(identifier=77).user(user.name).pap(user.code(factor))).code == ACCEPT

    def test_a_silent_request_counts_as_seen(self, daemon, db, client):
        """A datagram of another code gets no answer, and hides the request that follows under its Identifier."""
        user = db.add_user()
        assert daemon.silent(client, client.request(code=4, identifier=9).bytes())
        assert daemon.silent(client, client.request(identifier=9).user(user.name).pap(user.code(0)).bytes())
        assert db.factor(user) == 0

    def test_a_datagram_of_a_wrong_size_does_not(self, daemon, db, client):
        user = db.add_user()
        request = client.request(identifier=9).user(user.name).pap(user.code(0))
        assert daemon.silent(client, request.bytes(length=19))
        assert client.ask(request).code == ACCEPT


class TestShortInterval:
    settings = {"Radius Server": {"otp_packetchecktime": 3}}

    def test_repetitions_do_not_prolong_the_interval(self, db, client):
        """Sent all the time, and served again once 3 s after the first have passed (whole seconds: 2 at least)."""
        user = db.add_user()
        request = client.request().user(user.name).pap("000000")
        assert client.ask(request).code == REJECT
        reply, seconds = resend_until_answered(client, request.bytes(), request)
        assert reply.code == REJECT and 1.5 <= seconds < 20

    def test_the_repetition_that_is_served_begins_a_new_interval(self, db, client):
        user = db.add_user()
        request = client.request().user(user.name).pap("000000")
        client.ask(request)
        for _ in range(2):
            assert resend_until_answered(client, request.bytes(), request)[1] >= 1.5


class TestNoInterval:
    def test_by_default_every_repetition_is_served(self, db, client):
        user = db.add_user()
        request = client.request().user(user.name).pap("000000")
        for count in (1, 2, 3, 4):
            assert client.ask(request).code == REJECT
            assert db.user(user)["failaccum"] == count

    def test_a_code_that_is_repeated_is_accepted_once(self, db, client):
        user = db.add_user()
        request = client.request().user(user.name).pap(user.code(0))
        assert client.ask(request).code == ACCEPT
        assert client.ask(request).code == REJECT
