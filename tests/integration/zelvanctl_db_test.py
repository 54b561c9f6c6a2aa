"""zelvanctl db: creating the tables, and what is told about bad ones; and what holds for every command."""

import json
import os
import re
import sqlite3
import subprocess

import pytest

from testbed.database import KEY, SQLITE_LOOSE_SCHEMA as LOOSE_SCHEMA, SQLITE_SCHEMA as SCHEMA
from testbed.zelvanctl import FAILED, OK, UNREACHABLE, USAGE, Tool

SETTINGS = "[DataBase]\notp_dsn=zelvan\notp_uid=\notp_pwd=\n"
DATA_SOURCE = "[zelvan]\nDriver=SQLite3\nDatabase={}\nJournalMode=WAL\nTimeout=10000\n"


class Installation:
    """The tool with settings and data source of its own, and an empty database."""

    def __init__(self, folder, environment):
        self.database = folder / "zelvan.db"
        self.settings = folder / "config" / "otp_conf.con"
        self.settings.parent.mkdir()
        self.settings.write_text(SETTINGS)
        self.odbc_ini = folder / "odbc.ini"
        self.odbc_ini.write_text(DATA_SOURCE.format(self.database))
        self.tool = Tool(folder, environment | {"ODBCINI": str(self.odbc_ini)})

    def sql(self, script):
        with sqlite3.connect(self.database) as connection:
            return connection.executescript(script).fetchall()

    def rows(self, query):
        with sqlite3.connect(self.database) as connection:
            return connection.execute(query).fetchall()

    def findings(self, code=FAILED):
        return [(found["level"], found["where"], found["what"])
                for found in self.tool.json("db", "check", code=code)["findings"]]


@pytest.fixture
def here(tmp_path):
    return Installation(tmp_path, dict(os.environ))


@pytest.fixture
def ready(here):
    here.tool.run("db", "init")
    return here


class TestInit:
    def test_creates_the_tables_and_runs_twice(self, here):
        assert here.tool.json("db", "init") == {"engine": "SQLite",
                                                "created": ["userinfo", "keyinfo", "commonloginfo"]}
        here.tool.run("user", "add", "alice")
        assert here.tool.json("db", "init")["created"] == []
        assert here.rows("select username from userinfo") == [("alice",)]

    def test_the_tables_are_those_of_the_sql_file(self, here, tmp_path):
        here.tool.run("db", "init")
        other = sqlite3.connect(tmp_path / "other.db")
        other.executescript(SCHEMA.read_text())
        query = "select cid, name, type, \"notnull\", dflt_value, pk from pragma_table_info('{}')"
        for table in ("userinfo", "keyinfo", "commonloginfo"):
            assert here.rows(query.format(table)) == other.execute(query.format(table)).fetchall()

    def test_only_what_is_missing_is_created(self, ready):
        ready.sql("drop table commonloginfo")
        assert ready.tool.json("db", "init")["created"] == ["commonloginfo"]

    def test_a_database_out_of_reach_is_told(self, here):
        here.odbc_ini.write_text(DATA_SOURCE.format("/proc/none/zelvan.db"))
        done = here.tool.run("db", "init", code=UNREACHABLE)
        assert "cannot connect to data source 'zelvan'" in done.stderr and "SQLSTATE" in done.stderr


