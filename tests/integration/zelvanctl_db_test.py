"""zelvanctl db: creating the tables, and what is told about bad ones; and what holds for every command."""

import json
import os
import re
import stat
import subprocess

import pytest

from testbed import engine, servers
from testbed.database import KEY, Postgresql, make_database
from testbed.radius import ACCEPT, REJECT
from testbed.zelvanctl import FAILED, OK, REFUSED, UNREACHABLE, USAGE, Tool

PASSWORD = "an owner's \\password"  # of a login that these tests make
TABLES = ["userinfo", "keyinfo", "commonloginfo"]
LABELS = {engine.SQLITE: "SQLite", engine.POSTGRESQL: "PostgreSQL", engine.MARIADB: "MariaDB"}
SERVERS = pytest.mark.engines(engine.POSTGRESQL, engine.MARIADB, reason="SQLite has no logins")
ONLY_SQLITE = pytest.mark.engines(engine.SQLITE, reason="is about SQLite's files and driver")
ONLY_POSTGRESQL = pytest.mark.engines(engine.POSTGRESQL, reason="is about PostgreSQL's settings")
ONLY_MARIADB = pytest.mark.engines(engine.MARIADB, reason="is about MariaDB's settings")


class Installation:
    """The tool with settings and data source of its own, and a database."""

    def __init__(self, folder, db):
        self.db = db
        self.settings = folder / "config" / "otp_conf.con"
        self.settings.parent.mkdir()
        self.write_settings()
        self.odbc_ini = folder / "odbc.ini"
        self.odbc_ini.write_text(db.data_source("zelvan"))
        self.tool = Tool(folder, dict(os.environ, ODBCINI=str(self.odbc_ini)))

    def write_settings(self, **changes):
        """The settings file; a key whose value is None is left out."""
        keys = {"otp_dsn": "zelvan", "otp_uid": "", "otp_pwd": ""} | self.db.login | changes
        lines = [f"{key}={value}\n" for key, value in keys.items() if value is not None]
        self.settings.write_text("[DataBase]\n" + "".join(lines))

    def change_data_source(self, old, new):
        text = self.odbc_ini.read_text()
        assert old in text
        self.odbc_ini.write_text(text.replace(old, new))

    def findings(self, code=FAILED):
        return [(found["level"], found["where"], found["what"])
                for found in self.tool.json("db", "check", code=code)["findings"]]


@pytest.fixture
def install(tmp_path):
    """Makes installations: install(loose=..., empty=...)."""
    made = []

    def make(db=None, **options):
        folder = tmp_path / str(len(made))
        folder.mkdir()
        made.append(Installation(folder, db or make_database(folder, **options)))
        return made[-1]

    yield make
    for installation in made:
        installation.db.close()


@pytest.fixture
def here(install):
    """No tables yet."""
    return install(empty=True)


@pytest.fixture
def loose(install):
    """Tables without any rule."""
    return install(loose=True)


@pytest.fixture
def ready(install):
    return install()


class TestInit:
    def test_creates_the_tables_and_runs_twice(self, here):
        done = here.tool.json("db", "init")
        assert done == {"engine": LABELS[engine.chosen()], "created": TABLES, "guard": False, "grants": []}
        here.tool.run("user", "add", "alice")
        assert here.tool.json("db", "init")["created"] == []
        assert [row[0] for row in here.db.run("select username from userinfo")] == ["alice"]

    @ONLY_SQLITE
    def test_a_new_database_file_is_its_owners(self, here):
        """Keys and PINs are in it."""
        path = here.odbc_ini.parent / "new.db"
        here.odbc_ini.write_text(re.sub(r"Database *=.*", f"Database={path}", here.odbc_ini.read_text()))
        before = os.umask(0o022)
        try:
            here.tool.run("db", "init")
        finally:
            os.umask(before)
        assert {stat.S_IMODE(os.stat(file).st_mode) for file in path.parent.glob("new.db*")} == {0o600}
        assert here.findings(OK) == []
        path.chmod(0o604)
        assert [found[:2] for found in here.findings(OK)] == [("warning", str(path))]

    def test_the_tables_are_those_of_the_sql_file(self, here, install):
        here.tool.run("db", "init")
        by_the_file = install(empty=True).db
        by_the_file.install("schema")
        for table in TABLES:
            assert here.db.columns(table) == by_the_file.columns(table) != []

    def test_the_server_serves_at_once(self, prepare, tmp_path):
        daemon = prepare(db=make_database(tmp_path, empty=True))
        Tool.beside(daemon).run("db", "init")
        user = daemon.db.add_user()
        daemon.start()
        assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT

    def test_only_what_is_missing_is_created(self, ready):
        ready.db.run("drop table commonloginfo")
        assert ready.tool.json("db", "init")["created"] == ["commonloginfo"]
        assert ready.findings(code=OK) == []

    @ONLY_SQLITE
    def test_a_database_out_of_reach_is_told(self, here):
        here.change_data_source(str(here.db.path), "/proc/none/zelvan.db")
        done = here.tool.run("db", "init", code=UNREACHABLE)
        assert "cannot connect to data source 'zelvan'" in done.stderr and "SQLSTATE" in done.stderr


