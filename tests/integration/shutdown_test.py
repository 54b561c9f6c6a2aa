"""The orderly stop, and threads that come and go."""

import os
import signal
import time

import pytest

from testbed.daemon import wait_until
from testbed.radius import ACCEPT

DOWN = ["server starting...", "Zelvan down..."]


class TestStop:
    @pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
    def test_a_signal_ends_the_daemon_and_writes_the_last_line(self, prepare, number):
        """The operation log keeps one line back while the daemon runs; the stop writes it out."""
        daemon = prepare().start()
        user = daemon.db.add_user()
        assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT
        assert daemon.log_messages() == []
        started = time.monotonic()
        os.kill(daemon.pid, number)
        daemon.wait_gone()
        assert time.monotonic() - started < 30
        assert daemon.log_messages() == [f"{user.name} auth succeeded."]
        assert daemon.server_messages() == DOWN

    def test_a_second_signal_does_no_harm(self, prepare):
        daemon = prepare().start()
        for _ in range(3):
            os.kill(daemon.pid, signal.SIGTERM)
        daemon.wait_gone()
        assert daemon.server_messages() == DOWN

    def test_what_was_taken_before_is_finished(self, prepare):
        """Queued requests are worked off before the end: every failure is in the table."""
        daemon = prepare({"Radius Server": {"otp_maxthread": 1}, "options": {"otp_max_accum": 99}}).start()
        user, client = daemon.db.add_user(), daemon.client()
        for number in range(50):
            client.send(client.request(identifier=number).user(user.name).pap("000000").bytes())
        client.receive()  # the first is answered; loopback has delivered the others, and the loop reads one a pass
        wait_until(lambda: daemon.db.user(user)["failaccum"] >= 40, "40 failures")
        daemon.stop()
        assert 40 <= daemon.db.user(user)["failaccum"] <= 50
        assert len(daemon.log_messages()) == daemon.db.user(user)["failaccum"]

    def test_the_port_is_free_again(self, prepare):
        daemon = prepare().start()
        daemon.stop()
        daemon.start()
        user = daemon.db.add_user()
        assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT

    def test_other_signals_keep_their_meaning(self, prepare):
        """A broken pipe is ignored."""
        daemon = prepare().start()
        os.kill(daemon.pid, signal.SIGPIPE)
        user = daemon.db.add_user()
        assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT


class TestWorkers:
    def threads(self, daemon):
        return len(os.listdir(f"/proc/{daemon.pid}/task"))

    def test_idle_workers_end_and_new_ones_come(self, prepare):
        """Workers leave after two seconds without work; the next request finds one all the same."""
        daemon = prepare({"Radius Server": {"otp_maxidletime": 2}}).start()
        user, client = daemon.db.add_user(window=50), daemon.client()
        for round_number in range(3):
            assert client.pap(user.name, user.code(round_number)).code == ACCEPT
            busy = self.threads(daemon)
            wait_until(lambda: self.threads(daemon) < busy, "the worker to leave")
