"""A database server at the other end of a network: TLS, a cable that is pulled, a server that stands still.

All threads of the daemon share one connection, so that a server that falls silent holds every request.  The time-outs of
the data source bound that; the ones below are small, those of the documentation are a little larger.
"""

import subprocess
import time

import pytest

from testbed import engine, own_network, servers
from testbed.daemon import Daemon, wait_until
from testbed.database import make_database
from testbed.ports import free_port
from testbed.radius import ACCEPT, REJECT

own_network.enter("a server is cut off")

needs_server = pytest.mark.engines("postgresql", "mariadb", reason="SQLite has no server")
pytestmark = needs_server

POSTGRESQL = engine.chosen() == engine.POSTGRESQL
THROTTLE = 60
SETTINGS = {"options": {"otp_logmode": 1, "otp_max_accum": 99}}
SILENCE, DELIVERED, CONNECT = 3, 4, 2  # seconds that a statement, one that has arrived, and a connection attempt may take
SLACK = 4  # seconds that a busy machine, and the kernel's growing pauses between two attempts, may add

TIME_OUTS = {
    engine.POSTGRESQL: f"pqopt=tcp_user_timeout={SILENCE}000 connect_timeout={CONNECT}\n"
                       "KeepaliveTime=2\nKeepaliveInterval=2\n",
    engine.MARIADB: f"CONN_TIMEOUT={CONNECT}\nREAD_TIMEOUT={SILENCE}\nWRITE_TIMEOUT={SILENCE}\n",
}


def listening(addresses, **options):
    """A server that also listens at the addresses."""
    if POSTGRESQL:
        return servers.Postgresql(options=[f"--listen_addresses={addresses}"], **options)
    return servers.Mariadb(options=["--skip-networking=0", "--skip-name-resolve", f"--bind-address={addresses}"], **options)


def admit(server, encrypted=False):
    """Lets the daemon's login come over the network; `encrypted`: only with TLS."""
    if POSTGRESQL:
        with (server.folder / "data" / "pg_hba.conf").open("a") as rules:
            rules.write(f"host{'ssl' if encrypted else ''} all all samenet scram-sha-256\n")
        server.psql("postgres", "-c", "select pg_reload_conf()")
    else:
        server.add_login(servers.LOGIN, servers.PASSWORD, "%", "require ssl" if encrypted else "")


def use_network(daemon, host, more):
    """Makes the daemon's data source that of the documentation, for a host."""
    port = daemon.db.server.port or daemon.db.server.default_port
    lines = (f"Driver=PostgreSQL ANSI\nServername={host}\nPort={port}\nDatabase={daemon.db.name}\n"
             "ConnSettings=set standard_conforming_strings = on; set statement_timeout = '5s'\n") if POSTGRESQL else (
                 f"Driver=MariaDB Unicode\nSERVER={host}\nPORT={port}\nDATABASE={daemon.db.name}\nCHARSET=utf8mb4\n"
                 "INITSTMT=set innodb_lock_wait_timeout = 5, lock_wait_timeout = 5\n")
    daemon.odbc_ini.write_text(f"[zelvan]\n{lines}{more}")


def next_code(daemon, user):
    """The reply to the code that the stored factor asks for."""
    return daemon.client().pap(user.name, user.code(daemon.db.factor(user)))


class Held:
    """How long the daemon takes for requests; `replies` holds the code and the seconds of each."""

    def __init__(self, daemon, user, passwords):
        self.client, self.started, self.count, self.replies = daemon.client(), time.monotonic(), len(passwords), []
        for number, password in enumerate(passwords):
            self.client.send(self.client.request(identifier=number).user(user.name).pap(password).bytes())

    def receive(self, seconds):
        for _ in range(self.count):
            assert self.client.waiting(self.started + seconds - time.monotonic()), f"only {self.replies} in {seconds} s"
            self.replies.append((self.client.receive()[0], time.monotonic() - self.started))
        return self

    @property
    def rejected(self):
        return [code for code, _ in self.replies] == [REJECT] * self.count

    @property
    def longest(self):
        return max(seconds for _, seconds in self.replies)


