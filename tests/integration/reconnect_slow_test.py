"""Losing the database and finding it again.

A reconnect is tried by a failing statement, not within 60 s after the start or after a successful one, and at once after
a failed one.  Here the file that the daemon holds open loses its tables, while a good file takes its place in the folder.
"""

import shutil
import sqlite3
import time

import pytest

from testbed.database import Sqlite
from testbed.radius import ACCEPT

pytestmark = pytest.mark.engines("sqlite", reason="the files of SQLite change places")

THROTTLE = 60


def lose_database(daemon):
    """Moves the open file aside and empties it.  Returns the rows' new home, a file that nobody serves yet."""
    copy = daemon.folder / "copy.db"
    with sqlite3.connect(copy) as target:
        daemon.db.connection.backup(target)
    target.close()
    daemon.db.run("drop table userinfo")
    daemon.db.close()
    number = len(list(daemon.folder.glob("lost*.db")))
    for suffix in ("", "-wal", "-shm"):
        path = daemon.folder / f"zelvan.db{suffix}"
        if path.exists():
            path.rename(daemon.folder / f"lost{number}.db{suffix}")
    return copy


def put_back(daemon, copy):
    copy.rename(daemon.db.path)
    daemon.db = Sqlite(daemon.folder)


def seconds_until_served(daemon, user, factors):
    """Asks twice a second until a code is accepted; until then every request gets an answer."""
    client, started = daemon.client(), time.monotonic()
    factor = next(factors)
    while time.monotonic() < started + 2 * THROTTLE:
        reply = client.pap(user.name, user.code(factor))
        if reply.code == ACCEPT:
            return time.monotonic() - started
        assert reply.plain_reject
        time.sleep(0.5)
    raise AssertionError("the database was never found again")


def test_a_reconnect_waits_for_a_minute_after_the_start_and_after_another(prepare):
    daemon = prepare().start()
    user, factors = daemon.db.add_user(), iter(range(10))
    put_back(daemon, lose_database(daemon))
    assert THROTTLE - 5 <= seconds_until_served(daemon, user, factors) < THROTTLE + 20
    put_back(daemon, lose_database(daemon))
    assert THROTTLE - 5 <= seconds_until_served(daemon, user, factors) < THROTTLE + 20


def test_a_failed_reconnect_is_repeated_at_once(prepare):
    """A folder stands where the file should be: the first attempts fail, the first after its removal succeeds."""
    daemon = prepare().start()
    user, factors, client = daemon.db.add_user(), iter(range(10)), daemon.client()
    time.sleep(THROTTLE + 2)  # the throttle after the start is over
    copy = lose_database(daemon)
    daemon.db.path.mkdir()
    for _ in range(3):
        assert client.pap(user.name, user.code(0)).plain_reject
    shutil.rmtree(daemon.db.path)
    put_back(daemon, copy)
    assert seconds_until_served(daemon, user, factors) < 10
