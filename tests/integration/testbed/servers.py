"""Database servers of the tests' own: a private folder, a Unix socket in it, and an unprivileged user.

The servers of the system are neither used nor touched.  What a server holds is worth nothing, so none of them waits for the
disk.  A server ends with the thread that started it, also when that one is killed.
"""

import contextlib
import os
import pwd
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

from testbed import engine

SQL = Path(__file__).resolve().parents[3] / "sql"
LOGIN, PASSWORD = "zelvan", "a-login's \\password"  # of the daemon
ADMINISTRATOR = "administrator"
ADMINISTRATORS = {engine.POSTGRESQL: ADMINISTRATOR, engine.MARIADB: "root"}  # none of them needs a password
PATIENCE = 120  # seconds for a server to start or to end
SHARED = "ZELVAN_TEST_SERVER"  # names the folder of the server that all tests of a run share
UNPRIVILEGED = "nobody"  # PostgreSQL does not run as root


def unprivileged(command):
    """The command line that runs a command as a user that may run a database server."""
    if os.getuid() != 0:
        return ["setpriv", "--pdeathsig", "KILL", *command]
    user = pwd.getpwnam(UNPRIVILEGED)
    return ["setpriv", "--reuid", str(user.pw_uid), "--regid", str(user.pw_gid), "--clear-groups", "--pdeathsig", "KILL",
            *command]


class Server:
    """One server.  Without a folder it is made anew; with one it is somebody else's that runs there.

    port: where it listens on TCP besides its socket, by default nowhere
    options: further arguments of the server, for each of its starts
    within: a command line that runs the server, such as unshare(1)
    """

    def __init__(self, folder=None, *, port=None, options=(), within=()):
        self.process = None
        self.port, self.options, self.within = port, options, within
        self.folder = Path(folder or tempfile.mkdtemp(prefix="zelvan-", dir="/tmp"))
        if folder is None:
            self.give(self.folder)
            self.run(*self.preparation())
            self.start()
            self.provide()

    def run(self, *command, **options):
        """Runs a command to its end, as the server's user and in its folder, and returns what it printed."""
        done = subprocess.run(unprivileged(command), cwd=self.folder, capture_output=True, text=True, timeout=PATIENCE,
                              check=False, **options)
        assert done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"
        return done.stdout

    def start(self, *options):
        """Starts the server and waits until it takes connections."""
        with (self.folder / "log").open("ab") as log:
            command = [*self.within, *unprivileged([*self.command(), *self.options, *options])]
            self.process = subprocess.Popen(command, cwd=self.folder, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        deadline = time.monotonic() + PATIENCE
        while not self.answers():
            assert self.process.poll() is None and time.monotonic() < deadline, (self.folder / "log").read_text()
            time.sleep(0.05)

    def stop(self, number=None):
        """Ends the server, whoever is connected."""
        self.process.send_signal(number or self.fast_stop)
        self.process.wait(PATIENCE)
        self.process = None

    def pause(self, paused):
        """Makes every process of the server stand still, or go on."""
        pids = [self.process.pid, *children(self.process.pid)]
        for pid in pids:
            with contextlib.suppress(ProcessLookupError):  # a child has just ended
                os.kill(pid, signal.SIGSTOP if paused else signal.SIGCONT)
        deadline = time.monotonic() + PATIENCE
        while paused and not all(map(stands_still, pids)):  # on a busy machine one may answer before it stops
            assert time.monotonic() < deadline, "the server goes on"
            time.sleep(0.01)

    def give(self, path):
        """Lets the server's user own a file."""
        if os.getuid() == 0:
            shutil.chown(path, UNPRIVILEGED)

    def remove(self):
        if self.process is not None:
            self.stop()
        shutil.rmtree(self.folder, ignore_errors=True)


def stands_still(pid):
    """Whether every thread of a process is stopped, or has ended and waits for its parent (proc(5), field 3)."""
    try:
        threads = [path.read_text() for path in Path(f"/proc/{pid}/task").glob("*/stat")]
    except OSError:  # one has just ended: the next look tells
        return False
    return all(thread.rsplit(")", 1)[1].split()[0] in "TZX" for thread in threads)


def children(pid):
    return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


class Postgresql(Server):
    """A test's database is a copy of `strict`, which has the schema."""

    fast_stop = signal.SIGINT
    default_port = 5432  # names its socket too

    @staticmethod
    def program(name):
        versions = sorted(Path("/usr/lib/postgresql").glob("*/bin"), key=lambda path: int(path.parent.name))
        assert versions, "PostgreSQL is not installed; scripts/setup does that"
        return str(versions[-1] / name)

    def preparation(self):
        return [self.program("initdb"), "-D", "data", "-U", ADMINISTRATOR, "-A", "trust", "--no-sync", "--encoding=UTF8",
                "--locale=C.UTF-8"]

    def command(self):
        settings = {"listen_addresses": "", "port": self.port or self.default_port,
                    "unix_socket_directories": self.folder, "fsync": "off", "full_page_writes": "off", "max_connections": 200, "shared_buffers": "32MB", "autovacuum": "off"}
        return [self.program("postgres"), "-D", "data", *(f"--{name}={value}" for name, value in settings.items())]

    def answers(self):
        command = [self.program("pg_isready"), "-q", "-h", self.folder, "-p", str(self.port or self.default_port)]
        return subprocess.run(command, check=False).returncode == 0

    def provide(self):
        """Makes the daemon's login, which needs its password, and the template."""
        (self.folder / "data" / "pg_hba.conf").write_text(f"local all {ADMINISTRATOR} trust\nlocal all all scram-sha-256\n")
        self.psql("postgres", "-c", "create role zelvan_daemon", "-c", "select pg_reload_conf()", "-c",
                  "create database strict template template0")
        self.add_login(LOGIN, PASSWORD)
        self.psql("strict", "-f", SQL / "schema.postgresql.sql")

    def add_login(self, name, password):
        quoted = password.replace("'", "''")
        self.psql("postgres", "-c", f"create role \"{name}\" login password '{quoted}' in role zelvan_daemon")

    def revoke_role(self, name):
        self.psql("postgres", "-c", f"revoke zelvan_daemon from \"{name}\"")

    def remove_role(self):
        self.psql("strict", "-c", "drop owned by zelvan_daemon", "-c", "drop role zelvan_daemon")

    def psql(self, database, *arguments):
        """Runs PostgreSQL's own shell as the administrator; any error ends it."""
        command = ["psql", "--no-psqlrc", "--quiet", "--set=ON_ERROR_STOP=1", f"--host={self.folder}",
                   f"--port={self.port or self.default_port}", f"--username={ADMINISTRATOR}", f"--dbname={database}", *map(str, arguments)]
        done = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE, check=False)
        assert done.returncode == 0, done.stderr
        return done.stdout


