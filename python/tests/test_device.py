"""Device against a running l2vfib-emu: reads, steering, faults, the trace."""
import os
import signal
import stat

import pytest

from conftest import pw_add, send
from l2vfib_emu import Device, DeviceError, WaitTimeout


# 100 datagrams of 20 pseudowires each, ids 0 to 1999: more than the device
# reads in one turn, so a read that did not wait for them all sees fewer.
BULK = [b"".join(pw_add(id) for id in range(first, first + 20)) for first in range(0, 2000, 20)]


def test_reads_what_a_daemon_sent(l2vfib_device):
    send(l2vfib_device, *BULK, pw_add(9, sub=2)).close()
    assert l2vfib_device.count("pw") == 2001
    assert l2vfib_device.count()["pw"] == 2001
    assert [row["key"] for row in l2vfib_device.rows("pw")[8:12]] == ["8/1", "9/1", "9/2", "10/1"]
    assert l2vfib_device.row("pw", (9, 2))["tlv13"]["attr32"] == 1500
    assert l2vfib_device.row("pw", "9/3") is None
    counters = l2vfib_device.counters()
    assert (counters["datagrams"], counters["messages"]) == (101, 2001)
    assert any("pw add id 9 subId 2" in line for line in l2vfib_device.log())


# One steering command a row: the call, then the table that shows it and
# the row it shows there.
STEERED = [
    (lambda d: d.answer(18, 0x40010001), "answer", {"key": "cfg 18", "result": "0x40010001"}),
    (lambda d: d.node(3, "up"), "node", {"key": "0x0003", "state": "up"}),
    (lambda d: d.tunnel_mode(7, 9), "tunnel-mode", {"key": "7", "mode": 9}),
    (lambda d: d.fault("drop", count=2), "counters", {"key": "fault-drop-left", "value": 2}),
    (lambda d: d.fault("slow", us=100), "counters", {"key": "fault-slow-us", "value": 100}),
    (lambda d: d.fault("busy", ms=60000), "counters", {"key": "fault-busy", "value": 1}),
]


@pytest.mark.parametrize("steer, table, shown", STEERED)
def test_steering_shows_in_its_table(l2vfib_device, steer, table, shown):
    steer(l2vfib_device)
    assert shown in l2vfib_device.rows(table)


def test_a_refused_request_carries_the_devices_text(l2vfib_device):
    with pytest.raises(DeviceError, match="^no table 'nope'$"):
        l2vfib_device.rows("nope")
    with pytest.raises(DeviceError, match="unknown fault 'melt'"):
        l2vfib_device.fault("melt")


def test_a_busy_spell_holds_the_rows_back_and_a_restart_empties_them(l2vfib_device):
    l2vfib_device.fault("busy")
    daemon = send(l2vfib_device, pw_add(1))  # open: a hung-up connection is not read while busy
    assert l2vfib_device.count("pw") == 0
    l2vfib_device.fault("busy", state="off")
    l2vfib_device.wait_rows("pw", 1)
    daemon.close()
    l2vfib_device.fault("restart")
    l2vfib_device.wait_rows("pw", 0)
    assert l2vfib_device.counters()["restarts"] == 1


def test_wait_rows_fails_with_the_count_and_the_log(l2vfib_device):
    send(l2vfib_device, pw_add(1)).close()
    with pytest.raises(WaitTimeout, match=r"(?s)^pw: 1 rows, not 2, after 0.2 s.*pw add id 1 subId 1"):
        l2vfib_device.wait_rows("pw", 2, timeout=0.2)


def test_the_trace_holds_each_datagram_in_and_out(l2vfib_device):
    with l2vfib_device.trace() as records:
        send(l2vfib_device, pw_add(5)).close()
        send(l2vfib_device, b"\x00\x63").close()  # not a message: answered with a failure
        send(l2vfib_device, *BULK).close()
    assert [(r["direction"], r["service"]) for r in records[:3]] == [
        ("in", "forwarding"), ("in", "forwarding"), ("out", "forwarding")]
    assert records[0]["peer"] != records[1]["peer"] == records[2]["peer"]
    assert [len(r["messages"]) for r in records[3:]] == [20] * 100
    pw = records[0]["messages"][0]
    assert (pw["objtype"], pw["opcode"], pw["byte7"]) == (3, 5, 8)
    assert pw["items"][0] == (10, bytes.fromhex("00000005 0001 0000"))
    assert records[1]["messages"] == []
    assert records[2]["messages"][0]["items"] == [(37, bytes.fromhex("40010001"))]


def test_start_makes_a_private_directory_and_takes_options(tmp_path, emu):
    device = Device(tmp_path / "a", emu=emu)
    with device.start(capture=tmp_path / "c.pcap"):
        assert stat.S_IMODE(os.stat(device.dir).st_mode) == 0o700
        send(device, pw_add(1)).close()
        device.count()
    with open(tmp_path / "c.pcap", "rb") as f:
        assert f.read(4) == bytes.fromhex("d4c3b2a1")  # pcap, little-endian
    assert device.pid is None
    with pytest.raises(DeviceError, match=f"no emulated device runs in {device.dir} "):
        device.count()


def test_a_device_that_died_ends_a_wait_at_once(l2vfib_device):
    os.kill(l2vfib_device.pid, signal.SIGKILL)
    with pytest.raises(DeviceError, match=f"the emulated device in {l2vfib_device.dir} died"):
        l2vfib_device.wait_for(lambda: False, timeout=60)
    l2vfib_device.stop()  # this test meant it to die
