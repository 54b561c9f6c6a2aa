"""One daemon in one folder.

    <folder>/bin/zelvan                 a copy of the executable, which finds its settings beside itself
    <folder>/bin/config/otp_conf.con
    <folder>/run/                       the working directory: srvlog.txt and log/
    <folder>/odbc.ini                   and zelvan.db, where SQLite is the engine
    <folder>/sanitizer.<pid>            what a sanitizer found
"""

import os
import re
import shutil
import signal
import struct
import subprocess
import time
from pathlib import Path

from testbed import settings as settings_file
from testbed.database import make_database
from testbed.ports import free_port
from testbed.radius import CHAP_PASSWORD, Client, attribute

SUPPORT = Path(__file__).resolve().parents[2] / "support"
CLOCK = Path(os.environ.get("ZELVAN_BIN_DIR", ".")).parent / "tests" / "zelvan_shifted_clock.so"
PATIENCE = 60  # seconds for something that must happen, on a busy machine


def wait_until(condition, what, seconds=PATIENCE):
    """Waits for a condition and returns its value."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, f"waited {seconds} s for: {what}"
        time.sleep(0.01)


def read_link(path):
    try:
        return os.readlink(path)
    except OSError:
        return ""


class Daemon:
    """Prepares the folder; start() runs the daemon in it."""

    def __init__(self, folder, changes=None, loose=False, odbc=True, db=None):
        self.folder = Path(folder)
        self.run_folder = self.folder / "run"
        self.executable = self.folder / "bin" / "zelvan"
        self.settings_path = self.folder / "bin" / "config" / "otp_conf.con"
        self.clock = self.folder / "clock"
        self.secret = settings_file.SECRET
        self.port = free_port()
        self.smtp_port = free_port()
        self.pid = None
        (self.run_folder / "log").mkdir(parents=True)
        self.settings_path.parent.mkdir(parents=True)
        self.clock.write_bytes(bytes(8))
        shutil.copy2(Path(os.environ["ZELVAN_BIN_DIR"]) / "zelvan", self.executable)
        self.db = db or make_database(self.folder, loose)
        self.odbc_ini = self.folder / "odbc.ini"
        self.odbc_ini.write_text(self.db.data_source(settings_file.DSN) if odbc else "")
        self.sections = settings_file.merged(changes or {}, self.port, self.smtp_port, self.db.login)
        self.settings_path.write_text(settings_file.text(self.sections))
        self._clients = []

    def change(self, changes):
        """Changes the settings file before the start."""
        self.sections = settings_file.merged(changes, self.port, self.smtp_port, self.db.login)
        self.settings_path.write_text(settings_file.text(self.sections))

    def add_data_source(self, name):
        with self.odbc_ini.open("a") as file:
            file.write(self.db.data_source(name))

    # Running

    def _environment(self):
        environment = dict(os.environ, ODBCINI=str(self.odbc_ini))
        # The SQLite driver loads this library for a moment and unloads it, and what it leaks could no longer be told from
        # leaks of ours.  It stays when it is loaded from the start, behind the sanitizer's own library.
        environment["LD_PRELOAD"] = f"libodbcinst.so.2 {CLOCK}"
        environment["ZELVAN_TEST_CLOCK"] = str(self.clock)
        log = f"log_path={self.folder}/sanitizer"
        environment["ASAN_OPTIONS"] = f"{log}:detect_leaks=1:verify_asan_link_order=0"
        environment["UBSAN_OPTIONS"] = f"{log}:print_stacktrace=1"
        environment["TSAN_OPTIONS"] = log + self._suppressions("tsan.supp")
        environment["LSAN_OPTIONS"] = "print_suppressions=0" + self._suppressions("lsan.supp")
        return environment

    @staticmethod
    def _suppressions(name):
        path = SUPPORT / name
        return f":suppressions={path}" if path.exists() else ""

    def launch(self, hand_down=()):
        """Runs the executable; returns when the launching process has ended, with its exit status.

        hand_down: further descriptors that the executable inherits.
        """
        return subprocess.run([str(self.executable)], cwd=self.run_folder, env=self._environment(), check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              pass_fds=hand_down, timeout=PATIENCE).returncode

    def start(self, port=None, hand_down=()):
        """Starts the daemon and waits until it owns its RADIUS port."""
        self.port = port or self.port
        assert self.launch(hand_down) == 0
        return self.wait_started()

    def wait_started(self):
        """Waits until a launched daemon owns its RADIUS port."""
        self.pid = wait_until(lambda: self._owner_of(self.port), f"port {self.port}: {self.server_log()}")
        return self

    def advance(self, seconds):
        """Sets the daemon's clock forward."""
        shift = struct.unpack("q", self.clock.read_bytes())[0] + seconds
        with self.clock.open("r+b") as file:
            file.write(struct.pack("q", shift))

    def descriptors(self):
        """How many descriptors the daemon has open."""
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def _owner_of(self, port):
        return next((pid for pid in self.processes() if port in udp_ports(pid)), None)

    def processes(self):
        """The processes that run this copy of the executable."""
        found = [int(name) for name in os.listdir("/proc") if name.isdigit()
                 and read_link(f"/proc/{name}/exe") == str(self.executable)]
        return sorted(found)

    def wait_gone(self, seconds=PATIENCE):
        """Waits until no process is left; one look may miss a process that forks just then, so it takes two."""
        wait_until(lambda: not self.processes() and not self.processes(), "the end of the daemon", seconds)
        self.pid = None

    def run_to_its_end(self, seconds=PATIENCE):
        """Starts a daemon that is expected to give up, and waits for that.  Returns its start-up log."""
        assert self.launch() == 0
        self.wait_gone(seconds)
        return self.server_messages()

    def stop(self, seconds=PATIENCE):
        """Ends the daemon in order."""
        os.kill(self.pid, signal.SIGTERM)
        self.wait_gone(seconds)

    def kill(self):
        """Ends the daemon at once."""
        for pid in self.processes():
            os.kill(pid, signal.SIGKILL)
        self.wait_gone()

    def finish(self, keep_database=False):
        """For the end of a test: nothing may be left running, no sanitizer may have found anything."""
        for client in self._clients:
            client.close()
        died = self.pid is not None and self.pid not in self.processes()
        try:
            if self.pid is not None and not died:
                self.stop()
        finally:
            self.kill()
            if not keep_database:
                self.db.close()
        reports = "\n".join(path.read_text(errors="replace") for path in self.folder.glob("sanitizer.*"))
        assert not reports, reports
        assert not died, "the daemon ended by itself"

    # Looking

    def server_log(self):
        path = self.run_folder / "srvlog.txt"
        return path.read_text() if path.is_file() else ""

    def server_messages(self):
        """The messages of the start-up log; each line must carry its time."""
        return [message_of(line, " ") for line in self.server_log().splitlines()]

    def log_messages(self, path="log/otplog.log"):
        """The messages of the operation log; each line must carry its time."""
        path = self.run_folder / path
        return [message_of(line, "\t") for line in path.read_text().splitlines()] if path.exists() else []

    # Speaking

    def client(self, address="127.0.0.1", secret=None):
        client = Client(self.port, self.secret if secret is None else secret, address)
        self._clients.append(client)
        return client

    def silent(self, client, octets, witness=None):
        """Whether a datagram gets no answer; `witness` is a client that does get answers, by default one at 127.0.0.1.

        Needs otp_maxthread 1: then one worker takes the datagrams in order and one sender sends the replies in order, so
        once a later datagram is answered, the earlier one never will be.
        """
        assert str(self.sections["Radius Server"]["otp_maxthread"]) == "1"
        client.send(octets)
        witness = witness or self.client()
        malformed = witness.request().raw(attribute(CHAP_PASSWORD, b"short"))
        assert witness.ask(malformed).plain_reject
        return not client.waiting()


def message_of(line, separator):
    """Takes the time off a log line."""
    assert re.match(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d" + separator, line), line
    return line[20:]


def udp_ports(pid):
    """The local UDP ports of a process."""
    try:
        links = [read_link(f"/proc/{pid}/fd/{name}") for name in os.listdir(f"/proc/{pid}/fd")]
        with open(f"/proc/{pid}/net/udp", encoding="ascii") as table:
            rows = [line.split() for line in table][1:]
    except OSError:
        return set()
    inodes = {link[8:-1] for link in links if link.startswith("socket:[")}
    return {int(row[1].split(":")[1], 16) for row in rows if row[9] in inodes}
