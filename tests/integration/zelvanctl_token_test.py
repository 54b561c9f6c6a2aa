"""zelvanctl token: making, replacing, resynchronising, and CSV files."""

import os
import signal
import stat
import subprocess
import threading
import time

import pytest

from testbed.daemon import wait_until
from testbed.database import utc
from testbed.radius import ACCEPT, REJECT
from testbed.zelvanctl import FAILED, NOT_FOUND, REFUSED, USAGE, Tool, oathtool

KEY = "0123456789abcdefABCD"
TITLES = "serial,key,type,digits,window,step,counter,date,user,mail,pin\n"


@pytest.fixture
def tool(daemon):
    return Tool.beside(daemon)


def serial_of(tool, user):
    return tool.json("user", "show", user)["serial"]


class TestMaking:
    def test_a_spare_token(self, db, tool):
        made = tool.json("token", "new", "--type", "challenge", "--serial", "NEW-1")
        assert made["user"] is None and made["token"]["type"] == "challenge"
        assert [token["serial"] for token in tool.json("token", "list", "--spare")] == ["NEW-1"]
        tool.run("token", "new", "--serial", "NEW-1", code=REFUSED)
        tool.run("token", "remove", "NEW-1", code=REFUSED)
        tool.run("token", "remove", "NEW-1", "--yes")
        assert tool.json("token", "list", "--spare") == []
        tool.run("token", "remove", "NEW-1", "--yes", code=NOT_FOUND)

    def test_a_token_for_a_user_whose_token_is_missing(self, db, client, tool):
        tool.run("user", "add", "lost", "--type", "event", "--serial", "LOST-1")
        assert "see zelvanctl token replace" in tool.run("token", "new", "lost", code=REFUSED).stderr
        db.run("delete from keyinfo where serialnum = 'LOST-1'")
        assert "there is no token LOST-1" in tool.run("user", "show", "lost").stdout
        tool.run("token", "new", "lost", "--type", "event")
        assert serial_of(tool, "lost") == "LOST-1"
        assert client.pap("lost", oathtool("-c0", key=tool.key("lost"))).code == ACCEPT

    def test_a_token_of_a_user_is_not_removed(self, tool):
        tool.run("user", "add", "keeper", "--serial", "KEEP-1")
        assert "belongs to user keeper" in tool.run("token", "remove", "KEEP-1", "--yes", code=REFUSED).stderr

    def test_naming_a_token(self, tool):
        tool.run("user", "add", "named", "--serial", "NAMED-1")
        assert tool.json("token", "show", "--serial", "NAMED-1")["user"] == "named"
        tool.run("token", "show", code=USAGE)
        tool.run("token", "show", "named", "--serial", "NAMED-1", code=USAGE)
        tool.run("token", "show", "nobody", code=NOT_FOUND)
        tool.run("token", "show", "--serial", "NONE", code=NOT_FOUND)


class TestReplacing:
    def test_the_new_one_counts_and_the_old_one_is_gone(self, db, client, tool):
        tool.run("user", "add", "swap", "--type", "event", "--digits", "7", "--window", "3", "--serial", "SWAP-1")
        old_key = tool.key("swap")
        tool.run("token", "replace", "swap", code=REFUSED)
        assert serial_of(tool, "swap") == "SWAP-1"
        done = tool.json("token", "replace", "swap", "--yes")
        assert done["replaced"] == "SWAP-1"
        assert (done["token"]["type"], done["token"]["digits"], done["token"]["window"]) == ("event", 7, 3)
        assert db.run("select * from keyinfo where serialnum = 'SWAP-1'") == []
        assert client.pap("swap", oathtool("-c0", "-d7", key=old_key)).code == REJECT
        assert client.pap("swap", oathtool("-c0", "-d7", key=tool.key("swap"))).code == ACCEPT

    def test_the_old_one_may_stay(self, tool):
        tool.run("user", "add", "swap2", "--serial", "SWAP-2")
        tool.run("token", "replace", "swap2", "--keep-old", "--yes", "--type", "event")
        assert tool.json("token", "show", "--serial", "SWAP-2")["user"] is None
        assert tool.json("token", "show", "swap2")["type"] == "event"


