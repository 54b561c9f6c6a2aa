"""Users and tokens that zelvanctl makes log in at the real daemon with codes from oathtool."""

import re
import subprocess
import time

import pytest

from testbed.database import utc
from testbed.radius import ACCEPT, CHALLENGE, REJECT
from testbed.zelvanctl import REFUSED, Tool, oathtool, qr_modules, qrencode

PINS = ["", "4711"]


@pytest.fixture
def tool(daemon):
    return Tool.beside(daemon)


def add(tool, name, *arguments, pin=""):
    if pin:
        tool.run("user", "add", name, "--pin", *arguments, stdin=pin + "\n")
    else:
        tool.run("user", "add", name, *arguments)
    return tool.key(name)


class TestLogins:
    @pytest.mark.parametrize("pin", PINS)
    @pytest.mark.parametrize("digits", [6, 8])
    def test_event_token(self, client, tool, pin, digits):
        name = f"event{digits}{pin}"
        key = add(tool, name, "--type", "event", "--digits", str(digits), pin=pin)
        for counter in range(3):
            assert client.pap(name, oathtool("-c", str(counter), "-d", str(digits), key=key) + pin).code == ACCEPT
        assert client.pap(name, oathtool("-c2", "-d", str(digits), key=key) + pin).code == REJECT
        if pin:
            assert client.pap(name, oathtool("-c3", "-d", str(digits), key=key)).code == REJECT

    @pytest.mark.parametrize("pin", PINS)
    @pytest.mark.parametrize("step", [30, 60])
    def test_time_token(self, client, tool, pin, step):
        name = f"time{step}{pin}"
        key = add(tool, name, "--step", str(step), pin=pin)
        code = oathtool("--totp", "-s", str(step), key=key)
        assert client.chap(name, code + pin).code == ACCEPT
        assert client.chap(name, code + pin).code == REJECT
        next_code = oathtool("--totp", "-s", str(step), "-N", f"{utc(step)} UTC", key=key)
        assert client.pap(name, next_code + pin).code == ACCEPT

    def test_time_token_of_a_phone_whose_clock_is_behind(self, client, tool):
        key = add(tool, "behind")
        assert client.pap("behind", oathtool("--totp", "-N", f"{utc(-90)} UTC", key=key)).code == ACCEPT

    @pytest.mark.parametrize("pin", PINS)
    def test_challenge_token(self, client, tool, pin):
        name = f"challenge{pin}"
        key = add(tool, name, "--type", "challenge", pin=pin)
        for _ in range(2):
            asked = client.pap(name, pin)
            assert asked.code == CHALLENGE
            number = re.match(rb"Challenge (\d+) ,", asked.message).group(1).decode()
            assert str(tool.json("user", "show", name)["next_attempt"]["remarks"]).find(number) >= 0
            assert client.pap(name, oathtool("-c", number, key=key) + pin).code == ACCEPT

    def test_an_app_that_begins_with_counter_1(self, client, tool):
        key = add(tool, "first1", "--type", "event")
        assert client.pap("first1", oathtool("-c1", key=key)).code == ACCEPT


class TestZones:
    @pytest.mark.parametrize("zone", ["Europe/London", "America/Caracas", "Pacific/Apia", "Asia/Kathmandu"])
    def test_a_zone_that_changed_its_offset_since_1970(self, prepare, monkeypatch, zone):
        monkeypatch.setenv("TZ", zone)
        daemon = prepare()
        tool = Tool.beside(daemon)
        key = add(tool, "alice")
        daemon.start()
        assert daemon.client().pap("alice", oathtool("--totp", key=key)).code == ACCEPT


