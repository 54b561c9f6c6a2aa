"""Start-up: the start-up log word for word, the silent ends, the limits of the settings, what the process is like."""

import os
import time

import pytest

from testbed.daemon import udp_ports, wait_until
from testbed.ports import claim, free_port
from testbed.radius import ACCEPT

STARTING = "server starting..."
NO_SETTINGS = "Zelvan server stop.Function CConfigFile::config_init failed."
NO_DATABASE_SETTINGS = "Zelvan server stop.Get database connection params failed."
DOWN = "Zelvan down..."


def serves(daemon):
    user = daemon.db.add_user()
    return daemon.client().pap(user.name, user.code(0)).code == ACCEPT


class TestStartupLog:
    def test_a_life_leaves_two_lines(self, prepare):
        """Started and ended by SIGTERM."""
        daemon = prepare().start()
        assert daemon.server_messages() == [STARTING]
        daemon.stop()
        assert daemon.server_messages() == [STARTING, DOWN]

    def test_lines_are_appended(self, prepare):
        """A second start does not replace the first one's lines."""
        daemon = prepare({"DataBase": None})
        daemon.run_to_its_end()
        assert daemon.run_to_its_end() == [STARTING, NO_DATABASE_SETTINGS] * 2

    def test_missing_settings_file(self, prepare):
        daemon = prepare()
        daemon.settings_path.unlink()
        assert daemon.run_to_its_end() == [STARTING, NO_SETTINGS]

    def test_empty_settings_file_is_loaded_and_lacks_the_data_source(self, prepare):
        daemon = prepare()
        daemon.settings_path.write_text("")
        assert daemon.run_to_its_end() == [STARTING, NO_DATABASE_SETTINGS]

    def test_settings_are_looked_for_beside_the_executable_only(self, prepare):
        """A settings file in the working directory does not count."""
        daemon = prepare()
        (daemon.run_folder / "config").mkdir()
        daemon.settings_path.rename(daemon.run_folder / "config" / "otp_conf.con")
        assert daemon.run_to_its_end() == [STARTING, NO_SETTINGS]

    def test_without_a_startup_log_the_server_still_serves(self, prepare):
        """The start-up log cannot be created because a folder has its name."""
        daemon = prepare()
        (daemon.run_folder / "srvlog.txt").mkdir()
        assert serves(daemon.start())


class TestDatabaseSettings:
    @pytest.mark.parametrize("key", ["otp_dsn", "otp_uid", "otp_pwd"])
    @pytest.mark.parametrize("value", [None, "x" * 37], ids=["absent", "37 characters"])
    def test_refused(self, prepare, key, value):
        assert prepare({"DataBase": {key: value}}).run_to_its_end() == [STARTING, NO_DATABASE_SETTINGS]

    def test_user_and_password_of_36_characters_are_taken(self, prepare):
        daemon = prepare({"DataBase": {"otp_uid": "u" * 36, "otp_pwd": "p" * 36}})
        daemon.db.add_login("u" * 36, "p" * 36)
        assert serves(daemon.start())

    def test_a_data_source_name_is_passed_on_whole(self, prepare):
        """32 characters are the most that unixODBC takes."""
        name = "d" * 32
        daemon = prepare({"DataBase": {"otp_dsn": name}})
        daemon.add_data_source(name)
        assert serves(daemon.start())

    def test_a_data_source_name_of_36_characters_is_tried(self, prepare):
        """unixODBC refuses it, so the server goes on trying instead of stopping at the settings."""
        daemon = prepare({"DataBase": {"otp_dsn": "d" * 36}})
        assert daemon.launch() == 0
        time.sleep(2)
        assert daemon.processes() and daemon.server_messages() == [STARTING]
        daemon.kill()

    def test_an_indented_key_is_never_found(self, prepare):
        assert prepare({"DataBase": {"otp_dsn": None, "  otp_dsn": "zelvan"}}).run_to_its_end() == [
            STARTING, NO_DATABASE_SETTINGS]


