"""The synchronisation service on the wire: requests, replies, the row behind them, and datagrams that make no sense."""

import random
import time

import pytest

from testbed import own_network, sync
from testbed.daemon import udp_ports, wait_until
from testbed.database import CHALLENGE as CHALLENGE_TOKEN, KEY, TIMED, age, utc
from testbed.settings import SECRET
from testbed.sync import ACCEPTED, ORDER, PASSWORD, REFUSAL, USER_NAME, SyncClient, attribute, packet, request

own_network.enter()

PIN = "2468"
HOUR = 3600
SHORT_SECRET = SECRET.decode()[:24]


@pytest.fixture
def service(daemon):
    """A client of a service that has its port."""
    wait_until(lambda: sync.PORT in udp_ports(daemon.pid), "the synchronisation port")
    client = SyncClient()
    yield client
    client.close()


def silent(service, octets):
    """Whether a datagram gets no answer; the service answers in order, and the refusal of a later one has 3 bytes."""
    service.send(octets)
    witness = SyncClient()
    assert witness.ask("nobody", "000000").refused
    witness.close()
    return not service.waiting()


class TestEventToken:
    def test_the_whole_answer(self, db, service):
        user = db.add_user(factor=2**32 + 5, step=60)
        before = time.time()
        reply = service.ask(user.name, user.code(2**32 + 5))
        assert reply.code == ACCEPTED and reply.order == ORDER
        assert reply.values[sync.DIGITS] == b"\x06"
        assert reply.values[sync.TOKEN_TYPE] == b"\x01" and reply.values[sync.AUTH_TYPE] == b"\x01"
        assert reply.counter == db.factor(user) == 2**32 + 6
        assert reply.values[sync.KEY] == KEY.encode() and reply.values[sync.SECRET] == SECRET
        assert int(before) - 1 <= reply.number(sync.CLOCK) <= time.time() + 1
        assert reply.values[sync.TIME_STEP] == b"60\0"
        assert -2 <= age(db.token(user)["predate"]) < 30

    def test_an_empty_pin_travels_with_length_2(self, db, service):
        user = db.add_user()
        assert service.ask(user.name, user.code(0)).values[sync.PIN] == b""

    def test_the_third_code_of_the_window_moves_the_counter_by_three(self, db, service):
        user = db.add_user(factor=5, window=3)
        assert service.ask(user.name, user.code(7)).counter == db.factor(user) == 8

    @pytest.mark.parametrize("ahead", [-1, 3])
    def test_outside_the_window(self, db, service, ahead):
        user = db.add_user(factor=5, window=3)
        before = db.everything()
        assert service.ask(user.name, user.code(5 + ahead)).refused
        assert db.everything() == before

    def test_a_code_is_good_once_here_and_over_radius(self, db, service, client):
        user = db.add_user()
        assert service.ask(user.name, user.code(0)).code == ACCEPTED
        assert service.ask(user.name, user.code(0)).refused
        assert client.pap(user.name, user.code(0)).plain_reject
        assert client.pap(user.name, user.code(1)).code == 2
        assert service.ask(user.name, user.code(1)).refused

    def test_the_pin_follows_the_code_whatever_its_case(self, db, service):
        user = db.add_user(pin="Ab12")
        assert service.ask(user.name, user.code(0)).refused
        assert service.ask(user.name, "Ab12").refused
        reply = service.ask(user.name, user.code(0) + "aB12")
        assert reply.values[sync.PIN] == b"Ab12" and reply.values[sync.AUTH_TYPE] == b"\x02"

    def test_an_unknown_user(self, service):
        assert service.ask("nobody", "000000").octets == REFUSAL

    def test_a_user_without_a_token(self, db, service):
        user = db.add_user(token=False)
        assert service.ask(user.name, user.code(0)).refused

    def test_quotes_stay_text(self, db, service):
        user = db.add_user()
        assert service.ask("' or '1'='1", user.code(0)).refused
        assert db.factor(user) == 0

    def test_nothing_is_logged_or_counted(self, daemon, db, service):
        user = db.add_user()
        row = tuple(db.user(user))
        service.ask(user.name, "000000")
        service.ask(user.name, user.code(0))
        assert tuple(db.user(user)) == row and db.audit(user) == []
        assert not [line for line in daemon.log_messages() if user.name + " " in line]

    def test_locked_and_deleted_accounts_are_served(self, db, service):
        user = db.add_user(locked=1, last=0, deleted=1)
        assert service.ask(user.name, user.code(0)).code == ACCEPTED


