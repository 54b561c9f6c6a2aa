"""A network of the test process's own, and a cable from it to that of another process."""

import ctypes
import fcntl
import os
import socket
import struct
import subprocess

import pytest

_CLONE_NEWUSER, _CLONE_NEWNET = 0x10000000, 0x40000000
_SIOCSIFFLAGS, _IFF_UP = 0x8914, 1
_entered = False


def _unshare(reason):
    libc = ctypes.CDLL(None, use_errno=True)
    user, group = os.geteuid(), os.getegid()
    if user == 0 and libc.unshare(_CLONE_NEWNET) == 0:
        return
    if libc.unshare(_CLONE_NEWUSER | _CLONE_NEWNET) != 0:
        error = os.strerror(ctypes.get_errno())
        pytest.skip(f"{reason} and no network namespace can be made: {error}", allow_module_level=True)
    for name, text in (("setgroups", "deny"), ("uid_map", f"{user} {user} 1"), ("gid_map", f"{group} {group} 1")):
        with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
            file.write(text)


def _raise_loopback():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, _SIOCSIFFLAGS, struct.pack("16sh22x", b"lo", _IFF_UP))


def enter(reason="port 8801 is fixed"):
    """Moves this process, and all it starts from now on, to a network with nothing but a loopback interface.

    Skips the module where the system does not allow that; the reason says what the network is for.
    """
    global _entered
    if not _entered:
        _unshare(reason)
        _raise_loopback()
        _entered = True


class Cable:
    """A cable between the network of this process and that of another one, which a pulled plug makes dead without a word.

    The plug is pulled at the far end.  The near end keeps the far one's hardware address: a host behind a router is not missed
    by its neighbours either.
    """

    NEAR, FAR = "10.77.0.1", "10.77.0.2"
    _near, _far, _hardware = "zelvan0", "zelvan1", "02:00:00:00:00:02"

    def __init__(self, pid):
        """Skips the test where the system does not allow that."""
        self._there = ["nsenter", f"--net=/proc/{pid}/ns/net"]
        made = subprocess.run(["ip", "link", "add", self._near, "type", "veth", "peer", "name", self._far, "address",
                               self._hardware, "netns", str(pid)], capture_output=True, text=True, check=False)
        if made.returncode != 0:
            pytest.skip(f"no cable to another network can be made: {made.stderr}")
        self._run("ip", "address", "add", f"{self.NEAR}/30", "dev", self._near)
        self._run(*self._there, "ip", "address", "add", f"{self.FAR}/30", "dev", self._far)
        self._run("ip", "link", "set", self._near, "up")
        self.plug(True)
        self._run("ip", "neighbour", "replace", self.FAR, "lladdr", self._hardware, "dev", self._near, "nud", "permanent")

    @staticmethod
    def _run(*command):
        subprocess.run(command, check=True)

    def plug(self, connected):
        self._run(*self._there, "ip", "link", "set", self._far, "up" if connected else "down")

    def remove(self):
        self._run("ip", "link", "delete", self._near)
