#!/usr/bin/env python3
"""The Wireshark dissector and l2vfib-decode read captures alike.

  agree.py captures TOOLS CAPTURE...   the family tests and the example
                                       daemon run with captures, then every
                                       capture is read by both
  agree.py faults TOOLS                a capture of malformed datagrams: each
                                       gives its fault, at its offset, in both

TOOLS: --tshark, --dissector, --decode, and for `captures` --emu, --daemon,
--family-tests. Both must agree on every message: name, object type,
opcode, header, key, item types and lengths, and each decoded field's
value; on every datagram's first fault: its name, offset and text; tshark
must report no malformed packet and no Lua error.
"""
import argparse
import json
import os
import random
import struct
import subprocess
import sys
import tempfile
import time

# One datagram a row: service (0 forwarding, 1 event, 2 control), direction
# (0 to the device, 1 from it), its bytes, and the first fault each reader
# must report, at its offset in the datagram (in a control call's input for
# service 2), or None. The sound rows hold what the captures lack: IPv4 and
# IPv6 address blocks, codes told apart by their first item, padded and
# longer AC data entries.
FAULT_ROWS = [
    (0, 0, "00 1e 00 40 00 00 05 08 00 bb 00 3c 00 02 00 00 0a 00 00 01" + " 00" * 12 +
     " 00 0a 00 01 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 02 ab cd c0 a8 00 01" + " 00" * 11 + " 01", None, None),
    (0, 0, "00 29 00 10 00 00 05 08 00 ec 00 0c 00 00 00 01 00 00 00 02 00 03 00 00", None, None),
    (0, 1, "00 11 00 28 00 20 12 00 00 00 00 00 00 11 00 20 00 00 12 00 00 01 00 04 00 00 00 01"
     " 00 14 00 14 00 00 00 01 00 02 03 04 00 05 00 06 00 00 00 07 aa bb cc dd", None, None),
    (0, 0, "00 03 00 0c 00 00 07", "short-header", 0),
    (0, 0, "00 03 00 40 00 00 07 03 00 0a 00 08 00 00 00 07 00 01 00 00", "length-past-end", 2),
    (0, 0, "00 03 00 0c 00 00 07 03 00 0a 00 09 00 00 00 07 00 01 00 00", "truncated-item", 8),
    (0, 0, "00 07 00 00 00 00 04 08 00 63 00 00 00 00 05 00", "unknown-object-type", 8),
    (0, 0, "00 03 00 0c 00 00 09 03 00 0a 00 08 00 00 00 07 00 01 00 00", "unknown-opcode", 6),
    (0, 0, "00 03 00 0a 00 00 07 03 00 0a 00 06 00 00 00 07 00 01", "bad-item-length", 8),
    (0, 0, "00 03 00 0c 00 00 07 03 00 0a 00 08 00 00 00 07 00 01 00 ff", "bad-value", 19),
    (0, 0, "00 03 00 10 00 00 07 03 00 0a 00 08 00 00 00 07 00 01 00 00 00 63 00 00", "unexpected-item", 20),
    (0, 1, "00 11 00 0c 00 20 12 00 00 00 00 00 00 11 00 08 00 00 12 00 00 01 00 00", "length-past-end", 14),
    (1, 0, "00 15 00 00 00 00 05 00", "unknown-object-type", 0),
    # Required items: a slot left empty (at the next item, or the message's
    # end), a first item no format takes, and items the rules require.
    (0, 0, "00 03 00 00 00 00 07 03", "missing-item", 8),
    (0, 0, "00 06 00 18 00 00 05 00 00 14 00 08 00 00 00 07 00 01 00 00 00 90 00 08 00 01 00 02 00 03 00 04",
     "missing-item", 20),
    (0, 0, "00 01 00 00 00 00 17 08", "missing-item", 8),
    (0, 1, "00 01 00 00 00 00 01 08", "missing-item", 8),
    (1, 1, "00 14 00 08 00 00 00 00 00 07 00 04 00 00 00 01", "missing-item", 0),
    (0, 0, "00 0c 00 1c 00 00 05 02 00 28 00 08 00 00 00 07 00 01 00 00 00 2b 00 0c 00 00 00 03" + " 33" * 8,
     "missing-item", 0),
    (0, 0, "00 04 00 1c 00 00 02 08 00 14 00 08 00 00 00 07 00 01 00 00 00 15 00 0c 00 00 00 01 00 02 03 02"
     " 04 00 00 00", "missing-item", 0),
    (1, 0, "00 14 00 14 00 00 05 00 00 01 00 10 ff ff ff ff 00 00 00 00 00 00 00 00 10 10 00 03", "missing-item", 0),
    (1, 0, "00 14 00 20 00 00 05 00 00 01 00 10 ff ff ff ff 00 00 00 00 00 00 00 00 00 01 00 03"
     " 00 04 00 08 00 00 00 09 00 01 00 03", "unexpected-item", 0),
    # Header fields a direction or a format fixes, items that contradict
    # each other.
    (0, 0, "00 07 00 00 00 05 03 08", "bad-value", 4),
    (0, 0, "00 0e 00 0c 00 00 07 07 00 46 00 08 00 00 00 01 00 00 00 02", "bad-value", 7),
    (0, 0, "00 01 00 10 00 00 07 08 00 78 00 04 00 00 00 03 00 79 00 04 00 00 00 0a", "bad-value", 0),
    (0, 0, "00 04 00 38 00 00 01 08 00 14 00 08 00 00 00 07 00 01 00 00 00 15 00 0c 00 00 00 01 00 02 03 01"
     " 04 00 00 00 00 17 00 10 00 00 00 05 00 06 00 07 00 02 00 08 00 09 00 00 00 19 00 04 00 0a 00 0b",
     "bad-value", 0),
    # Codes of one first item, told apart by the next.
    (0, 0, "00 1c 00 0c 00 00 01 08 00 b5 00 04 00 00 00 01 00 b7 00 00", None, None),
    (1, 1, "00 14 00 0c 00 07 00 00 00 03 00 08 00 00 00 05 00 00 00 06", None, None),
    (2, 0, "01 01 00 00 00 00 00 07 00 00 80 00 00 44 00 05 00 00 00 00 00 00 00 02 00 05", "bad-item-length", 0),
]