class TestResync:
    def test_wrong_input(self, db, tool):
        tool.run("user", "add", "res", "--type", "event", "--serial", "RES-1")
        before = db.everything()
        key = tool.key("res")
        good = oathtool("-c5", key=key), oathtool("-c6", key=key)
        tool.run("token", "resync", "res", code=USAGE)
        tool.run("token", "resync", "res", good[0], code=USAGE)
        tool.run("token", "resync", "res", "12345", good[1], code=USAGE)
        tool.run("token", "resync", "res", "12345x", good[1], code=USAGE)
        tool.run("token", "resync", "res", *good, "--window", "99999999", code=USAGE)
        tool.run("token", "resync", "res", good[1], good[0], code=FAILED)
        tool.run("token", "resync", "res", *good, "--window", "4", code=FAILED)
        tool.run("token", "resync", "nobody", *good, code=NOT_FOUND)
        assert db.everything() == before
        tool.run("token", "resync", "--serial", "RES-1", *good, "--window", "5")
        assert tool.json("token", "show", "res")["counter"] == 7

    def test_going_back_must_be_asked_for(self, tool):
        tool.run("user", "add", "back", "--type", "event", "--counter", "500")
        key = tool.key("back")
        codes = oathtool("-c10", key=key), oathtool("-c11", key=key)
        assert "--backward" in tool.run("token", "resync", "back", *codes, code=FAILED).stderr
        tool.run("token", "resync", "back", *codes, "--backward")
        assert tool.json("token", "show", "back")["counter"] == 12

    def test_challenge_tokens_have_nothing_to_find(self, tool):
        tool.run("user", "add", "resc", "--type", "challenge")
        tool.run("token", "resync", "resc", "123456", "123456", code=REFUSED)


class TestResyncOfTimeTokens:
    """Codes come from a token with the right clock, unless the test says otherwise."""

    STEP = 30

    def code(self, key, seconds):
        return oathtool("--totp", "--now", utc(seconds) + " UTC", key=key)

    def resync(self, tool, name, seconds, *options, **expected):
        """With the code of so many seconds from now and the one after it."""
        return tool.run("token", "resync", name, *self.pair(tool.key(name), seconds), *options, **expected)

    def pair(self, key, seconds):
        """Two codes in a row, also when a step ends meanwhile."""
        return oathtool("--totp", "--window", "1", "--now", utc(seconds) + " UTC", key=key).split()

    @pytest.fixture
    def watch(self, daemon):
        """Sets the server's clock forward and returns the offset; back at the end."""
        offsets = []

        def advance(seconds):
            offsets.append(seconds)
            daemon.advance(seconds)
            return sum(offsets)

        yield advance
        daemon.advance(-sum(offsets))

    @pytest.mark.parametrize("ago", [30, 90, 210, 310])
    def test_the_present_code_is_accepted_now_and_later(self, client, tool, watch, ago):
        name = f"old{ago}"
        tool.run("user", "add", name)
        key = tool.key(name)
        self.resync(tool, name, -ago)
        if ago > 30:  # else the code of the present step is one of the two
            assert client.pap(name, self.code(key, 0)).code == ACCEPT
            self.resync(tool, name, -ago, "--backward")
        offset = watch(1000)
        assert client.pap(name, self.code(key, offset)).code == ACCEPT
        offset = watch(100)
        assert client.pap(name, self.code(key, offset)).code == ACCEPT

    def test_the_two_codes_are_used_up(self, client, tool):
        tool.run("user", "add", "used-up")
        key = tool.key("used-up")
        codes = self.pair(key, -120)
        tool.run("token", "resync", "used-up", *codes)
        for code in codes:
            assert client.pap("used-up", code).code == REJECT
        assert client.pap("used-up", self.code(key, 0)).code == ACCEPT

    def test_codes_older_than_the_window_are_refused(self, db, tool):
        tool.run("user", "add", "too-old")
        before = db.everything()
        said = self.resync(tool, "too-old", -1200, "--backward", code=REFUSED).stderr
        assert "19 minutes behind" in said and "--just-read" in said
        assert db.everything() == before

    @pytest.mark.parametrize("drift, options", [(-1200, ["--just-read"]), (-150, []), (90, []), (1200, [])])
    def test_a_token_with_a_wrong_clock(self, client, tool, watch, drift, options):
        name = f"drift{drift}"
        tool.run("user", "add", name)
        key = tool.key(name)
        self.resync(tool, name, drift - self.STEP, "--backward", *options)
        offset = watch(self.STEP)
        assert client.pap(name, self.code(key, drift + offset)).code == ACCEPT
        offset = watch(3000)
        assert client.pap(name, self.code(key, drift + offset)).code == ACCEPT

    def test_a_token_that_counts_from_another_year(self, client, tool, watch, tmp_path):
        """Its row tells where it should be; old codes do not spoil it either."""
        path = tmp_path / "tokens.csv"
        path.write_text(f"serial,key,type,counter,date,user\nODD-1,{KEY},time,1000,{utc(-60)},odd\n")
        tool.run("token", "import", str(path))
        codes = [oathtool(f"-c{factor}", key=KEY) for factor in (1000, 1001, 1002, 1102)]
        tool.run("token", "resync", "odd", codes[0], codes[1])
        assert client.pap("odd", codes[2]).code == ACCEPT
        watch(3000)
        assert client.pap("odd", codes[3]).code == ACCEPT
        assert "not those of the clock" in tool.run("token", "qr", "odd", code=REFUSED).stderr
        assert "cannot take it" in tool.run("token", "show", "odd").stdout


