"""Requests that end before the user is looked up, the reply for users that do not exist, and the limits next to them."""

import pytest

from testbed.radius import ACCEPT, CHAP_CHALLENGE, CHAP_PASSWORD, USER_NAME, USER_PASSWORD, VENDOR, attribute


class TestMalformedAttributes:
    settings = {"options": {"otp_logmode": 0}}

    @pytest.mark.parametrize("octets", [
        pytest.param(attribute(USER_NAME, b""), id="User-Name of length 2"),
        pytest.param(attribute(USER_NAME, b"u" * 20), id="User-Name of 20 bytes"),
        pytest.param(attribute(USER_NAME, b"u" * 253), id="User-Name of 253 bytes"),
        pytest.param(attribute(CHAP_PASSWORD, b"x" * 16), id="CHAP-Password of length 18"),
        pytest.param(attribute(CHAP_PASSWORD, b"x" * 18), id="CHAP-Password of length 20"),
        pytest.param(attribute(CHAP_CHALLENGE, b"x" * 4), id="CHAP-Challenge of length 6"),
        pytest.param(attribute(CHAP_CHALLENGE, b"x" * 127), id="CHAP-Challenge of length 129"),
        pytest.param(attribute(CHAP_CHALLENGE, b"x" * 253), id="CHAP-Challenge of length 255"),
        pytest.param(bytes([VENDOR, 0]), id="length 0"),
        pytest.param(bytes([VENDOR, 1]), id="length 1"),
        pytest.param(bytes([VENDOR, 3]), id="one byte past the end"),
        pytest.param(bytes([USER_PASSWORD, 255]), id="far past the end"),
        pytest.param(bytes([VENDOR]), id="type without length"),
    ])
    def test_rejected_without_a_trace(self, db, client, octets):
        """A good request with one bad attribute behind it: 20 bytes, and no row changes."""
        user = db.add_user()
        before = db.everything()
        assert client.ask(client.request().user(user.name).pap(user.code(0)).raw(octets)).plain_reject
        assert db.everything() == before

    def test_it_is_the_walk_that_rejects_not_the_user(self, client):
        """Also for a user that does not exist the reply stays plain: nobody was looked up."""
        assert client.ask(client.request().user("nobody").raw(bytes([VENDOR, 0]))).plain_reject

    @pytest.mark.parametrize("kind", [VENDOR, 4, 18, 79, 80, 255])
    def test_other_attributes_are_skipped(self, db, client, kind):
        user = db.add_user()
        request = client.request().add(kind, b"").user(user.name).add(kind, b"\x01\x02" * 30).pap(user.code(0))
        assert client.ask(request.add(kind, b"x" * 16)).code == ACCEPT

    @pytest.mark.parametrize("name", ["u", "n" * 19])
    def test_names_of_1_and_19_bytes_are_served(self, db, client, name):
        user = db.add_user(name)
        assert client.pap(user.name, user.code(0)).code == ACCEPT

    def test_of_two_names_the_later_counts(self, db, client):
        first, second = db.add_user("the-first-long-name"), db.add_user("second")
        request = client.request().user(first.name).user(second.name).pap(second.code(0))
        assert client.ask(request).code == ACCEPT
        assert (db.factor(first), db.factor(second)) == (0, 1)

    @pytest.mark.parametrize("size", [0, 1, 15, 17, 128, 129, 144, 253])
    def test_a_password_field_of_any_size_is_a_wrong_password(self, db, client, size):
        user = db.add_user()
        request = client.request().user(user.name).add(USER_PASSWORD, b"\xa5" * size)
        assert client.ask(request).plain_reject
        assert db.user(user)["failaccum"] == 1 and db.factor(user) == 0


class TestUnknownUser:
    settings = {"options": {"otp_logmode": 0}}

    def test_the_reply_says_so_and_covers_20_bytes_and_the_secret_only(self, daemon, db, client):
        """Access-Reject of 36 bytes, whose digest does not reach over the Reply-Message as a client expects."""
        before = db.everything()
        reply = client.ask(client.request().user("nobody").pap("123456"))
        assert reply.unknown_user
        assert reply.octets[20:] == b"\x12\x10USER NOT EXIST"
        assert not reply.valid
        assert db.everything() == before

    def test_no_log_line_and_no_row(self, prepare):
        daemon = prepare().start()
        daemon.client().pap("nobody", "123456")
        daemon.stop()
        assert daemon.log_messages() == [] and daemon.db.audit() == []

    @pytest.mark.parametrize("deleted", [1, 2, -1])
    def test_a_deleted_user_does_not_exist(self, db, client, deleted):
        user = db.add_user(deleted=deleted)
        assert client.pap(user.name, user.code(0)).unknown_user
        assert db.factor(user) == 0

    def test_a_user_without_a_token_row_does_exist(self, db, client):
        user = db.add_user(token=False)
        assert client.pap(user.name, user.code(0)).plain_reject
        assert db.user(user)["failaccum"] == 1

    def test_names_differ_by_case(self, db, client):
        user = db.add_user("Camilla")
        assert client.pap("camilla", user.code(0)).unknown_user

    def test_no_name_at_all(self, client):
        assert client.ask(client.request().pap("123456")).unknown_user


class TestShortSecret:
    settings = {"share": {"0.0.0.0": "short"}}

    def test_a_secret_of_less_than_16_bytes_leaves_the_digest_inside_the_message(self, daemon):
        client = daemon.client(secret=b"short")
        reply = client.ask(client.request().user("nobody").pap("123456"))
        assert reply.unknown_user and not reply.valid
