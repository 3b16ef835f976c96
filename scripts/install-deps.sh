#!/bin/sh
# Installs the Debian packages a build needs, only those that are missing.
# Usage: install-deps.sh GROUP...   (groups: base cross fuzz bench builds)
set -eu
packages=""
for group in "$@"; do
    case $group in
    base) packages="$packages cmake make g++ gcc pkg-config binutils libgtest-dev libgmock-dev googletest libcli11-dev nlohmann-json3-dev libfmt-dev libpcap-dev tshark python3 python3-pytest" ;;
    cross) packages="$packages g++-arm-linux-gnueabihf g++-s390x-linux-gnu qemu-user googletest" ;;
    fuzz) packages="$packages clang libclang-rt-dev" ;;
    bench) packages="$packages libbenchmark-dev libmnl-dev valgrind" ;;
    builds) packages="$packages clang-14" ;;
    *) echo "install-deps: unknown group '$group'" >&2; exit 2 ;;
    esac
done
missing=""
for p in $packages; do
    case " $missing " in *" $p "*) continue ;; esac
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "install-deps: installing$missing"
if [ "$(id -u)" -eq 0 ]; then
    SUDO=""
elif command -v sudo >/dev/null 2>&1; then
    SUDO=sudo
else
    echo "install-deps: run as root: apt-get install$missing" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
# tshark's package asks whether to let non-root users capture; the tests
# only read captures, so answer no without asking.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections 2>/dev/null || true
$SUDO apt-get update -q
# shellcheck disable=SC2086
$SUDO apt-get install -y -q --no-install-recommends $missing