class TestRaces:
    """What changes while a prompt waits."""

    QUESTION = ("[y/N] ", "y")

    def meanwhile(self, tool, *arguments, by, answers=None):
        """Runs the command at a terminal; `by` happens while its prompt waits."""
        first, *more = answers or [self.QUESTION]
        return tool.at_terminal(*arguments, answers=[(first[0], first[1], by), *more], code=REFUSED)

    def orphans(self, db):
        return db.run("select serialnum from keyinfo where serialnum like 'Z%' and serialnum not in "
                      "(select serialnum from userinfo)")

    def test_replacing_twice(self, db, tool):
        tool.run("user", "add", "rr", "--serial", "RR-1")
        screen = self.meanwhile(tool, "token", "replace", "rr",
                                by=lambda: tool.run("token", "replace", "rr", "--yes", "--serial", "RR-2"))
        assert "given another token" in screen
        assert serial_of(tool, "rr") == "RR-2" and self.orphans(db) == []

    def test_replacing_the_token_of_a_user_who_goes(self, db, tool):
        tool.run("user", "add", "rg")
        self.meanwhile(tool, "token", "replace", "rg", by=lambda: tool.run("user", "remove", "rg", "--yes"))
        assert self.orphans(db) == []

    def test_removing_a_user_who_gets_another_token(self, tool):
        tool.run("user", "add", "ug")
        self.meanwhile(tool, "user", "remove", "ug", by=lambda: tool.run("token", "replace", "ug", "--yes"))
        assert tool.json("token", "show", "ug")["user"] == "ug"

    def test_removing_a_user_who_goes(self, tool):
        tool.run("user", "add", "ugg")
        self.meanwhile(tool, "user", "remove", "ugg", by=lambda: tool.run("user", "remove", "ugg", "--yes"))

    def test_a_pin_for_a_user_who_goes(self, tool):
        tool.run("user", "add", "pg")
        screen = self.meanwhile(tool, "user", "set", "pg", "--pin", by=lambda: tool.run("user", "remove", "pg", "--yes"),
                                answers=[("PIN for pg: ", "1234"), ("Again: ", "1234")])
        assert "removed by someone else" in screen

    def test_removing_a_token_that_somebody_gets(self, tool):
        tool.run("token", "new", "--serial", "SP-1")
        self.meanwhile(tool, "token", "remove", "SP-1", by=lambda: tool.run("user", "add", "uu", "--token", "SP-1"))
        assert tool.json("token", "show", "uu")["serial"] == "SP-1"

    def test_taking_a_token_that_goes_or_is_taken(self, tool):
        for number, by in enumerate([("token", "remove", "SP-2", "--yes"), ("user", "add", "taker", "--token", "SP-2")]):
            tool.run("token", "new", "--serial", "SP-2")
            self.meanwhile(tool, "user", "add", f"late{number}", "--token", "SP-2", "--pin",
                           by=lambda by=by: tool.run(*by),
                           answers=[(f"PIN for late{number}: ", "1"), ("Again: ", "1")])
            tool.run("user", "show", f"late{number}", code=NOT_FOUND)

    def test_many_at_once(self, db, tool):
        tool.run("user", "add", "busy", "--serial", "BUSY")
        running = [tool.start("token", "replace", "busy", "--yes") for _ in range(6)]
        codes = []
        for process in running:
            process.communicate()
            codes.append(process.returncode)
        assert set(codes) <= {0, REFUSED} and 0 in codes
        assert len(db.run("select * from userinfo join keyinfo using (serialnum) where username = 'busy'")) == 1
        assert self.orphans(db) == []


