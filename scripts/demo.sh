#!/bin/sh
# make demo: the example daemon against the emulated device, in a fresh
# device directory, leaving nothing running. (The tests run each example
# daemon through examples/test_fib_daemon.py.)
# Usage: demo.sh BUILD_DIR [DAEMON]    DAEMON: default BUILD_DIR/examples/fib_daemon
set -eu
build=${1:-build}
emu="$build/emu/l2vfib-emu"
daemon=${2:-"$build/examples/fib_daemon"}
for f in "$emu" "$daemon"; do
    if [ ! -x "$f" ]; then
        echo "demo: $f was not built (the example daemon is built once the library" >&2
        echo "      exports every function it calls: see the cmake output)" >&2
        exit 1
    fi
done

step() { printf '\n== %s\n' "$*"; }

L2VFIB_DEVICE_DIR=$(mktemp -d /tmp/l2vfib-demo.XXXXXX)
export L2VFIB_DEVICE_DIR
daemon_pid=""
cleanup() {
    [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null || true
    "$emu" stop >/dev/null 2>&1 || true
    rm -rf "$L2VFIB_DEVICE_DIR"
}
trap cleanup EXIT INT TERM

step "starting the emulated device in $L2VFIB_DEVICE_DIR"
# One capture per daemon, so that the tests' runs of both daemons at once
# do not write the same file.
capture="$build/demo.pcap"
[ -z "${2:-}" ] || capture="$build/demo-$(basename "$daemon").pcap"
echo "\$ l2vfib-emu start --capture $capture"
"$emu" start --capture "$capture"

step "running the example daemon ($(basename "$daemon"))"
echo "\$ $(basename "$daemon") 10 &"
"$daemon" 10 &
daemon_pid=$!

# Waits until the daemon has registered for events.
registered() {
    tries=0
    until [ "$("$emu" count reg | awk '{print $2}')" -gt 0 ]; do
        tries=$((tries + 1))
        if [ $tries -gt 100 ] || ! kill -0 "$daemon_pid" 2>/dev/null; then
            echo "demo: the daemon did not register for events" >&2
            exit 1
        fi
        sleep 0.1
    done
}
registered

step "the service restarts under the daemon, which programs it all again"
echo "\$ l2vfib-emu count pw; l2vfib-emu fault restart"
"$emu" count pw
"$emu" fault restart >/dev/null
registered
echo "\$ l2vfib-emu count pw"
"$emu" count pw

# Once the daemon has registered again, send it a notice and an event.
echo "\$ l2vfib-emu notice 0x2a"
"$emu" notice 0x2a
echo "\$ l2vfib-emu event 3 --tag 7 -w 1 -w 2 -w 3"
"$emu" event 3 --tag 7 -w 1 -w 2 -w 3
status=0
wait "$daemon_pid" || status=$?
daemon_pid=""
if [ $status -ne 0 ]; then
    echo "demo: the daemon failed ($status)" >&2
    exit $status
fi

step "the tables the daemon programmed"
echo "\$ l2vfib-emu show"
"$emu" show
echo "\$ l2vfib-emu counters"
"$emu" counters

step "stopping the emulated device"
echo "\$ l2vfib-emu stop"
"$emu" stop
echo
echo "demo: done. Try it yourself:"
echo "  export L2VFIB_DEVICE_DIR=/tmp/my-device"
echo "  $emu start && $daemon 0 && $emu show pw && $emu stop"
echo "The demo's capture, every datagram in and out, in tshark; replayed into a device:"
echo "  tshark -X lua_script:$build/tools/wireshark/l2vfib.lua -r $capture"
echo "  $emu start && $emu replay $capture && $emu stop"
