#!/usr/bin/env python3
"""The code blocks of README.md and docs/*.md, compiled and run as written.

    doc_blocks.py list SOURCE_DIR FILE...   one line per block: NAME LANGUAGE
    doc_blocks.py run NAME --source DIR --build DIR --cc CC --cxx CXX
                  --lib ARCHIVE... [--flag FLAG...]

A block is a fence whose info string is a language and at most one marker.
NAME is the file, relative to SOURCE_DIR, and the line of the opening fence
(README.md:57).

  ```c, ```cpp      a whole program. Compiled with -Wall -Wextra -Werror
                    against include/ and linked with the library and the host
                    platform, then run against an emulated device started in a
                    fresh device directory; it must exit 0 within RUN_SECONDS.
  ```c fragment,    statements, not a whole program: compiled and linked as the
  ```cpp fragment   body of a function of FRAME below, which provides fd, key,
                    on_notice and on_event. Not run.
  ```sh             run with sh -e from a scratch directory that links every
                    entry of the source tree (build/ is the build under test),
                    with build/emu and build/decode on PATH, when it names
                    l2vfib-emu or l2vfib-decode; otherwise checked with sh -n.
                    L2VFIB_DEVICE_DIR is a fresh directory, and TMPDIR lies in
                    the scratch directory; unless the block starts the device
                    itself, the test starts one there first. The last whole C
                    program above the block in its file is there as daemon.c.
  ```sh norun       checked with sh -n only: a command line the test cannot run.
  ```python         a whole pytest test file, run with pytest (pytest-3 or
                    pytest on PATH) and the l2vfib_emu plugin of python/
                    against the build's l2vfib-emu, from a scratch directory
                    that links the source tree's entries as for sh; it must
                    pass within SHELL_SECONDS.
  ```python norun   compiled only: Python the test cannot run.

A fence with no language or another one is an error: its test fails.
"""
import argparse
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile

RUN_SECONDS = 20
SHELL_SECONDS = 60
TOOLS = re.compile(r"\bl2vfib-(emu|decode)\b")
KINDS = {"c": ("", "fragment"), "cpp": ("", "fragment"), "sh": ("", "norun"), "python": ("", "norun")}

FRAME = """\
#include <l2vfib.h>
{extra}
#include <poll.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* What a fragment may use without declaring it: the service socket fd, an
 * entry key, a notice callback and an event callback. */
uint32_t on_notice(uint32_t kind, uint32_t *value);
uint32_t on_notice(uint32_t kind, uint32_t *value) {{ (void)kind; (void)value; return 0; }}
uint32_t on_event(uint32_t tag, const void *record);
uint32_t on_event(uint32_t tag, const void *record) {{ (void)tag; (void)record; return 0; }}

void fragment(int32_t fd, L2VFIB_EntryKey key);
void fragment(int32_t fd, L2VFIB_EntryKey key) {{
    (void)fd;
    (void)key;
    {{
{body}
    }}
}}

int main(void) {{ return 0; }}
"""
CPP_EXTRA = "#if __has_include(<l2vfib.hpp>)\n#include <l2vfib.hpp>\n#endif"


def blocks(source, path):
    """Yields (name, language, marker, first body line, body, error)."""
    rel = os.path.relpath(path, source)
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    i = 0
    while i < len(lines):
        m = re.match(r"^( {0,3})(```+)(.*)$", lines[i])
        if not m:
            i += 1
            continue
        indent, fence, info = len(m.group(1)), m.group(2), m.group(3).split()
        start = i + 1
        i += 1
        body = []
        while i < len(lines) and not re.match(r"^ {0,3}" + fence + r"\s*$", lines[i]):
            line = lines[i]
            body.append(line[indent:] if line[:indent].strip() == "" else line.lstrip())
            i += 1
        i += 1
        name = f"{rel}:{start}"
        language = info[0] if info else ""
        marker = " ".join(info[1:])
        error = None
        if i > len(lines):
            error = "fence never closed"
        elif language not in KINDS:
            error = f"fence language '{language}': a block is c, cpp, sh or python"
        elif marker not in KINDS[language]:
            error = f"marker '{marker}' on a {language} block: only " + \
                " or ".join(repr(k) for k in KINDS[language] if k)
        yield name, language, marker, start + 1, "\n".join(body) + "\n", error


def find(source, name):
    path = os.path.join(source, name.rsplit(":", 1)[0])
    if os.path.isfile(path):
        for block in blocks(source, path):
            if block[0] == name:
                return block
    sys.exit(f"{name}: no block starts there (the docs changed: configure again)")


def run(argv, timeout, shown=None, **kwargs):
    """Runs argv in a session of its own, ended with its children on time-out."""
    print("+ " + (shown or " ".join(shlex.quote(a) for a in argv)), flush=True)
    proc = subprocess.Popen(argv, start_new_session=True, **kwargs)
    try:
        return proc.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.wait()
        print(f"stopped: still running after {timeout} s", flush=True)
        return -1


class Device:
    """An emulated device in a fresh directory, stopped again on exit, with
    any other device the block started under the scratch directory."""

    def __init__(self, emu, scratch, start):
        self.emu, self.scratch = emu, scratch
        self.env = dict(os.environ, L2VFIB_DEVICE_DIR=os.path.join(scratch, "device"),
                        TMPDIR=scratch)
        os.mkdir(self.env["L2VFIB_DEVICE_DIR"], 0o700)
        if start and run([emu, "start"], 10, env=self.env) != 0:
            sys.exit("the emulated device did not start")

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        for top, _, files in os.walk(self.scratch):
            if "emu.pid" in files or "emu.sock" in files:
                if top == self.env["L2VFIB_DEVICE_DIR"] and exc[0] is not None:
                    log = os.path.join(top, "emu.log")
                    if os.path.exists(log):
                        print(open(log, encoding="utf-8", errors="replace").read())
                subprocess.run([self.emu, "stop"], env=dict(self.env, L2VFIB_DEVICE_DIR=top),
                               stdout=subprocess.DEVNULL, timeout=10)


