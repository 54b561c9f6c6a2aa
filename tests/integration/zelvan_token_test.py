"""The soft token against the daemon: fetched through the synchronisation service, used over RADIUS."""

import json
import os
import pty
import re
import select
import signal
import socket
import stat
import subprocess
import termios
import threading
import time
from pathlib import Path

import pytest

from testbed import engine, own_network, sync
from testbed.daemon import udp_ports, wait_until
from testbed.database import CHALLENGE as CHALLENGE_TOKEN, KEY, TIMED
from testbed.radius import ACCEPT, CHALLENGE
from testbed.settings import SECRET

own_network.enter()

WHATEVER_ENGINE = pytest.mark.engines(engine.SQLITE, reason="is about the program, whatever the database behind the service")

PROGRAM = Path(os.environ["ZELVAN_BIN_DIR"]) / "zelvan-token"
PIN = "2468"
OK, FAILED, USAGE, NOT_FOUND, REFUSED, NO_ANSWER, MALFORMED, FILE_UNUSABLE, TOO_SOON = range(9)
PATIENCE = 120


class SoftToken:
    """The program with a home folder of its own."""

    def __init__(self, home):
        self.home = home
        self.environment = dict(os.environ, HOME=str(home))
        self.environment.pop("XDG_DATA_HOME", None)
        self.folder = home / ".local" / "share" / "zelvan-token"

    def run(self, *arguments, lines=()):
        """Runs the program with lines on its standard input, which is no terminal."""
        return subprocess.run([str(PROGRAM), *map(str, arguments)], input="".join(f"{line}\n" for line in lines),
                              capture_output=True, text=True, env=self.environment, timeout=PATIENCE, check=False)

    def start(self, *arguments):
        return subprocess.Popen([str(PROGRAM), *map(str, arguments)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, env=self.environment)

    def good(self, *arguments, lines=()):
        """Runs the program, which must succeed; returns its JSON."""
        result = self.run(*arguments, "--json", lines=lines)
        assert result.returncode == OK, result.stderr
        return json.loads(result.stdout)

    def fails(self, exit_code, *arguments, lines=()):
        """Runs the program, which must fail; returns its message."""
        result = self.run(*arguments, lines=lines)
        assert (result.returncode, result.stdout) == (exit_code, ""), result
        assert result.stderr.startswith("zelvan-token: ") and result.stderr.endswith("\n")
        return result.stderr

    def file(self, user):
        return self.folder / f"{user.name}.json"

    def store(self, name="alice", path=None, **changes):
        """Writes an event token where the program keeps it, or elsewhere."""
        path = path or self.folder / f"{name}.json"
        path.parent.mkdir(parents=True, exist_ok=True)
        members = {"format": 1, "user": name, "server": "127.0.0.1:8801", "type": "event-counted", "digits": 6,
                   "pin_follows": True, "key": KEY.encode().hex(), "pin": PIN.encode().hex(), "counter": 0, "next": 0,
                   "time_step": 0, "fetched_at": 1700000000, "clock_offset": 0}
        path.write_text(json.dumps(members | changes))
        path.chmod(0o600)
        return path

    def fetch(self, user, factor, **options):
        """Fetches the token of an event or time-stepped account with the code of `factor`."""
        return self.good("fetch", user.name, *options, lines=[user.code(factor) + user.pin])

    def code(self, user, *options):
        return self.good("code", user.name, "--with-pin", "--wait", *options)["code"]

    def answer_challenge(self, user):
        """Fetches the token of a challenge-response account: reads the challenge, types the answer."""
        program = self.start("fetch", user.name, "--json")
        program.stdin.write(f"{user.pin}\n")
        program.stdin.flush()
        number = int(re.fullmatch(r"Challenge number: (\d+)\n", program.stderr.readline())[1])
        output, errors = program.communicate(f"{user.code(number)}{user.pin}\n", timeout=PATIENCE)
        assert program.returncode == OK, errors
        return json.loads(output)


@pytest.fixture
def token(tmp_path):
    return SoftToken(tmp_path)


@pytest.fixture
def service(daemon):
    wait_until(lambda: sync.PORT in udp_ports(daemon.pid), "the synchronisation port")


def login(daemon, user, password):
    """One login from a port of its own, so that none looks like the repetition of another."""
    return daemon.client().pap(user.name, password)


@pytest.mark.usefixtures("service")
class TestRoundTrip:
    """Fetched once, then ten logins in a row."""

    @pytest.mark.parametrize("pin", [None, PIN])
    @pytest.mark.parametrize("digits", [6, 9])
    def test_event_token(self, daemon, db, token, pin, digits):
        user = db.add_user(factor=2**32 - 3, pin=pin, digits=digits)
        assert token.fetch(user, 2**32 - 3)["next_counter"] == 2**32 - 2
        for _ in range(10):
            assert login(daemon, user, token.code(user)).code == ACCEPT
        assert db.factor(user) == 2**32 + 8

    @WHATEVER_ENGINE
    @pytest.mark.parametrize("pin", [None, PIN])
    @pytest.mark.parametrize("step", [1, 2])
    def test_time_stepped_token(self, daemon, db, token, pin, step):
        """As fast as the token gives codes: it waits where a step has no fresh one."""
        user = db.add_user(kind=TIMED, step=step, used=-100, factor=1000, pin=pin)
        token.fetch(user, 1000 + 100 // step)
        for _ in range(10):
            assert login(daemon, user, token.code(user)).code == ACCEPT

    @WHATEVER_ENGINE
    def test_time_stepped_token_with_pauses(self, daemon, db, token):
        """The server counts from each login anew; the token keeps counting from the fetch, and both stay in step."""
        user = db.add_user(kind=TIMED, step=1, used=-100, factor=1000, window=6)
        token.fetch(user, 1100)
        for number in range(10):
            time.sleep(0.7 * (number % 4))
            assert login(daemon, user, token.code(user)).code == ACCEPT

    @WHATEVER_ENGINE
    def test_time_stepped_token_whose_codes_are_not_all_used(self, daemon, db, token):
        user = db.add_user(kind=TIMED, step=1, used=-100, factor=1000)
        token.fetch(user, 1100)
        for _ in range(10):
            for _ in range(2):
                token.code(user)
            assert login(daemon, user, token.code(user)).code == ACCEPT

    @pytest.mark.parametrize("pin", [None, PIN])
    def test_challenge_token(self, daemon, db, token, pin):
        user = db.add_user(kind=CHALLENGE_TOKEN, pin=pin)
        assert token.answer_challenge(user)["type"] == "challenge-response"
        for _ in range(10):
            reply = login(daemon, user, user.pin)
            assert reply.code == CHALLENGE
            number = re.search(rb"\d+", reply.message)[0].decode()
            assert login(daemon, user, token.code(user, "--challenge", number)).code == ACCEPT

    def test_the_token_fetches_itself_again(self, daemon, db, token):
        """A code of the soft token is as good for the service as one of the first token."""
        user = db.add_user(pin=PIN)
        token.fetch(user, 0)
        assert token.good("fetch", user.name, lines=[token.code(user)])["next_counter"] == 2
        assert login(daemon, user, token.code(user)).code == ACCEPT


@WHATEVER_ENGINE
@pytest.mark.usefixtures("service")
class TestTimeStep:
    def test_two_codes_within_one_step_are_good_and_the_third_has_to_wait(self, daemon, db, token):
        user = db.add_user(kind=TIMED, step=60, used=-630, factor=100)
        token.fetch(user, 110)
        first = token.run("code", user.name)
        assert first.returncode == OK and re.search(r"^\d+ seconds left", first.stderr)
        second = token.run("code", user.name)
        assert second.returncode == OK and "was given out before; this is the one of the next" in second.stderr
        third = token.fails(TOO_SOON, "code", user.name)
        assert re.search(r"the next one comes in \d+ second", third)
        assert first.stdout != second.stdout
        for text in (first.stdout, second.stdout):
            assert login(daemon, user, text.strip()).code == ACCEPT

    def test_seconds_left(self, db, token):
        user = db.add_user(kind=TIMED, step=90, used=-950, factor=100)
        token.fetch(user, 110)
        told = token.good("code", user.name)
        assert told["counter"] == 111 and told["ahead"] is False and 60 <= told["seconds_left"] <= 90
        told = token.good("code", user.name)
        assert told["counter"] == 112 and told["ahead"] is True and 150 <= told["seconds_left"] <= 180

    def test_it_follows_the_servers_clock(self, daemon, db, token):
        """This machine's clock is taken as three hours slow; the server's is the measure."""
        user = db.add_user(kind=TIMED, step=60, used=-630, factor=100)
        token.fetch(user, 110)
        path = token.file(user)
        stored = json.loads(path.read_text())
        assert abs(stored["clock_offset"]) <= 1
        stored["fetched_at"] += 3 * 3600
        stored["clock_offset"] += 3 * 3600
        path.write_text(json.dumps(stored))
        assert token.good("code", user.name)["counter"] == 111
        assert login(daemon, user, token.code(user)).code == ACCEPT


@WHATEVER_ENGINE
@pytest.mark.usefixtures("service")
class TestFetch:
    def test_the_file_and_its_folder_are_the_users_own(self, db, token):
        user = db.add_user()
        assert token.fetch(user, 0)["file"] == str(token.file(user))
        assert stat.S_IMODE(token.file(user).stat().st_mode) == 0o600
        assert stat.S_IMODE(token.folder.stat().st_mode) == 0o700

    def test_a_file_of_the_users_choice(self, daemon, db, token):
        user = db.add_user()
        path = token.home / "mine.json"
        assert token.good("fetch", user.name, "--file", path, lines=[user.code(0)])["file"] == str(path)
        assert not token.file(user).exists()
        assert login(daemon, user, token.good("code", "--file", path)["code"]).code == ACCEPT

    @pytest.mark.parametrize("options", [[], ["--json"]])
    def test_no_secret_is_shown(self, db, token, options):
        user = db.add_user(pin=PIN)
        result = token.run("fetch", user.name, *options, lines=[user.code(0) + PIN])
        shown = token.run("show", *options)
        for secret in (KEY, PIN, SECRET.decode()):
            assert secret not in result.stdout + result.stderr + shown.stdout + shown.stderr

    @pytest.mark.parametrize("options", [[], ["--json"]])
    def test_secrets_are_shown_when_asked_for(self, db, token, options):
        user = db.add_user(pin=PIN)
        result = token.run("fetch", user.name, "--show-secrets", *options, lines=[user.code(0) + PIN])
        for secret in (KEY, PIN, SECRET.decode()):
            assert secret in result.stdout

    def test_the_shared_secret_is_not_kept(self, db, token):
        user = db.add_user()
        token.fetch(user, 0)
        assert SECRET.decode() not in token.file(user).read_text()

    def test_the_pin_need_not_be_kept(self, db, token):
        user = db.add_user(pin=PIN)
        token.good("fetch", user.name, "--no-pin", lines=[user.code(0) + PIN])
        assert PIN.encode().hex() not in token.file(user).read_text()
        assert "the PIN was not kept here" in token.fails(USAGE, "code", user.name, "--with-pin")
        assert token.good("code", user.name)["code"] == user.code(1)

    def test_a_refusal(self, db, token):
        user = db.add_user()
        assert "the server refused" in token.fails(REFUSED, "fetch", user.name, lines=["000000"])
        assert not token.file(user).exists()

    def test_a_refusal_leaves_the_old_token(self, db, token):
        user = db.add_user()
        token.fetch(user, 0)
        before = token.file(user).read_text()
        token.fails(REFUSED, "fetch", user.name, lines=[user.code(0)])
        assert token.file(user).read_text() == before

    def test_a_wrong_answer_to_a_challenge(self, db, token):
        user = db.add_user(kind=CHALLENGE_TOKEN, pin=PIN)
        result = token.run("fetch", user.name, lines=[PIN, "000000" + PIN])
        assert result.returncode == REFUSED and "the server refused" in result.stderr

    def test_no_input(self, db, token):
        user = db.add_user()
        assert "standard input has no line" in token.fails(USAGE, "fetch", user.name)

    def test_a_file_that_cannot_be_written_costs_no_code(self, db, token):
        user = db.add_user()
        (token.home / "file").write_text("")
        token.fails(FILE_UNUSABLE, "fetch", user.name, "--file", token.home / "file" / "x.json", lines=[user.code(0)])
        assert db.factor(user) == 0

    def test_at_a_terminal_nothing_is_echoed(self, db, token):
        user = db.add_user(pin=PIN)
        shown = typed_at_a_terminal(token, ["fetch", user.name], user.code(0) + PIN + "\n")
        assert f"Password for {user.name}: " in shown and "The server accepted" in shown
        assert user.code(0) not in shown and PIN not in shown

    def test_breaking_off_at_a_terminal_sends_nothing(self, db, token):
        user = db.add_user()
        assert "broken off" in typed_at_a_terminal(token, ["fetch", user.name], user.code(0) + "\x03")
        assert db.factor(user) == 0


def typed_at_a_terminal(token, arguments, text, prompt=": "):
    """Runs the program at a terminal, types when it asks, and returns all that the terminal shows."""
    process, terminal = pty.fork()
    if process == 0:
        os.execve(PROGRAM, [str(PROGRAM), *arguments], token.environment)
    shown, typed = "", False
    while select.select([terminal], [], [], PATIENCE)[0]:
        try:
            shown += os.read(terminal, 4096).decode()
        except OSError:  # the other side has been closed
            break
        if not typed and prompt in shown:
            os.write(terminal, text.encode())
            typed = True
    os.waitpid(process, 0)
    os.close(terminal)
    return shown


def answering(script):
    """A server on a port of its own that answers request number n with script(n); None is silence."""
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind(("127.0.0.1", 0))

    def serve():
        number = 0
        while True:
            _, client = server.recvfrom(2048)
            number += 1
            answer = script(number)
            if answer is not None:
                server.sendto(answer, client)

    threading.Thread(target=serve, daemon=True).start()
    return f"127.0.0.1:{server.getsockname()[1]}"


def acceptance(**changes):
    """An acceptance with an event token; `changes` are bytes for the attributes."""
    values = {"HIGH": b"\0\0\0\0", "LOW": b"\0\0\0\0", "CLOCK": b"\0\0\0\0", "DIGITS": b"\x06", "TOKEN_TYPE": b"\x01",
              "AUTH_TYPE": b"\x01", "KEY": b"k", "PIN": b"", "SECRET": b"s", "TIME_STEP": b"\0\0\0"} | changes
    attributes = (sync.attribute(getattr(sync, name), value) for name, value in values.items())
    return sync.packet(b"".join(attributes), code=sync.ACCEPTED)


@WHATEVER_ENGINE
class TestNetwork:
    """Servers that do not behave; they need no daemon."""

    def fetch_fails(self, token, exit_code, server, *options):
        return token.fails(exit_code, "fetch", "alice", "--server", server, *options, lines=["123456"])

    def test_nobody_listens(self, token):
        assert "nobody listens at 127.0.0.1:9" in self.fetch_fails(token, NO_ANSWER, "127.0.0.1:9")

    def test_no_way(self, token):
        assert "cannot reach" in self.fetch_fails(token, NO_ANSWER, "192.0.2.1")

    def test_silence(self, token):
        server = answering(lambda number: None)
        message = self.fetch_fails(token, NO_ANSWER, server, "--timeout", 1, "--tries", 2)
        assert "no answer" in message and "the code is used up" in message

    def test_a_refusal_behind_a_lost_answer_says_so(self, token):
        server = answering(lambda number: None if number == 1 else sync.REFUSAL)
        message = self.fetch_fails(token, REFUSED, server, "--timeout", 1)
        assert "had to be repeated" in message and "next code" in message

    def test_a_plain_refusal_does_not(self, token):
        assert "repeated" not in self.fetch_fails(token, REFUSED, answering(lambda number: sync.REFUSAL))

    @pytest.mark.parametrize("answer", [b"", b"\x02\x00\x03", b"\x03\x00\x04", b"HTTP/1.1 400", b"\x04\x00\x05\x03\x01"])
    def test_an_answer_that_makes_no_sense(self, token, answer):
        assert "makes no sense" in self.fetch_fails(token, MALFORMED, answering(lambda number: answer))

    def test_a_refusal_leaves_nothing_behind(self, token):
        self.fetch_fails(token, REFUSED, answering(lambda number: sync.REFUSAL))
        assert list(token.folder.iterdir()) == []

    def test_a_token_that_cannot_work(self, token):
        answer = acceptance(DIGITS=b"\x05")
        message = self.fetch_fails(token, MALFORMED, answering(lambda number: answer))
        assert "describes no usable token" in message and list(token.folder.glob("*.json")) == []

    def test_json_failures(self, token):
        result = token.run("fetch", "alice", "--server", "127.0.0.1:9", "--json", lines=["1"])
        assert result.returncode == NO_ANSWER
        assert json.loads(result.stderr)["exit_code"] == NO_ANSWER


@WHATEVER_ENGINE
class TestStored:
    """Commands on files that a test wrote; they need no daemon."""

    def test_codes_are_those_of_the_rfc(self, token):
        """RFC 4226 appendix D."""
        token.store()
        assert [token.run("code").stdout for _ in range(3)] == ["755224\n", "287082\n", "359152\n"]
        assert token.run("code", "--with-pin").stdout == "969429" + PIN + "\n"

    def test_copies_that_run_at_once_give_different_codes(self, token):
        token.store()
        programs = [token.start("code", "--json") for _ in range(20)]
        counters = sorted(json.loads(program.communicate(timeout=PATIENCE)[0])["counter"] for program in programs)
        assert counters == list(range(20))

    def test_a_challenge_is_answered_as_often_as_it_is_asked(self, token):
        path = token.store(type="challenge-response")
        before = path.read_text()
        for _ in range(2):
            assert token.run("code", "--challenge", 1).stdout == "287082\n"
        assert path.read_text() == before

    @pytest.mark.parametrize("kind, options", [("challenge-response", []), ("event-counted", ["--challenge", "5"]),
                                               ("challenge-response", ["--challenge", "x"]),
                                               ("challenge-response", ["--challenge", "-1"]),
                                               ("challenge-response", ["--challenge", "4294967296"])])
    def test_a_challenge_where_it_belongs(self, token, kind, options):
        path = token.store(type=kind)
        before = path.read_text()
        result = token.run("code", *options)
        assert (result.returncode, result.stdout) == (USAGE, "") and result.stderr
        assert path.read_text() == before

    def test_which_token(self, token):
        assert "fetch one first" in token.fails(NOT_FOUND, "code")
        token.store("alice")
        token.store("bob")
        assert "there are 2 tokens" in token.fails(NOT_FOUND, "code")
        assert token.run("code", "bob").returncode == OK
        assert "there is no token" in token.fails(NOT_FOUND, "code", "carol")
        assert "not of bob" in token.fails(USAGE, "code", "bob", "--file", token.folder / "alice.json")

    def test_a_corrupt_file(self, token):
        token.store().write_text('{"format": 1')
        assert "holds no usable token" in token.fails(FILE_UNUSABLE, "code")

    def test_a_file_that_others_may_read(self, token):
        token.store().chmod(0o644)
        assert "chmod 600" in token.fails(FILE_UNUSABLE, "code")

    def test_no_code_without_the_counter_stored(self, token):
        """A folder where nothing can be made: /proc takes no files, not even root's."""
        result = token.run("code", "--file", "/proc/self/status")
        assert (result.returncode, result.stdout) == (FILE_UNUSABLE, "")

    def test_show(self, token):
        assert token.run("show").stdout.startswith("There is no token here")
        assert token.good("show") == []
        token.store("alice")
        token.store("bob", type="time-stepped", time_step=60)
        assert [entry["user"] for entry in token.good("show")] == ["alice", "bob"]
        assert "time-stepped, codes of 6 digits" in token.run("show", "bob").stdout
        assert token.good("show", "bob", "--show-secrets")[0]["key"] == KEY

    def test_show_names_the_broken_and_shows_the_rest(self, token):
        token.store("alice").write_text("")
        token.store("bob")
        result = token.run("show")
        assert result.returncode == FILE_UNUSABLE and "bob" in result.stdout and "alice.json" in result.stderr

    def test_forget_asks(self, token):
        path = token.store()
        assert "Confirm with --yes" in token.fails(REFUSED, "forget", lines=["y"])
        assert path.exists()
        assert "nothing changed" in typed_at_a_terminal(token, ["forget"], "n\n", prompt="[y/N] ")
        assert path.exists()
        assert token.good("forget", "alice", "--yes") == {"forgotten": str(path)}
        assert list(token.folder.iterdir()) == []
        token.fails(NOT_FOUND, "forget", "alice", "--yes")

    def test_forget_removes_a_corrupt_file_too(self, token):
        path = token.store()
        path.write_text("")
        assert token.run("forget", "--yes").returncode == OK and not path.exists()


@WHATEVER_ENGINE
class TestForeignFiles:
    """What is not the user's token stays as it is."""

    REFUSED_FILES = ["text", "open", "empty", "bob", "folder", "fifo", "below a file", "read-only place"]

    def place(self, token, kind):
        """Makes a file that alice's token must not replace; returns it and the exit code of the refusal."""
        path = token.home / "place"
        if kind == "bob":
            return token.store("bob", path=path), USAGE
        if kind == "folder":
            path.mkdir()
        elif kind == "fifo":
            os.mkfifo(path)
        elif kind == "below a file":
            path.write_text("mine")
            path = path / "token.json"
        elif kind == "read-only place":
            path = Path("/proc/self/token.json")
        else:
            path.write_text("" if kind == "empty" else "mine")
            path.chmod(0o644 if kind == "open" else 0o600)
        return path, FILE_UNUSABLE

    @pytest.mark.parametrize("kind", REFUSED_FILES)
    def test_fetch_refuses_before_the_password_is_sent(self, token, kind):
        path, exit_code = self.place(token, kind)
        before = path.read_bytes() if path.is_file() else None
        requests = []
        server = answering(requests.append)
        result = token.run("fetch", "alice", "--file", path, "--server", server, "--timeout", 1, "--tries", 1, lines=["1"])
        assert (result.returncode, result.stdout, requests) == (exit_code, "", [])
        if before is not None:
            assert path.read_bytes() == before
        assert [entry.name for entry in token.home.iterdir() if entry.name != "place"] == []

    @pytest.mark.parametrize("command", [["forget", "alice", "--yes"], ["forget", "--yes"]])
    @pytest.mark.parametrize("kind", ["text", "open", "empty", "bob", "folder", "fifo"])
    def test_forget_removes_no_such_file(self, token, kind, command):
        path, exit_code = self.place(token, kind)
        if kind == "bob" and command[1] == "--yes":
            assert token.run(*command, "--file", path).returncode == OK and not path.exists()
            return
        token.fails(exit_code, *command, "--file", path)
        assert path.exists() and not path.with_name("place.lock").exists()

    def test_fetch_replaces_no_file_that_came_meanwhile(self, token):
        path = token.home / "mine.json"

        def script(number):
            path.write_text("mine")
            return acceptance()

        token.fails(FILE_UNUSABLE, "fetch", "alice", "--file", path, "--server", answering(script), lines=["1"])
        assert path.read_text() == "mine"

    @pytest.mark.parametrize("text, mode", [(None, 0o600), (None, 0o644), ("damaged", 0o600)])
    def test_fetch_replaces_the_users_own_token(self, token, text, mode):
        path = token.store()
        if text:
            path.write_text(text)
        path.chmod(mode)
        server = answering(lambda number: acceptance())
        assert token.good("fetch", "alice", "--server", server, lines=["1"])["next_counter"] == 0
        assert stat.S_IMODE(path.stat().st_mode) == 0o600 and json.loads(path.read_text())["key"] == b"k".hex()

    def test_in_the_programs_folder_too_another_users_token_stays(self, token):
        path = token.store(user="bob")
        assert "is that of bob" in token.fails(USAGE, "fetch", "alice", "--server", "127.0.0.1:9", lines=["1"])
        assert "is that of bob" in token.fails(USAGE, "forget", "alice", "--yes")
        assert path.exists()

    def test_a_lock_file_that_holds_something_is_not_removed(self, token):
        path = token.store(path=token.home / "package", user="alice")
        lock = token.home / "package.lock"
        lock.write_text("mine")
        assert token.run("forget", "--yes", "--file", path).returncode == OK
        assert lock.read_text() == "mine" and not path.exists()


@WHATEVER_ENGINE
class TestOtherNames:
    def test_no_code_comes_twice_through_a_symbolic_link(self, token):
        path = token.store()
        link = token.home / "links" / "link.json"
        link.parent.mkdir()
        link.symlink_to(path)
        codes = [token.run("code", "--file", name).stdout for name in (link, path, link, path)]
        assert codes == ["755224\n", "287082\n", "359152\n", "969429\n"]
        assert link.is_symlink() and list(link.parent.iterdir()) == [link]

    def test_copies_under_two_names_give_different_codes(self, token):
        path = token.store()
        link = token.home / "link.json"
        link.symlink_to(path)
        programs = [token.start("code", "--json", "--file", name) for name in [path, link] * 6]
        counters = sorted(json.loads(program.communicate(timeout=PATIENCE)[0])["counter"] for program in programs)
        assert counters == list(range(12))

    def test_fetch_and_forget_follow_a_link(self, token):
        (token.home / "elsewhere").mkdir()
        path, link = token.home / "elsewhere" / "a.json", token.home / "link.json"
        link.symlink_to("elsewhere/a.json")
        token.good("fetch", "alice", "--file", link, "--server", answering(lambda number: acceptance()), lines=["1"])
        assert link.is_symlink() and path.is_file()
        assert token.good("forget", "--file", link, "--yes") == {"forgotten": str(path)}
        assert not path.exists() and link.is_symlink()

    def test_links_in_a_circle(self, token):
        link = token.home / "link.json"
        link.symlink_to(link)
        for command in (["code"], ["show"], ["forget", "--yes"], ["fetch", "alice"]):
            assert token.run(*command, "--file", link, lines=["1"]).returncode == FILE_UNUSABLE

    def test_a_second_hard_link_would_give_the_codes_again(self, token):
        path = token.store()
        second = token.home / "second.json"
        second.hardlink_to(path)
        assert "a second name" in token.fails(FILE_UNUSABLE, "code", "--file", second)
        second.unlink()
        assert token.run("code").stdout == "755224\n"


@WHATEVER_ENGINE
class TestInterrupted:
    def test_no_draft_stays(self, token):
        """Ended at moments spread over the whole run."""
        path = token.store()
        begin = time.monotonic()
        token.run("code")
        duration = time.monotonic() - begin
        for attempt in range(60):
            program = token.start("code")
            time.sleep(duration * attempt / 60)
            program.send_signal(signal.SIGINT if attempt % 2 else signal.SIGTERM)
            program.communicate(timeout=PATIENCE)
            drafts = [entry.name for entry in token.folder.iterdir() if entry.name.startswith(".")]
            assert drafts == [], attempt
        json.loads(path.read_text())

    @pytest.mark.parametrize("command", [["code"], ["forget", "--yes"]])
    def test_drafts_of_a_killed_program_are_removed(self, token, command):
        token.store()
        draft = token.store(path=token.folder / ".alice.json.draft-aB3xY9")
        others = [token.store(path=token.folder / name) for name in (".bob.json.draft-aB3xY9", ".alice.json.backup")]
        assert token.run(*command).returncode == OK
        assert not draft.exists() and all(other.exists() for other in others)

    @pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGINT, signal.SIGPIPE])
    def test_the_echo_comes_back(self, token, number):
        program, terminal = pty.fork()
        if program == 0:
            signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # Python ignores it
            os.execve(PROGRAM, [str(PROGRAM), "fetch", "alice", "--server", "127.0.0.1:9"], token.environment)
        shown = ""
        while "Password" not in shown:
            shown += os.read(terminal, 4096).decode()
        assert not termios.tcgetattr(terminal)[3] & termios.ECHO
        os.kill(program, number)
        assert os.waitstatus_to_exitcode(os.waitpid(program, 0)[1]) == -number
        assert termios.tcgetattr(terminal)[3] & termios.ECHO
        os.close(terminal)


