"""The tables of one daemon, as an administrator's shell sees them."""

import contextlib
import itertools
import os
import sqlite3
import time
from dataclasses import dataclass

from testbed import engine, servers
from testbed.hotp import hotp

# The same columns without any rule, for rows that a good schema refuses and an old installation may hold.
LOOSE_SCHEMA = """
create table userinfo (username {text}, serialnum {text}, islocked {integer}, failaccum {integer}, preusedate {text},
  user_email {text}, authtype {integer}, pin {text}, isdeleted {integer});
create table keyinfo (serialnum {text}, userkey {text}, tktype {integer}, hcounter {integer}, lcounter {integer},
  predate {text}, diglen {integer}, authwnd {integer}, tmstep {integer});
create table commonloginfo (optime {text}, operator {text}, loglev {integer}, optype {integer}, remark {text},
  remoteip {text} {more});
"""

EVENT, TIMED, CHALLENGE = 1, 2, 3
KEY = "12345678901234567890"  # RFC 4226 appendix D
AUDIT_COLUMNS = "optime, operator, loglev, optype, remark, remoteip"


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


class Row(tuple):
    """A row; a column is found by its name too."""

    def __new__(cls, description, values):
        row = super().__new__(cls, values)
        row.names = [column[0] for column in description]
        return row

    def __getitem__(self, key):
        return super().__getitem__(self.names.index(key) if isinstance(key, str) else key)


class Database:
    """Rows of one database; every call is one committed statement.

    An engine adds: connection, login (settings of section "DataBase"), ORDER (a column of commonloginfo in which its rows
    are numbered), parameters(), data_source(), install(), drop() and what its schema files need.
    """

    _numbers = itertools.count(1)
    login = {}

    def close(self):
        """Ends this connection and removes the database."""
        self.connection.close()

    def run(self, sql, *values):
        cursor = self.connection.cursor()
        if values:
            cursor.execute(self.parameters(sql), values)
        else:
            cursor.execute(sql)
        rows = [Row(cursor.description, row) for row in cursor.fetchall()] if cursor.description else []
        cursor.close()
        return rows

    @staticmethod
    def parameters(sql):
        """A statement with ? for its values, as the engine's module wants it."""
        return sql.replace("%", "%%").replace("?", "%s")

    def add_login(self, name, password):
        """A further login with the daemon's rights."""

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

    def audit_rows(self, user=None):
        """The audit trail, oldest first."""
        rows = self.run(f"select {AUDIT_COLUMNS} from commonloginfo order by {self.ORDER}")
        return [row for row in rows if user is None or row["operator"] == user.name]

    def audit(self, user=None):
        """The remarks of the audit trail, oldest first."""
        return [row["remark"] for row in self.audit_rows(user)]

    def everything(self):
        """All rows, to show that nothing changed."""
        return self.run("select * from userinfo order by username"), self.run(
            "select * from keyinfo order by serialnum"), self.audit_rows()


class Sqlite(Database):
    ORDER = "rowid"

    def __init__(self, folder, loose=False, empty=False):
        self.path = folder / "zelvan.db"
        self.path.touch(0o600)
        self.connection = sqlite3.connect(self.path, timeout=30, isolation_level=None)
        self.connection.execute("pragma journal_mode = wal")
        self.connection.execute("pragma synchronous = normal")
        if loose:
            self.connection.executescript(LOOSE_SCHEMA.format(text="text", integer="integer", more=""))
        elif not empty:
            self.install("schema")

    def install(self, name):
        self.connection.executescript((servers.SQL / f"{name}.sqlite.sql").read_text())

    @staticmethod
    def parameters(sql):
        return sql

    def data_source(self, name):
        # NORMAL spares the disk; what it gives up is durability at a power cut, which no test looks at.
        return (f"[{name}]\nDriver=SQLite3\nDatabase={self.path}\nJournalMode=WAL\nSyncPragma=NORMAL\nTimeout=10000\n")

    @contextlib.contextmanager
    def locked(self, table):
        """Nobody else writes meanwhile; SQLite locks all tables."""
        self.run("begin immediate")
        yield
        self.run("commit")

    def refuse_updates(self, table):
        self.run(f"create trigger refuse before update on {table} begin select raise(abort, 'no'); end")

    def refuse_inserts(self, table, column=None, value=None):
        """No row is added any more, or none with the value."""
        when = f"when new.{column} = '{value}'" if column else ""
        self.run(f"create trigger refuse_insert before insert on {table} {when} begin select raise(abort, 'not allowed'); end")

    def columns(self, table):
        """What the catalogue says about a table's columns."""
        return [tuple(row) for row in self.run("select name, type, \"notnull\", dflt_value, pk from pragma_table_info(?)",
                                               table)]


