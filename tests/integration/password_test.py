"""PAP and CHAP for each token type, the PIN, code lengths, and a real RADIUS client."""

import hashlib
import hmac
import os
import subprocess

import pytest

from testbed.database import CHALLENGE, EVENT, KEY, TIMED
from testbed.hotp import hotp, oathtool
from testbed.radius import ACCEPT, CHALLENGE as CHALLENGED, REJECT

CHALLENGE_VALUE = bytes(range(16))


def authenticate(db, client, user, kind, how):
    """Sends the right password in the given way; a challenge token is challenged first."""
    ask = {"pap": client.pap, "chap": client.chap,
           "chap with challenge": lambda name, password: client.chap(name, password, CHALLENGE_VALUE)}[how]
    factor = db.factor(user)
    if kind == CHALLENGE:
        assert ask(user.name, user.pin).code == CHALLENGED
        factor = db.token(user)["lcounter"]
    return ask(user.name, user.code(factor) + user.pin)


class TestEveryTokenInEveryWay:
    @pytest.mark.parametrize("how", ["pap", "chap", "chap with challenge"])
    @pytest.mark.parametrize("pin", [None, "2468"], ids=["no PIN", "PIN"])
    @pytest.mark.parametrize("kind", [EVENT, TIMED, CHALLENGE], ids=["event", "timed", "challenge"])
    def test_the_right_password_is_accepted(self, db, client, kind, pin, how):
        """Code, or code and PIN; the reply is a signed Access-Accept of 20 bytes."""
        user = db.add_user(kind=kind, pin=pin, factor=0 if kind == CHALLENGE else 1000)
        reply = authenticate(db, client, user, kind, how)
        assert reply.code == ACCEPT and reply.length == 20 and reply.valid

    @pytest.mark.parametrize("kind", [0, 4, -1])
    def test_other_types_fail(self, prepare, kind):
        daemon = prepare(loose=True).start()
        user = daemon.db.add_user(kind=kind)
        assert daemon.client().pap(user.name, user.code(0)).plain_reject
        assert daemon.db.user(user)["failaccum"] == 1


class TestPin:
    @pytest.mark.parametrize("ask", ["pap", "chap"])
    @pytest.mark.parametrize("shape", ["{code}", "{pin}", "{pin}{code}", "{code}{pin}x", "{code} {pin}", ""])
    def test_anything_but_code_then_pin_is_wrong(self, db, client, shape, ask):
        user = db.add_user(pin="9876")
        password = shape.format(code=user.code(0), pin=user.pin)
        assert getattr(client, ask)(user.name, password).plain_reject
        assert db.factor(user) == 0

    def test_the_pin_does_not_count_with_another_authtype(self, db, client):
        user = db.add_user(pin="9876")
        db.set_user(user, authtype=1)
        assert client.pap(user.name, user.code(0) + user.pin).code == REJECT
        assert client.pap(user.name, user.code(0)).code == ACCEPT

    @pytest.mark.parametrize("ask", ["pap", "chap"])
    @pytest.mark.parametrize("length", [1, 5, 6, 7, 17, 18])
    def test_candidates_around_a_block(self, db, client, length, ask):
        """Ten digits and a PIN: 16 characters are one block, 17 are two; 28 is the longest."""
        user = db.add_user(digits=10, pin="p" * length)
        assert getattr(client, ask)(user.name, user.code(0) + user.pin).code == ACCEPT

    def test_a_password_that_only_begins_rightly_is_wrong(self, db, client):
        """One block that is right, and one more."""
        user = db.add_user(digits=10, pin="p" * 6)
        assert client.pap(user.name, user.code(0) + user.pin + "x").plain_reject


