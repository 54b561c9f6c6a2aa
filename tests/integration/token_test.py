"""Event and time-stepped tokens: windows, the counter's carry, reuse, and the advance by elapsed time."""

import pytest

from testbed.database import TIMED, age, utc
from testbed.radius import ACCEPT, REJECT

HOUR = 3600


class TestEventToken:
    @pytest.mark.parametrize("ahead, code", [(0, ACCEPT), (1, ACCEPT), (2, ACCEPT), (3, REJECT), (-1, REJECT)])
    def test_the_window(self, db, client, ahead, code):
        """Stored factor 5, window 3: 5, 6 and 7 are good."""
        user = db.add_user(factor=5, window=3)
        assert client.pap(user.name, user.code(5 + ahead)).code == code
        assert db.factor(user) == (6 + ahead if code == ACCEPT else 5)

    def test_a_code_is_good_once(self, db, client):
        user = db.add_user(factor=5, window=3)
        assert client.pap(user.name, user.code(6)).code == ACCEPT
        assert client.pap(user.name, user.code(6)).code == REJECT
        assert client.pap(user.name, user.code(5)).code == REJECT
        assert client.pap(user.name, user.code(7)).code == ACCEPT

    @pytest.mark.parametrize("start, used", [(2**32 - 1, 2**32 - 1), (2**32 - 2, 2**32), (2**32 - 1, 2**32 + 1),
                                             (2**40 + 2**32 - 1, 2**40 + 2**32 - 1), (2**31 - 1, 2**31 - 1),
                                             (2**63 - 1, 2**63 - 1), (2**64 - 2, 2**64 - 2)])
    def test_the_counter_carries(self, db, client, start, used):
        user = db.add_user(factor=start, window=3)
        assert client.pap(user.name, user.code(used)).code == ACCEPT
        assert db.factor(user) == used + 1

    def test_the_last_factor_wraps_to_0(self, db, client):
        user = db.add_user(factor=2**64 - 1, window=2)
        assert client.pap(user.name, user.code(2**64 - 1)).code == ACCEPT
        assert db.factor(user) == 0

    def test_a_success_stamps_the_token(self, db, client):
        user = db.add_user(used=-1000)
        client.pap(user.name, user.code(0))
        assert -2 <= age(db.token(user)["predate"]) < 30

    def test_a_failure_leaves_the_token_alone(self, db, client):
        user = db.add_user(used=-1000)
        before = tuple(db.token(user))
        client.pap(user.name, "000000")
        assert tuple(db.token(user)) == before


class TestSmallWindowSetting:
    settings = {"options": {"otp_wnd": 3}}

    @pytest.mark.parametrize("ahead, code", [(2, ACCEPT), (3, REJECT)])
    def test_the_setting_caps_the_token(self, db, client, ahead, code):
        user = db.add_user(window=100)
        assert client.pap(user.name, user.code(ahead)).code == code

    @pytest.mark.parametrize("ahead, code", [(1, ACCEPT), (2, REJECT)])
    def test_a_smaller_token_window_stays(self, db, client, ahead, code):
        user = db.add_user(window=2)
        assert client.pap(user.name, user.code(ahead)).code == code

    def test_it_caps_time_stepped_tokens_too(self, db, client):
        """w = 3, h = 1: ten steps on, the factors 9, 10 and 11."""
        for factor, code in ((8, REJECT), (9, ACCEPT), (11, ACCEPT), (12, REJECT)):
            user = db.add_user(kind=TIMED, step=HOUR, used=-10.5 * HOUR, window=100)
            assert client.pap(user.name, user.code(factor)).code == code


class TestNoWindow:
    settings = {"options": {"otp_wnd": 0}}

    def test_a_window_of_0_rejects_every_code(self, db, client):
        user = db.add_user()
        assert client.pap(user.name, user.code(0)).code == REJECT