class TestNumbers:
    @pytest.mark.parametrize("number", ["-5", "0x10", "18446744073709551616", "1e3", "", " 1", "+1"])
    def test_only_plain_decimal_numbers(self, db, tool, number):
        before = db.everything()
        tool.run("token", "new", "--type", "event", f"--counter={number}", code=USAGE)
        tool.run("token", "new", f"--window={number}", code=USAGE)
        tool.run("token", "resync", "nobody", "111111", "222222", f"--window={number}", code=USAGE)
        tool.run("user", "list", f"--failures={number}", code=USAGE)
        tool.run("probe", "x", f"--timeout={number}", code=USAGE)
        assert db.everything() == before

    def test_zeros_at_the_front_mean_nothing(self, tool):
        made = tool.json("token", "new", "--type", "event", "--counter", "010", "--digits", "08", "--window", "010")
        assert (made["token"]["counter"], made["token"]["digits"], made["token"]["window"]) == (10, 8, 10)


class TestHandingOut:
    def test_no_hint_at_a_qr_code_that_cannot_be(self, tool):
        assert "token qr" in tool.run("user", "add", "hint1").stdout
        assert "token qr" not in tool.run("user", "add", "hint2", "--type", "challenge").stdout
        assert "token qr" not in tool.run("token", "replace", "hint1", "--digits", "10", "--yes").stdout

    def test_an_issuer_too_long_for_a_qr_code(self, db, tool):
        tool.run("user", "add", "issuer")
        before = db.everything()
        for command in (["user", "add", "issuer2"], ["token", "new"], ["token", "replace", "issuer", "--yes"]):
            assert "shorter --issuer" in tool.run(*command, "--qr", "--issuer", "x" * 3000, code=USAGE).stderr
        assert db.everything() == before

    def test_help_that_cannot_be_written(self, tool):
        with open("/dev/full", "w", encoding="ascii") as full:
            for option in ("--help", "--version"):
                assert subprocess.run([str(tool.executable), option], stdout=full, stderr=subprocess.PIPE, check=False,
                                      env=tool.environment).returncode == FAILED


