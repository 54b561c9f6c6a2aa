"""What happens to the database while the daemon runs, with the real servers.

The daemon reconnects by itself when a statement fails and more than 60 s have passed since its start or its last successful
reconnect; its clock is set forward where a test would have to wait for that.
"""

import threading
import time

import pytest

from testbed import engine, servers
from testbed.daemon import Daemon, wait_until
from testbed.database import make_database
from testbed.radius import ACCEPT

THROTTLE = 60
SETTINGS = {"options": {"otp_logmode": 0, "otp_max_accum": 99}}
WRONG = "000000"

needs_server = pytest.mark.engines("postgresql", "mariadb", reason="SQLite has no server")


@pytest.fixture
def own(tmp_path):
    """A running daemon on a database server of its own."""
    server = servers.KINDS[engine.chosen()]()
    daemon = None
    try:
        daemon = Daemon(tmp_path / "own", SETTINGS, db=make_database(tmp_path, server=server))
        yield daemon.start()
    finally:
        try:
            if daemon is not None:
                daemon.finish(keep_database=True)
        finally:
            server.remove()


def restart(daemon):
    daemon.db.server.stop()
    daemon.db.server.start()
    daemon.db.reconnect()


def next_code(daemon, user):
    """The reply to the code that the stored factor asks for."""
    return daemon.client().pap(user.name, user.code(daemon.db.factor(user)))


def recovers(daemon, user, requests=3):
    """Whether a code is accepted again within so many requests; the ones before are rejected without a word."""
    for _ in range(requests):
        reply = next_code(daemon, user)
        if reply.code == ACCEPT:
            return True
        assert reply.plain_reject
    return False


class Load(threading.Thread):
    """One user after the other with right codes, each code once more as soon as it was accepted."""

    def __init__(self, daemon, users):
        super().__init__()
        self.daemon, self.client, self.users = daemon, daemon.client(), users
        self.accepted = {user.name: [] for user in users}
        self.asked, self.ended, self.failure = 0, threading.Event(), None

    def run(self):
        try:
            while not self.ended.is_set():
                for user in self.users:
                    self.ask(user)
        except BaseException as error:  # looked at by the test
            self.failure = error

    def ask(self, user):
        """Tries the next codes; the first may be used up without the reply telling so, when the database was lost."""
        done = self.accepted[user.name]
        first = done[-1] + 1 if done else 0
        for factor in range(first, first + 3):
            if self.accepts(user, factor):
                done.append(factor)
                assert not self.accepts(user, factor), "accepted twice"
                return

    def accepts(self, user, factor):
        if self.asked % 256 == 0:  # an identifier that is used again would be taken for a repetition
            self.client = self.daemon.client()
        self.asked += 1
        request = self.client.request(identifier=self.asked % 256).user(user.name).pap(user.code(factor))
        reply = self.client.ask(request)
        assert reply.valid
        return reply.code == ACCEPT

    def count(self):
        return sum(map(len, self.accepted.values()))

    def end(self):
        self.ended.set()
        self.join()
        if self.failure is not None:
            raise self.failure


def loads_on(daemon, threads=6, users=4):
    loads = [Load(daemon, [daemon.db.add_user() for _ in range(users)]) for _ in range(threads)]
    for load in loads:
        load.start()
    return loads


def wait_for_more(loads, count=30):
    """Waits until the loads have so many more codes accepted."""
    wanted = sum(load.count() for load in loads) + count
    wait_until(lambda: sum(load.count() for load in loads) >= wanted or any(load.failure for load in loads),
               "accepted codes")


def check_factors(daemon, loads):
    """Every accepted code is used up in the table."""
    for load in loads:
        for user in load.users:
            done = load.accepted[user.name]
            assert done == sorted(set(done)) and daemon.db.factor(user) > done[-1]


