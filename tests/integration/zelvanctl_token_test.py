"""zelvanctl token: making, replacing, resynchronising, and CSV files."""

import os
import stat

import pytest

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

    def test_the_progress_bar_shows_at_a_terminal_only(self, tool, tmp_path):
        lines = "".join(f"P-{number},{KEY},event\n" for number in range(50))
        path = self.write(tmp_path, "serial,key,type\n" + lines)
        screen = tool.at_terminal("token", "import", path)
        assert "importing [" in screen and "100%" in screen and "Imported 50 tokens" in screen
        done = tool.run("token", "import", self.write(tmp_path, "serial,key,type\n" + lines.replace("P-", "Q-")))
        assert "importing" not in done.stdout + done.stderr