@SERVERS
class TestLogins:
    """The owner of the database makes the tables; the server's login gets the role."""

    @pytest.fixture
    def owner(self, here):
        """A login that owns the database and is no superuser; the tool logs in as it."""
        name = f"owner_{here.db.name}"
        here.db.own(name, PASSWORD)
        password = here.settings.parent / "password"
        password.write_text(PASSWORD + "\nmore\n")
        here.tool.login = ["--login", name, "--password-file", str(password)]
        yield name
        here.db.forget_login(name)

    def test_the_owner_needs_no_superuser(self, here, owner):
        assert here.tool.json("db", "init")["created"] == TABLES
        assert here.tool.json("db", "init", "--multi-server")["created"] == []
        assert here.findings(code=OK) == []
        here.tool.run("user", "add", "alice")
        here.tool.login = []
        assert here.findings(code=OK) == []

    def test_an_owner_who_may_make_no_roles(self, here, owner):
        """The role is there; to make it anew would be refused."""
        here.db.forbid_roles(owner)
        for _ in range(2):
            here.tool.run("db", "init", "--multi-server")
        assert here.findings(code=OK) == []

    def test_what_the_servers_login_is_enough_for(self, ready):
        user = ready.db.add_user("alice")
        ready.tool.login = []
        assert [each["user"] for each in ready.tool.json("user", "list")] == ["alice"]
        ready.tool.run("user", "lock", "alice")
        assert ready.tool.json("user", "show", "alice")["state"] == "locked"
        ready.tool.run("user", "unlock", "alice")
        ready.tool.run("token", "qr", "alice")
        ready.tool.run("token", "resync", "alice", user.code(20), user.code(21))
        assert ready.db.factor(user) == 22
        for command in (["user", "remove", "alice", "--yes"], ["user", "disable", "alice"]):
            assert "--login NAME" in ready.tool.run(*command, code=FAILED).stderr

    def test_the_servers_own_login_is_refused_and_told_why(self, here):
        here.tool.login = []
        code = UNREACHABLE if engine.chosen() == engine.MARIADB else FAILED  # the database itself is closed to it
        assert "--login NAME" in here.tool.run("db", "init", code=code).stderr
        assert here.db.columns("userinfo") == []

    def test_a_login_without_the_role_is_told_what_to_run(self, here):
        name = f"bare_{here.db.name}"
        here.db.server.add_login(name, "bare")
        here.db.server.revoke_role(name)
        here.write_settings(otp_uid=name, otp_pwd="bare")
        grants = here.tool.json("db", "init")["grants"]
        assert any(f"grant zelvan_daemon to" in statement and name in statement for statement in grants)
        assert "Let an administrator run:" in here.tool.run("db", "init").stdout
        for statement in grants:
            here.db.run(statement.rstrip(";"))
        assert here.tool.json("db", "init")["grants"] == []
        assert here.findings(code=OK) == []
        here.db.forget_login(name)

    def test_a_login_that_does_not_exist_is_told_how_to_make(self, here):
        name = f'no"`body_{here.db.name}'[:30]
        here.write_settings(otp_uid=name, otp_pwd="secret-of-nobody")
        done = here.tool.run("db", "init")
        assert re.search("create (role|user)", done.stdout) and "secret-of-nobody" not in done.stdout
        quoted = '"no""`body_' if engine.chosen() == engine.POSTGRESQL else '`no"``body_'
        assert quoted in done.stdout

    def test_a_password_from_standard_input_and_the_prompt(self, here, owner):
        login = ["--login", owner]
        here.tool.login = []
        here.tool.run(*login, "db", "init", stdin=PASSWORD + "\n")
        here.tool.run(*login, "user", "add", "pia", "--pin", stdin=PASSWORD + "\n4711\n")
        assert here.db.run("select pin from userinfo")[0][0] == "4711"
        screen = here.tool.at_terminal(*login, "user", "list",
                                       answers=[(f"Password of {owner} at the database: ", PASSWORD)])
        assert "pia" in screen and PASSWORD not in screen
        csv = f"serial,key,type\nCSV,{KEY},event\n"
        here.tool.run(*login, "token", "import", "-", stdin=PASSWORD + "\n" + csv)
        done = here.tool.run(*login, "user", "list", stdin="wrong\n", code=UNREACHABLE)
        assert "cannot connect" in done.stderr and "wrong" not in done.stderr
        here.tool.run(*login, "--password-file", "/none", "user", "list", code=USAGE)

    def test_more_rights_than_the_server_needs(self, ready):
        administrator = servers.ADMINISTRATORS[engine.chosen()]
        ready.write_settings(otp_uid=administrator, otp_pwd="")
        assert [(level, where) for level, where, what in ready.findings(code=OK) if "--login" in what] == [
            ("warning", "userinfo"), ("warning", "keyinfo")]

    @pytest.mark.parametrize("right, where", [
        ("select on userinfo", "statement 1,"), ("select on keyinfo", "statement 3,"),
        ("update (hcounter) on keyinfo", "statement 4,"), ("update (failaccum) on userinfo", "statement 7,"),
        ("insert on commonloginfo", "")])
    def test_a_right_that_is_missing(self, ready, right, where):
        ready.db.run(f"revoke {right} from zelvan_daemon")
        assert any(level == "error" and found.startswith(where) for level, found, _ in ready.findings())

    def test_a_tool_without_rights_of_its_own(self, ready):
        ready.tool.login = []
        assert "--login" in ready.tool.run("user", "add", "alice", code=FAILED).stderr


