"""Start-up against a database that never answers."""

import time

from testbed.radius import ACCEPT



class TestUnreachableDatabase:
    def test_it_gives_up_after_11_attempts(self, prepare):
        """An unknown data source: ten pauses of 5 s lie between the attempts."""
        daemon = prepare(odbc=False)
        started = time.monotonic()
        messages = daemon.run_to_its_end(120)
        elapsed = time.monotonic() - started
        assert messages == ["server starting...", "Zelvan server stop.Can not connect to database."]
        assert 50 <= elapsed < 70

    def test_a_database_that_comes_late_is_found(self, prepare):
        """The data source appears while the daemon is trying."""
        daemon = prepare({"DataBase": {"otp_dsn": "late"}})
        assert daemon.launch() == 0
        time.sleep(7)  # at least one attempt has failed
        assert daemon.processes() and daemon.server_messages() == ["server starting..."]
        daemon.add_data_source("late")
        daemon.wait_started()
        user = daemon.db.add_user()
        assert daemon.client().pap(user.name, user.code(0)).code == ACCEPT
