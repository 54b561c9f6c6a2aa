"""What is recorded of an attempt, in the operation log or in the audit table, and what happens when recording fails."""

import re
import time

import pytest

from testbed import engine
from testbed.database import CHALLENGE, age
from testbed.radius import ACCEPT, REJECT

WRONG = "000000"
SUCCESSES, FAILURES = {1, 3}, {1, 2}


def one_of_each(daemon):
    """A success, then a failure."""
    user, client = daemon.db.add_user(), daemon.client()
    assert client.pap(user.name, user.code(0)).code == ACCEPT
    assert client.pap(user.name, WRONG).code == REJECT
    return user


class TestConditions:
    @pytest.mark.parametrize("condition", [1, 2, 3, 0, 4, "none"])
    def test_log_file(self, prepare, condition):
        daemon = prepare({"options": {"otp_logmode": 1, "otp_logcond": condition}}).start()
        user = one_of_each(daemon)
        daemon.stop()
        expected = [f"{user.name} auth succeeded."] if condition in SUCCESSES else []
        expected += [f"{user.name} auth failed.Request from:127.0.0.1"] if condition in FAILURES else []
        assert daemon.log_messages() == expected
        assert daemon.db.audit() == []

    @pytest.mark.parametrize("mode", [0, 2])
    @pytest.mark.parametrize("condition", [1, 2, 3, 0, 4])
    def test_audit_rows(self, prepare, condition, mode):
        daemon = prepare({"options": {"otp_logmode": mode, "otp_logcond": condition}}).start()
        user = one_of_each(daemon)
        expected = ["auth succeed"] if condition in SUCCESSES else []
        expected += ["auth failed."] if condition in FAILURES else []
        assert daemon.db.audit(user) == expected
        daemon.stop()
        assert daemon.log_messages() == []

    def test_a_mode_that_is_no_number_is_0(self, prepare):
        daemon = prepare({"options": {"otp_logmode": "file"}}).start()
        assert daemon.db.audit(one_of_each(daemon)) == ["auth succeed", "auth failed."]


class TestAuditRow:
    settings = {"options": {"otp_logmode": 0}}

    def test_its_columns(self, daemon, db):
        user = db.add_user()
        daemon.client("127.0.0.6").pap(user.name, user.code(0))
        row = db.audit_rows(user)[0]
        assert -2 <= age(row["optime"]) < 30
        assert (row["loglev"], row["optype"], row["remark"], row["remoteip"]) == (100, 1, "auth succeed", "127.0.0.6")


class TestLogFile:
    def test_a_line_reaches_the_file_with_the_next_one(self, prepare):
        """One attempt: the file is empty or missing.  The second writes the first's line, the stop the last one."""
        daemon = prepare().start()
        client, user = daemon.client("127.0.0.6"), daemon.db.add_user()
        client.pap(user.name, WRONG)
        failed = f"{user.name} auth failed.Request from:127.0.0.6"
        assert daemon.log_messages() == []
        client.pap(user.name, user.code(0))
        assert daemon.log_messages() == [failed]
        daemon.stop()
        assert daemon.log_messages() == [failed, f"{user.name} auth succeeded."]

    def test_a_challenge_leaves_no_line(self, prepare):
        daemon = prepare().start()
        user, client = daemon.db.add_user(kind=CHALLENGE, pin="11"), daemon.client()
        client.pap(user.name, "11")
        client.pap(user.name, user.code(daemon.db.token(user)["lcounter"]) + "11")
        daemon.stop()
        assert daemon.log_messages() == [f"{user.name} auth succeeded."]

    def test_a_log_that_cannot_be_written_costs_no_reply(self, prepare):
        """The folder is missing: lines are lost, service goes on."""
        daemon = prepare({"options": {"otp_logpath": "missing/otplog.log"}}).start()
        for _ in range(3):
            one_of_each(daemon)

    def test_a_lost_folder_that_comes_back(self, prepare):
        """What was buffered when the folder vanished is written once it is there again; lines in between are lost."""
        daemon = prepare().start()
        first, client = daemon.db.add_user(), daemon.client()
        (daemon.run_folder / "log").rmdir()
        client.pap(first.name, WRONG)
        client.pap(first.name, WRONG)
        (daemon.run_folder / "log").mkdir()
        last = daemon.db.add_user()
        client.pap(last.name, WRONG)
        daemon.stop()
        assert [line.split()[0] for line in daemon.log_messages()] == [first.name, last.name]