def run_program(args, language, marker, line, body, scratch):
    rel = args.name.rsplit(":", 1)[0]
    directive = f'#line {line} "{rel}"\n'
    if marker == "fragment":
        text = FRAME.format(extra=CPP_EXTRA if language == "cpp" else "",
                            body=directive + body)
    else:
        text = directive + body
    src = os.path.join(scratch, "block." + language)
    with open(src, "w", encoding="utf-8") as f:
        f.write(text)
    exe = os.path.join(scratch, "block")
    if language == "c":
        compiler = [args.cc, "-std=c11"]
    else:
        compiler = [args.cxx, "-std=c++20", "-fno-exceptions", "-fno-rtti"]
    argv = compiler + ["-Wall", "-Wextra", "-Werror", "-I", os.path.join(args.source, "include"),
                       *args.flag, src, "-o", exe, *args.lib]
    if run(argv, 60, cwd=scratch) != 0:
        return 1
    if marker == "fragment":
        return 0
    with Device(args.emu, scratch, start=True) as device:
        status = run([exe], RUN_SECONDS, cwd=scratch, env=device.env)
        if status != 0:
            raise SystemExit(f"{args.name}: the program " +
                             ("did not exit in time" if status == -1 else f"exited {status}"))
    return 0


def link_tree(args, scratch):
    """The project's relative paths as the block's reader has them."""
    for entry in os.listdir(args.source):
        if not entry.startswith("build") and not entry.startswith("."):
            os.symlink(os.path.join(args.source, entry), os.path.join(scratch, entry))
    os.symlink(args.build, os.path.join(scratch, "build"))


def run_python(args, marker, line, body, scratch):
    rel = args.name.rsplit(":", 1)[0]
    if marker == "norun":
        compile("\n" * (line - 1) + body, rel, "exec")
        return 0
    pytest = shutil.which("pytest-3") or shutil.which("pytest")
    if pytest is None:
        sys.exit(f"{args.name}: no pytest to run the block (scripts/install-deps.sh base installs it)")
    link_tree(args, scratch)
    test = os.path.join(scratch, "test_block.py")
    with open(test, "w", encoding="utf-8") as f:
        f.write("\n" * (line - 1) + body)  # its lines as the document numbers them
    env = dict(os.environ, PYTHONPATH=os.path.join(args.source, "python"), PYTHONDONTWRITEBYTECODE="1",
               TMPDIR=scratch)
    status = run([pytest, "-p", "no:cacheprovider", "-p", "l2vfib_emu.pytest_plugin", "--l2vfib-emu", args.emu,
                  f"--basetemp={scratch}/t", test], SHELL_SECONDS, cwd=scratch, env=env)
    if status != 0:
        raise SystemExit(f"{args.name}: pytest " + ("did not end in time" if status == -1 else f"exited {status}"))
    return 0


def run_shell(args, marker, line, body, scratch):
    if marker == "norun" or not TOOLS.search(body):
        return run(["sh", "-n", "-c", body], 10, shown="sh -n BLOCK")
    link_tree(args, scratch)
    programs = [b for b in blocks(args.source, os.path.join(args.source, args.name.rsplit(":", 1)[0]))
                if b[1] == "c" and b[2] == "" and b[3] < line]
    if programs:
        with open(os.path.join(scratch, "daemon.c"), "w", encoding="utf-8") as f:
            f.write(programs[-1][4])
    starts = re.search(r"\bl2vfib-emu\s+start\b", body) is not None
    with Device(args.emu, scratch, start=not starts) as device:
        env = dict(device.env, PATH=os.pathsep.join(
            [os.path.join(args.build, "emu"), os.path.join(args.build, "decode"),
             os.environ.get("PATH", "")]))
        status = run(["sh", "-e", "-x", "-c", body], SHELL_SECONDS, "sh -e -x BLOCK",
                     cwd=scratch, env=env)
        if status != 0:
            raise SystemExit(f"{args.name}: the block " +
                             ("did not end in time" if status == -1 else f"exited {status}"))
    return 0


def main():
    if len(sys.argv) >= 3 and sys.argv[1] == "list":
        for path in sys.argv[3:]:
            for name, language, *_ in blocks(sys.argv[2], path):
                print(name, language or "-")
        return 0
    parser = argparse.ArgumentParser()
    parser.add_argument("command", choices=["run"])
    parser.add_argument("name")
    for option in ("source", "build", "cc", "cxx"):
        parser.add_argument("--" + option, required=True)
    parser.add_argument("--lib", action="append", default=[])
    parser.add_argument("--flag", action="append", default=[])
    args = parser.parse_args()
    args.source, args.build = os.path.realpath(args.source), os.path.realpath(args.build)
    args.lib = [os.path.realpath(lib) for lib in args.lib]
    args.emu = os.path.join(args.build, "emu", "l2vfib-emu")
    _, language, marker, line, body, error = find(args.source, args.name)
    if error:
        sys.exit(f"{args.name}: {error}")
    print(f"{args.name}: {language} {marker}".rstrip(), flush=True)
    # Short: a device directory's socket paths must stay within sun_path.
    with tempfile.TemporaryDirectory(prefix="l2vfib-doc.") as scratch:
        if language == "sh":
            return run_shell(args, marker, line, body, scratch)
        if language == "python":
            return run_python(args, marker, line, body, scratch)
        return run_program(args, language, marker, line, body, scratch)


if __name__ == "__main__":
    sys.exit(main())
