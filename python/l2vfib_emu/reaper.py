"""Stops the devices a test session leaves behind, however the session ends.

Run as a process of its own (python3 reaper.py EMU_NAME), it reads device
directories from stdin, one a line: "+DIR" once a device runs there, "-DIR"
once it has been stopped. When stdin closes (the session's process ended,
even by os._exit or SIGKILL, as a test-timeout plugin may end it), each
device still listed is sent SIGTERM, then SIGKILL: the pid from its emu.pid,
and only while that pid still runs the binary named EMU_NAME.
"""
import contextlib
import os
import signal
import sys
import time


def _device_pid(directory, name):
    """The pid in directory/emu.pid while that process runs the emulator, else None."""
    try:
        with open(os.path.join(directory, "emu.pid"), encoding="ascii") as f:
            pid = int(f.read().strip())
        with open(f"/proc/{pid}/cmdline", "rb") as f:
            argv0 = f.read().split(b"\0")[0].decode(errors="replace")
    except (OSError, ValueError):
        return None
    return pid if os.path.basename(argv0) == name else None


def reap(directories, name, grace=5.0):
    pids = [pid for pid in (_device_pid(d, name) for d in directories) if pid]
    for pid in pids:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGTERM)
    deadline = time.monotonic() + grace
    while pids and time.monotonic() < deadline:
        time.sleep(0.05)
        pids = [pid for pid in pids if os.path.exists(f"/proc/{pid}")]
    for pid in pids:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)


def main():
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # Ctrl-C ends the session, not this
    listed = set()
    for line in sys.stdin:
        line = line.rstrip("\n")
        if line.startswith("+"):
            listed.add(line[1:])
        elif line.startswith("-"):
            listed.discard(line[1:])
    reap(listed, sys.argv[1])


if __name__ == "__main__":
    main()