class TestRotation:
    def backups(self, daemon):
        found = [re.fullmatch(r"otplog\.log(\d+)\.bak\.log", path.name) for path in (daemon.run_folder / "log").iterdir()]
        return sorted(int(match[1]) for match in found if match)

    def test_size_0_rotates_at_every_write(self, prepare):
        """Three lines: an empty backup, the first line, the second; the third is in the file."""
        daemon = prepare({"options": {"otp_logsize": 0}}).start()
        users, client = [daemon.db.add_user() for _ in range(3)], daemon.client()
        started = int(time.time())
        for user in users:
            client.pap(user.name, user.code(0))
        daemon.stop()
        stamps = self.backups(daemon)
        assert len(stamps) == 3 and stamps == sorted(set(stamps)) and started <= stamps[0]
        contents = [daemon.log_messages(f"log/otplog.log{stamp}.bak.log") for stamp in stamps]
        lines = [f"{user.name} auth succeeded." for user in users]
        assert contents == [[], lines[:1], lines[1:2]] and daemon.log_messages() == lines[2:]

    def test_the_default_is_one_megabyte(self, prepare):
        """A file of one byte less than a megabyte takes another line; the line after it goes to a new file."""
        daemon = prepare()
        path = daemon.run_folder / "log" / "otplog.log"
        path.write_bytes(b"2026-01-01 00:00:00\told\n".ljust(2**20 - 1, b"\n"))
        daemon.start()
        users, client = [daemon.db.add_user() for _ in range(3)], daemon.client()
        for user in users:
            client.pap(user.name, user.code(0))
        daemon.stop()
        stamps = self.backups(daemon)
        assert len(stamps) == 1
        backup = path.with_name(f"otplog.log{stamps[0]}.bak.log").read_text()
        assert len(backup) > 2**20 and backup.endswith(f"\t{users[0].name} auth succeeded.\n")
        assert daemon.log_messages() == [f"{user.name} auth succeeded." for user in users[1:]]