@WHATEVER_ENGINE
class TestNumbers:
    def test_a_leading_zero_makes_no_octal_number(self, token):
        token.store(type="challenge-response")
        assert token.good("code", "--challenge", "012345")["challenge"] == 12345

    @pytest.mark.parametrize("number", ["-5", "+5", "0x10", "1e3", "", " 5", "5 ", "5.0", "18446744073709551616",
                                        "18446744073709551621", "9" * 40])
    def test_plain_numbers_only(self, token, number):
        token.store(type="challenge-response")
        for arguments in (["code", f"--challenge={number}"], ["code", "--challenge", number],
                          ["fetch", "alice", f"--tries={number}"], ["fetch", "alice", f"--timeout={number}"]):
            result = token.run(*arguments, lines=["1"])
            assert (result.returncode, result.stdout) == (USAGE, ""), arguments

    @pytest.mark.parametrize("option, most", [("--tries", 20), ("--timeout", 600)])
    def test_limits(self, token, option, most):
        for number, exit_code in ((0, USAGE), (1, NO_ANSWER), (most, NO_ANSWER), (most + 1, USAGE)):
            result = token.run("fetch", "alice", "--server", "127.0.0.1:9", option, number, lines=["1"])
            assert result.returncode == exit_code, number

    def test_the_largest_challenge(self, token):
        token.store(type="challenge-response")
        assert token.good("code", "--challenge", 2**32 - 1)["challenge"] == 2**32 - 1


