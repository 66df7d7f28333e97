#!/usr/bin/env bash
# Builds the AArch64 board preset with Debian's cross tool chain, runs its whole suite as AArch64
# programs under qemu-aarch64, builds and checks the arm64 Debian package (tools/check-package.sh)
# in build/aarch64/packages, and boots the emulated boards (testbed/board/run.sh).
# Installs the cross tools when they are missing. Any failure fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh --cross

start=$(date +%s)
step() { printf '\n---- aarch64: %s (%ds)\n' "$*" $(($(date +%s) - start)); }
sysroot=/usr/aarch64-linux-gnu

step "configure and build"
cmake --preset aarch64 >/dev/null
cmake --build --preset aarch64

# qemu-user passes only the terminal speeds it has in its translation table (up to B460800);
# faster ones reach the host's terminal as B0. Print what this emulator does, for the log.
step "emulator terminal speeds"
probe_dir=$(mktemp -d)
trap 'rm -rf "$probe_dir"' EXIT
cat >"$probe_dir/speed.c" <<'PROBE'
#include <pty.h>
#include <stdio.h>
#include <termios.h>
int main(void) {
    static const struct { speed_t code; const char* name; } speeds[] = {
        {B115200, "B115200"}, {B460800, "B460800"}, {B500000, "B500000"}, {B576000, "B576000"}};
    int master, slave;
    if (openpty(&master, &slave, NULL, NULL, NULL) != 0) return 1;
    for (unsigned i = 0; i < sizeof speeds / sizeof speeds[0]; ++i) {
        struct termios t;
        tcgetattr(slave, &t);
        cfsetispeed(&t, speeds[i].code);
        cfsetospeed(&t, speeds[i].code);
        tcsetattr(slave, TCSANOW, &t);
        tcgetattr(slave, &t);
        speed_t got = cfgetospeed(&t);
        printf("  %-8s reads back as %s\n", speeds[i].name,
               got == speeds[i].code ? "set" : got == B0 ? "B0" : "another speed");
    }
    return 0;
}
PROBE
if aarch64-linux-gnu-gcc -O1 -o "$probe_dir/speed" "$probe_dir/speed.c" -lutil; then
    qemu-aarch64 -L "$sysroot" "$probe_dir/speed" || echo "  probe failed to run"
fi

step "tests under qemu-aarch64"
ctest --preset aarch64

step "arm64 Debian package"
tools/check-package.sh build/aarch64
deb=$(ls build/aarch64/packages/*.deb)
arch=$(dpkg-deb -f "$deb" Architecture)
[ "$arch" = arm64 ] || { echo "package architecture is $arch, not arm64"; exit 1; }
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print "  " $6}'

# The one place where the daemon meets a real kernel's UART driver: qemu-user above cannot set
# 576000 baud, the emulated board can.
step "emulated boards (testbed/board/run.sh)"
testbed/board/run.sh

step "done"
