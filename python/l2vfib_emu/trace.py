"""The device's live trace, read into dicts.

After the answer to {"cmd": "trace"}, the steering connection carries one
binary record per datagram the device receives or sends (emu/trace.h draws
the record). Each becomes a dict:

    time        wall-clock seconds (float)
    peer        the connection as the device names it ("@12", "control")
    direction   "in" (to the device) or "out" (from it)
    service     "forwarding", "event" or "control"
    datagram    the datagram's bytes
    messages    for the forwarding and event services, one dict per message
                (the header of src/msg/head.cpp): objtype, opcode, tag, byte7,
                ext (the 12-byte header's fourth word, else None) and items,
                a list of (type, value bytes) in wire order; the AC data
                answer's items are those inside its inner header. A datagram
                that does not split into whole messages ends its list at the
                fault. Control datagrams have none.

A record that the device dropped because the trace did not keep up is
{"time": ..., "dropped": N}, in place, before the next one that fits.
"""
import socket
import struct
import threading

_HEAD = struct.Struct(">IBBBBQ")  # size, kind, dir, service, peer length, time (us)
_MESSAGE = struct.Struct(">HHHBB")  # objType, payloadLen, tag, opcode, byte7
_ITEM = struct.Struct(">HH")  # type, length
SERVICES = ("forwarding", "event", "control")


def _head_size(objtype, service, from_device):
    """12 for the AC flag message and AC data query to the service, and the
    AC data answer from it; 8 for every other message."""
    if service != 0:
        return 8
    return 12 if objtype == 17 or (objtype == 16 and not from_device) else 8


def _items(data, start, end):
    items = []
    while start + _ITEM.size <= end:
        kind, length = _ITEM.unpack_from(data, start)
        if start + 4 + length > end:
            break
        items.append((kind, bytes(data[start + 4:start + 4 + length])))
        start += 4 + length
    return items


def messages(datagram, service, from_device):
    """The messages of a forwarding or event datagram, as far as they frame."""
    out, pos = [], 0
    while service != 2 and pos + _MESSAGE.size <= len(datagram):
        objtype, length, tag, opcode, byte7 = _MESSAGE.unpack_from(datagram, pos)
        head = _head_size(objtype, service, from_device)
        end = pos + head + length
        if end > len(datagram):
            break
        ext = int.from_bytes(datagram[pos + 8:pos + 12], "big") if head == 12 else None
        first = pos + head
        if head == 12 and from_device and length >= 12:  # the answer wraps an 8-byte header
            first, end = pos + 20, min(end, pos + 20 + int.from_bytes(datagram[pos + 14:pos + 16], "big"))
        out.append({"objtype": objtype, "opcode": opcode, "tag": tag, "byte7": byte7, "ext": ext,
                    "items": _items(datagram, first, end)})
        pos = pos + head + length
    return out


def take_records(buffer):
    """Takes the whole records off the front of buffer (a bytearray) and
    returns them as dicts. Raises ValueError on bytes that cannot be a record."""
    records = []
    while len(buffer) >= _HEAD.size:
        size, kind, direction, service, peer_length, time_us = _HEAD.unpack_from(buffer)
        if kind > 1 or direction > 1 or service > 2 or size < _HEAD.size - 4 + peer_length:
            raise ValueError("the device sent a trace record that is not one")
        if len(buffer) < 4 + size:
            break
        body = bytes(buffer[_HEAD.size:4 + size])
        del buffer[:4 + size]
        if kind == 1:
            records.append({"time": time_us / 1e6, "dropped": int.from_bytes(body, "big")})
            continue
        datagram = body[peer_length:]
        records.append({"time": time_us / 1e6, "peer": body[:peer_length].decode(errors="replace"),
                        "direction": "out" if direction else "in", "service": SERVICES[service],
                        "datagram": datagram, "messages": messages(datagram, service, direction == 1)})
    return records


class TraceReader:
    """Reads a trace connection on a thread of its own into records, a list."""

    QUIET = 0.05  # seconds without a record after which finish() ends

    def __init__(self, sock, pending):
        self.records = []
        self.error = None
        self._sock = sock
        self._buffer = bytearray(pending)
        self._finishing = threading.Event()
        self._sock.settimeout(self.QUIET)
        self._take()
        self._thread = threading.Thread(target=self._run, name="l2vfib-emu trace", daemon=True)
        self._thread.start()

    def _take(self):
        try:
            self.records.extend(take_records(self._buffer))
        except ValueError as e:
            self.error = str(e)

    def _run(self):
        while self.error is None:
            try:
                chunk = self._sock.recv(1 << 16)
            except socket.timeout:
                if self._finishing.is_set():
                    break
                continue
            except OSError as e:
                self.error = e.strerror
                break
            if not chunk:
                break  # the device stopped
            self._buffer += chunk
            self._take()

    def finish(self):
        """Reads until the connection has been quiet a moment, then closes it."""
        self._finishing.set()
        self._thread.join()
        self._sock.close()
