"""Tests of the measuring tools: zelvan-load against a RADIUS server written here, zelvan-odbc-floor against SQLite."""

import argparse
import hashlib
import hmac
import json
import os
import pathlib
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import threading
import unittest

SECRET = b"s3cret"
PROGRAMS = None  # the command line: paths of the two programs


def hotp(key, counter):
    """The six digits of RFC 4226 for the key bytes and the counter."""
    mac = hmac.new(key, struct.pack(">Q", counter), hashlib.sha1).digest()
    offset = mac[19] & 15
    return b"%06d" % ((struct.unpack(">I", mac[offset : offset + 4])[0] & 0x7FFFFFFF) % 10**6)


def attributes(packet):
    """Type and value of each attribute."""
    at = 20
    while at < len(packet):
        yield packet[at], packet[at + 2 : at + packet[at + 1]]
        at += packet[at + 1]


def reveal(hidden, authenticator):
    """The password behind a User-Password (RFC 2865 section 5.2)."""
    clear = b""
    for at in range(0, len(hidden), 16):
        block = hidden[at : at + 16]
        clear += bytes(a ^ b for a, b in zip(block, hashlib.md5(SECRET + authenticator).digest()))
        authenticator = block
    return clear.rstrip(b"\0")


class Server(threading.Thread):
    """Accepts the right next code of each user; `fault` names what it does wrong."""

    def __init__(self, fault=None):
        super().__init__(daemon=True)
        self.fault = fault
        self.counters = {}
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        self.start()

    def run(self):
        while True:
            packet, client = self.socket.recvfrom(4096)
            if not packet:
                return
            answer = self.answer(packet)
            if answer:
                self.socket.sendto(answer, client)

    def answer(self, packet):
        found = dict(attributes(packet))
        user = found[1].decode()
        counter = self.counters.setdefault(user, 0)
        key = b"benchkey%012d" % int(user[4:])
        right = reveal(found[2], packet[4:20]) == hotp(key, counter)
        self.counters[user] += 1
        if self.fault == "silent":
            return None
        head = struct.pack(">BBH", 2 if right and self.fault != "reject" else 3, packet[1], 20)
        sign = hashlib.md5(head + packet[4:20] + SECRET).digest()
        return head + (bytes(16) if self.fault == "unsigned" else sign)

    def close(self):
        """Ends the thread by an empty datagram first: it must not go on with a descriptor that another test gets."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as ender:
            ender.sendto(b"", ("127.0.0.1", self.port))
        self.join()
        self.socket.close()


def load(*arguments):
    """Runs zelvan-load; returns its exit status and its report."""
    done = subprocess.run([PROGRAMS.load, "--secret", SECRET.decode(), "--json", *map(str, arguments)],
                          capture_output=True, text=True, timeout=60)
    return done.returncode, json.loads(done.stdout) if done.stdout.startswith("{") else done.stderr


class LoadTest(unittest.TestCase):
    def run_against(self, fault, *arguments):
        server = Server(fault)
        self.addCleanup(server.close)
        return load("--port", server.port, *arguments)

    def test_every_right_code_is_counted_as_accepted(self):
        """64 requests, 4 on the way, 8 users: each user sends the counters 0 to 7."""
        status, report = self.run_against(None, "--count", 64, "--outstanding", 4, "--pattern", 8)
        self.assertEqual((status, report["accepts"], report["rejects"], report["timeouts"]), (0, 64, 0, 0))
        self.assertLessEqual(report["p50_us"], report["p99_us"])
        self.assertLessEqual(report["p99_us"], report["max_us"])

    def test_rejects_are_counted(self):
        status, report = self.run_against("reject", "--count", 10, "--outstanding", 2)
        self.assertEqual((status, report["accepts"], report["rejects"]), (1, 0, 10))

    def test_an_unsigned_answer_is_no_accept(self):
        status, report = self.run_against("unsigned", "--count", 5, "--outstanding", 1)
        self.assertEqual((status, report["accepts"], report["bad_signatures"]), (1, 0, 5))

    def test_silence_is_counted_as_time_outs(self):
        status, report = self.run_against("silent", "--count", 6, "--outstanding", 3, "--timeout", 0.1)
        self.assertEqual((status, report["accepts"], report["timeouts"]), (1, 0, 6))

    def test_the_time_bounds_the_run(self):
        status, report = self.run_against(None, "--seconds", 0.5, "--outstanding", 2)
        self.assertEqual(status, 0)
        self.assertLess(report["seconds"], 3)

    def test_counters_come_from_the_users_file(self):
        server = Server()
        self.addCleanup(server.close)
        server.counters = {"user00007": 41}
        with tempfile.NamedTemporaryFile("w", suffix=".users") as file:
            file.write("# a comment\nuser00007 benchkey000000000007 41\n")
            file.flush()
            status, report = load("--port", server.port, "--users", file.name, "--outstanding", 1, "--count", 3)
        self.assertEqual((status, report["accepts"]), (0, 3))

    def test_a_target_off_loopback_is_refused(self):
        status, error = load("--host", "192.0.2.1", "--count", 1)
        self.assertEqual(status, 2)
        self.assertIn("loopback", error)

    def test_more_requests_on_the_way_than_users_are_refused(self):
        status, error = load("--pattern", 3, "--outstanding", 4)
        self.assertEqual(status, 2)
        self.assertIn("at least one user", error)

    def test_a_minute_is_the_longest_run(self):
        self.assertEqual(load("--seconds", 61)[0], 2)

    def test_a_broken_users_file_is_named_with_its_line(self):
        with tempfile.NamedTemporaryFile("w", suffix=".users") as file:
            file.write("good key 1\nbad key\n")
            file.flush()
            status, error = load("--users", file.name)
        self.assertEqual(status, 2)
        self.assertIn(file.name + ":2:", error)


SCHEMA = """
create table userinfo(username text primary key, serialnum text, islocked integer, failaccum integer, preusedate text,
  user_email text, authtype integer, pin text, isdeleted integer);