def run(cmd, **kw):
    return subprocess.run(cmd, capture_output=True, text=True, **kw)


def write_pcap(path, records):
    with open(path, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65536, 147))
        for data in records:
            f.write(struct.pack("<IIII", 0, 0, len(data), len(data)) + data)


def read_pcap(path):
    """The records of a capture."""
    with open(path, "rb") as f:
        data = f.read()
    pos, records = 24, []
    while pos + 16 <= len(data):
        size = struct.unpack("<I", data[pos + 8:pos + 12])[0]
        records.append(data[pos + 16:pos + 16 + size])
        pos += 16 + size
    return records


def mutate(captures, path, count=4000, seed=23):
    """The captures' datagrams, a kind of message as often as another (the
    direction, object type, opcode and first item), each with a byte or two
    overwritten, dropped or added after the pseudo-header; as one capture."""
    kinds = {}
    for capture in captures:
        for r in read_pcap(capture):
            if 8 < len(r) <= 600:
                kinds.setdefault((r[:2], r[8:12], r[14:16], r[16:18]), []).append(r)
    rng, records = random.Random(seed), []
    for _ in range(count):
        r = bytearray(rng.choice(rng.choice(list(kinds.values()))))
        for _ in range(rng.randint(1, 3)):
            at, what = rng.randrange(8, len(r) + 1), rng.randrange(3)
            if what == 0 and at < len(r):
                r[at] = rng.choice([0, 1, 0xFF, rng.randrange(256)])
            elif what == 1 and at < len(r):
                del r[at]
            else:
                r.insert(at, rng.randrange(256))
        records.append(bytes(r))
    write_pcap(path, records)


# --- tshark's side ---------------------------------------------------------

def pairs(node):
    """The (key, value) pairs of a JSON object, duplicates kept in order."""
    return node if isinstance(node, list) else []


def walk_fields(node, prefix, out):
    """Item fields in order: (name, value), record labels prefixed."""
    label = None
    for key, value in pairs(node):
        if key == "l2vfib.tlv.record":
            if isinstance(value, list):  # a record without a value of its own
                walk_fields(value, prefix, out)
            else:
                label = value
        elif key == "l2vfib.tlv.record_tree":
            walk_fields(value, prefix + label + ".", out)
        elif key.startswith("l2vfib.tlv.") and key not in ("l2vfib.tlv.type", "l2vfib.tlv.len", "l2vfib.tlv.bytes"):
            out.append((prefix + key[len("l2vfib.tlv."):].split("_")[0], value))


