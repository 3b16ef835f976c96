"""pytest plugin: an emulated device per test.

Loaded with `-p l2vfib_emu.pytest_plugin`, or by itself once the package is
installed (its pytest11 entry point). It provides

  l2vfib_device   a started Device in its own directory, tmp_path/device,
                  stopped after the test; run a daemon against it with
                  subprocess and env=l2vfib_device.env. (Where that path is
                  too long for a socket's name, tmp_path/device links to a
                  short directory in $TMPDIR, removed after the test.)

and the option --l2vfib-emu PATH (else $L2VFIB_EMU, else PATH). A device
that dies during a test fails that test; a failing test's report has a
section with the tail of the device's log. A session that ends before its
teardown (a test-timeout plugin's os._exit, SIGKILL) leaves no device
running: a reaper process of its own stops them (l2vfib_emu.reaper). Tests
in separate directories (tmp_path is per test) run in parallel, under
pytest-xdist or as separate pytest runs, without meeting.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import time

import pytest

from . import reaper
from .device import Device, fits

_DEVICE = pytest.StashKey[Device]()
_REPORTED = pytest.StashKey[bool]()
_REAPER = pytest.StashKey[subprocess.Popen]()


def pytest_addoption(parser):
    group = parser.getgroup("l2vfib-emu", "the emulated device")
    group.addoption("--l2vfib-emu", metavar="PATH", default=None,
                    help="the l2vfib-emu binary for l2vfib_device (default: $L2VFIB_EMU, else PATH)")


def _tell_reaper(config, device, line):
    """Lists a running device with the session's reaper, started at first use."""
    proc = config.stash.get(_REAPER, None)
    if proc is None:
        proc = subprocess.Popen([sys.executable, reaper.__file__, os.path.basename(device.emu)],
                                stdin=subprocess.PIPE, text=True, start_new_session=True)
        config.stash[_REAPER] = proc
    proc.stdin.write(line + device.dir + "\n")
    proc.stdin.flush()


def pytest_unconfigure(config):
    proc = config.stash.get(_REAPER, None)
    if proc is not None:
        proc.stdin.close()
        proc.wait()


def _lost(device):
    """Why the device this fixture started is lost (it died, or does not
    answer), or None. A request after a kill fails, so a device killed
    during the test is lost by the time its report is made."""
    if device.pid is None or device.answers():
        return None
    deadline = time.monotonic() + 1
    while not device.died() and time.monotonic() < deadline:
        time.sleep(0.01)
    what = "died" if device.died() else "stopped answering"
    return f"the emulated device in {device.dir} {what} during the test (pid {device.pid})"


def _device_dir(tmp_path):
    """tmp_path/device; where that is too long for the device's socket
    names, a short directory in the temporary directory, which
    tmp_path/device links to. Returns the directory and whether it is the
    short one."""
    device = tmp_path / "device"
    if fits(device):
        return device, False
    short = tempfile.mkdtemp(prefix="l2vfib-")
    device.symlink_to(short)
    return short, True


@pytest.fixture
def l2vfib_device(request, tmp_path):
    """A started emulated device in tmp_path/device, stopped after the test."""
    directory, short = _device_dir(tmp_path)
    if short:
        request.addfinalizer(lambda: shutil.rmtree(directory, ignore_errors=True))
    device = Device(directory, emu=request.config.getoption("l2vfib_emu"))
    request.node.stash[_DEVICE] = device
    if device.emu:
        _tell_reaper(request.config, device, "+")
    device.start()
    yield device
    lost = None if request.node.stash.get(_REPORTED, False) else _lost(device)
    tail = device.log_tail() if lost else []
    device.stop()
    _tell_reaper(request.config, device, "-")
    if lost:
        pytest.fail(lost + "; its log's tail:\n" + "\n".join(tail), pytrace=False)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A test during which its device died fails; a failing test's report
    shows the tail of the device's log."""
    outcome = yield
    report = outcome.get_result()
    device = item.stash.get(_DEVICE, None)
    if device is None:
        return
    lost = _lost(device) if report.when == "call" else None
    if lost:
        item.stash[_REPORTED] = True
        if not report.failed:
            report.outcome = "failed"
            report.longrepr = lost
    # (A teardown that fails for a lost device says the tail itself.)
    if report.failed and report.when != "teardown":
        report.sections.append((f"l2vfib-emu log (tail) of {device.dir}", "\n".join(device.log_tail())))
