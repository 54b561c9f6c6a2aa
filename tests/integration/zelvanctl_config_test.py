"""zelvanctl config: what it finds in a settings file and around it, and how it edits the file."""

import json
import os
import re
import resource
import signal
import socket
import stat
import subprocess
import time
from pathlib import Path

import pytest

from testbed import engine
from testbed.daemon import wait_until
from testbed.ports import free_port
from testbed.zelvanctl import FAILED, NOT_FOUND, OK, REFUSED, UNREACHABLE, USAGE, Tool

SECRET = "correct-horse-battery"
DATA_SOURCE = "[zelvan]\nDriver=SQLite3\nDatabase={}\nJournalMode=WAL\nTimeout=10000\n"
SOURCES = Path(__file__).resolve().parents[2]


def settings_table():
    """Section and key of every row of the table of keys, as docs/settings.md tells."""
    rows = []
    for line in (SOURCES / "docs" / "settings.md").read_text().splitlines():
        cells = [cell.strip() for cell in line.split("|")]
        if len(cells) > 4 and cells[1].startswith("`"):
            rows += [(cells[1].strip("`"), key) for key in re.findall(r"`([a-z_0-9.]+)`", cells[2])]
    return rows


KEYS = settings_table()


class Installation:
    def __init__(self, folder):
        self.folder = folder
        self.settings = folder / "config" / "otp_conf.con"
        self.settings.parent.mkdir()
        (folder / "log").mkdir()
        self.odbc_ini = folder / "odbc.ini"
        self.odbc_ini.write_text(DATA_SOURCE.format(folder / "zelvan.db"))
        self.tool = Tool(folder, dict(os.environ) | {"ODBCINI": str(self.odbc_ini)})
        self.port = free_port()
        self.write(f"[DataBase]\notp_dsn=zelvan\notp_uid=\notp_pwd=\n[Radius Server]\nradius_port={self.port}\n"
                   f"[mail]\notp_mail_need=0\n[share]\n127.0.0.1={SECRET}\n")

    def write(self, text):
        self.settings.write_text(text)
        self.settings.chmod(0o600)

    def replace(self, old, new):
        text = self.settings.read_text()
        assert old in text
        self.write(text.replace(old, new))

    def findings(self, *arguments, code=FAILED, **options):
        done = self.tool.json("config", "check", "--directory", str(self.folder), *arguments, code=code, **options)
        # Port 8801 may be taken by the server of another test.
        return [f"{found['level']} {found['where']}: {found['what']}" for found in done["findings"]
                if found["where"] != "port 8801"]

    def assert_found(self, pattern, code=FAILED, **options):
        found = self.findings(code=code, **options)
        assert any(re.search(pattern, each) for each in found), found


@pytest.fixture
def here(tmp_path):
    if engine.chosen() != engine.SQLITE:
        pytest.skip("is about the settings file, whatever the engine")
    return Installation(tmp_path)


