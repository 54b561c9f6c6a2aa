"""The administration tool, driven as a person drives it."""

import json
import os
import pty
import re
import select
import shutil
import subprocess
import time
from pathlib import Path

from testbed import engine, servers

PATIENCE = 60
OK, FAILED, USAGE, NOT_FOUND, REFUSED, UNREACHABLE = range(6)


def oathtool(*arguments, key):
    """A code from Debian's oathtool for a key given as text."""
    return subprocess.run(["oathtool", *arguments, "-"], input=key.encode().hex(), capture_output=True, text=True,
                          check=True).stdout.strip()


class Tool:
    """A copy of zelvanctl in a folder; its settings file stands beside it as config/otp_conf.con.

    Where there are logins, it logs in as the administrator: the server's own login may add and remove nothing.
    """

    def __init__(self, folder, environment):
        self.executable = Path(folder) / "zelvanctl"
        self.environment = environment
        shutil.copy2(Path(os.environ["ZELVAN_BIN_DIR"]) / "zelvanctl", self.executable)
        self.login = []
        if engine.chosen() in servers.ADMINISTRATORS:
            self.login = ["--login", servers.ADMINISTRATORS[engine.chosen()], "--password-file", "/dev/null"]

    @classmethod
    def beside(cls, daemon):
        """The tool in the folder of a daemon's executable."""
        return cls(daemon.executable.parent, daemon._environment())

    def command(self, *arguments):
        return [str(self.executable), *self.login, *arguments]

    def start(self, *arguments, **options):
        return subprocess.Popen(self.command(*arguments), env=self.environment, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)

    def run(self, *arguments, code=OK, stdin="", cwd=None, **variables):
        """Runs a command without a terminal; it must end with `code`."""
        done = subprocess.run(self.command(*arguments), env=self.environment | variables, input=stdin,
                              capture_output=True, text=True, timeout=PATIENCE, cwd=cwd, check=False)
        assert done.returncode == code, f"{arguments}: {done.returncode}\n{done.stdout}{done.stderr}"
        return done

    def json(self, *arguments, **options):
        return json.loads(self.run(*arguments, "--json", **options).stdout)

    def key(self, user):
        return self.json("token", "show", user, "--show-secrets")["key"]

    def at_terminal(self, *arguments, answers=(), code=OK, **variables):
        """Runs a command at a terminal; waits for each prompt of `answers` and types the text.  Returns the screen.

        An answer may have a third part: what happens while the prompt waits.
        """
        keyboard, terminal = pty.openpty()
        environment = {"TERM": "xterm"} | self.environment | variables
        process = subprocess.Popen(self.command(*arguments), env=environment, stdin=terminal, stdout=terminal,
                                   stderr=terminal, close_fds=True)
        os.close(terminal)
        screen = b""
        answers = list(answers)
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            if not select.select([keyboard], [], [], 0.1)[0]:
                continue
            try:
                part = os.read(keyboard, 65536)
            except OSError:  # the other end is closed
                break
            if not part:
                break
            screen += part
            if answers and screen.decode(errors="replace").endswith(answers[0][0]):
                _, answer, *meanwhile = answers.pop(0)
                for action in meanwhile:
                    action()
                os.write(keyboard, answer.encode() + b"\n")
        os.close(keyboard)
        text = screen.decode()
        assert process.wait(PATIENCE) == code, text
        assert not answers, text
        return text.replace("\r\n", "\n")


def without_colours(text):
    return re.sub(r"\x1b\[[0-9;]*[mK]", "", text)


def qr_modules(screen):
    """The modules of a QR code drawn with half blocks, without its quiet zone; True is dark."""
    drawing = [line for line in without_colours(screen).split("\n") if line and set(line) <= set("█▀▄ ")]
    rows = []
    for line in drawing:
        rows.append([character in " ▄" for character in line])
        rows.append([character in " ▀" for character in line])
    side = len(rows[0])
    assert all(len(row) == side for row in rows)
    assert not any(any(row) for row in rows[:4] + rows[side - 4 : side]), "a quiet zone of four modules"
    assert not any(any(row[:4] + row[-4:]) for row in rows[:side]), "a quiet zone of four modules"
    return [row[4:-4] for row in rows[4 : side - 4]]


def qrencode(text):
    """The modules that Debian's qrencode makes of a text."""
    lines = subprocess.run(["qrencode", "-8", "-l", "L", "-m", "0", "-t", "ASCII"], input=text, capture_output=True,
                           text=True, check=True).stdout.split("\n")[:-1]
    return [[line[column] == "#" for column in range(0, len(line), 2)] for line in lines]
