"""The warning mail: what reaches the mail server, and what does not."""

import os
import re
import signal
import statistics
import time

import pytest

from testbed.daemon import wait_until
from testbed.database import age, utc
from testbed.mail_server import DeafServer, Exim, ScriptedServer
from testbed.radius import ACCEPT

WRONG = "000000"
ALMOST = 4  # failures after which the next one locks
DOWN = ["server starting...", "Zelvan down..."]
LOGIN = ("otp-" + "u" * 51, "p;=/ " + "w" * 50)  # 55 characters each, the most that the settings take


def lock(daemon, client, mail, **columns):
    """Locks a new account with one more wrong code and returns its user."""
    user = daemon.db.add_user(mail=mail, failures=ALMOST, **columns)
    assert client.pap(user.name, WRONG).plain_reject
    assert daemon.db.user(user)["islocked"] == 1
    return user


def times_of(mail):
    """The two times in a mail: of its header and of its body."""
    return [text.decode() for text in re.findall(rb"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", mail.content)]


def expected_content(mail, sender="otp@example.org", subject="Notice"):
    """What a mail must consist of, byte for byte, given the two times in it."""
    date, sent = times_of(mail)
    return (f"From: <{sender}>\r\n"
            f"To: <{mail.recipient}>\r\n"
            f"Date: {date}\r\n"
            f"Subject: {subject}\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-Type: text/plain\r\n"
            "Content-Transfer-Encoding: 7Bit\r\n"
            "\r\n"
            "\r\n"
            f"Your account may be in dangerous.Continuous loggon failed at:{sent}\r\n").encode()


@pytest.fixture(scope="class")
def exim(request, daemon):
    """A real mail server at the daemon's port, with the `login` of the test class."""
    with Exim(daemon.smtp_port, getattr(request.cls, "login", None)) as server:
        yield server
        # What is still queued is sent while somebody listens.
        daemon.stop()


class TestDelivery:
    def test_the_locking_failure_sends_the_warning(self, daemon, client, exim):
        user = daemon.db.add_user(mail="alice@example.org")
        for _ in range(ALMOST):
            assert client.pap(user.name, WRONG).plain_reject
        before = exim.connections()
        asked = time.time()
        assert client.pap(user.name, WRONG).plain_reject
        mail, = exim.wait_for(1, "alice@example.org")
        assert exim.connections() == before + 1
        assert (mail.sender, mail.recipient) == ("otp@example.org", "alice@example.org")
        assert mail.content == expected_content(mail)
        for sent in times_of(mail):
            assert -1 <= age(sent) <= time.time() - asked + 1

    def test_each_lock_of_a_user_sends_a_mail(self, daemon, client, exim):
        user = lock(daemon, client, "bob@example.org")
        daemon.db.set_user(user, islocked=0, failaccum=ALMOST)
        assert client.pap(user.name, WRONG).plain_reject
        assert daemon.db.user(user)["islocked"] == 1
        first, second = exim.wait_for(2, "bob@example.org")
        assert times_of(first) <= times_of(second)

    def test_two_locks_of_a_user_are_told_in_order(self, daemon, client, exim):
        """The first lock ends by itself, after 600 s.  Then the address changes, which shows which mail is which."""
        user = lock(daemon, client, "carol-1@example.org")
        daemon.db.set_user(user, user_email="carol-2@example.org", preusedate=utc(-600))
        assert client.pap(user.name, user.code(0)).code == ACCEPT
        for _ in range(ALMOST + 1):
            assert client.pap(user.name, WRONG).plain_reject
        assert daemon.db.user(user)["islocked"] == 1
        exim.wait_for(1, "carol-2@example.org")
        assert [mail.recipient for mail in exim.mails() if mail.recipient.startswith("carol-")] == [
            "carol-1@example.org", "carol-2@example.org"]

    def test_each_attempt_on_a_locked_account_sends_a_mail(self, daemon, client, exim):
        """Also one with the right code, which is not even looked at."""
        user = lock(daemon, client, "dave@example.org")
        assert client.pap(user.name, WRONG).plain_reject
        assert client.pap(user.name, user.code(0)).plain_reject
        exim.wait_for(3, "dave@example.org")

    def test_a_failure_after_the_lock_has_run_out_sends_a_mail_and_a_success_none(self, daemon, client, exim):
        failing = daemon.db.add_user(mail="erin@example.org", locked=1, last=-601)
        coming = daemon.db.add_user(mail="frank@example.org", locked=1, last=-601)
        assert client.pap(coming.name, coming.code(0)).code == ACCEPT
        assert client.pap(failing.name, WRONG).plain_reject
        exim.wait_for(1, "erin@example.org")
        assert daemon.db.user(failing)["islocked"] == 0
        assert exim.mails("frank@example.org") == []

    @pytest.mark.parametrize("address", [None, ""])
    def test_without_an_address_there_is_no_mail(self, daemon, client, exim, address):
        """The next user's mail leaves behind whatever there was before it, so one connection means one mail."""
        before = exim.connections()
        lock(daemon, client, address)
        recipient = f"after-{address}@example.org"
        lock(daemon, client, recipient)
        exim.wait_for(1, recipient)
        assert exim.connections() == before + 1

    def test_a_burst_keeps_its_order(self, daemon, client, exim):
        recipients = [f"burst-{number}@example.org" for number in range(10)]
        for recipient in recipients:
            lock(daemon, client, recipient)
        exim.wait_for(1, recipients[-1])
        assert [mail.recipient for mail in exim.mails() if mail.recipient.startswith("burst-")] == recipients

    def test_an_address_of_55_characters_is_written_to(self, daemon, client, exim):
        recipient = "g" * 43 + "@example.org"
        lock(daemon, client, recipient)
        mail, = exim.wait_for(1, recipient)
        assert mail.content == expected_content(mail)

    def test_a_refused_recipient_does_not_stop_the_next_mail(self, daemon, client, exim):
        before, rejects = exim.connections(), exim.rejects()
        lock(daemon, client, "refused@example.org")
        lock(daemon, client, "heidi@example.org")
        exim.wait_for(1, "heidi@example.org")
        assert exim.rejects() == rejects + 1
        assert exim.connections() == before + 2, "a refused mail is not tried again"
        wait_until(lambda: exim.log().count("closed by QUIT") == exim.connections(), "each connection to end in order")