class TestCheck:
    def test_a_good_file_has_no_findings(self, here):
        assert here.findings(code=OK) == []
        shown = here.tool.run("config", "check", "--directory", str(here.folder)).stdout
        assert "in order" in shown or "port 8801" in shown

    def test_a_synchronisation_port_in_use_is_told(self, here):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            try:
                other.bind(("0.0.0.0", 8801))
            except OSError:
                pass  # the server of another test has it, which does as well
            found = here.tool.json("config", "check", "--directory", str(here.folder))["findings"]
        assert "UDP port 8801 is taken by another program: the synchronisation service would be absent" in str(found)

    def test_the_example_lacks_only_a_secret(self, here):
        example = (SOURCES / "config" / "otp_conf.con.example").read_text()
        here.write(example.replace("radius_port=1812", f"radius_port={here.port}"))
        assert here.findings() == ["error [share]: holds no secret that can be used: no client gets an answer"]

    @pytest.mark.parametrize("section, key", KEYS)
    def test_every_documented_key_is_known(self, here, section, key):
        """A slip in its name is told with the right one; so is an indented line."""
        here.write(f"[{section}]\n {key}=1\n{key}x=1\n")
        here.assert_found(f"line 2, {re.escape(key)}: is indented")
        if section == "share":
            here.assert_found("line 3, 0.0.0.0x: is no IPv4 address")
        else:
            here.assert_found(f"line 3, {key}x: is no key of the server. Did you mean {key} in section")

    def test_the_table_of_keys_is_read(self):
        assert len(KEYS) == 27

    def test_the_completion_knows_every_key(self):
        completion = (SOURCES / "packaging" / "completion" / "zelvanctl.bash").read_text()
        listed = re.search(r"_zelvanctl_keys='([^']*)'", completion).group(1).split()
        assert sorted(listed) == sorted(key for _, key in KEYS)

    def test_a_mode_that_lets_others_read_is_told(self, here):
        here.settings.chmod(0o644)
        here.assert_found("warning .*other users may read its secrets", code=OK)
        here.settings.chmod(0o622)
        here.assert_found("error .*other users may change it")

    def test_a_missing_log_folder_is_told_with_where_it_counts_from(self, here, tmp_path):
        (here.folder / "log").rmdir()
        here.assert_found(r"error log log/otplog.log: there is no folder .*counts from the folder given")
        found = here.tool.json("config", "check", cwd=tmp_path)["findings"]
        assert "the present folder, since no running server was found" in str(found)

    def test_a_log_that_is_a_folder_is_told(self, here):
        (here.folder / "log" / "otplog.log").mkdir()
        here.assert_found("error log log/otplog.log: .* is a folder")

    @pytest.mark.skipif(os.geteuid() == 0, reason="root may write everywhere")
    def test_a_log_folder_that_cannot_be_written_is_told(self, here):
        (here.folder / "log").chmod(0o555)
        here.assert_found("error log log/otplog.log: the folder .* cannot be written")

    def test_with_audit_rows_the_log_folder_does_not_matter(self, here):
        (here.folder / "log").rmdir()
        here.replace("[mail]", "[options]\notp_logmode=0\n[mail]")
        assert here.findings(code=OK) == []

    def test_a_port_in_use_is_told(self, here):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(("0.0.0.0", here.port))
            here.assert_found(f"error .*radius_port: UDP port {here.port} is taken by another program")

    def test_a_port_that_is_cut_is_checked_as_it_is_cut(self, here):
        here.replace(f"radius_port={here.port}", f"radius_port={here.port + 65536}")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(("0.0.0.0", here.port))
            here.assert_found(f"UDP port {here.port} is taken")
        here.assert_found(f"is cut to 16 bits: the server takes port {here.port}")

    def test_an_unknown_data_source_is_told(self, here):
        here.replace("otp_dsn=zelvan", "otp_dsn=nowhere")
        here.assert_found("error data source nowhere: cannot connect")

    def test_a_driver_that_never_answers_is_told(self, here):
        """A driver library that is a pipe: opening it waits for ever."""
        pipe = here.folder / "driver.so"
        os.mkfifo(pipe)
        here.odbc_ini.write_text(f"[zelvan]\nDriver={pipe}\n")
        here.assert_found("error data source zelvan: gives no answer within 10 seconds")

    def test_a_data_source_name_beyond_the_driver_managers_limit_is_told(self, here):
        here.replace("otp_dsn=zelvan", "otp_dsn=" + "x" * 33)
        here.assert_found("error line 2, otp_dsn: is longer than 32 characters: the driver manager refuses it")
        here.assert_found("error data source x+: cannot connect")  # and so it does

    def test_secrets_are_not_shown(self, here):
        here.write("[DataBase]\notp_pwt=s3cret\n otp_pwd=s3cret\ns3cret\n[share]\n192.0.2.1 s3cret\ngw=s3cret\n")
        for mode in ([], ["--json"]):
            done = here.tool.run("config", "check", *mode, code=FAILED)
            assert "s3cret" not in done.stdout + done.stderr

    def test_a_missing_file_is_out_of_reach(self, here):
        here.settings.unlink()
        assert "there is no settings file" in here.tool.run("config", "check", code=UNREACHABLE).stderr

    def test_it_is_not_disturbed_by_its_own_server(self, prepare):
        """The port of the running server is in use by the server itself."""
        daemon = prepare().start()
        daemon.settings_path.chmod(0o600)
        found = Tool.beside(daemon).json("config", "check")
        assert found["ok"]
        assert not any("taken" in each["what"] for each in found["findings"])


