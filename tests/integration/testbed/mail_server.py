"""Mail servers of a test: a real one, one that follows a script, and one that takes no connection.

All of them listen on loopback and end with the test.
"""

import os
import pwd
import re
import select
import shutil
import socket
import subprocess
import tempfile
import threading
from dataclasses import dataclass
from pathlib import Path

import pytest

from testbed.daemon import PATIENCE, wait_until

EXIM = "/usr/sbin/exim4"

# Exim adds no header of its own and writes each mail, with its envelope, to a file as it came in.  The control lets a
# client log in that greeted with HELO and so never hears that AUTH is on offer.
_EXIM_SETTINGS = """
exim_path = {program}
exim_user = {user}
exim_group = {group}
never_users =
deliver_drop_privilege = true
primary_hostname = mail.example.org
spool_directory = {folder}
log_file_path = {folder}/%slog
pid_file_path =
local_interfaces = 127.0.0.1
daemon_smtp_ports = {port}
tls_advertise_hosts =
host_lookup =
rfc1413_query_timeout = 0s
keep_environment =
received_header_text =
log_selector = +smtp_connection
acl_smtp_connect = connect
acl_smtp_rcpt = recipient

begin acl
connect:
  {connect_rule}
  accept
recipient:
  deny local_parts = refused
  {recipient_rule}

begin routers
all:
  driver = accept
  transport = file

begin transports
file:
  driver = appendfile
  file = {folder}/mail.$message_exim_id
  use_bsmtp
  use_crlf

begin authenticators
login:
  driver = plaintext
  public_name = LOGIN
  server_prompts = Username:: : Password::
  server_condition = ${{if and{{{{eq{{$auth1}}{{{login_user}}}}}{{eq{{$auth2}}{{{login_password}}}}}}}}}
"""


@dataclass
class Mail:
    """One mail as it came in: the addresses of its envelope, and all between DATA and the final full stop."""

    sender: str
    recipient: str
    content: bytes

    @classmethod
    def from_batch(cls, octets):
        found = re.fullmatch(rb"MAIL FROM:<(.*?)>\r\nRCPT TO:<(.*?)>\r\nDATA\r\n(.*\r\n)\.\r\n", octets, re.DOTALL)
        return found and cls(found[1].decode(), found[2].decode(), found[3])


class Exim:
    """Exim with settings, spool and mails in a folder of its own; it neither reads nor touches those of the system.

    login: (user, password) without which it takes no mail; the authentication mechanism is LOGIN.

    It never runs as root, so its folder lies outside those of pytest, which only their owner may enter.
    """

    def __init__(self, port, login=None):
        if not os.access(EXIM, os.X_OK):
            pytest.skip(f"{EXIM} is not installed: scripts/setup leaves another mail server alone")
        self.folder = Path(tempfile.mkdtemp(prefix="zelvan-mail-"))
        self.user = pwd.getpwnam("nobody") if os.geteuid() == 0 else pwd.getpwuid(os.geteuid())
        os.chown(self.folder, self.user.pw_uid, self.user.pw_gid)
        (self.folder / "exim.conf").write_text(self._settings(port, login))
        self.process = self._run()
        try:
            wait_until(lambda: "listening for SMTP" in self.log(), f"Exim: {self.log()}")
        except BaseException:
            self.close()
            raise

    def _settings(self, port, login):
        user, password = login or ("", "")
        return _EXIM_SETTINGS.format(
            program=EXIM, folder=self.folder, port=port, user=self.user.pw_uid, group=self.user.pw_gid,
            connect_rule="warn hosts = 127.0.0.1\n  control = allow_auth_unadvertised" if login else "",
            recipient_rule="accept authenticated = *" if login else "accept",
            login_user=user, login_password=password)

    def _run(self):
        switch = {}
        if os.geteuid() == 0:
            switch = {"user": self.user.pw_uid, "group": self.user.pw_gid, "extra_groups": []}
        with (self.folder / "output").open("wb") as output:
            return subprocess.Popen([EXIM, "-C", str(self.folder / "exim.conf"), "-bdf"], cwd=self.folder,
                                    stdin=subprocess.DEVNULL, stdout=output, stderr=output, **switch)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.process.terminate()
        self.process.wait(PATIENCE)
        shutil.rmtree(self.folder, ignore_errors=True)

    def log(self):
        logs = [self.folder / name for name in ("output", "mainlog")]
        return "".join(path.read_text(errors="replace") for path in logs if path.exists())

    def connections(self):
        """How often a client has connected."""
        return self.log().count("(TCP/IP connection count")

    def rejects(self):
        """How often a client was refused something."""
        return len(re.findall(r" rejected RCPT | authenticator failed for ", self.log()))

    def mails(self, recipient=None):
        """The delivered mails, to everyone or to one recipient, in the order in which they were taken."""
        paths = [self.folder / f"mail.{name}" for name in re.findall(r" (\S+) <= ", self.log())]
        mails = [Mail.from_batch(path.read_bytes()) for path in paths if path.exists()]
        return [mail for mail in mails if mail and recipient in (None, mail.recipient)]

    def wait_for(self, count, recipient=None):
        """Waits for mails and returns them; there must not be more than `count`."""
        wait_until(lambda: len(self.mails(recipient)) >= count, f"{count} mails")
        mails = self.mails(recipient)
        assert len(mails) == count
        return mails


