"""zelvanctl doctor: what it says about a server that works and about one that does not; man page and completion."""

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from testbed import engine
from testbed.zelvanctl import FAILED, OK, UNREACHABLE, Tool

ONLY_SQLITE = pytest.mark.engines(engine.SQLITE, reason="is about SQLite's files and driver, or about no database")
SOURCES = Path(__file__).resolve().parents[2]


def steps(tool, code=OK, *arguments, **options):
    done = tool.json("doctor", *arguments, code=code, **options)
    assert done["healthy"] == (code == OK)
    return {step["name"]: step for step in done["steps"]} | {"verdict": done["verdict"]}


def told(step):
    return " ".join(f"{found['level']} {found['where']}: {found['what']}" for found in step["findings"])


@pytest.fixture
def running(prepare):
    daemon = prepare().start()
    daemon.settings_path.chmod(0o600)
    return daemon


class TestHealthy:
    def test_a_running_server_passes(self, running, tmp_path):
        found = steps(Tool.beside(running), cwd=tmp_path)
        assert found["server"]["remark"] == f"runs in {running.run_folder}"
        assert found["probe"]["findings"] == [] and "answers within" in found["probe"]["remark"]
        assert found["database"]["findings"] == []
        assert found["journal"]["remark"] == ("WAL" if engine.chosen() == engine.SQLITE else "no SQLite in reach")
        assert "the server was started" in found["start-up log"]["remark"]

    def test_the_probe_leaves_no_trace(self, running):
        tool = Tool.beside(running)
        tool.run("doctor")
        assert tool.json("user", "list") == [] and running.log_messages() == []

    def test_people_get_a_verdict_at_the_end(self, running):
        text = Tool.beside(running).run("doctor").stdout
        assert re.search(r"(Healthy\.|It works, with \d+ warnings?\.)\n$", text)
        for name in ("settings", "database", "journal", "server", "start-up log", "clock", "probe"):
            assert f"\n{name}: " in "\n" + text


class TestSick:
    def test_a_server_that_does_not_run(self, prepare):
        daemon = prepare()
        found = steps(Tool.beside(daemon), FAILED, "--directory", str(daemon.run_folder))
        assert "no running server" in told(found["server"])
        assert "nothing listens" in told(found["probe"])
        assert found["verdict"].startswith("Not healthy: 1 error")

    def test_a_server_that_ended_silently(self, prepare):
        daemon = prepare({"mail": {"mail_from": None}})
        assert daemon.run_to_its_end() == ["server starting..."]
        found = steps(Tool.beside(daemon), FAILED, "--directory", str(daemon.run_folder))
        assert "[mail] mail_from: is missing: the server ends at its start without a word" in told(found["settings"])
        assert "has ended without a word" in told(found["start-up log"])

    def test_a_server_that_told_why_it_ended(self, prepare):
        daemon = prepare({"DataBase": {"otp_uid": None}})
        daemon.run_to_its_end()
        found = steps(Tool.beside(daemon), FAILED, "--directory", str(daemon.run_folder))
        assert "otp_dsn, otp_uid or otp_pwd is missing" in told(found["start-up log"])
        assert found["database"]["remark"] == "the data source is out of reach"

    def test_a_data_source_out_of_reach(self, prepare):
        daemon = prepare(odbc=False)
        found = steps(Tool.beside(daemon), FAILED)
        assert "cannot connect" in told(found["settings"])
        assert found["database"]["remark"] == "the data source is out of reach" and not found["database"]["ok"]

    def test_a_bad_database(self, running):
        running.db.run("drop table keyinfo")
        assert "error keyinfo" in told(steps(Tool.beside(running), FAILED)["database"])

    def test_a_server_without_its_table(self, running):
        running.db.run("alter table userinfo rename to elsewhere")
        assert "was not answered with USER NOT EXIST" in told(steps(Tool.beside(running), FAILED)["probe"])

    def test_a_secret_changed_since_the_start(self, running):
        text = running.settings_path.read_text()
        running.settings_path.write_text(text.replace("correct-horse-battery", "another-secret-of-mine"))
        assert "restart it" in told(steps(Tool.beside(running), FAILED)["probe"])

    def test_no_secret_for_loopback(self, prepare):
        daemon = prepare({"share": {"0.0.0.0": None, "192.0.2.1": "correct-horse-battery"}}).start()
        daemon.settings_path.chmod(0o600)
        assert "config set 127.0.0.1" in told(steps(Tool.beside(daemon), OK)["probe"])

    def test_a_server_that_may_not_work(self, running):
        """The tool sees with the eyes of the server's login, also when it has a better one."""
        if engine.chosen() == engine.SQLITE:
            pytest.skip("SQLite has no rights")
        running.db.run("revoke select on keyinfo from zelvan_daemon")
        assert "error statement 3, for every request" in told(steps(Tool.beside(running), FAILED)["database"])

    def test_the_servers_login_is_enough(self, running):
        tool = Tool.beside(running)
        tool.login = []
        assert steps(tool)["database"]["findings"] == []

    @ONLY_SQLITE
    def test_a_journal_that_blocks(self, prepare):
        daemon = prepare()
        daemon.odbc_ini.write_text(daemon.odbc_ini.read_text().replace("JournalMode=WAL", "JournalMode=DELETE"))
        daemon.db.run("pragma journal_mode=delete")
        assert "JournalMode=WAL" in told(steps(Tool.beside(daemon), FAILED)["journal"])

    @ONLY_SQLITE
    def test_a_database_that_others_may_read(self, running):
        path = running.folder / "zelvan.db"
        path.chmod(0o640)
        told_now = told(steps(Tool.beside(running))["database"])
        assert f"warning {path}: has the mode 640" in told_now

    def test_another_program_beside_the_server_is_not_taken_for_it(self, prepare):
        daemon = prepare()
        other = daemon.executable.parent / "helper"
        shutil.copy2("/usr/bin/sleep", other)
        process = subprocess.Popen([str(other), "100"], cwd=daemon.folder)
        try:
            found = steps(Tool.beside(daemon), FAILED, "--directory", str(daemon.run_folder))
            assert "no running server" in told(found["server"])
        finally:
            process.kill()
            process.wait()

    @pytest.mark.skipif(os.geteuid() != 0, reason="only root may run as another user")
    @ONLY_SQLITE
    def test_a_server_hidden_from_this_user(self, running):
        """The log of a server that is still there ends with its start."""
        for folder in [running.folder, *running.folder.parents][:-2]:
            folder.chmod(folder.stat().st_mode | 0o755)
        for path in running.folder.rglob("*"):
            path.chmod(0o777)
        tool = Tool.beside(running)
        done = subprocess.run(tool.command("doctor", "--json", "--directory", str(running.run_folder)), user=65534,
                              group=65534, extra_groups=[], env=tool.environment, capture_output=True, text=True, check=False)
        found = {step["name"]: step for step in json.loads(done.stdout)["steps"]}
        assert "its process is hidden" in told(found["server"])
        assert found["start-up log"]["findings"] == [] and found["probe"]["findings"] == []

    def test_a_missing_settings_file(self, prepare):
        daemon = prepare()
        daemon.settings_path.unlink()
        Tool.beside(daemon).run("doctor", code=UNREACHABLE)


