"""Which database engine the tests run on: environment ZELVAN_ENGINE, sqlite unless set."""

import os

SQLITE, POSTGRESQL, MARIADB = "sqlite", "postgresql", "mariadb"
ENGINES = (SQLITE, POSTGRESQL, MARIADB)


def chosen():
    """The engine of this run."""
    name = os.environ.get("ZELVAN_ENGINE", SQLITE)
    assert name in ENGINES, f"ZELVAN_ENGINE is {name}, not one of {ENGINES}"
    return name