class TestTimeSteppedToken:
    @pytest.mark.parametrize("factor, good", [(104, False), (105, True), (114, True), (115, False)])
    def test_ten_steps_later(self, db, service, factor, good):
        """Window 10, so five factors are skipped."""
        user = db.add_user(kind=TIMED, step=60, used=-630, factor=100)
        reply = service.ask(user.name, user.code(factor))
        assert (reply.code == ACCEPTED) == good
        assert db.factor(user) == (factor + 1 if good else 100)
        assert not good or (reply.counter == factor + 1 and reply.values[sync.TIME_STEP] == b"60\0")

    def test_never_before_the_stored_counter(self, db, service):
        user = db.add_user(kind=TIMED, step=60, used=-30, factor=100)
        assert service.ask(user.name, user.code(99)).refused
        assert service.ask(user.name, user.code(100)).code == ACCEPTED

    def test_a_date_in_the_future_moves_nothing(self, db, service):
        user = db.add_user(kind=TIMED, step=60, used=HOUR, factor=100)
        assert service.ask(user.name, user.code(100)).code == ACCEPTED

    def test_a_step_of_three_digits_is_cut_to_two(self, db, service):
        """120 reads as 12: after 245 seconds these are 20 steps, not 2."""
        user = db.add_user(kind=TIMED, step=120, used=-245, factor=100)
        reply = service.ask(user.name, user.code(120))
        assert reply.code == ACCEPTED and reply.values[sync.TIME_STEP] == b"12\0"


class TestChallengeToken:
    @pytest.fixture
    def user(self, db):
        return db.add_user(kind=CHALLENGE_TOKEN, pin=PIN)

    def state(self, db, user):
        token = db.token(user)
        return token["hcounter"], token["lcounter"]

    def test_the_pin_brings_a_challenge_and_its_answer_the_token(self, db, service, user):
        number = service.ask(user.name, PIN).challenge
        assert 1000 <= number <= 999998 and self.state(db, user) == (1, number)
        reply = service.ask(user.name, user.code(number) + PIN)
        assert reply.code == ACCEPTED and reply.order == ORDER
        # The reply names the answered challenge, the row holds zeros.
        assert (reply.number(sync.HIGH), reply.number(sync.LOW)) == (0, number)
        assert self.state(db, user) == (0, 0)
        assert -2 <= age(db.token(user)["predate"]) < 30

    def test_an_answer_is_good_once(self, db, service, user):
        number = service.ask(user.name, PIN).challenge
        answer = user.code(number) + PIN
        assert service.ask(user.name, answer).code == ACCEPTED
        assert service.ask(user.name, answer).refused

    def test_a_wrong_answer_uses_the_challenge_up(self, db, service, user):
        number = service.ask(user.name, PIN).challenge
        assert service.ask(user.name, "000000" + PIN).refused
        assert self.state(db, user) == (0, 0)
        assert service.ask(user.name, user.code(number) + PIN).refused

    def test_the_pin_again_is_a_wrong_answer(self, db, service, user):
        service.ask(user.name, PIN)
        assert service.ask(user.name, PIN).refused
        assert self.state(db, user) == (0, 0)
        assert service.ask(user.name, PIN).challenge

    def test_a_wrong_pin_writes_nothing(self, db, service, user):
        before = db.everything()
        assert service.ask(user.name, "1111").refused
        assert db.everything() == before

    @pytest.mark.parametrize("seconds, good", [(600, True), (650, True), (660, False)])
    def test_a_challenge_lives_659_seconds(self, db, service, user, seconds, good):
        number = service.ask(user.name, PIN).challenge
        db.set_token(user, predate=utc(-seconds))
        assert (service.ask(user.name, user.code(number) + PIN).code == ACCEPTED) == good

    def test_without_a_pin_nothing_brings_the_challenge(self, db, service):
        user = db.add_user(kind=CHALLENGE_TOKEN)
        number = service.ask(user.name, "").challenge
        assert service.ask(user.name, user.code(number)).code == ACCEPTED