class TestDeadServer:
    @pytest.fixture(scope="class")
    def server(self):
        server = listening("*" if POSTGRESQL else "0.0.0.0", within=["unshare", "--net"])
        try:
            admit(server)
            yield server
        finally:
            server.remove()

    @pytest.fixture(scope="class")
    def cable(self, server):
        cable = own_network.Cable(server.process.pid)
        yield cable
        cable.remove()

    @pytest.fixture
    def daemon(self, tmp_path, server, cable):
        instance = Daemon(tmp_path / "zelvan", SETTINGS, db=make_database(tmp_path, server=server))
        use_network(instance, cable.FAR, TIME_OUTS[engine.chosen()])
        try:
            yield instance.start()
        finally:
            cable.plug(True)
            server.pause(False)
            instance.finish()

    def test_a_pulled_cable(self, daemon, cable):
        """Requests are held as long as the time-outs say; the service comes back by itself, and no code is good twice."""
        user = daemon.db.add_user(window=20)
        assert next_code(daemon, user).code == ACCEPT
        descriptors = daemon.descriptors()
        codes = [user.code(factor) for factor in (1, 1, 2)]
        cable.plug(False)
        held = Held(daemon, user, codes).receive(SILENCE + SLACK)
        assert held.rejected and held.longest > SILENCE - 1
        assert Held(daemon, user, codes).receive(SLACK).rejected  # no statement can be sent, and none is waited for
        daemon.advance(THROTTLE + 1)
        held = Held(daemon, user, codes).receive(3 * CONNECT + SLACK)
        assert held.rejected and held.longest > 3 * CONNECT - 1  # an attempt to connect for each, one after the other
        assert daemon.db.factor(user) == 1
        cable.plug(True)
        assert next_code(daemon, user).plain_reject
        assert next_code(daemon, user).code == ACCEPT
        assert daemon.client().pap(user.name, user.code(1)).plain_reject
        assert daemon.db.factor(user) == 2
        assert daemon.descriptors() == descriptors

    def test_a_cable_that_is_pulled_for_a_moment(self, daemon, cable):
        """What was sent is sent again: nobody notices but by the delay."""
        user = daemon.db.add_user()
        cable.plug(False)
        held = Held(daemon, user, [user.code(0)])
        time.sleep(0.5)
        cable.plug(True)
        assert [code for code, _ in held.receive(SILENCE).replies] == [ACCEPT]

    def test_a_cable_that_is_pulled_while_the_server_works(self, daemon, cable):
        """Nothing is left to send then; the connection's own signs of life tell that it is dead."""
        user = daemon.db.add_user()
        with daemon.db.locked("userinfo"):
            held = Held(daemon, user, [user.code(0)])
            assert not held.client.waiting(0.5)
            cable.plug(False)
            assert held.receive(DELIVERED + SLACK).rejected
        assert daemon.db.factor(user) == 0
        cable.plug(True)
        daemon.advance(THROTTLE + 1)
        assert next_code(daemon, user).plain_reject
        assert next_code(daemon, user).code == ACCEPT

    def test_the_stop_does_not_wait_for_the_network(self, daemon, cable):
        user = daemon.db.add_user()
        daemon.advance(THROTTLE + 1)
        cable.plug(False)
        held = Held(daemon, user, [user.code(0)])
        assert not held.client.waiting(0.5)
        daemon.stop(SILENCE + 2 * CONNECT + SLACK)

    def test_a_server_that_stands_still_when_it_is_connected_to(self, daemon):
        """Its kernel takes the connection, nobody says a word on it."""
        user = daemon.db.add_user()
        daemon.advance(THROTTLE + 1)
        daemon.db.end_connections()
        wait_until(lambda: not daemon.db.connections(), "the end of the connection")
        daemon.db.server.pause(True)
        held = Held(daemon, user, [user.code(0)] * 2).receive(2 * CONNECT + SLACK)
        assert held.rejected and held.longest > 2 * CONNECT - 1
        daemon.db.server.pause(False)
        assert next_code(daemon, user).plain_reject
        assert next_code(daemon, user).code == ACCEPT

    def test_a_server_that_stands_still_in_a_statement(self, daemon):
        """MariaDB's driver looks at the clock; PostgreSQL's waits for an answer as long as the server's kernel lives."""
        user = daemon.db.add_user()
        daemon.db.server.pause(True)
        held = Held(daemon, user, [user.code(0)])
        if POSTGRESQL:
            assert not held.client.waiting(DELIVERED + 1)
            daemon.db.server.pause(False)
            assert [code for code, _ in held.receive(5 * DELIVERED).replies] == [ACCEPT]
        else:
            assert held.receive(SILENCE + SLACK).rejected
            daemon.db.server.pause(False)
            daemon.advance(THROTTLE + 1)
            assert next_code(daemon, user).plain_reject
            assert next_code(daemon, user).code == ACCEPT