class TestSettings:
    settings = {"mail": {"otp_smtp_server": "localhost", "mail_from": "s" * 43 + "@example.org",
                         "mail_subject": "Locked out? Call 555-0100."}}

    def test_server_name_sender_and_subject(self, daemon, client, exim):
        lock(daemon, client, "alice@example.org")
        mail, = exim.wait_for(1)
        assert mail.sender == "s" * 43 + "@example.org"
        assert mail.content == expected_content(mail, mail.sender, "Locked out? Call 555-0100.")


class TestLogin:
    settings = {"mail": {"smtp_auth_need": 1, "smtp_auth_user": LOGIN[0], "smtp_auth_pwd": LOGIN[1]}}
    login = LOGIN

    def test_the_mail_is_taken_after_the_login(self, daemon, client, exim):
        lock(daemon, client, "alice@example.org")
        mail, = exim.wait_for(1)
        assert (mail.sender, mail.recipient) == ("otp@example.org", "alice@example.org")
        assert mail.content == expected_content(mail)
        assert "A=login" in exim.log()

    def test_each_mail_logs_in_anew(self, daemon, client, exim):
        for name in ("bob", "carol"):
            lock(daemon, client, f"{name}@example.org")
        exim.wait_for(1, "carol@example.org")
        assert exim.log().count("A=login") == len(exim.mails()) == exim.connections()


class _Refused:
    login = LOGIN

    def test_there_is_no_mail_and_the_daemon_goes_on(self, daemon, client, exim):
        for number in (1, 2):
            lock(daemon, client, "alice@example.org")
            wait_until(lambda count=number: exim.rejects() == count, "the refusal")
        user = daemon.db.add_user()
        assert client.pap(user.name, user.code(0)).code == ACCEPT
        daemon.stop()
        assert exim.mails() == [] and exim.connections() == 2
        assert daemon.server_messages() == DOWN
        daemon.start()


class TestWrongPassword(_Refused):
    settings = {"mail": {"smtp_auth_need": 1, "smtp_auth_user": LOGIN[0], "smtp_auth_pwd": "wrong"}}


class TestMissingLogin(_Refused):
    settings = {"mail": {"smtp_auth_need": 0}}


