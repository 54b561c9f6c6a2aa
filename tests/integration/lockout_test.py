"""Counting failures, locking, unlocking, and the warning."""

import os
import signal
import socket

import pytest

from testbed.daemon import wait_until
from testbed.database import age, utc
from testbed.radius import ACCEPT

WRONG = "000000"


def counts(db, user):
    row = db.user(user)
    return row["failaccum"], row["islocked"]


class TestCounting:
    settings = {"options": {"otp_logmode": 0}}

    def test_the_fifth_failure_locks(self, db, client):
        """Four failures count, the fifth locks and starts the count afresh; each stamps the row."""
        user = db.add_user(last=-300)
        for expected in ((1, 0), (2, 0), (3, 0), (4, 0), (0, 1)):
            assert client.pap(user.name, WRONG).plain_reject
            assert counts(db, user) == expected
            assert -2 <= age(db.user(user)["preusedate"]) < 30
        assert db.audit(user) == ["auth failed."] * 5

    def test_a_success_clears_the_count(self, db, client):
        user = db.add_user(failures=4)
        assert client.pap(user.name, user.code(0)).code == ACCEPT
        assert counts(db, user) == (0, 0) and -2 <= age(db.user(user)["preusedate"]) < 30

    def test_failures_within_ten_minutes_add_up(self, db, client):
        user = db.add_user(failures=4, last=-560)
        client.pap(user.name, WRONG)
        assert counts(db, user) == (0, 1)

    @pytest.mark.parametrize("last", [-600, -660, -86400 * 365])
    def test_after_ten_minutes_the_count_begins_again(self, db, client, last):
        user = db.add_user(failures=4, last=last)
        client.pap(user.name, WRONG)
        assert counts(db, user) == (1, 0)

    def test_no_date_counts_as_now(self, db, client):
        user = db.add_user(failures=2)
        db.set_user(user, preusedate=None)
        client.pap(user.name, WRONG)
        assert counts(db, user) == (3, 0)


class TestLocked:
    settings = {"options": {"otp_logmode": 0}}

    def test_the_right_code_is_refused_and_not_used_up(self, db, client):
        user = db.add_user(locked=1, last=-60)
        assert client.pap(user.name, user.code(0)).plain_reject
        assert db.factor(user) == 0 and counts(db, user) == (0, 1)
        assert db.audit(user) == ["auth failed."]

    def test_each_attempt_prolongs_the_lock(self, db, client):
        user = db.add_user(locked=1, last=-560)
        client.pap(user.name, user.code(0))
        assert -2 <= age(db.user(user)["preusedate"]) < 30
        assert counts(db, user) == (0, 1)

    def test_a_count_beside_a_lock_stays(self, db, client):
        user = db.add_user(locked=1, last=-60, failures=3)
        client.pap(user.name, WRONG)
        assert counts(db, user) == (3, 1)

    def test_without_a_date_the_lock_holds(self, db, client):
        user = db.add_user(locked=1)
        db.set_user(user, preusedate=None)
        assert client.pap(user.name, user.code(0)).plain_reject

    @pytest.mark.parametrize("last", [-600, -86400])
    def test_after_ten_minutes_of_silence_the_right_code_is_accepted(self, db, client, last):
        user = db.add_user(locked=1, last=last, failures=3)
        assert client.pap(user.name, user.code(0)).code == ACCEPT
        assert counts(db, user) == (0, 0) and db.factor(user) == 1

    def test_a_wrong_one_then_lifts_the_lock_and_does_not_count(self, db, client):
        """The attempt still counts as one on a locked account: only the date is written."""
        user = db.add_user(locked=1, last=-600, failures=4)
        assert client.pap(user.name, WRONG).plain_reject
        assert counts(db, user) == (0, 0)
        client.pap(user.name, WRONG)
        assert counts(db, user) == (1, 0)

    def test_a_malformed_request_does_not_touch_the_lock(self, db, client):
        user = db.add_user(locked=1, last=-560)
        before = db.everything()
        client.ask(client.request().user(user.name).raw(b"\x1a\x00"))
        assert db.everything() == before


class TestUnreadableDate:
    loose_tables = True

    @pytest.mark.parametrize("text", ["", "yesterday", "9" * 80])
    def test_it_never_crashes(self, db, client, text):
        user = db.add_user(locked=1)
        db.set_user(user, preusedate=text)
        reply = client.pap(user.name, user.code(0))
        assert reply.plain_reject or reply.code == ACCEPT


@pytest.mark.parametrize("limit", [1, 3])
def test_the_limit_is_a_setting(prepare, limit):
    daemon = prepare({"options": {"otp_max_accum": limit}}).start()
    user, client = daemon.db.add_user(), daemon.client()
    for number in range(1, limit):
        client.pap(user.name, WRONG)
        assert counts(daemon.db, user) == (number, 0)
    client.pap(user.name, WRONG)
    assert counts(daemon.db, user) == (0, 1)


class TestWarning:
    """A listening socket in place of the mail server: is a connection made at all?"""

    def warned(self, prepare, address, locked=0, need=1):
        daemon = prepare({"mail": {"otp_mail_need": need}})
        with socket.create_server(("127.0.0.1", daemon.smtp_port)) as server:
            daemon.start()
            user = daemon.db.add_user(mail=address, failures=4, locked=locked)
            daemon.client().pap(user.name, WRONG)
            if need == 1:
                server.settimeout(0.1)
                made = accept_until(server, daemon)
            else:
                server.settimeout(2)
                made = accepted(server)
                daemon.kill()
        return made

    def test_the_locking_failure_warns(self, prepare):
        assert self.warned(prepare, "alice@example.org")

    def test_an_attempt_on_a_locked_account_warns(self, prepare):
        assert self.warned(prepare, "alice@example.org", locked=1)

    @pytest.mark.parametrize("mail", [None, ""])
    def test_no_address_no_warning(self, prepare, mail):
        assert not self.warned(prepare, mail)

    @pytest.mark.parametrize("need", [0, 2])
    def test_only_mail_need_1_sends(self, prepare, need):
        assert not self.warned(prepare, "alice@example.org", need=need)


def accepted(server):
    try:
        server.accept()[0].close()
    except TimeoutError:
        return False
    return True


def accept_until(server, daemon):
    """Stops the daemon in order, which sends every queued mail first, and says whether one was tried."""
    os.kill(daemon.pid, signal.SIGTERM)
    made = []
    wait_until(lambda: made.append(accepted(server)) or not daemon.processes(), "the end of the daemon")
    daemon.wait_gone()
    return any(made)
