"""zelvanctl user: accounts, prompts, and what scripts get."""

import fcntl
import os
import pty
import signal
import subprocess
import sys
import termios

import pytest

from testbed.daemon import wait_until
from testbed.database import utc
from testbed.radius import ACCEPT, REJECT
from testbed.zelvanctl import NOT_FOUND, REFUSED, USAGE, Tool, oathtool


def unread(terminal):
    """Bytes that wait to be read at a terminal."""
    return int.from_bytes(fcntl.ioctl(terminal, termios.FIONREAD, bytes(4)), sys.byteorder)


@pytest.fixture
def tool(daemon):
    return Tool.beside(daemon)


class TestAdding:
    def test_user_and_token_are_made_together(self, db, tool):
        made = tool.json("user", "add", "add1", "--mail", "a@example.com", "--type", "event", "--digits", "8",
                         "--window", "5", "--serial", "ADD-1", "--counter", "4294967297")
        user = db.run("select * from userinfo where username = 'add1'")[0]
        token = db.run("select * from keyinfo where serialnum = 'ADD-1'")[0]
        assert made["user"] == "add1" and made["token"]["serial"] == user["serialnum"] == "ADD-1"
        assert (user["islocked"], user["failaccum"], user["authtype"], user["isdeleted"]) == (0, 0, 1, 0)
        assert user["preusedate"] is None and user["user_email"] == "a@example.com"
        assert (token["tktype"], token["diglen"], token["authwnd"], token["tmstep"]) == (1, 8, 5, 0)
        assert (token["hcounter"], token["lcounter"]) == (1, 1) and len(token["userkey"]) == 28

    def test_no_secret_is_shown_unless_wanted(self, db, tool):
        done = tool.run("user", "add", "add2", "--pin-value", "s3cret-pin")
        key = db.run("select userkey from keyinfo join userinfo using (serialnum) where username = 'add2'")[0][0]
        for arguments in (["user", "show", "add2"], ["user", "list"], ["token", "show", "add2"], ["token", "export"],
                          ["token", "list"]):
            for form in ([], ["--json"]):
                shown = tool.run(*arguments, *form).stdout
                assert key not in shown and "s3cret-pin" not in shown
                shown = tool.run(*arguments, *form, "--show-secrets").stdout
                assert arguments == ["user", "show", "add2"] or key in shown or arguments[:2] in (["user", "list"], ["token", "list"])
        assert key not in done.stdout + done.stderr

    def test_the_same_user_twice_is_refused(self, db, tool):
        tool.run("user", "add", "add3", "--serial", "ADD-3")
        assert "exists already" in tool.run("user", "add", "add3", code=REFUSED).stderr
        assert "exists already" in tool.run("user", "add", "add3b", "--serial", "ADD-3", code=REFUSED).stderr
        assert db.run("select count(*) from userinfo where username like 'add3%'")[0][0] == 1

    def test_a_refused_user_leaves_no_token(self, db, tool):
        """The token is added first; the user row is then refused by the database."""
        db.refuse_inserts("userinfo", "username", "add4")
        tool.run("user", "add", "add4", "--serial", "ADD-4", code=1)
        assert db.run("select * from keyinfo where serialnum = 'ADD-4'") == []

    @pytest.mark.parametrize("arguments", [["x" * 20], [""], ["a\tb"], ["good", "--mail", "nowhere"],
                                           ["good", "--digits", "5"], ["good", "--digits", "11"], ["good", "--window", "0"],
                                           ["good", "--step", "0"], ["good", "--serial", "x" * 29],
                                           ["good", "--pin-value", "x" * 19], ["good", "--pin-value", ""],
                                           ["good", "--type", "nail"], ["good", "--counter", "-1"],
                                           ["good", "--type", "time", "--counter", "5"], ["good", "--pin", "--pin-value", "1"]])
    def test_bad_values_are_refused(self, db, tool, arguments):
        before = db.everything()
        tool.run("user", "add", *arguments, code=USAGE)
        assert db.everything() == before

    @pytest.mark.parametrize("name", ["O'Neil", "back\\slash", "end\\", "\\' or 1=1 --", "Zoë", "a b", "x" * 19, "é" * 9 + "x",
                                      "日本語", "'; drop table x"])
    def test_unusual_names_work(self, db, client, tool, name):
        tool.run("user", "add", "--type", "event", "--", name)
        assert db.run("select count(*) from userinfo where username = ?", name)[0][0] == 1
        assert client.pap(name, oathtool("-c0", key=tool.key(name))).code == ACCEPT
        assert tool.json("user", "show", name)["user"] == name
        tool.run("user", "remove", "--yes", name)

    def test_every_text_may_hold_quotes_and_backslashes(self, db, client, tool):
        name, serial, mail, pin = "q'\"\\`", "S'\\\"?", "o'\\né@example.com", "p'\\\"?{}é"
        tool.run("user", "add", name, "--serial", serial, "--mail", mail, "--pin-value", pin, "--type", "event")
        assert db.run("select username, serialnum, user_email, pin from userinfo where username = ?", name) == [
            (name, serial, mail, pin)]
        shown = tool.json("user", "show", name, "--show-secrets")
        assert (shown["serial"], shown["mail"], shown["pin"]) == (serial, mail, pin)
        assert client.pap(name, oathtool("-c0", key=tool.key(name)) + pin).code == ACCEPT
        tool.run("user", "set", name, "--mail", "", "--pin-value", "\\")
        assert db.run("select user_email, pin from userinfo where username = ?", name) == [(None, "\\")]
        tool.run("user", "lock", name)
        tool.run("token", "replace", name, "--serial", serial + "2", "--yes")
        tool.run("user", "remove", name, "--yes")
        assert db.run("select * from keyinfo where serialnum in (?, ?)", serial, serial + "2") == []

    def test_texts_of_the_greatest_length(self, db, client, tool):
        """Limits count bytes, and every engine takes as many."""
        texts = "é" * 9 + "n", "é" * 14, "é" * 20 + "@example.com" + "xyz", "é" * 9
        assert [len(text.encode()) for text in texts] == [19, 28, 55, 18]
        name, serial, mail, pin = texts
        tool.run("user", "add", name, "--serial", serial, "--mail", mail, "--pin-value", pin, "--type", "event")
        assert db.run("select username, serialnum, user_email, pin from userinfo where username = ?", name) == [texts]
        assert client.pap(name, oathtool("-c0", key=tool.key(name)) + pin).code == ACCEPT
        tool.run("user", "remove", name, "--yes")

    def test_a_spare_token_is_taken(self, db, tool):
        tool.run("token", "new", "--serial", "SPARE-1")
        tool.run("user", "add", "add5", "--token", "SPARE-1")
        assert db.run("select serialnum from userinfo where username = 'add5'")[0][0] == "SPARE-1"
        assert "belongs to user add5" in tool.run("user", "add", "add6", "--token", "SPARE-1", code=REFUSED).stderr
        tool.run("user", "add", "add6", "--token", "NONE", code=NOT_FOUND)
        tool.run("user", "add", "add6", "--token", "SPARE-1", "--digits", "8", code=USAGE)


