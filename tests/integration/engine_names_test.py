"""User names that would like to be SQL, or that an engine cannot store, and what they may not do."""

import random
import time

import pytest

from testbed import engine
from testbed.radius import ACCEPT

TEXTS = [b"'", b"\\", b'"', b"%", b";", b"--", b"/*", b"*/", b"#", b"?", b"{", b"}", b"$1", b"$$", b"\xc3\xa9", b"\xe2\x82\xac",
         b"\xbf", b"\xff", b"\xed\xa0\x80", b"\xf0\x9f\x98\x80", b" or ", b"1=1", b"a", b"\r\n", b"\t", b"E'", b":x", b"@x"]


def names(count):
    """Names of at most 19 bytes, the same at every run."""
    source = random.Random(19)
    for _ in range(count):
        yield b"".join(source.choice(TEXTS) for _ in range(source.randrange(1, 8)))[:19]


class TestNames:
    settings = {"options": {"otp_logmode": 0}}

    def test_hundreds_of_strange_names_are_just_unknown(self, db, client):
        """None finds a row, changes one, or makes its statement fail."""
        db.add_user("a")
        db.add_user("José")
        before = db.everything()
        for name in names(600):
            if name not in (b"a", "José".encode()):
                assert client.pap(name, "000000").unknown_user, name
        assert db.everything() == before

    @pytest.mark.parametrize("name", ["\\' or 1=1 -- ", "\\\\' or 1=1 # ", "E'\\''", "日本語", "😀", "a\\", "''\\''", "$$;$$"])
    def test_a_user_of_such_a_name_is_served(self, db, client, name):
        user, other = db.add_user(name), db.add_user()
        before = tuple(db.user(other))
        assert client.pap(name, user.code(0)).code == ACCEPT
        assert client.pap(name, "000000").plain_reject
        assert db.audit(user) == ["auth succeed", "auth failed."] and tuple(db.user(other)) == before

    def test_names_are_told_apart_to_the_last_byte(self, db, client):
        """No collation may take two names for one: each has its own row and counter."""
        users = [db.add_user(name) for name in ("anna", "Anna", "anna ", "änna", "anna\t")]
        for number, user in enumerate(users):
            assert client.pap(user.name, user.code(0)).code == ACCEPT
            assert [db.factor(each) for each in users] == [1] * (number + 1) + [0] * (len(users) - number - 1)


@pytest.mark.engines("postgresql", reason="the other engines read backslashes in one way only, or are asked at the start")
def test_the_data_source_settles_how_backslashes_are_read(prepare):
    """A login whose quoted backslashes are escapes: the data source puts that right."""
    daemon = prepare({"options": {"otp_logmode": 0}})
    daemon.db.add_login("old", "pw")
    daemon.db.run("alter role old set standard_conforming_strings = off")
    daemon.change({"DataBase": {"otp_uid": "old", "otp_pwd": "pw"}})
    daemon.start()
    user = daemon.db.add_user()
    assert daemon.client().pap("\\' or 1=1 -- ", "000000").unknown_user
    assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT


@pytest.mark.skipif(engine.chosen() == engine.SQLITE, reason="connections of SQLite cannot be counted")
class TestReconnects:
    def test_no_name_makes_the_daemon_reconnect_slow(self, prepare):
        """Beyond the first minute a failing statement reconnects at once: the connection must stay the one that it was."""
        daemon = prepare().start()
        connections = daemon.db.connections()
        assert len(connections) == 1
        time.sleep(62)
        client = daemon.client()
        for name in [b"\xff", b"\x80'", b"\xed\xa0\x80", b"x\xc3", b"'; drop table userinfo --", *names(100)]:
            client.pap(name, "000000")
        assert daemon.db.connections() == connections