@SERVERS
class TestNewServer:
    """A database server that has never heard of the role."""

    @pytest.fixture
    def fresh(self, tmp_path):
        server = servers.KINDS[engine.chosen()]()
        try:
            server.remove_role()
            yield Installation(tmp_path, make_database(tmp_path, empty=True, server=server))
        finally:
            server.remove()

    def test_from_nothing_to_a_server_that_may_work(self, fresh):
        grants = fresh.tool.json("db", "init")["grants"]
        assert grants and fresh.findings() != []
        for statement in grants:
            fresh.db.run(statement.rstrip(";"))
        assert fresh.tool.json("db", "init")["grants"] == []
        assert fresh.findings(code=OK) == []
        fresh.tool.login = []
        assert fresh.findings(code=OK) == []


class TestGuard:
    settings = {"options": {"otp_max_accum": 99}}

    @pytest.fixture
    def guarded(self, ready):
        assert ready.tool.json("db", "init", "--multi-server")["guard"] is True
        return ready

    def test_it_is_told_whether_it_is_there(self, ready):
        assert ready.tool.json("db", "check")["guard"] is False
        assert "not installed; zelvanctl db init --multi-server" in ready.tool.run("db", "check").stdout
        for _ in range(2):
            assert "The guard for several servers is in place." in ready.tool.run("db", "init", "--multi-server").stdout
            assert ready.tool.json("db", "check")["guard"] is True
        ready.tool.run("db", "init")
        assert "Guard for several servers: installed." in ready.tool.run("db", "check").stdout

    @SERVERS
    def test_the_servers_login_finds_it_too(self, ready):
        """MariaDB does not show it triggers, so it needs a token to try."""
        ready.tool.login, administrator = [], ready.tool.login
        unknown = None if engine.chosen() == engine.MARIADB else False
        assert ready.tool.json("db", "check")["guard"] is unknown
        ready.db.add_user()
        assert ready.tool.json("db", "check")["guard"] is False
        ready.tool.login = administrator
        ready.tool.run("db", "init", "--multi-server")
        ready.tool.login = []
        before = ready.db.everything()
        assert ready.tool.json("db", "check")["guard"] is True
        assert ready.db.everything() == before

    @pytest.mark.parametrize("kind", ["event", "time"])
    def test_a_counter_that_does_not_move_forward_is_refused(self, guarded, kind):
        guarded.tool.run("user", "add", "alice", "--type", kind, "--serial", "G-1")
        guarded.db.run("update keyinfo set hcounter = 3, lcounter = 10")
        for high, low in ((3, 10), (3, 9), (2, 11)):
            with pytest.raises(Exception, match="this code is used"):
                guarded.db.run("update keyinfo set hcounter = ?, lcounter = ? where serialnum = 'G-1'", high, low)
        guarded.db.run("update keyinfo set hcounter = 3, lcounter = 11")

    def test_the_server_still_accepts_codes(self, daemon):
        tool = Tool.beside(daemon)
        tool.run("db", "init", "--multi-server")
        user, client = daemon.db.add_user(), daemon.client()
        for factor in range(3):
            assert client.pap(user.name, user.code(factor)).code == ACCEPT
            assert client.pap(user.name, user.code(factor)).code == REJECT
        assert daemon.db.factor(user) == 3

    def test_a_token_is_not_set_back(self, guarded):
        user = guarded.db.add_user("back", factor=50)
        done = guarded.tool.run("token", "resync", "back", user.code(10), user.code(11), "--backward", code=REFUSED)
        assert "token replace" in done.stderr and guarded.db.factor(user) == 50
        guarded.tool.run("token", "resync", "back", user.code(60), user.code(61))
        assert guarded.db.factor(user) == 62