_DIALOGUE = (b"220 mail.example.org", b"250 hello", b"250 sender", b"250 recipient", b"354 go on", b"250 taken",
             b"221 bye")
_CONTENT = 4  # the reply after which the content comes instead of a line


class ScriptedServer:
    """Takes one connection after the other and accepts every mail, unless told otherwise.

    answers  replies in one connection, the greeting included, after which the server says nothing any more
    gated    each greeting waits for a permit()
    hang_up  connections, the first ones, that are closed without a word
    """

    def __init__(self, port, answers=len(_DIALOGUE), gated=False, hang_up=0):
        self.answers = answers
        self.connections = 0
        self.recipients = []   # of the mails that were taken
        self.hanging = False   # the client waits for a reply that will not come
        self.abandoned = 0     # connections on which the client gave up waiting
        self._hang_up = hang_up
        self._permits = threading.Semaphore(0) if gated else None
        self._closing = False
        self._connection = None
        self._listener = socket.create_server(("127.0.0.1", port), backlog=64)
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._closing = True
        self.permit()
        for end in (self._listener, self._connection):
            try:
                if end:
                    end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # closed already
        self._thread.join(PATIENCE)
        self._listener.close()
        assert not self._thread.is_alive()

    def permit(self):
        """Lets one more connection have its greeting."""
        if self._permits:
            self._permits.release()

    def _run(self):
        while not self._closing:
            try:
                self._connection, _ = self._listener.accept()
            except OSError:
                return
            self.connections += 1
            with self._connection:
                try:
                    self._serve(self._connection)
                except OSError:
                    pass  # the client is gone
                self.hanging = False

    def _serve(self, connection):
        if self.connections <= self._hang_up:
            return
        if self._permits:
            self._permits.acquire()
        stream = connection.makefile("rb")
        recipient = ""
        for number, reply in enumerate(_DIALOGUE):
            if number == self.answers:
                self._say_nothing(stream)
                return
            connection.sendall(reply + b"\r\n")
            if number == _CONTENT + 1:
                self.recipients.append(recipient)
            line = self._read(stream, number)
            if line.startswith(b"RCPT TO: "):
                recipient = line[9:].decode().strip()

    @staticmethod
    def _read(stream, number):
        line = stream.readline()
        while number == _CONTENT and line not in (b".\r\n", b""):
            line = stream.readline()
        return line

    def _say_nothing(self, stream):
        self.hanging = True
        while stream.read(1):
            pass
        if not self._closing:
            self.abandoned += 1


class DeafServer:
    """Listens and takes no connection: its queue is full, so that the client's attempt to connect hangs."""

    abandoned = 0

    def __init__(self, port):
        self.port = port
        self._listener = socket.create_server(("127.0.0.1", port), backlog=0)
        self._fillers = []
        while self._fill():
            pass

    def _fill(self):
        """Makes one more connection; returns whether it still found room."""
        filler = socket.socket()
        filler.setblocking(False)
        filler.connect_ex(("127.0.0.1", self.port))
        if not select.select([], [filler], [], 0.5)[1]:
            filler.close()
            return False
        self._fillers.append(filler)
        return True

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for end in (*self._fillers, self._listener):
            end.close()

    @property
    def hanging(self):
        """Whether somebody has sent a SYN that was not answered."""
        with open("/proc/net/tcp", encoding="ascii") as table:
            rows = [line.split() for line in table][1:]
        return any(int(row[2].split(":")[1], 16) == self.port and row[3] == "02" for row in rows)
