"""The settings file of a test: the defaults below, changed by what the test gives."""

import copy

SECRET = b"correct-horse-battery"  # longer than the 16 bytes of an attribute, as real secrets are
DSN = "zelvan"

_DEFAULTS = {
    "DataBase": {"otp_dsn": DSN, "otp_uid": "", "otp_pwd": ""},
    "Radius Server": {},
    "options": {},
    # With mail an orderly stop takes a second or two, without it a minute.
    "mail": {"otp_smtp_server": "127.0.0.1", "mail_from": "otp@example.org"},
    "share": {"0.0.0.0": SECRET.decode()},
}


def merged(changes, radius_port, smtp_port, login):
    """The sections of one settings file; `login` are the keys of the database's login.  A value of None removes the key, a section of None removes the section."""
    sections = copy.deepcopy(_DEFAULTS)
    sections["DataBase"].update(login)
    sections["Radius Server"]["radius_port"] = radius_port
    sections["mail"]["otp_smtp_port"] = smtp_port
    for name, keys in changes.items():
        if keys is None:
            sections.pop(name, None)
            continue
        section = sections.setdefault(name, {})
        section.update(keys)
        for key in [key for key, value in section.items() if value is None]:
            del section[key]
    return sections


def text(sections):
    """The settings file as text."""
    lines = []
    for name, keys in sections.items():
        lines.append(f"[{name}]")
        lines += [f"{key}={value}" for key, value in keys.items()]
    return "\n".join(lines) + "\n"