class Certificates:
    """Two authorities, and a server's certificate for 127.0.0.1 from the first."""

    def __init__(self, server, folder):
        self.folder = folder
        for name in ("authority", "stranger"):
            self._openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                          "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.pem")
        self._openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=server",
                      "-keyout", "server.key", "-out", "server.csr")
        (folder / "names").write_text("subjectAltName=IP:127.0.0.1\n")
        self._openssl("x509", "-req", "-in", "server.csr", "-CA", "authority.pem", "-CAkey", "authority.key", "-days", "2",
                      "-extfile", "names", "-out", "server.pem")

        server.give(folder / "server.key")

    def _openssl(self, *arguments):
        subprocess.run(["openssl", *arguments], cwd=self.folder, check=True, capture_output=True)

    def of_server(self):
        """The server's settings."""
        if POSTGRESQL:
            return ["--ssl=on", f"--ssl_cert_file={self.folder}/server.pem", f"--ssl_key_file={self.folder}/server.key"]
        return [f"--ssl-cert={self.folder}/server.pem", f"--ssl-key={self.folder}/server.key", "--userstat=1"]

    def verified(self, authority):
        """The data source's settings."""
        path = f"{self.folder}/{authority}.pem"
        return f"SSLmode=verify-full\npqopt=sslrootcert={path}\n" if POSTGRESQL else f"SSLCA={path}\nSSLVERIFY=1\n"


class TestTls:
    HOST, OTHER = "127.0.0.1", "127.0.0.2"

    @pytest.fixture(scope="class")
    def server(self):
        """A server that takes the daemon's login over the network with TLS alone."""
        server = listening(f"{self.HOST},{self.OTHER}", port=free_port())
        try:
            self.certificates = Certificates(server, server.folder)
            admit(server, encrypted=True)
            server.stop()
            server.options += self.certificates.of_server()
            server.start()
            server.certificates = self.certificates
            yield server
        finally:
            server.remove()

    @pytest.fixture
    def prepared(self, tmp_path, server):
        """Prepares daemons: prepared(host, lines of the data source)."""
        made = []

        def make(host, more):
            made.append(Daemon(tmp_path / str(len(made)), SETTINGS, db=make_database(tmp_path, server=server)))
            use_network(made[-1], host, more)
            return made[-1]

        yield make
        for instance in made:
            instance.finish()

    def encrypted(self, daemon):
        """Whether the server says that the daemon's connection is encrypted."""
        if POSTGRESQL:
            rows = daemon.db.run("select ssl from pg_stat_ssl where pid = any(?)", daemon.db.connections())
        else:
            rows = daemon.db.run("select total_ssl_connections = total_connections from information_schema.user_statistics "
                                 "where user = ?", servers.LOGIN)
        return [bool(row[0]) for row in rows] == [True]

    def test_a_verified_server(self, prepared, server):
        daemon = prepared(self.HOST, server.certificates.verified("authority")).start()
        user = daemon.db.add_user()
        assert next_code(daemon, user).code == ACCEPT
        assert self.encrypted(daemon)
        daemon.advance(THROTTLE + 1)
        daemon.db.end_connections()
        assert next_code(daemon, user).plain_reject
        assert next_code(daemon, user).code == ACCEPT
        assert self.encrypted(daemon)

    def test_a_server_that_is_not_believed_and_a_login_that_is_not_taken_without_tls(self, prepared, server):
        """Each is an unreachable database; the daemons are those of above but for one value each."""
        good, certificates = server.certificates.verified("authority"), server.certificates
        cases = [(self.HOST, certificates.verified("stranger")), (self.OTHER, good), (self.HOST, "")]
        refused = [prepared(*case) for case in cases]
        for daemon in refused:
            assert daemon.launch() == 0
        daemon = prepared(self.HOST, good).start()
        assert next_code(daemon, daemon.db.add_user()).code == ACCEPT
        time.sleep(1)
        for daemon in refused:
            assert len(daemon.processes()) == 1
            assert daemon.server_messages() == ["server starting..."] and daemon.db.connections() == []