def dissected(tree, messages, experts, bad):
    """Messages and faults of one packet's l2vfib tree, in order: each fault
    is its expert info's text, then the fields l2vfib.fault (its name) and
    l2vfib.fault.offset."""
    for key, value in pairs(tree):
        if key == "l2vfib.message":
            m = {"items": [], "direct": []}
            for k, v in pairs(value):
                if k == "l2vfib.tlv":
                    item = {"type": None, "len": None, "fields": []}
                    for ik, iv in pairs(v):
                        if ik == "l2vfib.tlv.type":
                            item["type"] = int(iv)
                        elif ik == "l2vfib.tlv.len":
                            item["len"] = int(iv)
                    walk_fields(v, "", item["fields"])
                    m["items"].append(item)
                elif k.startswith("l2vfib.tlv."):
                    walk_fields([(k, v)], "", m["direct"])
                elif k.startswith("l2vfib.") and not isinstance(v, list):
                    m.setdefault(k[len("l2vfib."):], v)
            messages.append(m)
            dissected(value, [], experts, bad)
        elif key == "_ws.expert":
            text = dict(pairs(value)).get("_ws.expert.message", "")
            experts.append({"code": None, "offset": None, "text": text})
            if "Lua Error" in text:
                bad.append(text)
        elif key == "l2vfib.fault" and experts:
            experts[-1]["code"] = value
        elif key == "l2vfib.fault.offset" and experts:
            experts[-1]["offset"] = int(value)
        elif key.startswith("_ws.lua.error"):
            bad.append(str(value))
        elif isinstance(value, list):
            dissected(value, messages, experts, bad)


def tshark(args, capture):
    r = run([args.tshark, "-X", "lua_script:" + args.dissector, "-r", capture, "-T", "json"])
    errors = [line for line in r.stderr.splitlines() if "Running as user" not in line and line.strip()]
    if r.returncode != 0 or errors:
        raise SystemExit(f"{capture}: tshark failed ({r.returncode}): " + "\n".join(errors))
    frames = {}
    for packet in json.loads(r.stdout, object_pairs_hook=list):
        layers = dict(pairs(dict(packet)["_source"]))["layers"]
        number = int(dict(dict(pairs(layers))["frame"])["frame.number"])
        messages, experts, bad = [], [], []
        malformed = any(k == "_ws.malformed" for k, _ in pairs(layers))
        dissected(dict(pairs(layers)).get("l2vfib", []), messages, experts, bad)
        frames[number] = {"messages": messages, "experts": experts, "bad": bad, "malformed": malformed}
    return frames


# --- l2vfib-decode's side --------------------------------------------------

def decoded(args, capture):
    r = run([args.decode, "--pcap", capture, "--json"])
    if r.returncode == 2:
        raise SystemExit(f"{capture}: l2vfib-decode failed: {r.stderr}")
    return {d["frame"]: d for d in map(json.loads, r.stdout.splitlines())}


def norm(value):
    """Both readers' spelling of one value: text without ':', '-' as empty."""
    text = str(value).lower()
    return "" if text == "-" else text.replace(":", "")