class TestDatagrams:
    def test_three_bytes_are_an_empty_request(self, service):
        assert service.exchange(b"\x01\x00\x03").octets == REFUSAL

    def test_the_order_of_attributes_and_unknown_ones_do_not_matter(self, db, service):
        user = db.add_user()
        octets = packet(attribute(PASSWORD, user.code(0)) + attribute(77, b"x") + attribute(USER_NAME, user.name))
        assert service.exchange(octets).code == ACCEPTED

    def test_the_last_of_two_counts(self, db, service):
        user = db.add_user()
        octets = packet(attribute(USER_NAME, "nobody") + attribute(PASSWORD, "0") + attribute(USER_NAME, user.name)
                        + attribute(PASSWORD, user.code(0)))
        assert service.exchange(octets).code == ACCEPTED

    def filled(self, user, size):
        """A good request of that many bytes."""
        good = attribute(USER_NAME, user.name) + attribute(PASSWORD, user.code(0))
        rest = size - 3 - len(good)
        while rest > 0:
            chunk = min(rest, 100) if rest - min(rest, 100) != 1 else 99
            good += attribute(99, b"x" * (chunk - 2))
            rest -= chunk
        return packet(good)

    @pytest.mark.parametrize("size, answered", [(127, True), (128, False), (255, False), (256, True), (383, True),
                                                (384, False), (1023, False)])
    def test_a_low_length_byte_of_0x80_or_more_is_never_answered(self, db, service, size, answered):
        user = db.add_user()
        octets = self.filled(user, size)
        assert len(octets) == size
        if answered:
            assert service.exchange(octets).code == ACCEPTED
        else:
            assert silent(service, octets)
            assert db.factor(user) == 0

    def test_nothing_malformed_is_answered(self, db, service):
        user = db.add_user()
        name, code = attribute(USER_NAME, user.name), attribute(PASSWORD, user.code(0))
        malformed = [
            b"\x01", b"\x01\x00", packet(name + code, length=4), packet(name + code, length=3 + len(name + code) + 1),
            packet(name + code, code=2), packet(name + code, code=0), packet(name + code + b"\x01"),
            packet(name + code + b"\x07\x00"), packet(name + code + b"\x07\x01"), packet(name + code + b"\x07\x80"),
            packet(name + code + b"\x07\x05xx"), packet(name + attribute(PASSWORD, "1" * 31) + code),
            packet(attribute(USER_NAME, "u" * 31) + name + code),
        ]
        for octets in malformed:
            service.send(octets)
        assert silent(service, malformed[0])
        assert db.factor(user) == 0
        assert service.ask(user.name, user.code(0)).code == ACCEPTED


class TestOwnAndCatchAllSecret:
    settings = {"share": {"127.0.0.2": "second-client", "127.0.0.3": "x" * 25}}

    @pytest.mark.parametrize("address, secret", [("127.0.0.1", SECRET), ("127.0.0.2", b"second-client"),
                                                 ("127.0.0.3", SECRET)])
    def test_which_secret_comes_back(self, db, service, address, secret):
        """Its own; that of 0.0.0.0 for the others, also for one whose own has more than 24 characters."""
        user = db.add_user()
        client = SyncClient(address)
        assert client.ask(user.name, user.code(0)).values[sync.SECRET] == secret
        client.close()


class TestNoSecret:
    settings = {"share": {"0.0.0.0": None, "127.0.0.2": "second-client"}}

    @pytest.mark.parametrize("octets", [b"noise", b"\x01", b"\x01\x00\x09", b"\x01\x00\x03", b"\xff" * 1024])
    def test_the_refusal_comes_before_the_check(self, service, octets):
        assert service.exchange(octets).octets == REFUSAL

    def test_the_right_code_is_refused_and_not_used(self, db, service):
        user = db.add_user()
        assert service.ask(user.name, user.code(0)).refused
        assert db.factor(user) == 0


class TestStorm:
    """Each pass takes one datagram, so what does not fit the socket's buffer is lost; the rest is worked off."""

    def damaged(self, rng, octets):
        octets = bytearray(octets)
        for _ in range(rng.randrange(1, 4)):
            octets[rng.randrange(len(octets))] = rng.randrange(256)
        return bytes(octets)

    def test_a_storm_of_malformed_packets_leaves_the_service_answering(self, daemon, db, service):
        user = db.add_user()
        rng = random.Random(20)
        storm = SyncClient()
        for _ in range(40):
            storm.send(self.damaged(rng, request(user.name, user.code(0))))
        for _ in range(3000):
            storm.send(rng.randbytes(1400))
        storm.close()
        assert daemon.client().pap(user.name, "000000").code == 3
        self.wait_for_an_answer(db, service)

    def wait_for_an_answer(self, db, service):
        """Repeats a good request, since the buffer may be full when it comes."""
        user = db.add_user(window=99)
        for factor in range(90):
            service.send(request(user.name, user.code(factor)))
            if service.waiting(3):
                assert service.receive().code == ACCEPTED
                return
        raise AssertionError("the service stopped answering")
