"""The orderly stop without mail: nobody reports that the mail thread has ended, so the wait takes its full minute."""

import time

import pytest


@pytest.mark.parametrize("need", [0, 2])
def test_without_a_mail_thread_it_takes_a_minute(prepare, need):
    daemon = prepare({"mail": {"otp_mail_need": need}}).start()
    user = daemon.db.add_user()
    daemon.client().pap(user.name, "000000")
    started = time.monotonic()
    daemon.stop(120)
    assert 59 <= time.monotonic() - started < 80
    assert daemon.server_messages() == ["server starting...", "Zelvan down..."]
    assert daemon.log_messages() == [f"{user.name} auth failed.Request from:127.0.0.1"]
