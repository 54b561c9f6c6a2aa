"""zelvanctl probe against the real server."""

import os
import pty
import re
import signal
import socket
import subprocess
import termios
import threading

import pytest

from testbed.daemon import wait_until
from testbed.ports import free_port
from testbed.zelvanctl import FAILED, NOT_FOUND, OK, UNREACHABLE, USAGE, Tool, oathtool


@pytest.fixture
def tool(daemon):
    return Tool.beside(daemon)


def code_of(tool, user, counter=0):
    return oathtool("-c", str(counter), key=tool.key(user))


class TestReplies:
    @pytest.mark.parametrize("method", [[], ["--chap"]])
    def test_a_right_code_is_accepted_and_used_up(self, tool, method):
        name = "anna" + "".join(method).strip("-")
        tool.run("user", "add", name, "--type", "event")
        code = code_of(tool, name)
        done = tool.run("probe", name, *method, stdin=code + "\n")
        assert "Accepted." in done.stdout and "signature right" in done.stdout and " ms" in done.stdout
        assert "Rejected" in tool.run("probe", name, *method, stdin=code + "\n", code=FAILED).stdout

    def test_with_a_pin(self, tool):
        tool.run("user", "add", "pia", "--type", "event", "--pin", stdin="4711\n")
        code = code_of(tool, "pia")
        assert tool.json("probe", "pia", stdin=code + "\n", code=FAILED)["outcome"] == "rejected"
        assert tool.json("probe", "pia", stdin=code + "4711\n")["outcome"] == "accepted"

    def test_an_unknown_user_is_explained(self, tool):
        done = tool.run("probe", "nobody", stdin="123456\n", code=NOT_FOUND)
        assert "no active user nobody" in done.stdout and "covers its beginning only" in done.stdout
        exchange, = tool.json("probe", "nobody", stdin="1\n", code=NOT_FOUND)["exchanges"]
        assert exchange["message"] == "USER NOT EXIST" and exchange["signature"] == "beginning only"

    def test_a_challenge_is_answered(self, tool):
        tool.run("user", "add", "carl", "--type", "challenge")
        key = tool.key("carl")

        def answer(number):
            return oathtool("-c", str(number), key=key)

        first = tool.json("probe", "carl", stdin="\n", code=FAILED)  # the end of the input: no answer
        assert first["outcome"] == "challenge"
        number = first["exchanges"][0]["message"].split()[1]
        assert tool.json("probe", "carl", stdin=answer(number) + "\n")["outcome"] == "accepted"

    def test_a_challenge_is_answered_at_once(self, tool):
        """The code is computed from the output while the probe waits for its next line."""
        tool.run("user", "add", "cora", "--type", "challenge")
        key = tool.key("cora")
        probe = tool.start("probe", "cora", stdin=subprocess.PIPE)
        try:
            probe.stdin.write("\n")
            probe.stdin.flush()
            shown = ""
            while "message" not in shown:
                line = probe.stdout.readline()
                assert line, probe.stderr.read()
                shown += line
            number = re.search(r'"Challenge (\d+) ,', shown).group(1)
            rest, _ = probe.communicate(oathtool("-c", number, key=key) + "\n", timeout=60)
        finally:
            probe.kill()
        assert "A challenge." in shown and "Accepted." in rest and probe.returncode == OK

    def test_a_challenge_answered_wrongly_is_rejected(self, tool):
        tool.run("user", "add", "cyril", "--type", "challenge")
        done = tool.json("probe", "cyril", stdin="\n000000\n", code=FAILED)
        assert [exchange["outcome"] for exchange in done["exchanges"]] == ["challenge", "rejected"]

    def test_another_secret_is_told(self, tool, tmp_path):
        tool.run("user", "add", "wanda", "--type", "event")
        secret = tmp_path / "secret"
        secret.write_text("not-the-secret-of-it\n")
        port = tool.run("config", "get", "radius_port").stdout.strip()
        done = tool.run("probe", "wanda", "--server", f"127.0.0.1:{port}", "--secret-file", str(secret),
                        stdin=code_of(tool, "wanda") + "\n", code=UNREACHABLE)
        assert "has another secret" in done.stdout

    def test_the_secret_of_a_file_is_taken(self, tool, daemon, tmp_path):
        """Without a settings file."""
        tool.run("user", "add", "fred", "--type", "event")
        secret = tmp_path / "secret"
        secret.write_bytes(daemon.secret + b"\r\n")
        tool.run("--config", "/nonexistent", "probe", "fred", "--server", f"localhost:{daemon.port}", "--secret-file",
                 str(secret), stdin=code_of(tool, "fred") + "\n")

    def test_the_password_is_not_shown(self, tool):
        screen = tool.at_terminal("probe", "nobody", answers=[("if there is one): ", "135791")], code=NOT_FOUND)
        assert "135791" not in screen

    def test_an_interrupt_at_the_prompt_ends_it_with_the_echo_on(self, tool):
        keyboard, terminal = pty.openpty()
        process = subprocess.Popen([str(tool.executable), "probe", "nobody"], env=tool.environment, stdin=terminal,
                                   stdout=terminal, stderr=terminal)
        wait_until(lambda: not termios.tcgetattr(terminal)[3] & termios.ECHO, "the prompt without echo")
        process.send_signal(signal.SIGINT)
        assert process.wait(60) == -signal.SIGINT
        assert termios.tcgetattr(terminal)[3] & termios.ECHO
        os.close(keyboard)
        os.close(terminal)

    def test_no_password_and_no_name_are_refused(self, tool):
        assert "standard input is empty" in tool.run("probe", "anna", code=USAGE).stderr
        tool.run("probe", "", stdin="1\n", code=USAGE)
        tool.run("probe", "x" * 254, stdin="1\n", code=USAGE)
        tool.run("probe", "anna", stdin="1" * 129 + "\n", code=USAGE)
        tool.run("probe", "anna", "--server", "a:b", stdin="1\n", code=USAGE)

    def test_the_longest_name_gets_an_answer(self, tool):
        """The server rejects names of 20 bytes and more before it asks the database."""
        assert tool.json("probe", "x" * 253, stdin="1\n", code=FAILED)["outcome"] == "rejected"


