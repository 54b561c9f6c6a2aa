"""The function dialect (otp_dbtype 4) from end to end, on functions that keep the time of day."""

import pytest

from testbed import engine
from testbed.database import CHALLENGE, TIMED, age, utc
from testbed.radius import ACCEPT
from testbed.radius import CHALLENGE as CHALLENGED

pytestmark = pytest.mark.engines("postgresql", "mariadb", reason="SQLite has no such functions")

HOUR = 3600


@pytest.fixture
def daemon(prepare):
    daemon = prepare({"DataBase": {"otp_dbtype": 4}, "options": {"otp_logmode": 0}})
    daemon.db.install("dialect4")
    if engine.chosen() == engine.POSTGRESQL:
        login = f"four_{daemon.db.name}"
        daemon.db.add_login(login, "pw")
        daemon.db.run(f"alter role {login} set search_path = zelvan_dialect4, pg_catalog, public")
        daemon.change({"DataBase": {"otp_dbtype": 4, "otp_uid": login, "otp_pwd": "pw"}, "options": {"otp_logmode": 0}})
    return daemon.start()


def test_dates_are_written_to_the_second(daemon):
    db, client = daemon.db, daemon.client()
    user = db.add_user()
    assert client.pap(user.name, user.code(0)).code == ACCEPT
    assert client.pap(user.name, user.code(0)).plain_reject
    for text in (db.user(user)["preusedate"], db.token(user)["predate"], db.audit_rows(user)[0]["optime"]):
        assert -2 <= age(text) < 30
    assert db.audit(user) == ["auth succeed", "auth failed."] and db.user(user)["failaccum"] == 1


def test_a_lock_holds_ten_minutes_and_no_longer(daemon):
    db, client = daemon.db, daemon.client()
    user = db.add_user(locked=1, last=-560)
    assert client.pap(user.name, user.code(0)).plain_reject
    db.set_user(user, preusedate=utc(-605))
    assert client.pap(user.name, user.code(0)).code == ACCEPT


def test_a_time_stepped_token_counts_from_its_last_code(daemon):
    user = daemon.db.add_user(kind=TIMED, step=HOUR, used=-10.5 * HOUR)
    assert daemon.client().pap(user.name, user.code(10)).code == ACCEPT


def test_a_challenge_is_pending_for_ten_minutes(daemon):
    db, client = daemon.db, daemon.client()
    user = db.add_user(kind=CHALLENGE, pin="24")
    assert client.pap(user.name, "24").code == CHALLENGED
    db.set_token(user, predate=utc(-560))
    assert client.pap(user.name, user.code(db.token(user)["lcounter"]) + "24").code == ACCEPT
    assert client.pap(user.name, "24").code == CHALLENGED
    db.set_token(user, predate=utc(-605))
    assert client.pap(user.name, user.code(db.token(user)["lcounter"]) + "24").plain_reject