def nouns_and_verbs(tool):
    """Every command with its options, as --help tells."""
    def parts(*command):
        text = tool.run(*command, "--help").stdout
        # An option is listed as "  -y,--yes" or "  --config FILE"; the examples stand below.
        listed = text.split("Examples:")[0]
        options = set(re.findall(r"^ +(?:-\w,)?(--[a-z-]+)", listed, re.M))
        subcommands = re.search(r"Subcommands:\n((?:  .*\n)+)", listed)
        verbs = re.findall(r"^  (\w+)", subcommands.group(1), re.M) if subcommands else []
        return verbs, options - {"--help"}

    commands = {}
    nouns, common = parts()
    for noun in nouns:
        verbs, options = parts(noun)
        commands[(noun,)] = options
        for verb in verbs:
            commands[noun, verb] = parts(noun, verb)[1]
    return common, commands


@pytest.fixture(scope="module")
def described(tmp_path_factory):
    tool = Tool(tmp_path_factory.mktemp("help"), dict(os.environ))
    return nouns_and_verbs(tool)


@ONLY_SQLITE
def test_the_man_page_names_every_command_and_option(described):
    common, commands = described
    page = (SOURCES / "packaging" / "man" / "zelvanctl.1").read_text().replace("\\-", "-")
    assert len(commands) >= 25
    for words, options in commands.items():
        assert " ".join(words) in page, words
        for option in options | common:
            assert option in page, (words, option)


@ONLY_SQLITE
@pytest.mark.skipif(shutil.which("groff") is None, reason="needs groff")
def test_the_man_page_is_formatted_without_warnings():
    done = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", SOURCES / "packaging" / "man" / "zelvanctl.1"],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")


def completions(*words):
    """What bash offers for the last word."""
    script = f"""
source {SOURCES}/packaging/completion/zelvanctl.bash
COMP_WORDS=(zelvanctl "$@")
COMP_CWORD=$#
_zelvanctl
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
    done = subprocess.run(["bash", "--norc", "-c", script, "bash", *words], capture_output=True, text=True, check=True)
    return set(done.stdout.split())


@ONLY_SQLITE
def test_the_completion_offers_every_command_and_option(described):
    common, commands = described
    nouns = {words[0] for words in commands}
    assert completions("") == nouns
    for words, options in commands.items():
        if len(words) == 2:
            assert words[1] in completions(words[0], "")
        if len(words) == 2 or not any(other[0] == words[0] and len(other) == 2 for other in commands):
            assert completions(*words, "--") == options | common | {"--help"}, words


@ONLY_SQLITE
def test_the_completion_goes_on_from_what_is_typed():
    assert completions("us") == {"user"}
    assert completions("user", "un") == {"unlock"}
    assert completions("--json", "user", "un") == {"unlock"}
    assert completions("--config", "x", "user", "un") == {"unlock"}
    assert "radius_port" in completions("config", "set", "radius")
    assert completions("token", "new", "--type", "") == {"time", "event", "challenge"}