class TestCheck:
    def test_good_tables_have_no_findings(self, ready):
        for kind in ("time", "event", "challenge"):
            ready.tool.run("user", "add", kind, "--type", kind)
        assert ready.findings(code=OK) == []
        assert "as the server needs it" in ready.tool.run("db", "check").stdout

    def test_nothing_is_changed(self, ready):
        ready.tool.run("user", "add", "alice")
        query = "select * from userinfo, keyinfo"
        before = ready.rows(query)
        ready.tool.run("db", "check")
        assert ready.rows(query) == before and ready.rows("select * from commonloginfo") == []

    def test_missing_tables(self, here):
        assert [where for _, where, _ in here.findings()] == ["userinfo", "keyinfo", "commonloginfo"]

    def test_a_missing_column(self, ready):
        ready.sql("alter table keyinfo rename column tmstep to step")
        assert ("error", "keyinfo.tmstep", "the column is missing") in ready.findings()

    def test_a_missing_unique_index(self, here):
        here.sql(LOOSE_SCHEMA)
        told = [(level, where) for level, where, what in here.findings(code=OK) if "unique index" in what]
        assert told == [("warning", "userinfo.username"), ("warning", "keyinfo.serialnum")]

    def test_two_rows_for_one_user(self, here):
        here.sql(LOOSE_SCHEMA)
        here.sql("insert into userinfo (username) values ('bob'), ('bob')")
        assert any(where == "userinfo.username" and "2 rows have the value 'bob'" in what
                   for _, where, what in here.findings())

    def test_a_number_where_text_belongs(self, here):
        here.sql(LOOSE_SCHEMA.replace("serialnum text, userkey", "serialnum integer, userkey"))
        assert ("error", "keyinfo.serialnum", "is no text column") in here.findings()

    def test_nulls_and_bad_values(self, here):
        here.sql(LOOSE_SCHEMA)
        here.sql(f"insert into keyinfo values ('T1', null, 1, 0, 0, '2026-01-01 00:00:00', 6, 10, 0);"
                 f"insert into keyinfo values ('T2', '{KEY}', 2, 0, 0, '2026-01-01 00:00:00', 5, 0, 0);"
                 f"insert into userinfo values ('eve', 'T9', 0, 0, null, null, 2, null, 0);")
        told = [(where, what) for level, where, what in here.findings() if level == "error"]
        assert ("token T1", "userkey is NULL") in told
        assert ("token T2", "diglen is 5, not 6 to 10") in told
        assert any(where == "token T2" and what.startswith("authwnd is 0") for where, what in told)
        assert any(where == "token T2" and what.startswith("tmstep is 0") for where, what in told)
        assert ("user eve", "authtype asks for a PIN and pin is NULL") in told
        assert ("user eve", "there is no token T9") in told

    def test_statements_that_the_database_refuses(self, ready):
        ready.sql("create trigger t before insert on commonloginfo begin select raise(abort, 'not allowed'); end")
        assert [(level, where, "not allowed" in what) for level, where, what in ready.findings()] == [
            ("error", "statement 8, for the audit trail (otp_logmode other than 1)", True)]

    def test_a_dialect_that_the_engine_does_not_know(self, ready):
        ready.settings.write_text(SETTINGS + "otp_dbtype=4\n")
        assert any(where.startswith("statement 1,") for _, where, _ in ready.findings())

    def test_a_data_source_without_a_timeout(self, ready):
        ready.odbc_ini.write_text(DATA_SOURCE.format(ready.database).replace("Timeout=10000\n", ""))
        assert any(where == "data source zelvan" and "Timeout" in what for _, where, what in ready.findings(code=OK))


class TestEveryCommand:
    def test_help_with_examples_at_every_level(self, here):
        def verbs(text):
            block = text.split("Subcommands:\n")[1].split("\n\n")[0] if "Subcommands:" in text else ""
            return [line.split()[0] for line in block.split("\n") if re.match(r"  \w", line)]

        def visit(path):
            text = here.tool.run(*path, "--help").stdout
            assert "Examples:\n  zelvanctl " in text or "\nExamples:\n  zelvanctl" in text, path
            return 1 + sum(visit([*path, verb]) for verb in verbs(text))

        assert visit([]) > 20

    @pytest.mark.parametrize("arguments", [[], ["nonsense"], ["user"], ["user", "add"], ["db", "init", "--nonsense"],
                                           ["user", "list", "--sort", "shoe"], ["user", "add", "a", "--digits", "x"],
                                           ["audit", "--since", "yesterday"]])
    def test_wrong_usage(self, ready, arguments):
        assert ready.tool.run(*arguments, code=USAGE).stdout == ""
        assert json.loads(ready.tool.run(*arguments, "--json", code=USAGE).stderr)["exit_code"] == USAGE

    def test_a_missing_settings_file(self, here):
        assert "there is no settings file" in here.tool.run("db", "check", "--config", "/none", code=UNREACHABLE).stderr
        here.settings.unlink()
        assert str(here.settings) in here.tool.run("user", "list", code=UNREACHABLE).stderr

    def test_a_missing_database_key(self, here):
        here.settings.write_text("[DataBase]\notp_dsn=zelvan\n otp_uid=\notp_pwd=\n")
        assert "otp_uid in section [DataBase]" in here.tool.run("user", "list", code=UNREACHABLE).stderr

    def test_an_unknown_data_source(self, here):
        here.settings.write_text(SETTINGS.replace("zelvan", "nowhere"))
        done = here.tool.run("user", "list", "--json", code=UNREACHABLE)
        error = json.loads(done.stderr)
        assert error["exit_code"] == UNREACHABLE and "nowhere" in error["error"] and "IM002" in error["error"]

    def test_another_settings_file(self, ready, tmp_path):
        other = tmp_path / "other.con"
        other.write_text(SETTINGS)
        assert ready.tool.json("--config", str(other), "user", "list") == []

    def test_a_result_that_cannot_be_written_is_no_success(self, ready):
        with open("/dev/full", "w", encoding="ascii") as full:
            done = subprocess.run([ready.tool.executable, "user", "list"], env=ready.tool.environment, stdout=full,
                                  stderr=subprocess.PIPE, text=True, check=False)
        assert done.returncode == FAILED and "cannot write" in done.stderr
