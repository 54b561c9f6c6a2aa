"""Which clients are known, and by which secret."""

from testbed.radius import ACCEPT

ONE_WORKER = {"otp_maxthread": 1}
OWN = "own-secret-of-127.0.0.2"
CATCH_ALL = "secret-of-everybody-else"
LONGEST = "L" * 56


class TestKnownClients:
    settings = {
        "Radius Server": ONE_WORKER,
        "share": {"0.0.0.0": CATCH_ALL, "127.0.0.2": OWN, "127.0.0.3": LONGEST, "127.0.0.4": LONGEST + "L",
                  "127.0.0.5": "s"},
    }

    def accepts(self, daemon, address, secret):
        user = daemon.db.add_user()
        reply = daemon.client(address, secret.encode()).pap(user.name, user.code(0))
        return reply.code == ACCEPT and reply.valid

    def test_the_own_secret_of_an_address(self, daemon):
        assert self.accepts(daemon, "127.0.0.2", OWN)

    def test_an_address_without_an_entry_has_the_catch_all(self, daemon):
        assert self.accepts(daemon, "127.0.0.9", CATCH_ALL)

    def test_the_catch_all_does_not_serve_an_address_with_an_entry(self, daemon):
        """The reply is signed with the address's own secret, and the password does not come out right."""
        user = daemon.db.add_user()
        client = daemon.client("127.0.0.2", CATCH_ALL.encode())
        reply = client.ask(client.request().user(user.name).pap(user.code(0)))
        assert reply.code != ACCEPT and not reply.valid

    def test_a_secret_of_56_characters_is_taken(self, daemon):
        assert self.accepts(daemon, "127.0.0.3", LONGEST)

    def test_a_longer_secret_falls_back_to_the_catch_all(self, daemon):
        assert self.accepts(daemon, "127.0.0.4", CATCH_ALL)

    def test_a_secret_of_one_character(self, daemon):
        assert self.accepts(daemon, "127.0.0.5", "s")

    def test_the_replies_go_where_the_requests_came_from(self, daemon):
        """Two sockets at one address and one at another ask in turn; each gets its own answers only."""
        clients = [daemon.client("127.0.0.7", CATCH_ALL.encode()), daemon.client("127.0.0.7", CATCH_ALL.encode()),
                   daemon.client("127.0.0.8", CATCH_ALL.encode())]
        requests = [client.request(identifier=9).user("nobody").pap("1") for client in clients]
        for client, request in zip(clients, requests):
            client.send(request.bytes())
        for client, request in zip(clients, requests):
            octets = client.receive()
            assert octets[1] == 9 and len(octets) == 36
            assert not client.waiting()


class TestUnknownClients:
    settings = {"Radius Server": ONE_WORKER, "share": {"0.0.0.0": None, "127.0.0.2": OWN, "127.0.0.3": "x" * 57}}

    def is_silent(self, daemon, address, code=1):
        user = daemon.db.add_user()
        client = daemon.client(address, OWN.encode())
        witness = daemon.client("127.0.0.2", OWN.encode())
        before = daemon.db.everything()
        octets = client.request(code=code).user(user.name).pap(user.code(0)).bytes()
        return daemon.silent(client, octets, witness) and daemon.db.everything() == before

    def test_an_address_without_an_entry_gets_no_answer(self, daemon):
        assert self.is_silent(daemon, "127.0.0.1")

    def test_whatever_the_code(self, daemon):
        assert self.is_silent(daemon, "127.0.0.1", code=4)

    def test_nor_does_an_address_whose_secret_is_too_long(self, daemon):
        assert self.is_silent(daemon, "127.0.0.3")

    def test_the_known_one_is_served(self, daemon):
        user = daemon.db.add_user()
        assert daemon.client("127.0.0.2", OWN.encode()).pap(user.name, user.code(0)).code == ACCEPT


class TestNoSecretAtAll:
    settings = {"share": None}

    def test_the_server_starts_and_answers_nobody(self, daemon):
        """Without any client that gets answers, only a short wait can show the silence."""
        client = daemon.client()
        client.send(client.request().user("x").pap("y").bytes())
        assert not client.waiting(1.0)