class TestCheck:
    def test_good_tables_have_no_findings(self, ready):
        for kind in ("time", "event", "challenge"):
            ready.tool.run("user", "add", kind, "--type", kind)
        assert ready.findings(code=OK) == []
        assert "as the server needs it" in ready.tool.run("db", "check").stdout

    def test_nothing_is_changed(self, ready):
        ready.tool.run("user", "add", "alice")
        before = ready.db.everything()
        ready.tool.run("db", "check")
        assert ready.db.everything() == before and ready.db.audit_rows() == []

    def test_missing_tables(self, here):
        assert [where for _, where, _ in here.findings() if where in TABLES] == TABLES

    def test_a_missing_column(self, ready):
        ready.db.run("alter table commonloginfo rename column remoteip to address")
        assert ("error", "commonloginfo.remoteip", "the column is missing") in ready.findings()

    def test_a_missing_unique_index(self, loose):
        told = [(level, where) for level, where, what in loose.findings(code=OK) if "unique index" in what]
        assert told == [("warning", "userinfo.username"), ("warning", "keyinfo.serialnum")]

    def test_two_rows_for_one_user(self, loose):
        loose.db.run("insert into userinfo (username) values ('bob'), ('bob')")
        assert any(where == "userinfo.username" and "2 rows have the value 'bob'" in what
                   for _, where, what in loose.findings())

    def test_a_number_where_text_belongs(self, loose):
        loose.db.run("alter table keyinfo drop column serialnum")
        loose.db.run("alter table keyinfo add column serialnum integer")
        assert ("error", "keyinfo.serialnum", "is no text column") in loose.findings()

    def test_a_short_column(self, loose):
        loose.db.run("alter table userinfo drop column pin")
        loose.db.run("alter table userinfo add column pin varchar(8)")
        assert ("warning", "userinfo.pin", "holds 8 characters; the server uses up to 18") in loose.findings(code=OK)

    def test_nulls_and_bad_values(self, loose):
        loose.db.run("insert into keyinfo values ('T1', null, 1, 0, 0, '2026-01-01 00:00:00', 6, 10, 0)")
        loose.db.run(f"insert into keyinfo values ('T2', '{KEY}', 2, 0, 0, '2026-01-01 00:00:00', 5, 0, 0)")
        loose.db.run("insert into userinfo values ('eve', 'T9', 0, 0, null, null, 2, null, 0)")
        told = [(where, what) for level, where, what in loose.findings() if level == "error"]
        assert ("token T1", "userkey is NULL") in told
        assert ("token T2", "diglen is 5, not 6 to 10") in told
        assert any(where == "token T2" and what.startswith("authwnd is 0") for where, what in told)
        assert any(where == "token T2" and what.startswith("tmstep is 0") for where, what in told)
        assert ("user eve", "authtype asks for a PIN and pin is NULL") in told
        assert ("user eve", "there is no token T9") in told

    def test_statements_that_the_database_refuses(self, ready):
        ready.db.refuse_inserts("commonloginfo")
        assert [(where, "not allowed" in what) for level, where, what in ready.findings() if level == "error"] == [
            ("statement 8, for the audit trail (otp_logmode other than 1)", True)]

    def test_a_dialect_that_the_engine_does_not_know(self, ready):
        ready.write_settings(otp_dbtype=3)
        assert any(where.startswith("statement 1,") for _, where, _ in ready.findings())