class TestMailSettings:
    @pytest.mark.parametrize("key, limit", [("otp_smtp_server", 127), ("mail_from", 55), ("mail_subject", 55)])
    def test_one_character_too_long_ends_silently(self, prepare, key, limit):
        assert prepare({"mail": {key: "m" * (limit + 1)}}).run_to_its_end() == [STARTING]

    @pytest.mark.parametrize("key", ["otp_smtp_server", "mail_from"])
    def test_absent_ends_silently(self, prepare, key):
        assert prepare({"mail": {key: None}}).run_to_its_end() == [STARTING]

    def test_values_at_their_limits_are_taken(self, prepare):
        mail = {"otp_smtp_server": "s" * 127, "mail_from": "f" * 55, "mail_subject": "t" * 55, "smtp_auth_need": 1,
                "smtp_auth_user": "u" * 55, "smtp_auth_pwd": "p" * 55}
        assert serves(prepare({"mail": mail}).start())

    @pytest.mark.parametrize("key", ["smtp_auth_user", "smtp_auth_pwd"])
    @pytest.mark.parametrize("value", [None, "x" * 56], ids=["absent", "56 characters"])
    def test_login_data_is_demanded_with_smtp_auth_need(self, prepare, key, value):
        mail = {"smtp_auth_need": 1, "smtp_auth_user": "u", "smtp_auth_pwd": "p", key: value}
        assert prepare({"mail": mail}).run_to_its_end() == [STARTING]

    def test_login_data_is_not_read_without_smtp_auth_need(self, prepare):
        assert serves(prepare({"mail": {"smtp_auth_user": "u" * 56}}).start())

    def test_without_mail_no_mail_section_is_needed(self, prepare):
        daemon = prepare({"mail": None})
        with daemon.settings_path.open("a") as file:
            file.write("[mail]\notp_mail_need=0\n")
        assert serves(daemon.start())
        daemon.kill()

    def test_mail_need_2_demands_the_strings(self, prepare):
        assert prepare({"mail": {"otp_mail_need": 2, "mail_from": None}}).run_to_its_end() == [STARTING]


class TestPort:
    def test_only_the_low_16_bits_count(self, prepare):
        port = free_port()
        assert serves(prepare({"Radius Server": {"radius_port": port + 65536}}).start(port))

    def test_70000_is_4464(self, prepare):
        wait_until(lambda: claim(4464), "port 4464 to be free", 120)
        assert serves(prepare({"Radius Server": {"radius_port": 70000}}).start(4464))

    def test_a_number_that_is_none_is_0_and_not_the_default(self, prepare):
        """Port 0 lets the kernel choose."""
        daemon = prepare({"Radius Server": {"radius_port": "abc"}})
        assert daemon.launch() == 0
        ports = wait_until(lambda: owned_ports(daemon), "any port")
        assert 1812 not in ports
        daemon.kill()

    def test_a_taken_port_ends_the_service(self, prepare):
        first = prepare().start()
        second = prepare({"Radius Server": {"radius_port": first.port}})
        assert second.run_to_its_end() == [STARTING, DOWN]


def owned_ports(daemon):
    return set().union(*map(udp_ports, daemon.processes())) - {8801}


class TestOperationLogPath:
    def log_after_one_login(self, daemon, path):
        assert serves(daemon.start())
        daemon.stop()
        return len(daemon.log_messages(path))

    def test_default_is_relative_to_the_working_directory(self, prepare):
        assert self.log_after_one_login(prepare(), "log/otplog.log") == 1

    def test_an_empty_path_is_the_default(self, prepare):
        assert self.log_after_one_login(prepare({"options": {"otp_logpath": ""}}), "log/otplog.log") == 1

    def test_128_characters_are_taken(self, prepare):
        path = "log/" + "p" * 124
        assert self.log_after_one_login(prepare({"options": {"otp_logpath": path}}), path) == 1

    def test_129_characters_end_the_service(self, prepare):
        daemon = prepare({"options": {"otp_logpath": "log/" + "p" * 125}})
        assert daemon.run_to_its_end() == [STARTING, DOWN]

    def test_the_path_is_not_read_when_the_log_is_off(self, prepare):
        daemon = prepare({"options": {"otp_logpath": "log/" + "p" * 125, "otp_logmode": 0}})
        assert serves(daemon.start())


class TestProcess:
    def test_it_is_a_daemon(self, prepare):
        """In a session that it does not lead, without the launcher's descriptors, in the launcher's directory."""
        daemon = prepare().start()
        status = dict(line.split(":\t", 1) for line in open(f"/proc/{daemon.pid}/status", encoding="ascii")
                      if ":\t" in line)
        sigpipe, sigterm = 1 << 12, 1 << 14
        assert os.getsid(daemon.pid) not in (daemon.pid, os.getsid(0))
        assert status["Umask"].strip() == "0000"
        assert int(status["SigIgn"], 16) & sigpipe and not int(status["SigIgn"], 16) & sigterm
        assert os.readlink(f"/proc/{daemon.pid}/cwd") == str(daemon.run_folder)

    def test_it_closes_what_it_inherits(self, prepare):
        """The launcher hands down a pipe; its reading end must see the end of the data while the daemon lives."""
        daemon = prepare()
        reading, writing = os.pipe()
        os.set_inheritable(writing, True)
        daemon.start(hand_down=[writing])
        os.close(writing)
        assert os.read(reading, 1) == b""
        os.close(reading)
        assert daemon.pid in daemon.processes()