class TestDefaultWindow:
    @pytest.mark.parametrize("ahead, code", [(29, ACCEPT), (30, REJECT)])
    def test_it_is_30(self, db, client, ahead, code):
        user = db.add_user(window=100)
        assert client.pap(user.name, user.code(ahead)).code == code


class TestTimeSteppedToken:
    """Steps of an hour, so that no test runs into the next one; w = 10 and so h = 5."""

    def accepted(self, db, client, steps, factor, start=100, **token):
        user = db.add_user(kind=TIMED, step=HOUR, used=-(steps + 0.5) * HOUR, factor=start, **token)
        reply = client.pap(user.name, user.code(factor))
        assert db.factor(user) == (factor + 1 if reply.code == ACCEPT else start)
        return reply.code == ACCEPT

    @pytest.mark.parametrize("factor, good", [(104, False), (105, True), (110, True), (114, True), (115, False)])
    def test_ten_steps_later_five_factors_are_skipped(self, db, client, factor, good):
        assert self.accepted(db, client, 10, factor) == good

    @pytest.mark.parametrize("steps", [0, 3, 4, 5])
    def test_up_to_half_a_window_nothing_is_skipped(self, db, client, steps):
        assert self.accepted(db, client, steps, 100)
        assert self.accepted(db, client, steps, 109)
        assert not self.accepted(db, client, steps, 110)

    def test_at_six_steps_one_is_skipped(self, db, client):
        assert not self.accepted(db, client, 6, 100)
        assert self.accepted(db, client, 6, 101)

    def test_an_odd_window_rounds_down(self, db, client):
        """w = 3, h = 1."""
        assert not self.accepted(db, client, 10, 108, window=3)
        assert self.accepted(db, client, 10, 109, window=3)

    def test_never_before_the_stored_factor(self, db, client):
        assert not self.accepted(db, client, 0, 99)

    def test_the_advance_carries(self, db, client):
        assert self.accepted(db, client, 10, 2**32 + 4, start=2**32 - 1)

    def test_years_without_use(self, db, client):
        steps = 20 * 365 * 24
        assert self.accepted(db, client, steps, 100 + steps)

    def test_steps_of_30_seconds(self, db, client):
        """95 seconds are 3 steps, less than half a window."""
        user = db.add_user(kind=TIMED, step=30, used=-95)
        assert client.pap(user.name, user.code(0)).code == ACCEPT

    def test_a_code_is_good_once(self, db, client):
        user = db.add_user(kind=TIMED, step=HOUR, used=-10.5 * HOUR)
        assert client.pap(user.name, user.code(10)).code == ACCEPT
        assert client.pap(user.name, user.code(10)).code == REJECT
        assert client.pap(user.name, user.code(11)).code == ACCEPT

    def test_a_date_in_the_future_advances_nothing(self, db, client):
        user = db.add_user(kind=TIMED, step=30, used=HOUR, factor=7)
        assert client.pap(user.name, user.code(7)).code == ACCEPT

    @pytest.mark.parametrize("step", [0, -30])
    def test_without_a_step_the_request_fails(self, prepare, step):
        daemon = prepare(loose=True).start()
        user = daemon.db.add_user(kind=TIMED, used=-100)
        daemon.db.set_token(user, tmstep=step)
        assert daemon.client().pap(user.name, user.code(0)).plain_reject
        assert daemon.db.factor(user) == 0


class TestOddRows:
    loose_tables = True

    def test_a_counter_half_is_read_modulo_2_to_the_32(self, db, client):
        user = db.add_user(high=2**32, low=2**32 + 5)
        assert client.pap(user.name, user.code(5)).code == ACCEPT
        assert (db.token(user)["hcounter"], db.token(user)["lcounter"]) == (0, 6)

    def test_a_failure_count_is_read_as_two_digits(self, db, client):
        user = db.add_user()
        db.set_user(user, failaccum=100, preusedate=utc())
        client.pap(user.name, "000000")
        row = db.user(user)
        assert (row["failaccum"], row["islocked"]) == (0, 1)  # 10 + 1 is over the limit of 5
