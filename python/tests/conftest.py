"""What the package's tests share: datagrams a daemon would send, sent from
a socket of the test's own, and the pytest runs of a test file of theirs."""
import os
import socket
import subprocess
import sys

import pytest

from l2vfib_emu import Device

pytest_plugins = ["l2vfib_emu.pytest_plugin"]

PACKAGE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def pw_add(id, sub=1):
    """A pseudowire add (object type 3, opcode 5): item 10 its key, item 13 its attributes."""
    return bytes.fromhex(
        "0003 0034 0000 0508 000a 0008" + f"{id:08x}{sub:04x}0000" + "000d 0024"
        "0102030405060708 000000000000002a 000005dc 000a 0014 001e 0100 ffffffffffffffff")


def send(device, *datagrams):
    """Sends each datagram to the forwarding service from one fresh socket;
    returns that socket (the device's answers come back on it)."""
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    sock.connect(os.path.join(device.dir, "node-8000.port-2670"))
    for datagram in datagrams:
        sock.send(datagram)
    return sock


@pytest.fixture
def emu(request):
    """The l2vfib-emu binary the outer session uses."""
    return Device(emu=request.config.getoption("l2vfib_emu")).emu


@pytest.fixture
def run_pytest(tmp_path, emu):
    """Starts pytest, with this plugin, on a test file of the given text:
    run_pytest(text) returns the Popen (stdout piped, text)."""
    def start(text, name="test_inner.py", env=None, plugin=True):
        folder = tmp_path / name.removesuffix(".py")
        folder.mkdir()
        (folder / name).write_text(text)
        argv = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", f"--rootdir={folder}", f"--basetemp={folder}/t",
                *(["-p", "l2vfib_emu.pytest_plugin"] if plugin else []), "--l2vfib-emu", emu, str(folder / name)]
        env = dict(os.environ if env is None else env)
        env.setdefault("PYTHONPATH", PACKAGE)
        return subprocess.Popen(argv, cwd=folder, env=env, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
    return start