@WHATEVER_ENGINE
class TestHostileBytes:
    SECRETS = {"KEY": b"k\x1b]0;x\x07", "PIN": b"p\x9b2J\xff\r", "SECRET": b"s\x1b[2J\x7f", "AUTH_TYPE": b"\x02"}

    def fetch(self, token, *options, **changes):
        server = answering(lambda number: acceptance(**self.SECRETS | changes))
        return subprocess.run([PROGRAM, "fetch", "alice", "--server", server, *options], input=b"1\n", check=False,
                              capture_output=True, env=token.environment, timeout=PATIENCE)

    def raw(self, token, *arguments):
        return subprocess.run([PROGRAM, *arguments], capture_output=True, env=token.environment, timeout=PATIENCE,
                              check=False)

    def test_they_are_shown_escaped(self, token):
        fetched = self.fetch(token, "--show-secrets")
        shown = self.raw(token, "show", "--show-secrets")
        for output in (fetched.stdout, shown.stdout):
            assert rb"k\x1b]0;x\x07" in output and rb"p\x9b2J\xff\x0d" in output
            assert all(byte == 10 or 32 <= byte < 127 for byte in output)
        assert rb"s\x1b[2J\x7f" in fetched.stdout

    @pytest.mark.parametrize("pin", [b"\x1b[2J", b"\xff", b"a\xc2\x9bb", b"\x7f", b"a\xff"])
    def test_json_is_plain_ascii(self, token, pin):
        fetched = self.fetch(token, "--show-secrets", "--json", PIN=pin)
        shown = self.raw(token, "show", "--show-secrets", "--json")
        for output in (fetched.stdout, shown.stdout):
            assert json.loads(output) and all(byte == 10 or 32 <= byte < 127 for byte in output)

    @pytest.mark.parametrize("options", [[], ["--json"]])
    @pytest.mark.parametrize("pin", [b"\x1b[2J", b"\xff", b"a\xc2\x9bb", b"\x7f"])
    def test_a_pin_that_cannot_be_shown_is_not_put_behind_a_code(self, token, pin, options):
        self.fetch(token, PIN=pin)
        result = self.raw(token, "code", "--with-pin", *options)
        assert (result.returncode, result.stdout) == (USAGE, b"") and b"type it yourself" in result.stderr
        assert json.loads((token.folder / "alice.json").read_text())["next"] == 0
        assert self.raw(token, "code").returncode == OK

    def test_a_pin_of_any_language_is(self, token):
        self.fetch(token, PIN="pé".encode())
        assert self.raw(token, "code", "--with-pin").stdout.decode()[6:] == "pé\n"


