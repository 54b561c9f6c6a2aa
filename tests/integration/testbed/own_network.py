"""A network of the test process's own, for servers with a fixed port."""

import ctypes
import fcntl
import os
import socket
import struct

import pytest

_CLONE_NEWUSER, _CLONE_NEWNET = 0x10000000, 0x40000000
_SIOCSIFFLAGS, _IFF_UP = 0x8914, 1
_entered = False


def _unshare():
    libc = ctypes.CDLL(None, use_errno=True)
    user, group = os.geteuid(), os.getegid()
    if user == 0 and libc.unshare(_CLONE_NEWNET) == 0:
        return
    if libc.unshare(_CLONE_NEWUSER | _CLONE_NEWNET) != 0:
        error = os.strerror(ctypes.get_errno())
        pytest.skip(f"port 8801 is fixed and no network namespace can be made: {error}", allow_module_level=True)
    for name, text in (("setgroups", "deny"), ("uid_map", f"{user} {user} 1"), ("gid_map", f"{group} {group} 1")):
        with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
            file.write(text)


def _raise_loopback():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, _SIOCSIFFLAGS, struct.pack("16sh22x", b"lo", _IFF_UP))


def enter():
    """Moves this process, and all it starts from now on, to a network with nothing but a loopback interface.

    Skips the module where the system does not allow that.
    """
    global _entered
    if not _entered:
        _unshare()
        _raise_loopback()
        _entered = True