class TestSecretOfTheClient:
    settings = {"share": {"0.0.0.0": None, "127.0.0.1": "x" * 57}}

    def test_a_secret_that_the_server_cannot_use_is_told(self, tool):
        assert "has no secret for this client's address, 127.0.0.1" in tool.run("probe", "x", stdin="1\n",
                                                                                code=UNREACHABLE).stderr

    def test_silence_is_told(self, tool, tmp_path, daemon):
        secret = tmp_path / "secret"
        secret.write_text("whatever\n")
        done = tool.json("probe", "x", "--server", f":{daemon.port}", "--secret-file", str(secret), "--timeout", "1",
                         stdin="1\n", code=UNREACHABLE)
        assert done["outcome"] == "no reply" and 1000 <= done["exchanges"][0]["milliseconds"] < 30000


class TestWithoutServer:
    @pytest.fixture
    def still(self, prepare):
        return Tool.beside(prepare())

    def test_a_closed_port_is_told(self, still):
        done = still.json("probe", "x", stdin="1\n", code=UNREACHABLE)
        assert done["outcome"] == "refused"
        assert "Nothing listens" in still.run("probe", "x", stdin="1\n", code=UNREACHABLE).stdout

    def test_datagrams_that_are_no_reply_are_passed_over(self, still):
        port = free_port()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
            server.bind(("127.0.0.1", port))

            def answer():
                data, client = server.recvfrom(4096)
                for rubbish in (b"", b"x", bytes(20), data, b"\x02" + bytes([data[1] ^ 1]) + b"\0\x14" + bytes(16)):
                    server.sendto(rubbish, client)
                server.sendto(b"\x02" + data[1:2] + b"\0\x14" + bytes(16), client)

            thread = threading.Thread(target=answer)
            thread.start()
            done = still.json("probe", "x", "--server", f"127.0.0.1:{port}", stdin="1\n", code=UNREACHABLE)
            thread.join()
        assert done["outcome"] == "wrong signature"
        assert len(done["exchanges"]) == 1