@WHATEVER_ENGINE
class TestOutput:
    """Results that cannot be written."""

    @pytest.mark.parametrize("arguments", [["--help"], ["--version"], ["code", "--help"], ["code"], ["show"], ["show", "--json"],
                                           ["forget", "--yes"]])
    @pytest.mark.parametrize("output", ["full", "closed"])
    def test_it_fails(self, token, arguments, output):
        token.store()
        where = ">/dev/full" if output == "full" else ">&-"
        result = subprocess.run(["sh", "-c", f'"$@" {where}', "sh", str(PROGRAM), *arguments], stderr=subprocess.PIPE,
                                env=token.environment, timeout=PATIENCE, check=False, text=True)
        assert result.returncode == FAILED and "standard output cannot be written" in result.stderr

    def test_a_closed_standard_input_or_output_is_not_the_socket(self, token):
        """A descriptor that is free is the next socket's, and then the result would go to the server."""
        requests = []

        def script(number):
            requests.append(number)
            return acceptance()

        fetch = ["fetch", "alice", "--tries", "1", "--server", answering(script)]
        for where, exit_code in (("<&-", USAGE), (">&-", FAILED)):
            result = subprocess.run(["sh", "-c", f'"$@" {where}', "sh", str(PROGRAM), *fetch], input="1\n", check=False,
                                    stderr=subprocess.PIPE, env=token.environment, timeout=PATIENCE, text=True)
            assert result.returncode == exit_code, result.stderr
        assert requests == [1]