class TestFiles:
    def write(self, tmp_path, text):
        path = tmp_path / "tokens.csv"
        path.write_text(text)
        return str(path)

    def test_import_makes_users_who_log_in(self, client, tool, tmp_path):
        path = self.write(tmp_path, TITLES + f"CSV-1,{KEY},event,,,,7,,csv1,a@b.example,99\nCSV-2,{KEY}x,2,8,,60,,,csv2,,\n"
                                             f"CSV-3,{KEY},challenge,,,,,,,,\n")
        assert tool.json("token", "import", path) == {"imported": 3, "users": 2, "bad_lines": []}
        assert client.pap("csv1", oathtool("-c7", key=KEY) + "99").code == ACCEPT
        assert client.pap("csv2", oathtool("--totp", "-d8", "-s60", key=KEY + "x")).code == ACCEPT

    def test_every_bad_line_is_told_and_nothing_imported(self, db, tool, tmp_path):
        tool.run("user", "add", "taken", "--serial", "TAKEN")
        before = db.everything()
        path = self.write(tmp_path, TITLES + f"B-1,{KEY},event,,,,,,,,\nB-2,short,event,,,,,,,,\nTAKEN,{KEY},event,,,,,,,,\n"
                                             f"B-4,{KEY},event,,,,,,taken,,\nB-5,{KEY},event\n")
        done = tool.run("token", "import", path, code=FAILED)
        assert [line.split(":")[1] for line in done.stderr.split("\n")[1:-1]] == ["3", "4", "5", "6"]
        assert [line["line"] for line in tool.json("token", "import", path, code=FAILED)["bad_lines"]] == [3, 4, 5, 6]
        assert db.everything() == before and KEY not in done.stderr

    def test_a_refusal_in_the_middle_takes_everything_back(self, db, tool, tmp_path):
        db.refuse_inserts("keyinfo", "serialnum", "M-3")
        before = db.everything()
        path = self.write(tmp_path, TITLES + "".join(f"M-{number},{KEY},event,,,,,,m{number},,\n" for number in range(6)))
        assert "line 5" in tool.run("token", "import", path, code=FAILED).stderr
        assert db.everything() == before

    def test_a_dry_run_changes_nothing(self, db, tool, tmp_path):
        before = db.everything()
        path = self.write(tmp_path, f"serial,key,type\nDRY,{KEY},event\n")
        assert tool.json("token", "import", "--dry-run", path)["imported"] == 0
        assert db.everything() == before

    def test_standard_input(self, tool):
        tool.run("token", "import", "-", stdin=f"serial,key,type\nSTDIN,{KEY},event\n")
        assert tool.json("token", "show", "--serial", "STDIN")["type"] == "event"

    @pytest.mark.parametrize("text", ["", "\0", "serial\n", "\"", "serial,key,type\n\"x"])
    def test_broken_files(self, tool, tmp_path, text):
        tool.run("token", "import", self.write(tmp_path, text), code=FAILED)

    def test_files_that_are_none(self, tool, tmp_path):
        tool.run("token", "import", str(tmp_path / "none"), code=USAGE)
        tool.run("token", "import", str(tmp_path), code=USAGE)

    def test_what_is_exported_can_be_imported(self, db, tool, tmp_path):
        tool.run("user", "add", "round", "--serial", "ROUND", "--pin-value", "a,\"b", "--mail", "r@example.com")
        tool.run("user", "set", "round", "--mail", "r2@example.com")
        path = tmp_path / "export.csv"
        tool.run("token", "export", str(path), "--show-secrets")
        assert stat.S_IMODE(os.stat(path).st_mode) == 0o600
        before = [tuple(row) for row in db.run("select * from userinfo natural join keyinfo where username = 'round'")]
        db.run("delete from userinfo")
        db.run("delete from keyinfo")
        tool.run("token", "import", str(path))
        after = [tuple(row) for row in db.run("select * from userinfo natural join keyinfo where username = 'round'")]
        assert after == before

    def test_an_export_without_secrets_cannot_be_imported(self, tool, tmp_path):
        tool.run("token", "new")
        path = str(tmp_path / "public.csv")
        tool.run("token", "export", path)
        assert "column 'key' is missing" in tool.run("token", "import", path, code=FAILED).stderr

    def test_a_file_is_not_overwritten_unasked(self, tool, tmp_path):
        path = self.write(tmp_path, "precious")
        tool.run("token", "export", path, code=REFUSED)
        assert open(path, encoding="utf-8").read() == "precious"
        tool.run("token", "export", path, "--yes")
        tool.run("token", "export", str(tmp_path / "none" / "x.csv"), code=FAILED)

    def test_states_survive_the_round(self, db, tool, tmp_path):
        for name, words in (("s-on", []), ("s-off", ["disable"]), ("s-lock", ["lock"]), ("s-both", ["disable", "lock"])):
            tool.run("user", "add", name, "--mail", "state@example.com")
            for word in words:
                tool.run("user", word, name)
        states = [(user["user"], user["locked"], user["disabled"]) for user in tool.json("user", "list", "--match", "state@")]
        path = tmp_path / "export.csv"
        tool.run("token", "export", str(path), "--show-secrets")
        db.run("delete from userinfo")
        db.run("delete from keyinfo")
        tool.run("token", "import", str(path))
        after = [(user["user"], user["locked"], user["disabled"]) for user in tool.json("user", "list", "--match", "state@")]
        assert after == states and len({state[1:] for state in states}) == 4
        assert 590 < tool.json("user", "show", "s-lock")["next_attempt"]["lock_seconds"] <= 600

    def test_an_export_touches_no_other_file(self, tool, tmp_path):
        tool.run("token", "new")
        other = tmp_path / "k.csv.new"
        victim = tmp_path / "victim"
        other.write_text("precious")
        other.chmod(0o644)
        tool.run("token", "export", str(tmp_path / "k.csv"), "--show-secrets")
        assert other.read_text() == "precious"
        other.unlink()
        victim.write_text("precious")
        other.symlink_to(victim)
        tool.run("token", "export", str(tmp_path / "k.csv"), "--yes")
        assert victim.read_text() == "precious" and other.is_symlink()
        assert sorted(os.listdir(tmp_path)) == ["k.csv", "k.csv.new", "victim"]

    def test_exports_at_once_do_not_mix(self, tool, tmp_path):
        lines = "".join(f"AT-{number},{KEY},event\n" for number in range(300))
        tool.run("token", "import", self.write(tmp_path, "serial,key,type\n" + lines))
        path = tmp_path / "k.csv"
        running = [tool.start("token", "export", str(path), "--yes") for _ in range(4)]
        assert [process.communicate() and process.returncode for process in running] == [0] * 4
        assert path.read_text() == tool.run("token", "export").stdout
        assert sorted(os.listdir(tmp_path)) == ["k.csv", "tokens.csv"]

    def test_an_export_follows_links_and_feeds_pipes(self, tool, tmp_path):
        expected = tool.run("token", "export").stdout
        target = tmp_path / "target.csv"
        target.write_text("old")
        link = tmp_path / "link"
        link.symlink_to(target)
        tool.run("token", "export", str(link), "--yes")
        assert link.is_symlink() and target.read_text() == expected
        pipe = tmp_path / "pipe"
        os.mkfifo(pipe)
        got = []
        reader = threading.Thread(target=lambda: got.append(pipe.read_text()), daemon=True)
        reader.start()
        tool.run("token", "export", str(pipe))
        assert stat.S_ISFIFO(os.stat(pipe).st_mode)
        reader.join(60)
        assert got == [expected]
        nowhere = tmp_path / "nowhere"
        nowhere.symlink_to(tmp_path / "none")
        tool.run("token", "export", str(nowhere), code=FAILED)
        tool.run("token", "export", str(tmp_path), "--yes", code=FAILED)

    def test_an_interrupted_export_leaves_nothing(self, tool, tmp_path):
        """Interrupted at moments all over its run."""
        folder = tmp_path / "exports"
        folder.mkdir()
        for delay in range(40):
            process = tool.start("token", "export", str(folder / "k.csv"), "--yes", "--show-secrets")
            wait_until(lambda: list(folder.iterdir()) or process.poll() is not None, "a file")
            time.sleep(delay % 5 * 0.0005)
            process.send_signal(signal.SIGINT)
            process.communicate()
            assert not [name for name in os.listdir(folder) if name != "k.csv"]
            (folder / "k.csv").unlink(missing_ok=True)

    def test_what_a_killed_export_has_left_is_swept(self, tool, tmp_path):
        names = (".k.csv.draft-aaaaaa", ".k.csv.draft-bbbbbb", ".other.draft-aaaaaa", ".k.csv.backup")
        left, young, other, own = (tmp_path / name for name in names)
        for path in (left, young, other, own):
            path.write_text("secret")
        for path in (left, other, own):
            os.utime(path, (1, 1))
        tool.run("token", "export", str(tmp_path / "k.csv"))
        assert not left.exists() and young.exists() and other.exists() and own.exists()

    def test_the_progress_bar_shows_at_a_terminal_only(self, tool, tmp_path):
        lines = "".join(f"P-{number},{KEY},event\n" for number in range(50))
        path = self.write(tmp_path, "serial,key,type\n" + lines)
        screen = tool.at_terminal("token", "import", path)
        assert "importing [" in screen and "100%" in screen and "Imported 50 tokens" in screen
        done = tool.run("token", "import", self.write(tmp_path, "serial,key,type\n" + lines.replace("P-", "Q-")))
        assert "importing" not in done.stdout + done.stderr
