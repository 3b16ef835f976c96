"""One emulated device (l2vfib-emu), run and steered from Python.

A Device names a device directory and the l2vfib-emu binary. start() and
stop() run `l2vfib-emu start` and `stop` there; everything else speaks the
steering protocol itself: one JSON line in, one JSON line out, on a fresh
connection to emu.sock per request (docs/emulator.md, emu/steer.cpp lists
the requests). Every request asks to be answered only once the device has
read its services to their end ("sync"), so what a daemon sent before the
call has been applied when it returns.
"""
import contextlib
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import time

from .trace import TraceReader

STEERING = "emu.sock"
# The longest socket name in a device directory; sun_path holds 107 bytes.
_LONGEST_NAME = "node-0001.port-12566"
_SUN_PATH = 107


class DeviceError(Exception):
    """A request the device refused (the text is the device's own), or a
    device that is not there (the text names its directory)."""


class WaitTimeout(AssertionError):
    """A wait_for or wait_rows whose condition did not come true in time;
    the text ends with the tail of the device's log."""


def default_dir():
    """The device directory l2vfib-emu uses when given none."""
    for name, suffix in (("L2VFIB_DEVICE_DIR", ""), ("XDG_RUNTIME_DIR", "l2vfib")):
        value = os.environ.get(name)
        if value:
            return os.path.join(value, suffix) if suffix else value
    return f"/tmp/l2vfib-{os.getuid()}"


def fits(directory):
    """True when the device's socket names in directory fit a socket address."""
    return len(os.path.abspath(os.fspath(directory))) + 1 + len(_LONGEST_NAME) <= _SUN_PATH


def _flags(options):
    """start(**options) as command-line flags: capture="x.pcap" gives
    --capture x.pcap, foreground=True --foreground; False and None give
    nothing."""
    argv = []
    for name, value in options.items():
        flag = "--" + name.replace("_", "-")
        if value is True:
            argv.append(flag)
        elif value is not False and value is not None:
            argv += [flag, os.fspath(value) if isinstance(value, os.PathLike) else str(value)]
    return argv


def _key_text(key):
    """A row key as the table's key column shows it: "7/1" from (7, 1)."""
    if isinstance(key, (tuple, list)):
        return "/".join(str(part) for part in key)
    return str(key)


def _gone(pid):
    """True once pid has ended (a zombie nobody reaps counts as ended)."""
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as f:
            stat = f.read()
    except OSError:
        return True
    return stat[stat.rfind(")") + 2:][:1] in ("Z", "")


def _file_tail(path, lines):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read().splitlines()[-lines:]
    except OSError as e:
        return [f"({path}: {e.strerror})"]


