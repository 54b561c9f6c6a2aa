"""Many requests at once: nothing is accepted twice, nothing is lost, nothing is torn."""

import collections

from testbed.database import CHALLENGE as CHALLENGE_TOKEN
from testbed.radius import ACCEPT, CHALLENGE, REJECT, Reply


def ask_all(client, requests):
    """Sends all requests (at most 256) before reading a reply; returns the replies in the order of the requests."""
    for request in requests:
        client.send(request.bytes())
    by_identifier = {request.identifier: request for request in requests}
    replies = {}
    while len(replies) < len(requests):
        octets = client.receive()
        assert octets[1] not in replies, "answered twice"
        replies[octets[1]] = Reply(octets, by_identifier[octets[1]])
    return [replies[request.identifier] for request in requests]


def codes(replies):
    assert all(reply.valid for reply in replies)
    return collections.Counter(reply.code for reply in replies)


class TestOneAccount:
    settings = {"options": {"otp_logmode": 0, "otp_max_accum": 99}}

    def test_forty_requests_of_one_code_are_accepted_once(self, db, client):
        user = db.add_user()
        requests = [client.request(identifier=n).user(user.name).pap(user.code(0)) for n in range(40)]
        assert codes(ask_all(client, requests)) == {ACCEPT: 1, REJECT: 39}
        assert db.factor(user) == 1
        assert collections.Counter(db.audit(user)) == {"auth succeed": 1, "auth failed.": 39}

    def test_no_failure_is_lost(self, db, client):
        user = db.add_user()
        requests = [client.request(identifier=n).user(user.name).pap("000000") for n in range(60)]
        assert codes(ask_all(client, requests)) == {REJECT: 60}
        assert db.user(user)["failaccum"] == 60 and len(db.audit(user)) == 60

    def test_one_pending_challenge_is_answered_once(self, db, client):
        """Twenty answers at once: one is right; the rest find the challenge gone and are wrong PINs."""
        user = db.add_user(kind=CHALLENGE_TOKEN, pin="24")
        assert client.pap(user.name, "24").code == CHALLENGE
        answer = user.code(db.token(user)["lcounter"]) + user.pin
        requests = [client.request(identifier=n).user(user.name).pap(answer) for n in range(20)]
        assert codes(ask_all(client, requests)) == {ACCEPT: 1, REJECT: 19}


class TestGuessing:
    settings = {"options": {"otp_logmode": 0}}

    def test_guesses_at_once_lock_the_account_at_the_limit(self, db, client):
        """Fifty guesses, the right code last in line: the fifth guess locks, everything after it is refused unseen."""
        user = db.add_user()
        requests = [client.request(identifier=n).user(user.name).pap("000000") for n in range(50)]
        assert codes(ask_all(client, requests)) == {REJECT: 50}
        assert (db.user(user)["islocked"], db.user(user)["failaccum"]) == (1, 0)
        assert client.pap(user.name, user.code(0)).code == REJECT


class TestManyAccounts:
    settings = {"options": {"otp_logmode": 0}}

    def test_each_is_served_by_its_own_rows(self, db, client):
        users = [db.add_user() for _ in range(50)]
        for factor in range(3):
            requests = [client.request(identifier=n).user(user.name).pap(user.code(factor))
                        for n, user in enumerate(users)]
            assert codes(ask_all(client, requests)) == {ACCEPT: 50}
        assert {db.factor(user) for user in users} == {3}

    def test_right_and_wrong_side_by_side(self, db, client):
        users = [db.add_user() for _ in range(60)]
        requests = [client.request(identifier=n).user(user.name).pap(user.code(0) if n % 2 else "000000")
                    for n, user in enumerate(users)]
        assert [reply.code for reply in ask_all(client, requests)] == [ACCEPT if n % 2 else REJECT for n in range(60)]


class TestLog:
    def test_every_line_is_there_and_whole(self, prepare):
        """Ten workers on one connection write 4,000 lines; each has its own user name."""
        daemon = prepare({"options": {"otp_max_accum": 99}}).start()
        client, users = daemon.client(), [daemon.db.add_user() for _ in range(100)]
        for _ in range(40):
            requests = [client.request(identifier=n).user(user.name).pap("000000") for n, user in enumerate(users)]
            ask_all(client, requests)
        daemon.stop()
        expected = {f"{user.name} auth failed.Request from:127.0.0.1": 40 for user in users}
        assert collections.Counter(daemon.log_messages()) == expected
