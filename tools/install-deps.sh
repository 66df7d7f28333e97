#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the package checks (lintian, man-db, systemd,
# systemd-nspawn), the line captures (tshark), the soak's plot (gnuplot) and the demonstration
# need, skipping those already present.
# Usage: tools/install-deps.sh [--cross]   (--cross adds the AArch64 tool chain, qemu-user to run its
# tests, busybox, whose shell the boot script is checked with, and for the emulated
# board qemu-system-arm, cpio and dpkg's arm64 architecture, from which testbed/board/image.sh
# downloads the board's kernel and busybox)
set -euo pipefail
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
update=0
packages=(cmake ninja-build g++ make pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev
          clang libclang-rt-14-dev net-tools psmisc iproute2 util-linux procps iputils-ping
          python3 clang-format lintian man-db systemd systemd-container tshark gnuplot-nox ifupdown)
if [ "${1:-}" = "--cross" ]; then
    packages+=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user busybox qemu-system-arm
               cpio)
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        echo "adding dpkg architecture arm64"
        "${as_root[@]}" dpkg --add-architecture arm64
        update=1
    fi
fi
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ] || [ "$update" = 1 ]; then
    "${as_root[@]}" apt-get update -qq
fi
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    # wireshark-common asks whether non-root users may capture; the line captures need no
    # capture rights, so answer no before it asks.
    echo "wireshark-common wireshark-common/install-setuid boolean false" |
        "${as_root[@]}" debconf-set-selections
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends \
        -o DPkg::Lock::Timeout=600 \
        "${missing[@]}"
fi
