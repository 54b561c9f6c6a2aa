"""Fixtures: a daemon for a class of tests, daemons of a test's own, and a client."""

import os
from pathlib import Path

import pytest

from testbed import engine, servers
from testbed.daemon import Daemon

TOOLS = {"zelvanctl_": "zelvanctl", "zelvan_token_": "zelvan-token"}  # which a build may leave out

_shared = []


def pytest_configure(config):
    """Starts the database server before the first test, once for all processes of the run."""
    config.addinivalue_line("markers", "engines(*names, reason): runs on these database engines only")
    if not config.option.collectonly:
        _shared.append(servers.start_shared())


def pytest_unconfigure():
    for server in filter(None, _shared):
        server.remove()


def pytest_collection_modifyitems(items):
    for item in items:
        tool = next((tool for file, tool in TOOLS.items() if item.path.name.startswith(file)), None)
        if tool and not (Path(os.environ["ZELVAN_BIN_DIR"]) / tool).exists():
            item.add_marker(pytest.mark.skip(reason=f"{tool} is not built"))
        for mark in item.iter_markers("engines"):
            if engine.chosen() not in mark.args:
                item.add_marker(pytest.mark.skip(reason=mark.kwargs["reason"]))


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
