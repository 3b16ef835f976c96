"""The pytest plugin, seen from outside: pytest runs of test files that use
l2vfib_device, and what they report and leave behind."""
import glob
import os
import subprocess

import pytest

from l2vfib_emu import Device

# A test file's body a row: its one test's outcome, what its report shows,
# and what it must not show.
REPORTS = [
    ("os.kill(l2vfib_device.pid, signal.SIGKILL)", "1 failed",
     ["died during the test", "l2vfib-emu log (tail)", "the next 3 forwarding datagrams"], []),
    ("assert l2vfib_device.count('pw') == 1", "1 failed",
     ["assert 0 == 1", "l2vfib-emu log (tail)", "the next 3 forwarding datagrams"], ["died"]),
    ("assert l2vfib_device.count('pw') == 0", "1 passed", [], ["l2vfib-emu log"]),
]


@pytest.mark.parametrize("body, outcome, shown, absent", REPORTS)
def test_a_report_tells_of_the_device(run_pytest, body, outcome, shown, absent):
    proc = run_pytest("import os, signal\n\ndef test_it(l2vfib_device):\n"
                      f"    l2vfib_device.fault('drop', count=3)\n    {body}\n")
    output = proc.communicate(timeout=60)[0]
    assert output.splitlines()[-1].startswith(f"{outcome} in "), output
    for text in shown:
        assert text in output, output
    for text in absent:
        assert text not in output, output


def test_a_session_that_ends_abruptly_leaves_no_device(run_pytest, tmp_path):
    # As a test-timeout plugin ends a hung session: os._exit, no teardown.
    proc = run_pytest("import os\n\ndef test_hangs(l2vfib_device):\n"
                      f"    open({str(tmp_path / 'left')!r}, 'w').write(f'{{l2vfib_device.pid}} {{l2vfib_device.dir}}')\n"
                      "    os._exit(3)\n")
    assert proc.wait(timeout=60) == 3
    pid, directory = (tmp_path / "left").read_text().split(" ", 1)
    left = Device(directory)
    left.pid = int(pid)
    left.wait_for(left.died, timeout=20)


PARALLEL = """\
import os, pathlib

def test_meets_nobody(l2vfib_device):
    me, other = os.environ["ME"], os.environ["OTHER"]
    l2vfib_device.answer(18, int(me))
    (pathlib.Path(os.environ["MEET"]) / me).write_text(l2vfib_device.dir)
    l2vfib_device.wait_for(lambda: (pathlib.Path(os.environ["MEET"]) / other).exists(), timeout=30)
    assert l2vfib_device.rows("answer") == [{"key": "cfg 18", "result": hex(int(me))}]
    assert (pathlib.Path(os.environ["MEET"]) / other).read_text() != l2vfib_device.dir
"""


def test_two_sessions_at_once_do_not_meet(run_pytest, tmp_path):
    # Each waits until the other runs its device too.
    env = dict(os.environ, MEET=str(tmp_path))
    runs = [run_pytest(PARALLEL, name=f"test_{me}.py", env=dict(env, ME=me, OTHER=other))
            for me, other in (("1", "2"), ("2", "1"))]
    for proc in runs:
        output = proc.communicate(timeout=60)[0]
        assert output.splitlines()[-1].startswith("1 passed in "), output


def test_installed_the_plugin_loads_by_its_entry_point(run_pytest, tmp_path):
    build = os.environ.get("L2VFIB_BUILD_DIR")
    if not build:
        pytest.skip("L2VFIB_BUILD_DIR names no build to install")
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", build, "--prefix", str(prefix)], check=True, stdout=subprocess.DEVNULL)
    found = glob.glob(f"{prefix}/lib*/python3*/*-packages/l2vfib_emu/__init__.py")
    assert len(found) == 1, found
    env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(found[0])))
    proc = run_pytest("def test_it(l2vfib_device):\n    assert l2vfib_device.count('pw') == 0\n",
                      env=env, plugin=False)
    output = proc.communicate(timeout=60)[0]
    assert output.splitlines()[-1].startswith("1 passed in "), output