class Device:
    """An emulated device in the directory dir.

    dir: the device directory, created 0700 when missing; by default the
    one l2vfib-emu itself uses ($L2VFIB_DEVICE_DIR, else
    $XDG_RUNTIME_DIR/l2vfib, else /tmp/l2vfib-UID).
    emu: the l2vfib-emu binary; by default $L2VFIB_EMU, else from PATH.
    """

    timeout = 10.0  # seconds one steering request may take

    def __init__(self, dir=None, emu=None):
        self.dir = os.path.abspath(os.fspath(dir)) if dir is not None else default_dir()
        emu = os.fspath(emu) if emu else os.environ.get("L2VFIB_EMU") or "l2vfib-emu"
        # A path stays right whatever the directory a daemon later runs in.
        self.emu = os.path.abspath(emu) if os.sep in emu else shutil.which(emu)
        self.pid = None  # the device's process while this Device runs it

    def __repr__(self):
        return f"Device({self.dir!r}, pid {self.pid})"

    @property
    def env(self):
        """os.environ with L2VFIB_DEVICE_DIR set: for a daemon run with subprocess."""
        return dict(os.environ, L2VFIB_DEVICE_DIR=self.dir)

    # -- running it -------------------------------------------------------

    def start(self, **options):
        """Runs `l2vfib-emu start` with options as flags (capture="x.pcap":
        --capture x.pcap) and returns once the device answers."""
        if not self.emu:
            raise DeviceError("no l2vfib-emu: give emu=, set $L2VFIB_EMU or put it on PATH")
        if not fits(self.dir):
            raise DeviceError(f"the device directory {self.dir} is too long for its sockets' names")
        try:
            os.mkdir(self.dir, 0o700)
            os.chmod(self.dir, 0o700)  # whatever the umask
        except FileExistsError:
            pass
        except OSError as e:
            raise DeviceError(f"cannot create the device directory {self.dir}: {e.strerror}") from None
        try:
            done = subprocess.run([self.emu, "start", *_flags(options)], env=self.env, stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True, timeout=30, check=False)
        except OSError as e:
            raise DeviceError(f"cannot run {self.emu}: {e.strerror}") from None
        except subprocess.TimeoutExpired:
            raise DeviceError(f"l2vfib-emu start in {self.dir} did not return within 30 s") from None
        if done.returncode != 0:
            raise DeviceError(f"l2vfib-emu start in {self.dir} exited {done.returncode}: "
                              f"{(done.stderr or done.stdout).strip()}")
        sock, self.pid = self._connect()
        sock.close()
        return self

    def stop(self):
        """Runs `l2vfib-emu stop`, then makes sure the device's process is
        gone (killed if need be). Quiet when no device runs."""
        if self.emu and os.path.isdir(self.dir):
            try:
                subprocess.run([self.emu, "stop"], env=self.env, stdin=subprocess.DEVNULL,
                               capture_output=True, timeout=15, check=False)
            except subprocess.TimeoutExpired:
                pass  # a device that does not answer: killed below
        if self.pid is not None and not _gone(self.pid):
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.pid, signal.SIGKILL)
            deadline = time.monotonic() + 5
            while not _gone(self.pid) and time.monotonic() < deadline:
                time.sleep(0.01)
        self.pid = None

    def answers(self):
        """True when a device runs in the directory and answers."""
        try:
            self.request("status")
        except DeviceError:
            return False
        return True

    def died(self):
        """True when the device this Device started has ended without stop()."""
        return self.pid is not None and _gone(self.pid)

    def __enter__(self):
        if self.pid is None:
            self.start()
        return self

    def __exit__(self, *exc):
        self.stop()

    # -- the steering protocol --------------------------------------------

    def _connect(self):
        """A steering connection and its peer's pid; the peer must be of this user."""
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.settimeout(self.timeout)
        try:
            sock.connect(os.path.join(self.dir, STEERING))
            pid, uid, _ = struct.unpack("3i", sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))
        except OSError as e:
            sock.close()
            raise DeviceError(f"no emulated device runs in {self.dir} ({e.strerror or e})") from None
        if uid != os.geteuid():
            sock.close()
            raise DeviceError(f"the steering socket in {self.dir} belongs to uid {uid}, not to this user")
        return sock, pid

    def _open(self, request):
        """Sends request on a fresh connection: (socket, answer, bytes after the answer line)."""
        sock, _ = self._connect()
        data = b""
        try:
            sock.sendall(json.dumps(request).encode() + b"\n")
            while b"\n" not in data:
                chunk = sock.recv(65536)
                if not chunk:
                    break
                data += chunk
        except OSError as e:
            sock.close()
            raise DeviceError(f"the emulated device in {self.dir} gave no answer ({e.strerror or e})") from None
        line, newline, rest = data.partition(b"\n")
        if not newline:
            sock.close()
            raise DeviceError(f"the emulated device in {self.dir} closed the connection without an answer")
        return sock, json.loads(line), rest

    def request(self, cmd, **fields):
        """One steering request ({"cmd": cmd, **fields}, sync): the answer as
        a dict. A refusal raises DeviceError with the device's error text."""
        sock, answer, _ = self._open({"cmd": cmd, "sync": True, **fields})
        sock.close()
        if not answer.get("ok"):
            raise DeviceError(answer.get("error", "refused"))
        return answer

    # -- reading it -------------------------------------------------------

    def count(self, table=None):
        """Rows per table as a dict, or one table's rows as an int."""
        rows = self.request("count", **({"table": table} if table else {}))["rows"]
        if table:
            return rows[0]["rows"]
        return {row["key"]: row["rows"] for row in rows}

    def rows(self, table):
        """A table's rows: one dict each, with the keys of `show TABLE --json`."""
        return self.request("show", table=table)["rows"]

    def row(self, table, key):
        """One row, by its key as shown ("7/1", or (7, 1), or 42), or None."""
        key = _key_text(key)
        try:
            return self.request("show", table=table, key=key)["rows"][0]
        except DeviceError as e:
            if str(e) == f"{table}: no row {key}":
                return None
            raise

    def counters(self):
        """The device's counters: name to int."""
        return {row["key"]: row["value"] for row in self.rows("counters")}

    def log(self):
        """The log ring: every message received and every log line, decoded."""
        return [row["text"] for row in self.rows("log")]

    def log_tail(self, lines=20):
        """The last lines of the log: the ring while the device answers, else emu.log."""
        try:
            return self.log()[-lines:]
        except DeviceError:
            return _file_tail(os.path.join(self.dir, "emu.log"), lines)

    # -- steering it: each the steering command of the same name ----------

    def fault(self, kind, **args):
        """fault("busy", ms=300), fault("busy", state="off"), fault("slow", us=100),
        fault("drop", count=2), fault("restart"), fault("clear")."""
        self.request("fault", fault=kind, **args)

    def notice(self, value):
        """A notice to every daemon's service socket; returns how many got it."""
        return self.request("notice", value=value)["sent"]

    def event(self, type, tag=0, words=(), mask=None, hex=None):
        """An event item of type 2, 3 or 6 to every channel registered for it
        (with mask: whose mask shares a bit); words fill its record in order,
        or hex (bytes or a hex string) gives its value. Returns how many got it."""
        fields = {"type": type, "tag": tag, "words": list(words)}
        if mask is not None:
            fields["mask"] = mask
        if hex is not None:
            fields["hex"] = hex.hex() if isinstance(hex, (bytes, bytearray)) else hex
        return self.request("event", **fields)["sent"]

    def answer(self, code, result):
        """The result an answered command code gets (None: back to 0)."""
        self.request("answer", code=code, result=result)

    def node(self, node, state="up"):
        """A node up, down, or "remove"d from the node list."""
        self.request("node", node=node, state=state)

    def tunnel_mode(self, ifindex, mode):
        """The tunnel mode of an interface (None forgets it)."""
        self.request("tunnel-mode", ifindex=ifindex, mode=mode)

    def caps(self, **fills):
        """Capability counts: caps(fill13=4)."""
        self.request("caps", **fills)

    def ident(self, next):
        """The next identifier to allocate."""
        self.request("ident", next=next)

    def log_messages(self, on):
        """Every message received also logged as a decoded line, or not."""
        self.request("log", messages=bool(on))

    def clear(self):
        """Empties every table and the counters."""
        self.request("clear")

    # -- following it -----------------------------------------------------

    @contextlib.contextmanager
    def trace(self, buffer=None):
        """Follows the device: yields a list that fills, as they happen, with
        one dict per datagram the device receives or sends (l2vfib_emu.trace
        tells what a record holds). On leaving, the records of everything the
        device had read by then are in the list."""
        request = {"cmd": "trace", **({"buffer": buffer} if buffer else {})}
        sock, answer, rest = self._open(request)
        if not answer.get("ok"):
            sock.close()
            raise DeviceError(answer.get("error", "refused"))
        reader = TraceReader(sock, rest)
        try:
            yield reader.records
        finally:
            with contextlib.suppress(DeviceError):
                self.request("status")  # answered once the services are read to their end
            reader.finish()
        if reader.error:
            raise DeviceError(f"the trace of the device in {self.dir}: {reader.error}")

    def wait_for(self, predicate, timeout=5.0, interval=0.02):
        """Calls predicate until it returns something true, and returns that.
        Fails with WaitTimeout (the log's tail in its text) after timeout
        seconds, and with DeviceError as soon as the device has died."""
        deadline = time.monotonic() + timeout
        while True:
            value = predicate()
            if value:
                return value
            if self.died():
                raise DeviceError(f"the emulated device in {self.dir} died (pid {self.pid}); its log's tail:\n"
                                  + "\n".join(self.log_tail()))
            if time.monotonic() >= deadline:
                raise WaitTimeout(f"not true within {timeout} s: {predicate!r}; the device's log's tail:\n"
                                  + "\n".join(self.log_tail()))
            time.sleep(interval)

    def wait_rows(self, table, n, timeout=5.0):
        """Waits until table holds n rows, and returns them. Fails with the
        table's count and the log's tail when they do not arrive in time."""
        counted = []

        def arrived():
            counted.append(self.count(table))
            return counted[-1] == n

        try:
            self.wait_for(arrived, timeout)
        except WaitTimeout:
            raise WaitTimeout(f"{table}: {counted[-1]} rows, not {n}, after {timeout} s; the device's log's tail:\n"
                              + "\n".join(self.log_tail())) from None
        return self.rows(table)