class TestPins:
    def test_from_standard_input(self, db, tool):
        tool.run("user", "add", "pin1", "--pin", stdin="from-stdin\nmore\n")
        assert db.run("select authtype, pin from userinfo where username = 'pin1'")[0][:] == (2, "from-stdin")
        tool.run("user", "add", "pin2", "--pin", stdin="", code=USAGE)
        tool.run("user", "add", "pin2", "--pin", stdin="\n", code=USAGE)
        assert db.run("select * from userinfo where username = 'pin2'") == []

    def test_a_prompt_without_echo(self, db, tool):
        screen = tool.at_terminal("user", "add", "pin3", "--pin",
                                  answers=[("PIN for pin3: ", "typed-pin"), ("Again: ", "typed-pin")])
        assert "typed-pin" not in screen
        assert db.run("select pin from userinfo where username = 'pin3'")[0][0] == "typed-pin"

    @pytest.mark.parametrize("typed", [b"", b"typed\x04"])  # Ctrl-D hands over what is typed so far
    def test_an_interrupt_at_the_prompt_turns_the_echo_on_again(self, db, tool, typed):
        keyboard, terminal = pty.openpty()
        process = subprocess.Popen(tool.command("user", "add", "pin6", "--pin"), env=tool.environment,
                                   stdin=terminal, stdout=terminal, stderr=terminal)
        wait_until(lambda: not termios.tcgetattr(terminal)[3] & termios.ECHO, "the prompt without echo")
        os.write(keyboard, typed)
        wait_until(lambda: unread(terminal) == 0, "what is typed is read")
        process.send_signal(signal.SIGINT)
        assert process.wait(60) == -signal.SIGINT
        assert termios.tcgetattr(terminal)[3] & termios.ECHO
        os.close(keyboard)
        os.close(terminal)
        assert db.run("select * from userinfo where username = 'pin6'") == []

    def test_a_line_in_parts_is_one_line(self, db, tool):
        tool.at_terminal("user", "add", "pin8", "--pin", answers=[("PIN for pin8: ", "ty\x04ped"), ("Again: ", "typed")])
        assert db.run("select pin from userinfo where username = 'pin8'")[0][0] == "typed"

    def test_different_answers_change_nothing(self, db, tool):
        tool.at_terminal("user", "add", "pin4", "--pin", answers=[("PIN for pin4: ", "one"), ("Again: ", "two")],
                         code=REFUSED)
        assert db.run("select * from userinfo where username = 'pin4'") == []

    def test_set_and_unset(self, db, tool):
        tool.run("user", "add", "pin5")
        tool.run("user", "set", "pin5", "--pin", stdin="1234\n")
        assert db.run("select authtype, pin from userinfo where username = 'pin5'")[0][:] == (2, "1234")
        tool.run("user", "set", "pin5", "--no-pin")
        assert db.run("select authtype, pin from userinfo where username = 'pin5'")[0][:] == (1, None)
        tool.run("user", "set", "pin5", "--no-pin", "--pin-value", "1", code=USAGE)
        tool.run("user", "set", "pin5", code=USAGE)


