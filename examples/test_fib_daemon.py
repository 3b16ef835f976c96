"""A daemon's test against an emulated device of its own: the example daemon
(examples/fib_daemon.c) loads its tables, keeps them through a busy spell,
and programs them all again after the service restarts under it.

    PYTHONPATH=python pytest -p l2vfib_emu.pytest_plugin \\
        --l2vfib-emu build/emu/l2vfib-emu examples/test_fib_daemon.py

(Installed, the plugin loads by itself.) $FIB_DAEMON names another daemon.
"""
import os
import subprocess

import pytest

DAEMON = os.environ.get("FIB_DAEMON", "build/examples/fib_daemon")


@pytest.fixture
def daemon(l2vfib_device):
    """The daemon, run against the device; it leaves once it has handled a
    notice and an event."""
    proc = subprocess.Popen([DAEMON, "30"], env=l2vfib_device.env, stdout=subprocess.PIPE, text=True)
    yield proc
    proc.kill()
    print(proc.communicate()[0])  # its output, in the report of a failing test


def test_the_daemon_loads_survives_busy_and_recovers(l2vfib_device, daemon):
    device = l2vfib_device
    device.wait_rows("reg", 1)  # registering for events is its last step
    assert [row["key"] for row in device.rows("pw")] == ["1/1", "2/1"]
    assert device.row("ebg", 42)["members"] == ["1", "2"]
    loaded = device.count()

    # Busy: the service stops reading. The daemon still gets notices, and
    # nothing it programmed is lost.
    device.fault("busy", ms=300)
    assert device.notice(42) == 1
    device.wait_for(lambda: device.counters()["fault-busy"] == 0)
    assert daemon.poll() is None
    assert device.count() == loaded

    # A restart empties every table and closes every connection: the
    # daemon opens again and programs the same state.
    device.fault("restart")
    device.wait_rows("reg", 1)
    assert device.count() == loaded
    counters = device.counters()
    assert (counters["busy-spells"], counters["restarts"]) == (1, 1)

    # Served again: an event, and it leaves content.
    assert device.event(3, words=[1, 2]) == 1
    assert daemon.wait(timeout=10) == 0
