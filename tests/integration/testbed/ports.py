"""UDP and TCP ports that no other test uses, also not one that runs in another process."""

import random
import socket

_reservations = []


def _reserve(port):
    """Marks the port as taken for the life of this process; an abstract socket name is free again when we end."""
    mark = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    try:
        mark.bind(f"\0zelvan-test-port-{port}")
        for kind in (socket.SOCK_DGRAM, socket.SOCK_STREAM):
            with socket.socket(socket.AF_INET, kind) as probe:
                probe.bind(("0.0.0.0", port))
    except OSError:
        mark.close()
        return False
    _reservations.append(mark)
    return True


def free_port():
    """A port below the range from which the kernel takes client ports."""
    while True:
        port = random.randrange(20000, 32000)
        if _reserve(port):
            return port


def claim(port):
    """Reserves one given port; returns whether it was free."""
    return _reserve(port)