class TestFailingUpdates:
    def test_user_row_after_a_success(self, prepare):
        """Statement trouble of any kind: a trigger refuses.  The reply stays, the trouble is logged."""
        daemon = prepare().start()
        user = daemon.db.add_user()
        daemon.db.refuse_updates("userinfo")
        assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT
        daemon.stop()
        assert daemon.log_messages() == [f"{user.name} auth succeeded.", f"Update userinfo failed.Username:{user.name}."]

    def test_user_row_after_a_failure(self, prepare):
        daemon = prepare({"options": {"otp_logcond": 3}}).start()
        user = daemon.db.add_user()
        daemon.db.refuse_updates("userinfo")
        assert daemon.client().pap(user.name, WRONG).plain_reject
        daemon.stop()
        assert daemon.log_messages() == [f"Update userinfo failed.Username:{user.name}."]

    def test_user_row_at_the_unlock(self, prepare):
        """The unlock and the count of the failed attempt are refused: two notes around the failure."""
        daemon = prepare().start()
        user = daemon.db.add_user(locked=1, last=-700)
        daemon.db.refuse_updates("userinfo")
        assert daemon.client().pap(user.name, user.code(0)).plain_reject
        daemon.stop()
        note = f"Update userinfo failed.Username:{user.name}."
        assert daemon.log_messages() == [note, f"{user.name} auth failed.Request from:127.0.0.1", note]

    def test_audit_row_after_a_success(self, prepare):
        daemon = prepare({"options": {"otp_logmode": 0}}).start()
        user = daemon.db.add_user()
        daemon.db.refuse_updates("userinfo")
        assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT
        assert daemon.db.audit() == ["auth succeed", "Update userinfo failed."]
        assert daemon.db.audit_rows()[1]["remoteip"] == "127.0.0.1"

    def test_audit_row_at_the_unlock(self, prepare):
        daemon = prepare({"options": {"otp_logmode": 0}}).start()
        user = daemon.db.add_user(locked=1, last=-700)
        daemon.db.refuse_updates("userinfo")
        assert daemon.client().pap(user.name, user.code(0)).plain_reject
        note = "Update userinfo failed."
        fallback = [] if engine.chosen() == engine.SQLITE else [note]  # four values for six columns
        assert daemon.db.audit() == [note, "auth failed.", *fallback]

    @pytest.mark.engines("sqlite", reason="elsewhere two columns need no value")
    def test_four_values_do_not_fit_six_columns(self, prepare):
        """After a failure the note is inserted by position, which SQLite refuses; the reply does not suffer."""
        daemon = prepare({"options": {"otp_logmode": 0}}).start()
        user = daemon.db.add_user()
        daemon.db.refuse_updates("userinfo")
        assert daemon.client().pap(user.name, WRONG).plain_reject
        assert daemon.db.audit() == ["auth failed."]

    @pytest.mark.engines("postgresql", "mariadb", reason="SQLite refuses four values for six columns")
    def test_four_values_fit_where_the_other_columns_need_none(self, prepare):
        daemon = prepare({"options": {"otp_logmode": 0}}).start()
        user = daemon.db.add_user()
        daemon.db.refuse_updates("userinfo")
        assert daemon.client().pap(user.name, WRONG).plain_reject
        assert daemon.db.audit() == ["auth failed.", "Update userinfo failed."]
        row = daemon.db.audit_rows(user)[1]
        assert (row["loglev"], row["optype"], row["remoteip"]) == (100, 1, "") and -2 <= age(row["optime"]) < 30

    def test_four_values_fit_four_columns(self, prepare):
        daemon = prepare({"options": {"otp_logmode": 0}}, loose=True)
        daemon.db.run("drop table commonloginfo")
        daemon.db.run("create table commonloginfo (optime text, operator text, loglev integer, remark text)")
        daemon.start()
        user = daemon.db.add_user()
        daemon.db.refuse_updates("userinfo")
        assert daemon.client().pap(user.name, WRONG).plain_reject
        row = daemon.db.run("select * from commonloginfo")[0]
        assert (row["operator"], row["loglev"], row["remark"]) == (user.name, 100, "Update userinfo failed.")

    def test_an_audit_insert_that_fails_is_ignored(self, prepare):
        daemon = prepare({"options": {"otp_logmode": 0}}).start()
        daemon.db.run("drop table commonloginfo")
        user = one_of_each(daemon)
        assert daemon.db.user(user)["failaccum"] == 1

    def test_token_row_after_a_right_code(self, prepare):
        """Rejected, since the code could be used again, and recorded as the success that it was."""
        daemon = prepare({"options": {"otp_logmode": 0}}).start()
        user = daemon.db.add_user(failures=2)
        daemon.db.refuse_updates("keyinfo")
        assert daemon.client().pap(user.name, user.code(0)).plain_reject
        assert daemon.db.audit() == ["auth succeed"] and daemon.db.user(user)["failaccum"] == 0

    def test_missing_tables(self, prepare):
        """No user can be looked up, which does not say that there is none; no trace, and service goes on."""
        daemon = prepare({"options": {"otp_logmode": 0}}).start()
        daemon.db.run("alter table userinfo rename to away")
        assert daemon.client().pap("anybody", WRONG).plain_reject
        assert daemon.db.audit() == []
        daemon.db.run("alter table away rename to userinfo")
        one_of_each(daemon)


class TestDialects:
    @pytest.mark.parametrize("number", [2, 7, 0, "plain"])
    def test_every_other_number_is_plain_text(self, prepare, number):
        daemon = prepare({"DataBase": {"otp_dbtype": number}}).start()
        one_of_each(daemon)

    @pytest.mark.parametrize("number", [3, pytest.param(4, marks=pytest.mark.engines(
        "sqlite", "mariadb", reason="PostgreSQL has functions of these names"))])
    def test_functions_that_the_database_lacks_fail_the_request(self, prepare, number):
        daemon = prepare({"DataBase": {"otp_dbtype": number}}).start()
        user = daemon.db.add_user()
        assert daemon.client().pap(user.name, user.code(0)).plain_reject
        assert daemon.db.factor(user) == 0