class TestDataSource:
    @ONLY_SQLITE
    def test_without_a_timeout(self, ready):
        ready.change_data_source("Timeout=10000\n", "")
        assert any(where == "data source zelvan" and "Timeout" in what for _, where, what in ready.findings(code=OK))

    @ONLY_POSTGRESQL
    def test_a_backslash_that_ends_quotes(self, ready):
        ready.change_data_source("set standard_conforming_strings = on", "set standard_conforming_strings = off")
        assert [(level, where) for level, where, what in ready.findings() if "lets anybody run SQL" in what] == [
            ("error", "data source zelvan")]

    @ONLY_POSTGRESQL
    def test_no_statement_timeout(self, ready):
        ready.change_data_source("; set statement_timeout = '5s'", "")
        assert [level for level, _, what in ready.findings(code=OK) if "statement_timeout is 0" in what] == ["warning"]

    @ONLY_POSTGRESQL
    def test_another_encoding(self, install):
        latin = Postgresql(servers.shared(), empty=True, options="encoding 'LATIN1' lc_collate 'C' lc_ctype 'C'")
        latin.install("schema")
        here = install(latin)
        assert [(level, where) for level, where, what in here.findings(code=OK) if "LATIN1" in what] == [
            ("warning", "database")]

    @ONLY_POSTGRESQL
    def test_a_function_that_loses_the_time_of_day(self, ready):
        ready.write_settings(otp_dbtype=4)
        assert [level for level, where, _ in ready.findings() if where == "otp_dbtype"] == ["error"]
        ready.db.install("dialect4")
        ready.change_data_source("set standard", "set search_path = zelvan_dialect4, pg_catalog, public; set standard")
        assert ready.findings(code=OK) == []

    @ONLY_MARIADB
    @pytest.mark.parametrize("name, code, expected", [("gbk", FAILED, "error"), ("sjis", FAILED, "error"),
                                                      ("big5", FAILED, "error"), ("latin1", OK, "warning"),
                                                      ("utf8mb3", OK, "warning")])
    def test_another_character_set(self, ready, name, code, expected):
        ready.change_data_source("CHARSET=utf8mb4", f"CHARSET={name}")
        told = [level for level, where, what in ready.findings(code) if f"character set is {name}" in what]
        assert told == [expected]

    @ONLY_MARIADB
    def test_no_timeout(self, ready):
        ready.change_data_source("READ_TIMEOUT=10\n", "")
        assert [level for level, _, what in ready.findings(code=OK) if "has no READ_TIMEOUT" in what] == ["warning"]

    @ONLY_MARIADB
    @pytest.mark.parametrize("collation, words", [("utf8mb4_general_ci", "'anna' and 'Anna' for one"),
                                                  ("utf8mb4_bin", "ignores blanks at the end")])
    def test_a_collation_that_takes_names_for_one(self, ready, collation, words):
        for table in ("userinfo", "keyinfo"):
            ready.db.run(f"alter table {table} convert to character set utf8mb4 collate {collation}")
        told = [(level, where) for level, where, what in ready.findings(code=OK) if words in what]
        assert sorted(told) == [("warning", "keyinfo.serialnum"), ("warning", "userinfo.serialnum"),
                                ("warning", "userinfo.username")]


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
                                           ["audit", "--since", "yesterday"], ["--password-file"]])
    def test_wrong_usage(self, ready, arguments):
        assert ready.tool.run(*arguments, code=USAGE).stdout == ""
        assert json.loads(ready.tool.run(*arguments, "--json", code=USAGE).stderr)["exit_code"] == USAGE

    @ONLY_SQLITE
    def test_a_password_without_a_login(self, here):
        assert "--login" in here.tool.run("--password-file", "/dev/null", "user", "list", code=USAGE).stderr

    def test_a_missing_settings_file(self, here):
        assert "there is no settings file" in here.tool.run("db", "check", "--config", "/none", code=UNREACHABLE).stderr
        here.settings.unlink()
        assert str(here.settings) in here.tool.run("user", "list", code=UNREACHABLE).stderr

    def test_a_missing_database_key(self, here):
        here.settings.write_text(here.settings.read_text().replace("otp_uid", " otp_uid"))
        assert "otp_uid in section [DataBase]" in here.tool.run("user", "list", code=UNREACHABLE).stderr

    def test_an_unknown_data_source(self, here):
        here.write_settings(otp_dsn="nowhere")
        done = here.tool.run("user", "list", "--json", code=UNREACHABLE)
        error = json.loads(done.stderr)
        assert error["exit_code"] == UNREACHABLE and "nowhere" in error["error"] and "IM002" in error["error"]

    def test_another_settings_file(self, ready, tmp_path):
        other = tmp_path / "other.con"
        other.write_text(ready.settings.read_text())
        assert ready.tool.json("--config", str(other), "user", "list") == []

    def test_a_result_that_cannot_be_written_is_no_success(self, ready):
        with open("/dev/full", "w", encoding="ascii") as full:
            done = subprocess.run(ready.tool.command("user", "list"), env=ready.tool.environment, stdout=full,
                                  stderr=subprocess.PIPE, text=True, check=False)
        assert done.returncode == FAILED and "cannot write" in done.stderr