class TestQrCodes:
    @pytest.mark.parametrize("kind", ["time", "event"])
    def test_the_screen_shows_the_uri(self, tool, kind):
        name = f"qr-{kind}"
        screen = tool.at_terminal("user", "add", name, "--type", kind, "--qr")
        uri = tool.json("token", "qr", name, "--show-secrets")["uri"]
        assert qr_modules(screen) == qrencode(uri)
        assert qr_modules(tool.run("token", "qr", name).stdout) == qrencode(uri)
        assert uri not in screen

    def test_the_uri_gives_the_codes_that_the_server_takes(self, client, tool):
        tool.run("user", "add", "uri", "--digits", "8", "--step", "60")
        uri = tool.json("token", "qr", "uri", "--issuer", "Example VPN", "--show-secrets")["uri"]
        fields = dict(field.split("=") for field in uri.split("?")[1].split("&"))
        assert uri.startswith("otpauth://totp/Example%20VPN:uri?") and fields["issuer"] == "Example%20VPN"
        code = subprocess.run(["oathtool", "-b", "--totp", "-d", fields["digits"], "-s", fields["period"], "-"],
                              input=fields["secret"], capture_output=True, text=True, check=True).stdout.strip()
        assert client.pap("uri", code).code == ACCEPT

    def test_an_event_token_goes_on_from_its_counter(self, client, tool):
        key = add(tool, "on", "--type", "event")
        client.pap("on", oathtool("-c3", key=key))
        assert "&counter=4" in tool.json("token", "qr", "on", "--show-secrets")["uri"]

    def test_json_holds_the_key_only_when_wanted(self, tool):
        tool.run("user", "add", "jq")
        tool.run("token", "qr", "jq", "--json", code=REFUSED)

    def test_what_apps_cannot_do_is_told(self, tool):
        tool.run("user", "add", "noqr", "--type", "challenge", "--qr")
        assert "challenges" in tool.run("token", "qr", "noqr", code=REFUSED).stderr
        tool.run("user", "add", "ten", "--digits", "10")
        assert "10 digits" in tool.run("token", "qr", "ten", code=REFUSED).stderr


class TestResync:
    def test_an_event_token_far_ahead(self, client, tool):
        key = add(tool, "ahead", "--type", "event")
        assert client.pap("ahead", oathtool("-c700", key=key)).code == REJECT
        done = tool.json("token", "resync", "ahead", oathtool("-c700", key=key), oathtool("-c701", key=key))
        assert (done["before"], done["counter"]) == (0, 702)
        assert client.pap("ahead", oathtool("-c701", key=key)).code == REJECT
        assert client.pap("ahead", oathtool("-c702", key=key)).code == ACCEPT

    @pytest.mark.parametrize("minutes", [-300, 400])
    def test_a_time_token_whose_clock_is_wrong(self, client, tool, minutes):
        name = f"clock{minutes}"
        key = add(tool, name)

        def code(steps):
            return oathtool("--totp", "-N", f"{utc(minutes * 60 + steps * 30)} UTC", key=key)

        assert client.pap(name, code(0)).code == REJECT
        slow = ["--backward", "--just-read"] if minutes < 0 else []
        tool.run("token", "resync", name, code(0), code(1), *slow)
        assert client.pap(name, code(1)).code == REJECT
        assert client.pap(name, code(2)).code == ACCEPT

    def test_a_time_token_that_was_used_under_a_wrong_clock(self, db, client, tool):
        """The stored time lies in the future, and so does the counter."""
        key = add(tool, "future")
        db.run("update keyinfo set predate = ?, lcounter = lcounter + 400 where serialnum = "
               "(select serialnum from userinfo where username = 'future')", utc(5000))
        assert client.pap("future", oathtool("--totp", key=key)).code == REJECT
        assert "future" in tool.run("user", "show", "future").stdout
        codes = [oathtool("--totp", "-N", f"{utc(30 * step)} UTC", key=key) for step in range(4)]
        tool.run("token", "resync", "future", codes[0], codes[1], "--backward")
        assert client.pap("future", codes[3]).code == ACCEPT

    def test_parallel_runs_move_the_token_once(self, db, tool):
        key = add(tool, "both", "--type", "event")
        codes = oathtool("-c50", key=key), oathtool("-c51", key=key)
        running = [tool.start("token", "resync", "both", *codes) for _ in range(6)]
        results = sorted(process.wait() for process in running)
        for process in running:
            process.communicate()
        assert results[0] == 0 and set(results[1:]) <= {1, REFUSED}
        assert tool.json("token", "show", "both")["counter"] == 52

    def test_logins_and_resyncs_at_once(self, client, tool):
        """Whoever comes first wins; no used code becomes good again."""
        key = add(tool, "mixed", "--type", "event")
        running = [tool.start("token", "resync", "mixed", oathtool("-c", str(n), key=key), oathtool("-c", str(n + 1), key=key))
                   for n in (20, 30, 40)]
        time.sleep(0.05)
        client.pap("mixed", oathtool("-c0", key=key))
        for process in running:
            process.communicate()
            assert process.returncode in (0, 1, REFUSED)
        counter = tool.json("token", "show", "mixed")["counter"]
        assert counter in (1, 22, 32, 42)
        for used in {0, counter - 1}:
            assert client.pap("mixed", oathtool("-c", str(used), key=key)).code == REJECT
            tool.run("user", "unlock", "mixed")