class ServerDatabase(Database):
    """A database of one test on a server."""

    ORDER = "id"
    login = {"otp_uid": servers.LOGIN, "otp_pwd": servers.PASSWORD}

    def __init__(self, server):
        self.server = server
        self.name = f"test_{os.getpid()}_{next(self._numbers)}"
        self.connection = None

    def close(self):
        self.connection.close()
        connection = self.connect(self.MAINTENANCE)
        connection.cursor().execute(f"drop database {self.name}{self.FORCE}")
        connection.close()

    def reconnect(self):
        """Opens the administrator's connection again, after a restart of the server."""
        self.connection = self.connect(self.name)

    def add_login(self, name, password):
        self.server.add_login(name, password)

    def connect_as_daemon(self):
        """A connection with the daemon's rights."""
        return self.connect(self.name, servers.LOGIN, servers.PASSWORD)

    def take_all_connections(self):
        """Takes what the daemon's login may have of the server's connections, the daemon's own included."""
        self.end_connections()
        taken = []
        with contextlib.suppress(self.driver().OperationalError):
            while len(taken) < 1000:
                taken.append(self.connect_as_daemon())
        return taken

    @contextlib.contextmanager
    def locked_row(self, user):
        """Nobody else writes the user's row meanwhile."""
        self.run("begin")
        self.run("select 1 from userinfo where username = ? for update", user.name)
        yield
        self.run("commit")


class Postgresql(ServerDatabase):
    MAINTENANCE, FORCE = "postgres", " with (force)"

    def __init__(self, server, loose=False, empty=False, options=""):
        super().__init__(server)
        maintenance = self.connect(self.MAINTENANCE)
        template = "template0" if loose or empty else "strict"
        maintenance.cursor().execute(f"create database {self.name} template {template} {options}")
        maintenance.close()
        self.reconnect()
        if loose:
            self.run("alter default privileges grant all on tables to zelvan_daemon")
            self.run(LOOSE_SCHEMA.format(text="text", integer="bigint",
                                         more=", id bigint generated always as identity"))

    @staticmethod
    def driver():
        import psycopg2
        return psycopg2

    def connect(self, database, user=servers.ADMINISTRATOR, password=""):
        from psycopg2 import extensions
        connection = self.driver().connect(host=str(self.server.folder), port=self.server.port or self.server.default_port,
                                           user=user, password=password, dbname=database)
        connection.autocommit = True
        as_text = extensions.new_type((1114,), "timestamp", lambda value, _: value)
        extensions.register_type(as_text, connection)
        return connection

    @contextlib.contextmanager
    def locked(self, table):
        """Nobody else reads or writes the table meanwhile."""
        self.run("begin")
        self.run(f"lock table {table} in access exclusive mode")
        yield
        self.run("commit")

    def install(self, name):
        self.server.psql(self.name, "-f", servers.SQL / f"{name}.postgresql.sql")

    def data_source(self, name):
        return (f"[{name}]\nDriver=PostgreSQL ANSI\nServername={self.server.folder}\nDatabase={self.name}\n"
                "ConnSettings=set standard_conforming_strings = on; set statement_timeout = '5s'\n")

    def connections(self):
        """The daemon's connections, by the numbers that the server gave them."""
        return [row[0] for row in self.run("select pid from pg_stat_activity where datname = ? and usename <> ? "
                                           "order by pid", self.name, servers.ADMINISTRATOR)]

    def end_connections(self):
        """Cuts the daemon's connections."""
        for number in self.connections():
            self.run("select pg_terminate_backend(?)", number)

    def refuse_updates(self, table):
        self.run("create function refuse() returns trigger language plpgsql as $$ begin raise exception 'no'; end $$")
        self.run(f"create trigger refuse before update on {table} execute function refuse()")

    def refuse_inserts(self, table, column=None, value=None):
        """No row is added any more, or none with the value."""
        when = f"when (new.{column} = '{value}')" if column else ""
        self.run("create function refuse_insert() returns trigger language plpgsql as "
                 "$$ begin raise exception 'not allowed'; end $$")
        self.run(f"create trigger refuse_insert before insert on {table} for each row {when} "
                 "execute function refuse_insert()")

    def columns(self, table):
        """What the catalogue says about a table's columns."""
        return [tuple(row) for row in self.run(
            "select column_name, data_type, character_maximum_length, is_nullable, column_default "
            "from information_schema.columns where table_name = ? order by ordinal_position", table)]

    def own(self, name, password):
        """Makes a login that owns the database and may make roles, as an owner may who is no superuser."""
        quoted = password.replace("'", "''")
        self.server.psql("postgres", "-c", f"create role {name} login createrole password '{quoted}'", "-c",
                         f"alter database {self.name} owner to {name}")

    def forbid_roles(self, name):
        """Takes from a login the right to make roles."""
        self.server.psql("postgres", "-c", f"alter role {name} nocreaterole")

    def forget_login(self, name):
        """Removes a login."""
        self.server.psql(self.name, "-c", f"reassign owned by {name} to {servers.ADMINISTRATOR}", "-c",
                         f"drop owned by {name}", "-c", f"drop role {name}")


