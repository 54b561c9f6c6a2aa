"""Stops that take their time: a mail server that says nothing, and mail that is not enabled."""

import time

import pytest

from mail_test import ALMOST, DOWN, HANGING, WRONG, lock
from testbed.mail_server import Exim


@pytest.mark.parametrize("kind", ["deaf", "silent"])
def test_a_hanging_server_cannot_prevent_the_stop(prepare, kind):
    """The waiting mails get 55 s; each alone would take 30."""
    daemon = prepare()
    with HANGING[kind](daemon.smtp_port) as server:
        daemon.start()
        client = daemon.client()
        for number in range(5):
            lock(daemon, client, f"user{number}@example.org")
        started = time.monotonic()
        daemon.stop(120)
        assert 45 <= time.monotonic() - started < 75
        assert not server.hanging
    assert daemon.server_messages() == DOWN
    assert len(daemon.log_messages()) == 5


@pytest.mark.parametrize("need", [0, 2])
def test_mail_need_other_than_1_sends_nothing(prepare, need):
    """Neither while the daemon runs nor at its end."""
    daemon = prepare({"mail": {"otp_mail_need": need}})
    with Exim(daemon.smtp_port) as exim:
        daemon.start()
        client = daemon.client()
        user = daemon.db.add_user(mail="alice@example.org", failures=ALMOST)
        for _ in range(3):
            assert client.pap(user.name, WRONG).plain_reject
        assert daemon.db.user(user)["islocked"] == 1
        daemon.stop(120)
        assert exim.connections() == 0 and exim.mails() == []
    assert daemon.server_messages() == DOWN