class TestCodes:
    @pytest.mark.parametrize("digits", [6, 7, 8])
    @pytest.mark.parametrize("key", [KEY, "k", "K" * 54, "with 'quotes' and \\ and ;"])
    def test_codes_from_oathtool(self, db, client, key, digits):
        user = db.add_user(key=key, digits=digits, factor=77)
        assert client.pap(user.name, oathtool(key, 77, digits)).code == ACCEPT

    @pytest.mark.parametrize("factor, code", enumerate(
        "755224 287082 359152 969429 338314 254676 287922 162583 399871 520489".split()))
    def test_the_codes_of_rfc_4226(self, db, client, factor, code):
        user = db.add_user(factor=factor)
        assert client.pap(user.name, code).code == ACCEPT

    @pytest.mark.parametrize("digits", [9, 10])
    def test_long_codes(self, db, client, digits):
        user = db.add_user(digits=digits)
        assert client.pap(user.name, user.code(0)).code == ACCEPT

    def test_ten_digits_wrap_at_32_bits(self, db, client):
        """A code whose unwrapped form would be another number is accepted in its wrapped form only."""
        factor = next(f for f in range(1000) if hotp(KEY, f, 10) != full_ten_digits(f))
        user = db.add_user(digits=10, factor=factor, window=1)
        assert client.pap(user.name, full_ten_digits(factor)).code == REJECT
        assert client.pap(user.name, hotp(KEY, factor, 10)).code == ACCEPT

    def test_leading_zeros_belong_to_the_code(self, db, client):
        factor = next(f for f in range(1000) if hotp(KEY, f).startswith("0"))
        user = db.add_user(factor=factor, window=1)
        assert client.pap(user.name, hotp(KEY, factor).lstrip("0")).code == REJECT
        assert client.pap(user.name, hotp(KEY, factor)).code == ACCEPT

    @pytest.mark.parametrize("digits", [0, 5, 11, -6])
    def test_other_lengths_fail(self, prepare, digits):
        daemon = prepare(loose=True).start()
        user = daemon.db.add_user(digits=digits)
        for password in ("", "755224", "55224", "0755224755"):
            assert daemon.client().pap(user.name, password).plain_reject
        assert daemon.db.factor(user) == 0

    def test_an_empty_key_proves_nothing(self, prepare):
        """Everybody can compute the code of an empty key."""
        daemon = prepare(loose=True).start()
        user = daemon.db.add_user(key="")
        assert daemon.client().pap(user.name, user.code(0)).plain_reject
        assert daemon.db.factor(user) == 0

    def test_a_key_is_read_up_to_54_characters(self, prepare):
        daemon = prepare(loose=True).start()
        user = daemon.db.add_user(key="k" * 60)
        assert daemon.client().pap(user.name, hotp("k" * 54, 0)).code == ACCEPT


def full_ten_digits(factor):
    """The code as it would be without the 32-bit modulus."""
    mac = hmac.new(KEY.encode(), factor.to_bytes(8, "big"), hashlib.sha1).digest()
    offset = mac[19] & 15
    return f"{int.from_bytes(mac[offset : offset + 4], 'big') & 0x7FFFFFFF:010d}"


class TestTwoPasswords:
    def outcome(self, db, client, *passwords):
        user = db.add_user()
        request = client.request().user(user.name)
        for how, right in passwords:
            getattr(request, how)(user.code(0) if right else "000000")
        return client.ask(request).code

    @pytest.mark.parametrize("first", ["pap", "chap"])
    @pytest.mark.parametrize("second", ["pap", "chap"])
    def test_the_last_one_decides(self, db, client, first, second):
        assert self.outcome(db, client, (first, False), (second, True)) == ACCEPT
        assert self.outcome(db, client, (first, True), (second, False)) == REJECT

    def test_no_password_is_a_failed_attempt(self, db, client):
        user = db.add_user()
        assert client.ask(client.request().user(user.name)).plain_reject
        assert db.user(user)["failaccum"] == 1

    @pytest.mark.parametrize("size", [5, 16, 126])
    def test_chap_challenges_from_5_to_126_bytes(self, db, client, size):
        user = db.add_user()
        assert client.chap(user.name, user.code(0), os.urandom(size)).code == ACCEPT

    def test_the_chap_challenge_may_come_first(self, db, client):
        user = db.add_user()
        chap = client.request().chap(user.code(0), CHALLENGE_VALUE).attributes
        request = client.request().raw(chap[19:]).raw(chap[:19]).user(user.name)
        assert client.ask(request).code == ACCEPT


class TestRadclient:
    """The client program of FreeRADIUS: it believes a reply only when the signature is right."""

    def run(self, daemon, attributes, tmp_path):
        secret = tmp_path / "secret"
        secret.write_bytes(daemon.secret)
        command = ["radclient", "-x", "-r", "1", "-t", "30", "-S", str(secret), f"127.0.0.1:{daemon.port}", "auth"]
        done = subprocess.run(command, input=attributes, capture_output=True, text=True, check=False, timeout=60)
        return done.stdout

    @pytest.mark.parametrize("attribute", ["User-Password", "CHAP-Password"])
    def test_accept_then_reject(self, daemon, db, tmp_path, attribute):
        user = db.add_user(factor=5)
        attributes = f'User-Name = "{user.name}", {attribute} = "{oathtool(user.key, 5)}"\n'
        assert "Received Access-Accept" in self.run(daemon, attributes, tmp_path)
        assert "Received Access-Reject" in self.run(daemon, attributes, tmp_path)

    def test_a_challenge_is_shown(self, daemon, db, tmp_path):
        user = db.add_user(kind=CHALLENGE, pin="1357")
        shown = self.run(daemon, f'User-Name = "{user.name}", User-Password = "1357"\n', tmp_path)
        challenge = db.token(user)["lcounter"]
        assert "Received Access-Challenge" in shown
        assert f"Challenge {challenge} , it will timeout in ten minutes." in shown
        answer = user.code(challenge) + user.pin
        assert "Received Access-Accept" in self.run(
            daemon, f'User-Name = "{user.name}", User-Password = "{answer}"\n', tmp_path)