def compare_message(where, dec, wsh, problems):
    def differ(what, a, b):
        if a != b:
            problems.append(f"{where}: {what}: l2vfib-decode {a!r}, dissector {b!r}")
            return True
        return False

    if differ("name", dec["name"], wsh.get("name")):
        return
    if dec["kind"] != "control":
        for field, key in (("objType", "objtype"), ("opcode", "opcode"), ("payloadLen", "payloadlen"),
                           ("tag", "tag"), ("byte7", "byte7")):
            differ(field, dec[field], int(wsh.get(key, -1)))
        key = " ".join(f"{k} {v}" for k, v in dec["key"].items())
        if key:
            # The key's fields in the decoder's order are the key item's.
            item = next(i for i in dec["items"] if set(i["fields"]) == set(dec["key"]))
            key = " ".join(f"{k} {item['fields'][k]}" for k in item["fields"])
        differ("key", norm(key), norm(wsh.get("key", "")))
        differ("item types", [i["type"] for i in dec["items"]], [i["type"] for i in wsh["items"]])
        differ("item lengths", [len(i["value"]) // 2 for i in dec["items"]], [i["len"] for i in wsh["items"]])
        pairs_ = zip(dec["items"], [i["fields"] for i in wsh["items"]])
    else:
        pairs_ = [(dec["items"][0], wsh["direct"])]
    if "error" in dec:
        return  # fields past a fault differ in what each reader still reads
    for n, (item, fields) in enumerate(pairs_):
        got, seen = {}, {}
        for name, value in fields:
            # Records of one unnamed field: the decoder numbers them.
            k = seen.get(name, 0)
            seen[name] = k + 1
            got[f"{name}.{k}" if f"{name}.{k}" in item["fields"] else name] = value
        differ(f"item {n} ({item['type']}) fields", {k: norm(v) for k, v in item["fields"].items()},
               {k: norm(v) for k, v in got.items()})


def agree(args, capture):
    dec, wsh = decoded(args, capture), tshark(args, capture)
    problems = []
    differ_frames = sorted(set(dec) ^ set(wsh))
    if differ_frames:
        problems.append(f"frames read by one reader only: {differ_frames}")
    messages = 0
    for n in sorted(set(dec) & set(wsh)):
        d, w = dec[n], wsh[n]
        where = f"{os.path.basename(capture)} frame {n}"
        if w["bad"]:
            problems.append(f"{where}: Lua error: {w['bad']}")
        if "error" not in d and (w["malformed"] or w["experts"]):
            problems.append(f"{where}: dissector faults {w['experts']} on a sound datagram")
        elif "error" in d and (not w["experts"] or w["experts"][0] != d["error"]):
            problems.append(f"{where}: first fault: l2vfib-decode {d['error']}, dissector "
                            f"{w['experts'][0] if w['experts'] else None}")
        dm = d.get("messages", [])
        if len(dm) != len(w["messages"]):
            problems.append(f"{where}: {len(dm)} messages, dissector {len(w['messages'])}")
            continue
        for i, (a, b) in enumerate(zip(dm, w["messages"])):
            compare_message(f"{where} message {i}", a, b, problems)
        messages += len(dm)
    return messages, problems


# --- the two runs ------------------------------------------------------------

def record_captures(args, work):
    """The family tests and the example daemon, each device capturing."""
    env = dict(os.environ, L2VFIB_TEST_CAPTURE_DIR=work)
    r = run([args.family_tests], env=env)
    if r.returncode != 0:
        raise SystemExit("family tests failed:\n" + r.stdout[-3000:])
    device = os.path.join(work, "device")
    os.mkdir(device, 0o700)
    env = dict(os.environ, L2VFIB_DEVICE_DIR=device)
    capture = os.path.join(work, "daemon.pcap")
    emu = lambda *a: run([args.emu, *a], env=env)  # noqa: E731
    if emu("start", "--capture", capture).returncode != 0:
        raise SystemExit("l2vfib-emu did not start")
    try:
        daemon = subprocess.Popen([args.daemon, "10"], env=env, stdout=subprocess.DEVNULL)
        for _ in range(100):  # a notice and an event once it has registered
            if '"key"' in emu("show", "reg", "--json").stdout:
                break
            time.sleep(0.1)
        emu("notice", "0x2a")
        emu("event", "3", "--tag", "7", "-w", "1", "-w", "2", "-w", "3")
        if daemon.wait(timeout=30) != 0:
            raise SystemExit("fib_daemon failed")
    finally:
        emu("stop")
    return sorted(os.path.join(work, f) for f in os.listdir(work) if f.endswith(".pcap"))


def main():
    p = argparse.ArgumentParser()
    p.add_argument("mode", choices=["captures", "faults"])
    p.add_argument("captures", nargs="*")
    for tool in ("tshark", "dissector", "decode", "emu", "daemon", "family-tests"):
        p.add_argument("--" + tool)
    args = p.parse_intermixed_args()
    with tempfile.TemporaryDirectory(prefix="l2vfib-wireshark.") as work:
        problems = []
        if args.mode == "captures":
            captures = record_captures(args, work) + args.captures
            total = 0
            for capture in captures:
                messages, found = agree(args, capture)
                total += messages
                problems += found
            print(f"{len(captures)} captures, {total} messages read alike")
            if total == 0:
                problems.append("no message captured")
            corrupted = os.path.join(work, "corrupted.pcap")
            mutate(captures, corrupted)
            dec = decoded(args, corrupted)
            faulty = sum("error" in d for d in dec.values())
            messages, found = agree(args, corrupted)
            problems += found
            print(f"corrupted datagrams: {faulty} of {len(dec)} with a fault, {messages} messages read alike")
        else:
            capture = os.path.join(work, "faults.pcap")
            write_pcap(capture, [bytes([d, s, 0, 0, 0, 0, 0, 0]) + bytes.fromhex(h) for s, d, h, _, _ in FAULT_ROWS])
            dec, wsh = decoded(args, capture), tshark(args, capture)
            for n, (service, direction, data, code, offset) in enumerate(FAULT_ROWS, 1):
                error = dec[n].get("error")
                got_dec = (error["code"], error["offset"]) if error else (None, None)
                experts = wsh[n]["experts"]
                got_wsh = (experts[0]["code"], experts[0]["offset"]) if experts else (None, None)
                for who, got in (("l2vfib-decode", got_dec), ("dissector", got_wsh)):
                    if got != (code, offset):
                        problems.append(f"row {n} ({data}): {who} reports {got}, not {(code, offset)}")
            _, found = agree(args, capture)
            problems += found
            print(f"{len(FAULT_ROWS)} malformed datagrams")
        for problem in problems:
            print(problem)
        return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
