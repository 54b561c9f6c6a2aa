"""What the integration tests share: a daemon on its own folder, database and port, and clients to speak to it.

daemon    starts, observes and stops one daemon
settings  the settings file of a test
database  the tables as an administrator sees them
engine    which database engine the tests run on
servers   database servers of the tests' own
radius    a byte-level RADIUS client
hotp      one-time codes, computed independently of the server
ports     ports that no other test uses
"""
