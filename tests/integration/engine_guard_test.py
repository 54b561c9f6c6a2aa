"""Several servers on one database: the guard of the token table, and two daemons that get the same code at once."""

import os
import subprocess
import threading

import pytest

from testbed.daemon import Daemon
from testbed.database import CHALLENGE, TIMED
from testbed.radius import ACCEPT, REJECT, Reply

CLONE_NEWNET = 0x40000000


def refused(db, user, **columns):
    """Whether the update fails and changes nothing."""
    before = db.token(user)
    names = ", ".join(f"{column} = ?" for column in columns)
    try:
        db.run(f"update keyinfo set {names} where serialnum = ?", *columns.values(), user.serial)
    except Exception as error:  # each engine has its own
        assert "this code is used" in str(error)
        assert db.token(user) == before
        return True
    return False


class TestGuard:
    @pytest.fixture
    def db(self, prepare):
        database = prepare().db
        database.install("guard")
        database.install("guard")  # again: changes nothing
        return database

    @pytest.mark.parametrize("kind", [1, TIMED])
    def test_a_counter_must_grow(self, db, kind):
        user = db.add_user(kind=kind, high=2, low=10)
        for high, low in ((2, 10), (2, 9), (1, 11), (0, 0)):
            assert refused(db, user, hcounter=high, lcounter=low), (high, low)
        assert not refused(db, user, hcounter=2, lcounter=11)
        assert not refused(db, user, hcounter=3, lcounter=0)

    def test_a_new_key_may_begin_anew(self, db):
        user = db.add_user(low=10)
        assert not refused(db, user, userkey="another key", lcounter=0, hcounter=0)

    def test_another_type_may_begin_anew(self, db):
        user = db.add_user(low=10)
        assert not refused(db, user, tktype=3, lcounter=0, hcounter=0)

    def test_a_challenge_comes_and_goes(self, db):
        user = db.add_user(kind=CHALLENGE)
        for high, low in ((1, 5000), (0, 0), (0, 0), (1, 1001)):
            assert not refused(db, user, hcounter=high, lcounter=low)

    def test_what_an_administrator_changes_beside_the_counter(self, db):
        user = db.add_user(low=10)
        assert not refused(db, user, diglen=8)
        assert not refused(db, user, authwnd=50)
        assert db.token(user)["diglen"] == 8


class Namespace:
    """A thread in a network namespace of its own: call() runs a function there.  Its sockets keep working everywhere."""

    def __init__(self):
        self._todo, self._done = None, threading.Event()
        self._wanted = threading.Event()
        self._thread = threading.Thread(target=self._work, daemon=True)
        self._thread.start()
        self.call(self._enter)

    @staticmethod
    def _enter():
        import ctypes
        libc = ctypes.CDLL(None, use_errno=True)
        assert libc.unshare(CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)

    def _work(self):
        while True:
            self._wanted.wait()
            self._wanted.clear()
            function, answer = self._todo
            if function is None:
                return
            try:
                answer.append((function(), None))
            except BaseException as error:  # handed to the caller
                answer.append((None, error))
            self._done.set()

    def call(self, function):
        answer = []
        self._todo = (function, answer)
        self._done.clear()
        self._wanted.set()
        self._done.wait()
        value, error = answer[0]
        if error is not None:
            raise error
        return value

    def close(self):
        self._todo = (None, None)
        self._wanted.set()
        self._thread.join()


def may_unshare():
    return subprocess.run(["unshare", "--net", "true"], check=False, stderr=subprocess.DEVNULL).returncode == 0


@pytest.mark.skipif(not may_unshare(), reason="a network namespace needs privileges")
class TestTwoDaemons:
    settings = {"options": {"otp_logmode": 0, "otp_max_accum": 99}}

    @pytest.fixture
    def pair(self, tmp_path):
        """Two daemons on one database with the guard, each in a network namespace, and a client for each."""
        first = Daemon(tmp_path / "1", self.settings)
        first.db.install("guard")
        second = Daemon(tmp_path / "2", self.settings, db=first.db)
        spaces = [Namespace(), Namespace()]
        try:
            for space, daemon in zip(spaces, (first, second)):
                space.call(daemon.start)
            yield first.db, [space.call(daemon.client) for space, daemon in zip(spaces, (first, second))]
        finally:
            second.finish(keep_database=True)
            first.finish()
            for space in spaces:
                space.close()

    def test_a_code_that_one_took_is_refused_by_the_other(self, pair):
        db, (one, other) = pair
        user = db.add_user()
        for factor in range(0, 6, 2):
            assert one.pap(user.name, user.code(factor)).code == ACCEPT
            assert other.pap(user.name, user.code(factor)).code == REJECT
            assert other.pap(user.name, user.code(factor + 1)).code == ACCEPT
            assert one.pap(user.name, user.code(factor + 1)).code == REJECT

    def test_a_code_that_both_get_at_once_is_accepted_once(self, pair):
        """A hundred codes, each to both within microseconds."""
        db, clients = pair
        users = [db.add_user() for _ in range(20)]
        accepted = []
        for factor in range(5):
            for user in users:
                requests = [client.request().user(user.name).pap(user.code(factor)) for client in clients]
                packets = [request.bytes() for request in requests]
                for client, packet in zip(clients, packets):
                    client.send(packet)
                replies = [Reply(client.receive(), request) for client, request in zip(clients, requests)]
                assert all(reply.valid for reply in replies)
                accepted.append(sum(reply.code == ACCEPT for reply in replies))
                assert accepted[-1] <= 1, "accepted twice"
        assert sum(accepted) == len(accepted), accepted
        assert {db.factor(user) for user in users} == {5}