@WHATEVER_ENGINE
class TestCommandLine:
    @pytest.mark.parametrize("command", [[], ["fetch"], ["code"], ["show"], ["forget"]])
    def test_help(self, token, command):
        result = token.run(*command, "--help")
        assert result.returncode == OK and "Examples:" in result.stdout and "--json" in token.run("--help").stdout

    @pytest.mark.parametrize("arguments", [[], ["fetch"], ["dance"], ["code", "--dance"], ["fetch", "a", "--tries", "0"],
                                           ["fetch", "a", "--timeout", "0"], ["fetch", "x" * 31], ["fetch", "a\nb"],
                                           ["fetch", "a", "--server", "h:0"], ["fetch", "a", "--server", ""]])
    def test_wrong_usage(self, token, arguments):
        result = token.run(*arguments, lines=["1"])
        assert (result.returncode, result.stdout) == (USAGE, "") and result.stderr

    def test_a_password_that_the_service_does_not_take(self, token):
        assert "at most 30 bytes" in token.fails(USAGE, "fetch", "a", lines=["1" * 31])

    def test_version(self, token):
        assert re.fullmatch(r"zelvan-token \d+\.\d+\.\d+\n", token.run("--version").stdout)

    def test_the_exit_codes_of_the_manual(self, token):
        page = (Path(__file__).resolve().parents[2] / "docs" / "zelvan-token.md").read_text()
        listed = [int(number) for number in re.findall(r"^\| (\d) \|", page, re.MULTILINE)]
        assert listed == list(range(9))
        for number in range(9):
            assert f"{number} " in token.run("--help").stdout