class TestListAndGet:
    def test_list_shows_every_key_with_its_source(self, here):
        rows = {(row["section"], row["key"]): row for row in here.tool.json("config", "list")}
        for section, key in KEYS:
            if section != "share":
                assert (section, key) in rows
        assert rows["Radius Server", "radius_port"] == {"section": "Radius Server", "key": "radius_port",
                                                        "value": str(here.port), "source": "line 6"}
        assert rows["options", "otp_wnd"]["source"] == "default" and rows["options", "otp_wnd"]["value"] == "30"
        assert rows["mail", "mail_from"] == {"section": "mail", "key": "mail_from", "value": None,
                                             "source": "missing, not read"}
        assert rows["share", "127.0.0.1"]["value"] == "***"
        assert SECRET not in here.tool.run("config", "list").stdout
        assert SECRET in here.tool.run("config", "list", "--show-secrets").stdout

    def test_get_tells_what_the_server_sees(self, here):
        here.replace("[mail]", "[options]\notp_wnd=12 codes\notp_wnd=13\n[mail]")
        assert here.tool.run("config", "get", "otp_wnd").stdout == "12\n"
        assert here.tool.run("config", "get", "mail_subject").stdout == "Notice\n"
        assert here.tool.run("config", "get", "127.0.0.1").stdout == "***\n"
        assert here.tool.run("config", "get", "127.0.0.1", "--show-secrets").stdout == SECRET + "\n"
        here.tool.run("config", "get", "mail_from", code=NOT_FOUND)
        here.tool.run("config", "get", "192.0.2.1", code=NOT_FOUND)
        assert "did you mean otp_wnd?" in here.tool.run("config", "get", "otp_wnt", code=USAGE).stderr
        assert "[options]" in here.tool.run("config", "get", "otp_wnd", "--section", "mail", code=USAGE).stderr

    def test_a_value_that_is_too_long_is_no_value(self, here):
        here.replace(f"127.0.0.1={SECRET}", "127.0.0.1=" + "x" * 57)
        assert "too long" in here.tool.run("config", "get", "127.0.0.1", code=NOT_FOUND).stderr


