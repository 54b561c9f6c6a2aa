"""The tables of one daemon, as an administrator's shell sees them."""

import itertools
import sqlite3
import time
from dataclasses import dataclass
from pathlib import Path

from testbed.hotp import hotp

SCHEMA = Path(__file__).resolve().parents[3] / "sql" / "schema.sqlite.sql"

# The same columns without any rule, for rows that a good schema refuses and an old installation may hold.
LOOSE_SCHEMA = """
create table userinfo (username text, serialnum text, islocked integer, failaccum integer, preusedate text,
  user_email text, authtype integer, pin text, isdeleted integer);
create table keyinfo (serialnum text, userkey text, tktype integer, hcounter integer, lcounter integer, predate text,
  diglen integer, authwnd integer, tmstep integer);
create table commonloginfo (optime text, operator text, loglev integer, optype integer, remark text, remoteip text);
"""

EVENT, TIMED, CHALLENGE = 1, 2, 3
KEY = "12345678901234567890"  # RFC 4226 appendix D


def utc(offset=0):
    """The time `offset` seconds from now, as the tables hold it."""
    return time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(time.time() + offset))


def age(text):
    """Seconds since a time text of the tables."""
    return time.time() - time.mktime(time.strptime(text, "%Y-%m-%d %H:%M:%S")) + time.timezone


@dataclass
class User:
    """One account and its token; code() is what the token shows."""

    name: str
    serial: str
    key: str
    digits: int
    pin: str

    def code(self, factor):
        return hotp(self.key, factor, self.digits)


class Database:
    """Rows of one SQLite file; every call is one committed statement."""

    _numbers = itertools.count(1)

    def __init__(self, path, loose=False):
        self.path = path
        self.connection = sqlite3.connect(path, timeout=30, isolation_level=None)
        self.connection.row_factory = sqlite3.Row
        self.connection.execute("pragma journal_mode = wal")
        self.connection.execute("pragma synchronous = normal")
        self.connection.executescript(LOOSE_SCHEMA if loose else SCHEMA.read_text())

    def close(self):
        self.connection.close()

    def run(self, sql, *values):
        return self.connection.execute(sql, values).fetchall()

    def add_user(self, name=None, *, key=KEY, kind=EVENT, factor=0, high=None, low=None, used=0, digits=6, window=10,
                 step=0, pin=None, locked=0, failures=0, last=-60, mail=None, deleted=0, token=True):
        """Adds a user and a token of its own.

        used and last are the seconds since the last code and the last attempt, as negative numbers.  A PIN makes
        authtype 2.  high and low override the halves of the moving factor.
        """
        number = next(self._numbers)
        name = name or f"user{number}"
        serial = f"T{number:07d}"
        high = factor >> 32 if high is None else high
        low = factor & 0xFFFFFFFF if low is None else low
        self.run("insert into userinfo values (?,?,?,?,?,?,?,?,?)", name, serial, locked, failures, utc(last), mail,
                 2 if pin else 1, pin, deleted)
        if token:
            self.run("insert into keyinfo values (?,?,?,?,?,?,?,?,?)", serial, key, kind, high, low, utc(used), digits,
                     window, step or (30 if kind == TIMED else 0))
        return User(name, serial, key, digits, pin or "")

    def set_user(self, user, **columns):
        for column, value in columns.items():
            self.run(f"update userinfo set {column} = ? where username = ?", value, user.name)

    def set_token(self, user, **columns):
        for column, value in columns.items():
            self.run(f"update keyinfo set {column} = ? where serialnum = ?", value, user.serial)

    def user(self, user):
        return self.run("select * from userinfo where username = ?", user.name)[0]

    def token(self, user):
        return self.run("select * from keyinfo where serialnum = ?", user.serial)[0]

    def factor(self, user):
        """The stored moving factor."""
        token = self.token(user)
        return token["hcounter"] * 2**32 + token["lcounter"]

    def audit(self, user=None):
        """The remarks of the audit trail, oldest first."""
        rows = self.run("select * from commonloginfo order by rowid")
        return [row["remark"] for row in rows if user is None or row["operator"] == user.name]

    def everything(self):
        """All rows, to show that nothing changed."""
        tables = ("userinfo", "keyinfo", "commonloginfo")
        return [tuple(row) for table in tables for row in self.run(f"select * from {table}")]