class TestStates:
    def test_lock_and_unlock(self, db, client, tool):
        tool.run("user", "add", "state1", "--type", "event")
        tool.run("user", "lock", "state1")
        assert client.pap("state1", oathtool("-c0", key=tool.key("state1"))).code == REJECT
        shown = tool.json("user", "show", "state1")
        assert shown["state"] == "locked" and 590 < shown["next_attempt"]["lock_seconds"] <= 600
        tool.run("user", "unlock", "state1")
        assert client.pap("state1", oathtool("-c0", key=tool.key("state1"))).code == ACCEPT

    def test_disable_and_enable(self, client, tool):
        tool.run("user", "add", "state2", "--type", "event")
        tool.run("user", "disable", "state2")
        assert client.pap("state2", "000000").unknown_user
        assert tool.json("user", "show", "state2")["next_attempt"]["refused"]
        for verb in ("show", "disable"):
            shown = tool.run("user", verb, "state2").stdout
            assert "8801" in shown and "token replace" in shown
        tool.run("user", "enable", "state2")
        assert client.pap("state2", oathtool("-c0", key=tool.key("state2"))).code == ACCEPT

    def test_what_show_foretells_comes_true(self, db, client, tool):
        """Failures in a row, the lock, and the lock's end."""
        tool.run("user", "add", "state3", "--type", "event")
        key = tool.key("state3")
        for failures in range(1, 5):
            client.pap("state3", "000000")
            assert tool.json("user", "show", "state3")["failures"] == failures
        assert "one more failure locks" in tool.run("user", "show", "state3").stdout
        client.pap("state3", "000000")
        assert "refused" in tool.run("user", "show", "state3").stdout
        assert client.pap("state3", oathtool("-c0", key=key)).code == REJECT
        db.run("update userinfo set preusedate = ? where username = 'state3'", utc(-600))
        assert tool.json("user", "show", "state3")["state"] == "lock expired"
        assert not tool.json("user", "show", "state3")["next_attempt"]["refused"]
        assert client.pap("state3", oathtool("-c0", key=key)).code == ACCEPT

    @pytest.mark.parametrize("verb", ["show", "set", "lock", "unlock", "disable", "enable", "remove"])
    def test_an_unknown_user(self, tool, verb):
        tool.run("user", verb, "nobody", *(["--mail", "a@b"] if verb == "set" else []), code=NOT_FOUND)