class TestSet:
    def test_keeps_everything_else(self, here):
        here.write("; head\n[options]\n; window\notp_wnd=5\n; rest\notp_logcond=1\n[share]\n; clients\n")
        here.tool.run("config", "set", "otp_wnd", "7")
        assert here.settings.read_text() == ("; head\n[options]\n; window\notp_wnd=7\n; rest\notp_logcond=1\n"
                                             "[share]\n; clients\n")
        here.tool.run("config", "set", "otp_logsize", "2")
        here.tool.run("config", "set", "radius_port", "1645")
        assert here.settings.read_text() == ("; head\n[options]\n; window\notp_wnd=7\n; rest\notp_logcond=1\n"
                                             "otp_logsize=2\n[share]\n; clients\n[Radius Server]\nradius_port=1645\n")

    def test_texts_may_be_empty(self, here):
        here.write("[DataBase]\notp_uid=root\n")
        here.tool.run("config", "set", "otp_uid", "")
        assert here.settings.read_text() == "[DataBase]\notp_uid=\n"

    def test_changes_the_line_that_counts(self, here):
        """The key stands only in the second section of that name."""
        here.write("[options]\n[mail]\n[options]\notp_wnd=5\n")
        here.tool.run("config", "set", "otp_wnd", "7")
        assert here.settings.read_text() == "[options]\n[mail]\n[options]\notp_wnd=7\n"

    def test_a_last_comment_without_line_feed_swallows_nothing(self, here):
        here.write("[share]\n; the end")
        here.tool.run("config", "set", "127.0.0.1", stdin=SECRET + "\n")
        assert here.settings.read_text() == f"[share]\n; the end\n127.0.0.1={SECRET}\n"

    def test_mode_and_link_stay(self, here):
        target = here.folder / "elsewhere.con"
        here.settings.rename(target)
        target.chmod(0o640)
        here.settings.symlink_to(target)
        here.tool.run("config", "set", "otp_wnd", "7")
        assert here.settings.is_symlink() and stat.S_IMODE(target.stat().st_mode) == 0o640
        assert "otp_wnd=7" in target.read_text()

    @pytest.mark.skipif(os.geteuid() != 0, reason="only root can give a file away")
    def test_the_owner_stays(self, here):
        os.chown(here.settings, 65534, 65534)
        here.tool.run("config", "set", "otp_wnd", "7")
        assert (here.settings.stat().st_uid, here.settings.stat().st_gid) == (65534, 65534)

    def test_what_would_be_lost_is_told_and_needs_a_yes(self, here):
        text = "stray=1\n\n[options]\n otp_wnd=5\n"
        here.write(text)
        done = here.tool.run("config", "set", "otp_wnd", "7", code=REFUSED)
        for part in ("1 blank line", "line 1: the setting stands in no section", "line 4: the key of the indented"):
            assert part in done.stderr
        assert here.settings.read_text() == text
        here.tool.run("config", "set", "otp_wnd", "7", "--yes")
        assert here.settings.read_text() == "[options]\n=5\notp_wnd=7\n"

    def test_a_person_is_asked(self, here):
        here.write("[options]\n\n")
        question = "Go on? [y/N] "
        here.tool.at_terminal("config", "set", "otp_wnd", "7", answers=[(question, "n")], code=REFUSED)
        assert here.settings.read_text() == "[options]\n\n"
        here.tool.at_terminal("config", "set", "otp_wnd", "7", answers=[(question, "y")])
        assert here.settings.read_text() == "[options]\notp_wnd=7\n"

    def test_secrets_are_asked_for_without_echo(self, here):
        here.write("[share]\n")
        screen = here.tool.at_terminal("config", "set", "192.0.2.1", answers=[("192.0.2.1: ", SECRET), ("Again: ", SECRET)])
        assert SECRET not in screen
        assert here.settings.read_text() == f"[share]\n192.0.2.1={SECRET}\n"
        assert "standard input" in here.tool.run("config", "set", "192.0.2.1", SECRET, code=USAGE).stderr
        here.tool.run("config", "set", "otp_pwd", stdin="p\n")
        assert here.settings.read_text().endswith("[DataBase]\notp_pwd=p\n")

    @pytest.mark.parametrize("key, value, said", [
        ("otp_wnd", "many", "whole number"), ("otp_wnd", "", "whole number"), ("otp_wnd", "7 ", "whole number"),
        ("otp_wnd", "99999999999", "whole number"), ("otp_wnd", "0", "no code is tried"),
        ("radius_port", "70000", "cut to 16 bits"), ("otp_mail_need", "2", "never sent"),
        ("otp_dsn", "x" * 33, "driver manager"), ("otp_dsn", "x" * 37, "the limit is 36"),
        ("mail_subject", "x" * 56, "the limit is 55"), ("mail_subject", "a\nb", "line end"),
        ("mail_subject", "a\rb", "line end"), ("otp_logpath", "x" * 129, "the limit is 128"),
        ("otp_wndd", "7", "did you mean otp_wnd?"), ("comment_t", "x", "knows no key"),
    ])
    def test_what_the_server_could_not_use_is_refused(self, here, key, value, said):
        before = here.settings.read_text()
        assert said in here.tool.run("config", "set", key, value, code=USAGE).stderr
        assert here.settings.read_text() == before

    @pytest.mark.parametrize("secret, said", [("", "is empty"), ("x" * 57, "the limit is 56")])
    def test_secrets_that_cannot_work_are_refused(self, here, secret, said):
        assert said in here.tool.run("config", "set", "192.0.2.1", stdin=secret + "\n", code=USAGE).stderr

    def test_what_is_odd_is_told_and_done(self, here):
        done = here.tool.run("config", "set", "192.0.2.1", stdin="x" * 25 + "\n")
        assert "synchronisation service" in done.stderr
        done = here.tool.run("config", "set", "otp_mail_need", "1")
        assert "otp_smtp_server" in done.stderr and "without a word" in done.stderr

    def test_edits_at_once_lose_nothing_silently(self, here):
        keys = ["otp_wnd", "otp_max_accum", "otp_maxthread", "otp_maxidletime", "otp_logsize", "otp_keylen"]
        for number in range(5):
            running = [(key, here.tool.start("config", "set", key, str(20 + number))) for key in keys]
            codes = {key: process.communicate() and process.returncode for key, process in running}
            assert set(codes.values()) <= {OK, REFUSED} and OK in codes.values(), codes
            text = here.settings.read_text()
            for key, code in codes.items():
                assert (f"{key}={20 + number}\n" in text) == (code == OK), (codes, text)
        assert os.listdir(here.settings.parent) == ["otp_conf.con"]

    def test_only_regular_files_are_edited(self, here):
        """A null device of our own: root may make one, others have the system's, which they could not replace."""
        device = here.folder / "device"
        try:
            os.mknod(device, 0o600 | stat.S_IFCHR, os.makedev(1, 3))
        except PermissionError:
            pytest.skip("only root makes devices")
        try:
            open(device, "rb").close()
        except PermissionError:
            pytest.skip("devices do not work in this folder")
        done = here.tool.run("--config", str(device), "config", "set", "otp_wnd", "7", "--yes", code=REFUSED)
        assert "no regular file" in done.stderr and stat.S_ISCHR(os.stat(device).st_mode)

    def test_an_interrupt_leaves_no_copy(self, here):
        """Interrupted at moments all over its run; the file is the old one or the new one."""
        before = "[options]\n" + "; a line\n" * 3000
        for delay in range(40):
            here.write(before)
            process = here.tool.start("config", "set", "otp_wnd", "7")
            wait_until(lambda: len(os.listdir(here.settings.parent)) > 1 or process.poll() is not None, "a copy")
            time.sleep(delay % 5 * 0.0005)
            process.send_signal(signal.SIGINT)
            process.communicate()
            assert os.listdir(here.settings.parent) == ["otp_conf.con"]
            assert here.settings.read_text() in (before, before + "otp_wnd=7\n")

    def test_a_key_that_stands_for_comments_stops_it(self, here):
        text = "[options]\ncomment_t=hello\notp_wnd=5\n"
        here.write(text)
        assert "line 2 has the key comment_t" in here.tool.run("config", "set", "otp_wnd", "9", "--yes", code=REFUSED).stderr
        assert here.settings.read_text() == text

    def test_warnings_are_json_when_asked_for(self, here):
        done = here.tool.run("config", "set", "otp_mail_need", "1", "--json")
        warnings = [json.loads(line)["warning"] for line in done.stderr.splitlines()]
        assert any("otp_smtp_server" in warning for warning in warnings)

    def test_lines_that_cannot_be_written_back_stop_it(self, here):
        here.write("[options]\n;" + "x" * 1100 + "\n")
        assert "longer than 1022" in here.tool.run("config", "set", "otp_wnd", "7", "--yes", code=REFUSED).stderr

    def test_a_full_disk_leaves_the_file(self, here):
        """The limit of the file size stands in for the disk."""
        here.write("[options]\n" + "; a line\n" * 2000)
        before = here.settings.read_text()
        done = subprocess.run([str(here.tool.executable), "config", "set", "otp_wnd", "7"], env=here.tool.environment,
                              preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096)),
                              restore_signals=False,  # Python ignores SIGXFSZ: the write fails, as on a full disk
                              capture_output=True, text=True, check=False)
        assert (done.returncode, "nothing changed" in done.stderr) == (UNREACHABLE, True), done.stderr
        assert here.settings.read_text() == before
        assert os.listdir(here.settings.parent) == ["otp_conf.con"]

    def test_the_server_reads_what_was_set(self, prepare):
        daemon = prepare()
        tool = Tool.beside(daemon)
        port = free_port()
        tool.run("config", "set", "radius_port", str(port))
        tool.run("config", "set", "127.0.0.1", stdin="another-secret-of-mine\n")
        daemon.start(port)
        user = daemon.db.add_user("otto")
        assert daemon.client(secret=b"another-secret-of-mine").pap("otto", user.code(0)).code == 2


