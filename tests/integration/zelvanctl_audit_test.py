"""zelvanctl audit: one view over the log with its rotated files, or over the audit rows."""

import json
import os
import select
import time

import pytest

from testbed import engine
from testbed.database import utc
from testbed.radius import ACCEPT, REJECT
from testbed.zelvanctl import FAILED, UNREACHABLE, Tool


def log_in(db, client, name):
    """A right code, then a wrong one."""
    user = db.add_user(name)
    assert client.pap(name, user.code(0)).code == ACCEPT
    assert client.pap(name, "000000").code == REJECT


def outcomes(events):
    return [(event["user"], event["outcome"]) for event in events]


class Follower:
    """`audit --follow --json` and what it has written."""

    def __init__(self, tool, *arguments):
        self.process = tool.start("audit", "--follow", "--json", *arguments)
        self.read = b""

    def next(self):
        """The next event; raises when none comes."""
        while b"\n" not in self.read:
            assert self.more(30), "nothing came"
        line, self.read = self.read.split(b"\n", 1)
        return json.loads(line)

    def more(self, seconds):
        """Takes what comes within `seconds`; whether anything did."""
        if not select.select([self.process.stdout], [], [], seconds)[0]:
            return False
        part = os.read(self.process.stdout.fileno(), 65536)
        self.read += part
        return part != b""

    def close(self):
        self.process.terminate()
        self.process.communicate()


class TestLog:
    settings = {"options": {"otp_logmode": 1}}

    def test_the_running_server_tells_where_its_log_is(self, daemon, db, client, tmp_path):
        """The path of the log is relative; the tool is started elsewhere."""
        log_in(db, client, "anna")
        client.pap("anna", "000001")  # each line reaches the file with the next one
        events = Tool.beside(daemon).json("audit", "--user", "anna", cwd=tmp_path)
        assert outcomes(events)[:2] == [("anna", "accepted"), ("anna", "refused")]
        assert events[1]["client"] == "127.0.0.1"

    def test_following_the_running_server(self, daemon, db, client):
        follower = Follower(Tool.beside(daemon), "--user", "bert")
        try:
            log_in(db, client, "bert")
            client.pap("bert", "000001")
            assert [follower.next()["outcome"] for _ in range(2)] == ["accepted", "refused"]
        finally:
            follower.close()


class TestLogFiles:
    """A server that does not run."""

    @pytest.fixture
    def still(self, prepare):
        return prepare({"options": {"otp_logmode": 1}})

    def write(self, daemon, name, *lines):
        with open(daemon.run_folder / "log" / name, "a", encoding="utf-8") as file:
            file.writelines(line + "\n" for line in lines)

    def test_rotated_files_come_first_in_their_order(self, still):
        self.write(still, "otplog.log1000.bak.log", "2026-01-02 00:00:00\tb auth succeeded.")
        self.write(still, "otplog.log999.bak.log", "2026-01-01 00:00:00\ta auth failed.Request from:192.0.2.7")
        self.write(still, "otplog.log", "2026-01-03 00:00:00\tUpdate userinfo failed.Username:c.", "rubbish \x1b[31m")
        tool = Tool.beside(still)
        events = tool.json("audit", "--directory", str(still.run_folder))
        assert outcomes(events) == [("a", "refused"), ("b", "accepted"), ("c", "not recorded"), ("", "other")]
        here = dict(cwd=still.run_folder)
        assert outcomes(tool.json("audit", "--failed", **here))[:2] == [("a", "refused"), ("c", "not recorded")]
        assert outcomes(tool.json("audit", "--since", "2026-01-02", **here)) == [("b", "accepted"), ("c", "not recorded")]
        assert outcomes(tool.json("audit", "--user", "b", **here)) == [("b", "accepted")]
        text = tool.run("audit", **here).stdout
        assert "192.0.2.7" in text and "\x1b" not in text
        assert tool.run("audit", "--user", "nobody", **here).stdout == "Nothing happened.\n"

    def test_no_log_is_told(self, still, tmp_path):
        assert "--directory" in Tool.beside(still).run("audit", cwd=tmp_path, code=UNREACHABLE).stderr

    def test_following_a_log_that_is_not_there_is_told(self, still, tmp_path):
        process = Tool.beside(still).start("audit", "--follow", cwd=tmp_path)
        assert "--directory" in process.stderr.readline()
        process.terminate()
        process.communicate()

    def test_following_over_a_rotation(self, still):
        """The last lines of a file that is moved aside are shown, then those of the new one."""
        log = still.run_folder / "log" / "otplog.log"
        self.write(still, "otplog.log", "2026-01-01 00:00:00\ta auth succeeded.")
        follower = Follower(Tool.beside(still), "--directory", str(still.run_folder))
        try:
            assert follower.next()["user"] == "a"
            self.write(still, "otplog.log", "2026-01-01 00:00:01\tb auth succeeded.")
            log.rename(log.with_name("otplog.log5.bak.log"))
            self.write(still, "otplog.log", "2026-01-01 00:00:02\tc auth succeeded.")
            assert [follower.next()["user"] for _ in range(2)] == ["b", "c"]
            with open(log, "a", encoding="utf-8") as file:
                file.write("2026-01-01 00:00:03\td auth")
                file.flush()
                time.sleep(1)
                file.write(" succeeded.\n")
            assert follower.next()["user"] == "d"
        finally:
            follower.close()


class TestTable:
    settings = {"options": {"otp_logmode": 0}}

    def test_the_rows_are_shown(self, daemon, db, client):
        log_in(db, client, "tina")
        tool = Tool.beside(daemon)
        assert outcomes(tool.json("audit", "--user", "tina")) == [("tina", "accepted"), ("tina", "refused")]
        assert outcomes(tool.json("audit", "--user", "tina", "--failed")) == [("tina", "refused")]
        assert len(tool.json("audit", "--user", "tina", "--since", "1h")) == 2
        db.run("update commonloginfo set optime = ? where operator = 'tina'", utc(-7200))
        assert tool.json("audit", "--user", "tina", "--since", "1h") == []

    @pytest.mark.engines(engine.POSTGRESQL, engine.MARIADB, reason="SQLite has no logins")
    def test_the_servers_login_may_not_read_them(self, daemon):
        tool = Tool.beside(daemon)
        tool.login = []
        assert "--login NAME" in tool.run("audit", code=FAILED).stderr

    def test_many_rows_of_one_second_keep_their_order(self, daemon, db):
        rows = [f"{number:02d}" for number in range(40)]
        for name in rows:
            db.run("insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) "
                   "values ('2001-02-03 04:05:06', ?, 100, 1, 'auth succeed', '127.0.0.1')", name)
        db.run("update commonloginfo set remark = 'auth failed.' where operator = '07'")
        events = Tool.beside(daemon).json("audit")
        assert [event["user"] for event in events if event["time"].startswith("2001")] == rows

    def test_following_shows_each_row_once(self, daemon, db, client):
        follower = Follower(Tool.beside(daemon), "--user", "theo", "--since", "1m")
        try:
            log_in(db, client, "theo")
            log_in(db, client, "other")
            client.pap("theo", "000002")
            assert [follower.next()["outcome"] for _ in range(3)] == ["accepted", "refused", "refused"]
            assert not follower.more(1.5) and follower.read == b""
        finally:
            follower.close()