class Mariadb(Server):
    fast_stop = signal.SIGTERM
    default_port = 3306

    def preparation(self):
        return ["mariadb-install-db", "--no-defaults", f"--datadir={self.folder}/data", "--skip-test-db",
                "--auth-root-authentication-method=normal", "--skip-name-resolve", self.temporary()]

    def command(self):
        return ["/usr/sbin/mariadbd", "--no-defaults", f"--datadir={self.folder}/data", f"--socket={self.folder}/socket",
                f"--pid-file={self.folder}/pid", "--skip-networking", f"--port={self.port or self.default_port}",
                "--innodb-flush-log-at-trx-commit=0",
                "--innodb-buffer-pool-size=64M", "--innodb-log-file-size=32M", "--max-connections=200",
                "--innodb-doublewrite=0", "--performance-schema=off",
                self.temporary()]

    def temporary(self):
        """Temporary tables are kept in the server's own folder.

        A server that starts clears the folder.  In /tmp it would take the tables of other servers, which end with a
        segmentation fault then.
        """
        return f"--tmpdir={self.folder}"

    def answers(self):
        command = ["mariadb", "--no-defaults", f"--socket={self.folder}/socket", "--user=root", "--connect-timeout=5",
                   "--execute=select 1"]
        return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0

    def provide(self):
        """Makes the daemon's login, which needs its password."""
        self.mariadb("", "create role zelvan_daemon")
        self.add_login(LOGIN, PASSWORD)

    def add_login(self, name, password, host="localhost", require=""):
        quoted = password.replace("\\", "\\\\").replace("'", "''")
        self.mariadb("", f"create user `{name}`@`{host}` identified by '{quoted}' {require};"
                         f"grant zelvan_daemon to `{name}`@`{host}`;"
                         f"set default role zelvan_daemon for `{name}`@`{host}`")

    def revoke_role(self, name):
        self.mariadb("", f"revoke zelvan_daemon from `{name}`@localhost; set default role none for `{name}`@localhost")

    def remove_role(self):
        self.mariadb("", "drop role zelvan_daemon")

    def mariadb(self, database, sql):
        """Runs MariaDB's own shell as the administrator; any error ends it."""
        command = ["mariadb", "--no-defaults", f"--socket={self.folder}/socket", "--user=root",
                   "--default-character-set=utf8mb4", database]
        done = subprocess.run(command, input=sql, capture_output=True, text=True, timeout=PATIENCE, check=False)
        assert done.returncode == 0, done.stderr
        return done.stdout


KINDS = {engine.POSTGRESQL: Postgresql, engine.MARIADB: Mariadb}


def start_shared():
    """Starts the server that all tests of this run share; None where none is needed, or where it runs already."""
    kind = KINDS.get(engine.chosen())
    if kind is None or SHARED in os.environ:
        return None
    server = kind()
    os.environ[SHARED] = str(server.folder)
    return server


def shared():
    """The server that all tests of this run share."""
    return KINDS[engine.chosen()](os.environ[SHARED])