class TestUnset:
    def test_removes_every_occurrence(self, here):
        here.write("[options]\notp_wnd=5\n; c\notp_wnd=6\n[mail]\n[options]\notp_wnd=7\n")
        here.tool.run("config", "unset", "otp_wnd")
        assert here.settings.read_text() == "[options]\n; c\n[mail]\n[options]\n"

    def test_removes_a_stray_key_of_a_named_section(self, here):
        here.write("[DataBase]\notp_dns=a\n[nonsense]\nx=1\n")
        here.tool.run("config", "unset", "otp_dns", "--section", "DataBase")
        here.tool.run("config", "unset", "x", "--section", "nonsense")
        assert here.settings.read_text() == "[DataBase]\n[nonsense]\n"

    def test_tells_what_is_missing_then(self, here):
        assert "Get database connection params failed" in here.tool.run("config", "unset", "otp_dsn").stderr

    def test_a_secret_goes_with_a_yes_only(self, here):
        before = here.settings.read_text()
        assert "Confirm with --yes" in here.tool.run("config", "unset", "127.0.0.1", code=REFUSED).stderr
        assert here.settings.read_text() == before
        here.tool.run("config", "unset", "127.0.0.1", "--yes")
        assert "127.0.0.1" not in here.settings.read_text()

    def test_refuses_what_is_not_there(self, here):
        here.tool.run("config", "unset", "otp_wnd", code=NOT_FOUND)
        here.tool.run("config", "unset", "x", "--section", "a]b", code=USAGE)
        here.tool.run("config", "unset", "comment_t", "--section", "mail", code=USAGE)