class Mariadb(ServerDatabase):
    MAINTENANCE, FORCE = "mysql", ""

    def __init__(self, server, loose=False, empty=False):
        super().__init__(server)
        maintenance = self.connect(self.MAINTENANCE)
        maintenance.cursor().execute(f"create database {self.name} character set utf8mb4 collate utf8mb4_nopad_bin")
        maintenance.close()
        self.reconnect()
        if loose:
            self.run(f"grant all on {self.name}.* to zelvan_daemon")
            self.server.mariadb(self.name, LOOSE_SCHEMA.format(
                text="text", integer="bigint", more=", id bigint not null auto_increment invisible primary key"))
        elif not empty:
            self.install("schema")

    @staticmethod
    def driver():
        import pymysql
        return pymysql

    def connect(self, database, user="root", password=""):
        from pymysql.constants import FIELD_TYPE
        converters = self.driver().converters.conversions | {FIELD_TYPE.DATETIME: str}
        return self.driver().connect(unix_socket=str(self.server.folder / "socket"), user=user, password=password,
                                     database=database, charset="utf8mb4", autocommit=True, conv=converters)

    @contextlib.contextmanager
    def locked(self, table):
        """Nobody else reads or writes the table meanwhile."""
        self.run(f"lock tables {table} write")
        yield
        self.run("unlock tables")

    def install(self, name):
        self.server.mariadb(self.name, (servers.SQL / f"{name}.mariadb.sql").read_text())

    def data_source(self, name):
        return (f"[{name}]\nDriver=MariaDB Unicode\nSERVER=localhost\nSOCKET={self.server.folder}/socket\n"
                f"DATABASE={self.name}\nCHARSET=utf8mb4\nCONN_TIMEOUT=5\nREAD_TIMEOUT=10\nWRITE_TIMEOUT=10\n"
                "INITSTMT=set innodb_lock_wait_timeout = 5, lock_wait_timeout = 5\n")

    def connections(self):
        """The daemon's connections, by the numbers that the server gave them."""
        return [row[0] for row in self.run("select id from information_schema.processlist where db = ? and user <> 'root' "
                                           "order by id", self.name)]

    def end_connections(self):
        """Cuts the daemon's connections."""
        for number in self.connections():
            self.run(f"kill connection {number}")

    def refuse_updates(self, table):
        self.run(f"create trigger refuse before update on {table} for each row signal sqlstate '45000'")

    def refuse_inserts(self, table, column=None, value=None):
        """No row is added any more, or none with the value."""
        when = f"new.{column} = '{value}'" if column else "true"
        self.run(f"create trigger refuse_insert before insert on {table} for each row "
                 f"if {when} then signal sqlstate '45000' set message_text = 'not allowed'; end if")

    def columns(self, table):
        """What the catalogue says about a table's columns."""
        return [tuple(row) for row in self.run(
            "select column_name, column_type, is_nullable, column_default, collation_name, extra "
            "from information_schema.columns where table_schema = database() and table_name = ? "
            "order by ordinal_position", table)]

    def own(self, name, password):
        """Makes a login that owns the database and may make roles, as an owner may who is no superuser."""
        quoted = password.replace("\\", "\\\\").replace("'", "''")
        self.server.mariadb("", f"create user {name}@localhost identified by '{quoted}';"
                                f"grant all on {self.name}.* to {name}@localhost with grant option;"
                                f"grant create user on *.* to {name}@localhost")

    def forbid_roles(self, name):
        """Takes from a login the right to make roles."""
        self.server.mariadb("", f"revoke create user on *.* from {name}@localhost")

    def forget_login(self, name):
        """Removes a login."""
        self.server.mariadb("", f"drop user {name}@localhost")


def make_database(folder, loose=False, server=None, empty=False):
    """A database of the engine of this run: a file in the folder, or one on `server`, by default the shared one."""
    if engine.chosen() == engine.SQLITE:
        return Sqlite(folder, loose, empty)
    kind = Postgresql if engine.chosen() == engine.POSTGRESQL else Mariadb
    return kind(server or servers.shared(), loose, empty)
