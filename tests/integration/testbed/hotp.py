"""One-time codes by RFC 4226, computed independently of the server."""

import hashlib
import hmac
import struct
import subprocess


def hotp(key, factor, digits=6):
    """The code of `factor` under the text `key`.

    Ten digits use 10^10 modulo 2^32, as the server does: the modulus is kept in 32 bits.
    """
    mac = hmac.new(key.encode(), struct.pack(">Q", factor), hashlib.sha1).digest()
    offset = mac[19] & 0x0F
    value = struct.unpack(">I", mac[offset : offset + 4])[0] & 0x7FFFFFFF
    return f"{value % (10**digits % 2**32):0{digits}d}"


def oathtool(key, factor, digits=6):
    """The same code from Debian's oathtool, which knows 6 to 8 digits."""
    command = ["oathtool", "--hotp", "-c", str(factor), "-d", str(digits), "-"]
    return subprocess.run(command, input=key.encode().hex(), capture_output=True, text=True, check=True).stdout.strip()
