"""Columns that hold NULL, and user names that would like to be SQL."""

import pytest

from testbed.database import CHALLENGE, TIMED, utc
from testbed.radius import ACCEPT


class TestNull:
    """The tables of an old installation, which let NULL in."""

    loose_tables = True
    settings = {"options": {"otp_logmode": 0}}

    @pytest.mark.parametrize("column", ["serialnum", "islocked", "failaccum", "authtype"])
    def test_a_required_user_column_fails_the_request(self, db, client, column):
        user = db.add_user()
        db.set_user(user, **{column: None})
        assert client.pap(user.name, user.code(0)).plain_reject
        assert db.factor(user) == 0
        assert db.audit(user) == ["auth failed."]

    def test_the_pin_is_required_with_authtype_2(self, db, client):
        user = db.add_user(pin="99")
        db.set_user(user, pin=None)
        assert client.pap(user.name, user.code(0)).plain_reject
        assert client.pap(user.name, user.code(0) + "99").plain_reject

    def test_the_pin_is_not_read_otherwise(self, db, client):
        user = db.add_user()
        assert db.user(user)["pin"] is None
        assert client.pap(user.name, user.code(0)).code == ACCEPT

    @pytest.mark.parametrize("kind", [1, TIMED, CHALLENGE])
    @pytest.mark.parametrize("column", ["userkey", "tktype", "hcounter", "lcounter", "predate", "diglen", "authwnd",
                                        "tmstep"])
    def test_every_token_column_is_required(self, db, client, column, kind):
        user = db.add_user(kind=kind)
        db.set_token(user, **{column: None})
        before = tuple(db.token(user))
        assert client.pap(user.name, user.code(0)).plain_reject
        assert tuple(db.token(user)) == before

    def test_no_date_of_the_last_attempt_is_fine(self, db, client):
        user = db.add_user()
        db.set_user(user, preusedate=None)
        assert client.pap(user.name, user.code(0)).code == ACCEPT

    def test_but_a_lock_without_a_date_holds(self, db, client):
        user = db.add_user(locked=1)
        db.set_user(user, preusedate=None)
        assert client.pap(user.name, user.code(0)).plain_reject

    def test_no_mail_address_is_fine(self, db, client):
        user = db.add_user(mail=None, failures=4)
        assert client.pap(user.name, "000000").plain_reject
        assert db.user(user)["islocked"] == 1

    def test_isdeleted_without_a_value_hides_the_user(self, db, client):
        user = db.add_user()
        db.set_user(user, isdeleted=None)
        assert client.pap(user.name, user.code(0)).unknown_user


class TestLongColumns:
    loose_tables = True

    def test_a_long_mail_address_or_serial_number_is_cut(self, db, client):
        user = db.add_user(mail="m" * 300)
        db.set_user(user, serialnum="S" * 300)
        db.run("insert into keyinfo values (?, '12345678901234567890', 1, 0, 0, ?, 6, 5, 0)", "S" * 28, utc())
        assert client.pap(user.name, user.code(0)).code == ACCEPT

    def test_a_long_pin_is_cut(self, db, client):
        user = db.add_user(pin="p" * 60)
        assert client.pap(user.name, user.code(0) + "p" * 18).code == ACCEPT

    def test_a_long_date_is_cut(self, db, client):
        user = db.add_user()
        db.set_user(user, preusedate=utc() + "0" * 500)
        db.set_token(user, predate=utc() + "0" * 500)
        assert client.pap(user.name, user.code(0)).code == ACCEPT


class TestNames:
    settings = {"options": {"otp_logmode": 0}}

    @pytest.mark.parametrize("name", ["o'brien", "'", "'" * 19, "a;b", "dom\\user", "tail\\", "x' or '1'='1", "%s%n%d",
                                      "_", "%", '"quoted"', "a--b", "/*", "José", "two words", "\t"])
    def test_a_user_of_any_name_is_served_and_recorded(self, db, client, name):
        user = db.add_user(name)
        other = db.add_user()
        before = tuple(db.user(other))
        assert client.pap(name, user.code(0)).code == ACCEPT
        assert client.pap(name, "000000").plain_reject
        assert db.user(user)["failaccum"] == 1
        assert db.audit(user) == ["auth succeed", "auth failed."]
        assert tuple(db.user(other)) == before

    def test_a_serial_number_with_a_quote(self, db, client):
        user = db.add_user()
        user.serial = "it's; a 'serial'"
        db.set_user(user, serialnum=user.serial)
        db.run("insert into keyinfo values (?, '12345678901234567890', 1, 0, 0, ?, 6, 5, 0)", user.serial, utc())
        assert client.pap(user.name, user.code(0)).code == ACCEPT
        assert db.factor(user) == 1


class TestUnknownNames:
    settings = {"options": {"otp_logmode": 0}}

    @pytest.mark.parametrize("name", [b"x' or '1'='1", b"'; drop table --", b"' or 1=1 --", b"\\' or 1=1 --", b"%", b"_",
                                      b"'", b"''", b"\\", b"x'", b"\xff\xfe\xfd", b"\x80'", b"\r\n", b"?", b"{fn now()}",
                                      b"{d '2026-01-01'}"])
    def test_a_name_that_nobody_has_is_just_unknown(self, db, client, name):
        """The statement ran: a failed one would be rejected without the text."""
        db.add_user()
        before = db.everything()
        assert client.pap(name, "000000").unknown_user
        assert db.everything() == before


class TestNamesInTheLog:
    def test_a_format_text_is_written_as_it_is(self, prepare):
        daemon = prepare().start()
        user = daemon.db.add_user("%s%n%x")
        daemon.client().pap(user.name, "000000")
        daemon.stop()
        assert daemon.log_messages() == ["%s%n%x auth failed.Request from:127.0.0.1"]
