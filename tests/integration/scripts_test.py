"""The include check of scripts/lint finds what it is there to find."""

import subprocess
from pathlib import Path

import pytest

pytestmark = pytest.mark.engines("sqlite", reason="needs no database")

CHECK = Path(__file__).resolve().parents[2] / "scripts" / "check-includes"


def check(root, files):
    for name, includes in files.items():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("".join(f'#include "{target}"\n' for target in includes))
    return subprocess.run([CHECK, root], capture_output=True, text=True, check=False)


GOOD = {"base/a.h": [], "otp/o.h": ["base/a.h"], "db/time_text.h": ["base/a.h"], "db/d.h": ["db/time_text.h"],
        "mail/m.h": ["db/time_text.h"], "auth/x.cpp": ["db/d.h", "otp/o.h"], "server/s.cpp": []}


def test_downward_includes_pass(tmp_path):
    assert check(tmp_path, GOOD).returncode == 0


@pytest.mark.parametrize("bad, said", [
    ({"base/b.h": ["otp/o.h"]}, "base/b.h: includes otp/o.h"),
    ({"mail/n.h": ["db/d.h"]}, "mail/n.h: includes db/d.h"),
    ({"pool/p.h": ["db/time_text.h"]}, "pool/p.h: includes db/time_text.h"),
    ({"db/e.h": ["db/f.h"], "db/f.h": ["db/e.h"]}, "cycle: db/e.h -> db/f.h -> db/e.h"),
    ({"base/c.h": ["base/c.h"]}, "cycle: base/c.h -> base/c.h"),
    ({"base/d.h": ["../otp/o.h"]}, "no file of src/"),
    ({"attic/z.h": ["base/a.h"]}, "attic stands on no floor"),
])
def test_what_is_wrong_is_named(tmp_path, bad, said):
    done = check(tmp_path, GOOD | bad)
    assert done.returncode == 1 and said in done.stdout


def test_nothing_to_check_is_no_success(tmp_path):
    assert check(tmp_path, {}).returncode == 1