@needs_server
class TestServer:
    def test_restarts_under_load(self, own):
        """Every request is answered, no code is good twice, no failure is forgotten, and service comes back by itself."""
        counted = own.db.add_user()
        for _ in range(7):
            own.client().pap(counted.name, WRONG)
        loads = loads_on(own)
        for _ in range(5):
            wait_for_more(loads)
            own.advance(THROTTLE + 1)
            restart(own)
        wait_for_more(loads)
        for load in loads:
            load.end()
        check_factors(own, loads)
        assert own.db.user(counted)["failaccum"] == 7
        own.client().pap(counted.name, WRONG)
        assert own.db.user(counted)["failaccum"] == 8

    def test_a_server_that_is_down_for_long(self, own):
        """Requests are rejected at once; the first after the return is served, or the one after it."""
        user = own.db.add_user()
        own.advance(THROTTLE + 1)
        own.db.server.stop()
        client = own.client()
        for _ in range(20):
            assert client.pap(user.name, user.code(0)).plain_reject
        own.db.server.start()
        own.db.reconnect()
        assert recovers(own, user, requests=2)

    def test_fifty_restarts_leak_no_descriptor(self, own):
        user = own.db.add_user()
        assert recovers(own, user)
        before = own.descriptors()
        for _ in range(50):
            own.advance(THROTTLE + 1)
            restart(own)
            assert recovers(own, user)
            assert own.descriptors() == before

    def test_a_server_that_stands_still_for_a_while(self, own):
        user = own.db.add_user()
        own.db.server.pause(True)
        client = own.client()
        requests = [client.request(identifier=n).user(user.name).pap(user.code(0)) for n in range(8)]
        for request in requests:
            client.send(request.bytes())
        assert not client.waiting(2)
        own.db.server.pause(False)
        replies = [client.receive() for _ in requests]
        assert sorted(reply[0] for reply in replies) == [ACCEPT] + [3] * 7

    def test_all_connections_are_taken(self, own):
        own.db.server.stop()
        own.db.server.start("--max-connections=14" if engine.chosen() == engine.MARIADB else "--max_connections=14")
        own.db.reconnect()
        user = own.db.add_user()
        own.advance(THROTTLE + 1)
        taken = own.db.take_all_connections()
        assert len(taken) > 5
        for _ in range(5):
            assert next_code(own, user).plain_reject
        for connection in taken:
            connection.close()
        wait_until(lambda: recovers(own, user, 1), "a connection")


@needs_server
class TestConnection:
    def test_a_cut_connection_is_replaced_by_the_first_request_that_fails(self, prepare):
        daemon = prepare(SETTINGS).start()
        user = daemon.db.add_user()
        for _ in range(3):
            daemon.client().pap(user.name, WRONG)
        daemon.advance(THROTTLE + 1)
        daemon.db.end_connections()
        assert daemon.client().pap(user.name, WRONG).plain_reject
        assert daemon.db.user(user)["failaccum"] == 3
        assert daemon.client().pap(user.name, WRONG).plain_reject
        assert daemon.db.user(user)["failaccum"] == 4
        assert next_code(daemon, user).code == ACCEPT

    def test_not_within_the_first_minute(self, prepare):
        daemon = prepare(SETTINGS).start()
        user = daemon.db.add_user()
        daemon.advance(THROTTLE - 30)
        daemon.db.end_connections()
        assert not recovers(daemon, user, requests=5)
        daemon.advance(31)
        assert recovers(daemon, user, requests=2)

    def test_nor_within_a_minute_after_the_last(self, prepare):
        daemon = prepare(SETTINGS).start()
        user = daemon.db.add_user()
        daemon.advance(THROTTLE + 1)
        daemon.db.end_connections()
        assert recovers(daemon, user, requests=2)
        daemon.db.end_connections()
        assert not recovers(daemon, user, requests=5)
        daemon.advance(THROTTLE + 1)
        assert recovers(daemon, user, requests=2)

    def test_cut_again_and_again_under_load(self, prepare):
        daemon = prepare(SETTINGS).start()
        loads = loads_on(daemon)
        for _ in range(20):
            wait_for_more(loads, 10)
            daemon.advance(THROTTLE + 1)
            daemon.db.end_connections()
        wait_for_more(loads, 10)
        for load in loads:
            load.end()
        check_factors(daemon, loads)
        assert len(daemon.db.connections()) == 1