class TestNoServer:
    def test_a_name_that_is_nobodys(self, prepare):
        """A label of 64 characters is too long for any name server (RFC 1035 section 2.3.4), so none is asked."""
        daemon = prepare({"mail": {"otp_smtp_server": "n" * 64}})
        with ScriptedServer(daemon.smtp_port) as server:
            daemon.start()
            client = daemon.client()
            for _ in range(3):
                lock(daemon, client, "alice@example.org")
            user = daemon.db.add_user()
            assert client.pap(user.name, user.code(0)).code == ACCEPT
            daemon.stop()
            assert server.connections == 0
        assert daemon.server_messages() == DOWN

    def test_a_server_that_is_down_and_comes_back(self, prepare):
        daemon = prepare().start()
        client = daemon.client()
        lock(daemon, client, "early@example.org")
        user = daemon.db.add_user()
        assert client.pap(user.name, user.code(0)).code == ACCEPT
        with ScriptedServer(daemon.smtp_port) as server:
            lock(daemon, client, "late@example.org")
            wait_until(lambda: "late@example.org" in server.recipients, "the mail")
            daemon.stop()
            assert server.recipients[-1] == "late@example.org" and len(server.recipients) <= 2

    def test_a_server_that_stays_down(self, prepare):
        daemon = prepare().start()
        client = daemon.client()
        for number in range(20):
            lock(daemon, client, f"user{number}@example.org")
        started = time.monotonic()
        daemon.stop()
        assert time.monotonic() - started < 30
        assert daemon.server_messages() == DOWN

    def test_a_server_that_hangs_up_is_not_tried_again(self, prepare):
        daemon = prepare()
        with ScriptedServer(daemon.smtp_port, hang_up=1) as server:
            daemon.start()
            client = daemon.client()
            lock(daemon, client, "lost@example.org")
            lock(daemon, client, "next@example.org")
            wait_until(lambda: server.recipients, "the second mail")
            daemon.stop()
            assert server.recipients == ["next@example.org"] and server.connections == 2


class TestStop:
    def test_queued_mails_are_sent_before_the_end(self, prepare):
        """The server holds the first mail back until the stop has begun; then it takes one after the other."""
        recipients = [f"user{number}@example.org" for number in range(5)]
        daemon = prepare()
        with ScriptedServer(daemon.smtp_port, gated=True) as server:
            daemon.start()
            client = daemon.client()
            for recipient in recipients:
                lock(daemon, client, recipient)
            wait_until(lambda: server.connections == 1, "the first connection")
            os.kill(daemon.pid, signal.SIGTERM)
            for number in range(1, len(recipients) + 1):
                assert daemon.server_messages() == DOWN[:1]
                server.permit()
                wait_until(lambda count=number: len(server.recipients) == count, "the next mail")
            daemon.wait_gone()
            assert server.recipients == recipients and server.connections == len(recipients)
        assert daemon.server_messages() == DOWN

    def test_a_real_server_gets_what_was_queued(self, prepare):
        recipients = [f"user{number}@example.org" for number in range(10)]
        daemon = prepare()
        with Exim(daemon.smtp_port) as exim:
            daemon.start()
            client = daemon.client()
            for recipient in recipients:
                lock(daemon, client, recipient)
            daemon.stop()
            mails = exim.wait_for(len(recipients))
        assert [mail.recipient for mail in mails] == recipients
        assert all(mail.content == expected_content(mail) for mail in mails)
        assert daemon.server_messages() == DOWN


# Servers on which a mail hangs: while it connects, waits for the greeting, or waits in the middle of the dialogue.
HANGING = {
    "deaf": DeafServer,
    "silent": lambda port: ScriptedServer(port, answers=0),
    "falls silent": lambda port: ScriptedServer(port, answers=4),
}


class TestHangingServer:
    COUNT = 50

    def answer_times(self, client, user):
        times = []
        for _ in range(self.COUNT):
            started = time.monotonic()
            assert client.pap(user.name, WRONG).plain_reject
            times.append(time.monotonic() - started)
        return times

    @pytest.mark.parametrize("kind", HANGING)
    def test_no_request_waits_for_it(self, prepare, kind):
        """A mail hangs for 30 s.  Meanwhile requests are answered as fast as before, those that queue mails too.

        The bounds leave room for a busy machine and are far below those 30 s.
        """
        daemon = prepare()
        with HANGING[kind](daemon.smtp_port) as server:
            daemon.start()
            client = daemon.client()
            user = daemon.db.add_user(locked=1)  # each attempt is a full one, and leaves the next one the same
            before = self.answer_times(client, user)

            warned = lock(daemon, client, "alice@example.org")
            wait_until(lambda: server.hanging, "the mail to hang")
            hanging_since = time.monotonic()
            beside = self.answer_times(client, user)
            queueing = self.answer_times(client, warned)

            assert server.hanging and server.abandoned == 0 and time.monotonic() - hanging_since < 29
            for times in (beside, queueing):
                assert statistics.median(times) < 10 * statistics.median(before) + 0.05
                assert max(times) < 10