class TestRemoving:
    def test_needs_a_yes(self, db, tool):
        tool.run("user", "add", "gone1", "--serial", "GONE-1")
        assert "Confirm with --yes" in tool.run("user", "remove", "gone1", code=REFUSED).stderr
        tool.at_terminal("user", "remove", "gone1", answers=[("[y/N] ", "n")], code=REFUSED)
        assert db.run("select count(*) from userinfo where username = 'gone1'")[0][0] == 1
        tool.at_terminal("user", "remove", "gone1", answers=[("[y/N] ", "y")])
        assert db.run("select * from userinfo where username = 'gone1'") == []
        assert db.run("select * from keyinfo where serialnum = 'GONE-1'") == []

    def test_the_token_may_stay(self, db, tool):
        tool.run("user", "add", "gone2", "--serial", "GONE-2")
        tool.run("user", "remove", "gone2", "--keep-token", "--yes")
        assert len(db.run("select * from keyinfo where serialnum = 'GONE-2'")) == 1


class TestListing:
    def names(self, tool, *arguments):
        return [user["user"] for user in tool.json("user", "list", *arguments)]

    def test_filters_and_order(self, db, tool):
        for name, kind in (("la", "event"), ("lb", "time"), ("lc", "challenge")):
            tool.run("user", "add", name, "--type", kind, "--mail", f"{name}@list.example")
        db.run("update userinfo set preusedate = ?, failaccum = 3 where username = 'la'", utc(-100000))
        db.run("update userinfo set preusedate = ?, failaccum = 1 where username = 'lb'", utc(-10))
        tool.run("user", "disable", "lc")
        ours = ["--match", "list.example"]
        assert self.names(tool, *ours) == ["la", "lb", "lc"]
        assert self.names(tool, *ours, "--reverse") == ["lc", "lb", "la"]
        assert self.names(tool, *ours, "--type", "time") == ["lb"]
        assert self.names(tool, *ours, "--disabled") == ["lc"]
        assert self.names(tool, *ours, "--active") == ["la", "lb"]
        assert self.names(tool, *ours, "--failures", "2") == ["la"]
        assert self.names(tool, *ours, "--unused-since", "1h") == ["la", "lc"]
        assert self.names(tool, *ours, "--sort", "last") == ["lb", "la", "lc"]
        assert self.names(tool, *ours, "--sort", "failures") == ["la", "lb", "lc"]
        tool.run("user", "lock", "lb")
        assert self.names(tool, *ours, "--locked") == ["lb"]

    def test_colours_only_at_a_terminal_without_no_color(self, tool):
        tool.run("user", "add", "colour")
        assert "\x1b[" not in tool.run("user", "show", "colour").stdout
        assert "\x1b[32m" in tool.at_terminal("user", "show", "colour")
        assert "\x1b[" not in tool.at_terminal("user", "show", "colour", NO_COLOR="1")

    def test_control_characters_do_not_reach_the_terminal(self, db, tool):
        db.run("insert into userinfo (username, serialnum) values (?, 'CTRL')", "e\x1b[31mvil")
        assert "\x1b" not in tool.run("user", "list").stdout
        said = tool.run("token", "new", "e\x1b[31mvil", "--serial", "CTRL-2").stdout
        assert "\x1b" not in said
        said = tool.run("token", "new", "e\x1b[31mvil", code=REFUSED).stderr
        assert "\x1b" not in said and "CTRL-2" in said


class TestManyAtOnce:
    def test_the_same_user_is_added_once(self, db, tool):
        running = [tool.start("user", "add", "race") for _ in range(6)]
        codes = sorted(process.wait() for process in running)
        for process in running:
            process.communicate()
        assert codes == [0] + [REFUSED] * 5
        assert db.run("select count(*) from userinfo join keyinfo using (serialnum) where username = 'race'")[0][0] == 1
        orphans = db.run("select k.serialnum from keyinfo k left join userinfo u using (serialnum) "
                         "where u.username is null and k.serialnum like 'Z%'")
        assert orphans == []

    def test_different_users_are_all_added(self, db, tool):
        running = [tool.start("user", "add", f"many{number}") for number in range(8)]
        for process in running:
            assert process.communicate() and process.returncode == 0
        assert db.run("select count(*) from userinfo join keyinfo using (serialnum) where username like 'many%'")[0][0] == 8
