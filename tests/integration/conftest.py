"""Fixtures: a daemon for a class of tests, daemons of a test's own, and a client."""

import pytest

from testbed.daemon import Daemon


@pytest.fixture(scope="class")
def daemon(request, tmp_path_factory):
    """A running daemon with the `settings` of the test class; with `loose_tables` its tables check nothing."""
    changes = getattr(request.cls, "settings", {})
    instance = Daemon(tmp_path_factory.mktemp("zelvan"), changes, getattr(request.cls, "loose_tables", False))
    try:
        yield instance.start()
    finally:
        instance.finish()


@pytest.fixture
def db(daemon):
    return daemon.db


@pytest.fixture
def client(daemon):
    return daemon.client()


@pytest.fixture
def prepare(tmp_path):
    """Prepares daemons that the test starts itself: prepare({section: {key: value}}) -> Daemon."""
    made = []

    def make(changes=None, **options):
        made.append(Daemon(tmp_path / str(len(made)), changes, **options))
        return made[-1]

    yield make
    for instance in made:
        instance.finish()