class TestTables:
    @pytest.mark.parametrize("table", ["userinfo", "keyinfo"])
    def test_a_locked_table_delays_the_answer(self, prepare, table):
        daemon = prepare(SETTINGS).start()
        user, client = daemon.db.add_user(), daemon.client()
        with daemon.db.locked(table):
            request = client.request().user(user.name).pap(user.code(0))
            client.send(request.bytes())
            assert not client.waiting(2)
        assert client.receive()[0] == ACCEPT
        assert client.pap(user.name, user.code(0)).plain_reject
        assert daemon.db.factor(user) == 1

    @needs_server
    @pytest.mark.parametrize("table", ["userinfo", "keyinfo"])
    def test_a_lock_that_does_not_end_costs_five_seconds(self, prepare, table):
        """The data source sets how long a statement waits; the code is good once the lock is gone."""
        daemon = prepare(SETTINGS).start()
        user, client = daemon.db.add_user(), daemon.client()
        with daemon.db.locked(table):
            started = time.monotonic()
            assert client.pap(user.name, user.code(0)).plain_reject
            assert 4 < time.monotonic() - started < 20
        assert client.pap(user.name, user.code(0)).code == ACCEPT

    @needs_server
    def test_a_locked_row_delays_the_answer(self, prepare):
        daemon = prepare(SETTINGS).start()
        user, client = daemon.db.add_user(), daemon.client()
        with daemon.db.locked_row(user):
            requests = [client.request(identifier=n).user(user.name).pap(WRONG) for n in range(5)]
            for request in requests:
                client.send(request.bytes())
            assert not client.waiting(2)
        assert [client.receive()[0] for _ in requests] == [3] * 5
        assert daemon.db.user(user)["failaccum"] == 5

    @pytest.mark.parametrize("table", ["userinfo", "keyinfo", "commonloginfo"])
    def test_a_dropped_table_that_comes_back(self, prepare, table):
        daemon = prepare(SETTINGS).start()
        daemon.advance(THROTTLE + 1)
        client, lost = daemon.client(), daemon.db.add_user()
        daemon.db.run(f"drop table {table}")
        expected = ACCEPT if table == "commonloginfo" else 3
        assert [client.pap(lost.name, lost.code(factor)).code for factor in range(3)] == [expected] * 3
        daemon.db.install("schema")
        daemon.db.run("delete from userinfo")
        user = daemon.db.add_user()
        assert client.pap(user.name, user.code(0)).code == ACCEPT
        assert daemon.db.audit(user) == ["auth succeed"]

    def test_the_schema_may_be_installed_again(self, prepare):
        daemon = prepare(SETTINGS).start()
        user = daemon.db.add_user()
        before = daemon.db.everything()
        daemon.db.install("schema")
        assert daemon.db.everything() == before
        assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT


@needs_server
def test_the_daemons_login_may_do_nothing_else(prepare):
    """The role reads two tables, updates what the daemon writes, adds audit rows."""
    db = prepare().db
    user = db.add_user()
    connection = db.connect_as_daemon()
    connection.autocommit = True
    cursor = connection.cursor()
    cursor.execute("select username from userinfo")
    assert cursor.fetchall()[0][0] == user.name
    for sql in ("delete from userinfo", "delete from keyinfo", "insert into keyinfo (serialnum) values ('x')",
                "update keyinfo set userkey = 'x'", "update userinfo set pin = 'x'", "update userinfo set isdeleted = 1",
                "update userinfo set username = 'x'", "select * from commonloginfo", "delete from commonloginfo",
                "update commonloginfo set remark = 'x'", "drop table userinfo", "create table mine (a integer)",
                "alter table keyinfo add extra integer"):
        with pytest.raises(Exception, match="(?i)denied|owner"):
            cursor.execute(sql)
    connection.close()