create table keyinfo(serialnum text primary key, userkey text, tktype integer, hcounter integer, lcounter integer,
  predate text, diglen integer, authwnd integer, tmstep integer);
create table commonloginfo(optime text, operator text, loglev integer, optype integer, remark text, remoteip text);
"""


class FloorTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.database = self.folder / "floor.db"
        (self.folder / "odbc.ini").write_text(
            f"[floor]\nDriver=SQLite3\nDatabase={self.database}\nJournalMode=WAL\nTimeout=10000\n")
        with sqlite3.connect(self.database) as db:
            db.executescript(SCHEMA)
            for i in range(8):
                db.execute("insert into userinfo values(?,?,0,1,'2024-01-01 00:00:00','',1,'',0)",
                           (f"user{i:05}", f"t{i}"))
                db.execute("insert into keyinfo values(?,?,1,0,5,'2024-01-01 00:00:00',6,10,0)", (f"t{i}", "key"))

    def floor(self, *arguments, dsn="floor"):
        return subprocess.run([PROGRAMS.floor, "--seconds", "0.3", "--json", "--dsn", dsn, *map(str, arguments)],
                              env={**os.environ, "ODBCINI": str(self.folder / "odbc.ini")}, capture_output=True,
                              text=True, timeout=60)

    def query(self, sql):
        db = sqlite3.connect(self.database)
        self.addCleanup(db.close)
        return db.execute(sql).fetchone()[0]

    def check(self, *arguments):
        """Each sequence leaves one audit row and moves one counter by one."""
        done = self.floor("--pattern", 8, *arguments)
        self.assertEqual(done.returncode, 0, done.stderr)
        rows = self.query("select count(*) from commonloginfo")
        self.assertGreater(rows, 0)
        self.assertEqual(self.query("select sum(lcounter) - 40 from keyinfo"), rows)
        self.assertGreater(json.loads(done.stdout)["sequences_per_second"], 0)

    def test_one_thread(self):
        self.check("--threads", 1)

    def test_threads_on_one_connection(self):
        self.check("--threads", 4)

    def test_a_connection_for_each_thread(self):
        self.check("--threads", 2, "--connection-per-thread")

    def test_fresh_handles(self):
        self.check("--threads", 1, "--fresh-handles")

    def test_a_missing_user_ends_the_run_with_an_error(self):
        done = self.floor("--pattern", 9)
        self.assertEqual(done.returncode, 2)
        self.assertIn("not in the database", done.stderr)

    def test_a_missing_data_source_is_reported(self):
        done = self.floor(dsn="nowhere")
        self.assertEqual(done.returncode, 2)
        self.assertIn("connect to nowhere", done.stderr)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--load", required=True)
    parser.add_argument("--floor", required=True)
    PROGRAMS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
