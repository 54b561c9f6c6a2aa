"""The dialogue of the challenge-response tokens."""

import re

import pytest

from testbed.database import CHALLENGE as CHALLENGE_TOKEN, age, utc
from testbed.radius import ACCEPT, CHALLENGE, REJECT

PIN = "2468"


@pytest.fixture
def user(db):
    return db.add_user(kind=CHALLENGE_TOKEN, pin=PIN)


def pending(db, user):
    """The pending challenge, or None."""
    token = db.token(user)
    return token["lcounter"] if token["hcounter"] == 1 else None


def start(db, client, user):
    assert client.pap(user.name, PIN).code == CHALLENGE
    return pending(db, user)


class TestPinStage:
    settings = {"options": {"otp_logmode": 0}}

    def test_the_pin_brings_a_challenge(self, db, client, user):
        reply = client.pap(user.name, PIN)
        number = pending(db, user)
        text = b"Challenge %u , it will timeout in ten minutes." % number
        assert reply.code == CHALLENGE and reply.message == text and reply.valid
        assert reply.length == 22 + len(text)
        assert 1001 <= number <= 10008999
        assert -2 <= age(db.token(user)["predate"]) < 30

    def test_it_leaves_no_trace_elsewhere(self, db, client, user):
        before = tuple(db.user(user))
        start(db, client, user)
        assert tuple(db.user(user)) == before and db.audit(user) == []

    def test_the_pin_by_chap(self, db, client, user):
        assert client.chap(user.name, PIN).code == CHALLENGE
        assert pending(db, user)

    def test_a_wrong_pin_by_chap(self, db, client, user):
        assert client.chap(user.name, "1111").plain_reject
        assert pending(db, user) is None

    @pytest.mark.parametrize("password", ["1111", "", PIN + "x", "x" * 16])
    def test_a_wrong_pin_of_the_same_padded_length_is_rejected(self, db, client, user, password):
        assert client.pap(user.name, password).plain_reject
        assert pending(db, user) is None and db.user(user)["failaccum"] == 1

    @pytest.mark.parametrize("length", [17, 32, 33])
    def test_another_padded_length_brings_a_challenge(self, db, client, user, length):
        assert client.pap(user.name, "x" * length).code == CHALLENGE

    def test_no_password_brings_a_challenge(self, db, client, user):
        reply = client.ask(client.request().user(user.name))
        assert reply.code == CHALLENGE and reply.valid

    @pytest.mark.parametrize("password", ["x", "a full code"])
    def test_without_a_pin_any_password_brings_a_challenge(self, db, client, password):
        """The empty PIN has no block at all, a password has one."""
        user = db.add_user(kind=CHALLENGE_TOKEN)
        assert client.pap(user.name, password).code == CHALLENGE

    def test_without_a_pin_chap_needs_the_empty_password(self, db, client):
        user = db.add_user(kind=CHALLENGE_TOKEN)
        assert client.chap(user.name, "x").plain_reject
        assert client.chap(user.name, "").code == CHALLENGE

    def test_a_failed_update_sends_nothing(self, prepare):
        """Nothing is sent when the challenge cannot be stored."""
        daemon = prepare({"Radius Server": {"otp_maxthread": 1}}).start()
        user = daemon.db.add_user(kind=CHALLENGE_TOKEN, pin=PIN)
        daemon.db.refuse_updates("keyinfo")
        client = daemon.client()
        assert daemon.silent(client, client.request().user(user.name).pap(PIN).bytes())


class TestAnswer:
    settings = {"options": {"otp_logmode": 0}}

    @pytest.mark.parametrize("ask", ["pap", "chap"])
    def test_the_right_code_is_accepted_and_ends_the_challenge(self, db, client, user, ask):
        number = start(db, client, user)
        assert getattr(client, ask)(user.name, user.code(number) + PIN).code == ACCEPT
        assert pending(db, user) is None and db.token(user)["lcounter"] == 0
        assert db.audit(user) == ["auth succeed"]

    @pytest.mark.parametrize("password", ["000000" + PIN, PIN, "x" * 40, ""])
    def test_a_wrong_one_ends_it_too(self, db, client, user, password):
        number = start(db, client, user)
        assert client.pap(user.name, password).plain_reject
        assert pending(db, user) is None and db.token(user)["lcounter"] == 0
        assert client.pap(user.name, user.code(number) + PIN).code == REJECT
        assert db.audit(user) == ["auth failed."] * 2

    def test_only_the_challenge_itself_counts(self, db, client, user):
        """The window is 1: the code of the next number is wrong."""
        number = start(db, client, user)
        assert client.pap(user.name, user.code(number + 1) + PIN).code == REJECT

    def test_a_code_is_good_once(self, db, client, user):
        number = start(db, client, user)
        assert client.pap(user.name, user.code(number) + PIN).code == ACCEPT
        assert client.pap(user.name, user.code(number) + PIN).code == REJECT

    def test_no_password_is_a_failure_and_the_challenge_stays(self, db, client, user):
        number = start(db, client, user)
        assert client.ask(client.request().user(user.name)).plain_reject
        assert pending(db, user) == number
        assert client.pap(user.name, user.code(number) + PIN).code == ACCEPT

    def test_nearly_ten_minutes_are_in_time(self, db, client, user):
        number = start(db, client, user)
        db.set_token(user, predate=utc(-560))
        assert client.pap(user.name, user.code(number) + PIN).code == ACCEPT

    def test_after_600_seconds_the_answer_is_a_wrong_pin(self, db, client, user):
        number = start(db, client, user)
        db.set_token(user, predate=utc(-600))
        assert client.pap(user.name, user.code(number) + PIN).plain_reject

    def test_after_600_seconds_the_pin_brings_a_new_challenge(self, db, client, user):
        start(db, client, user)
        db.set_token(user, predate=utc(-600), lcounter=5)
        reply = client.pap(user.name, PIN)
        assert reply.code == CHALLENGE and pending(db, user) != 5
        assert int(re.match(rb"Challenge (\d+) ,", reply.message)[1]) == pending(db, user)

    def test_a_high_counter_other_than_1_is_no_challenge(self, db, client, user):
        db.set_token(user, hcounter=2, lcounter=1234)
        assert client.pap(user.name, user.code(1234) + PIN).plain_reject
        assert client.pap(user.name, PIN).code == CHALLENGE
