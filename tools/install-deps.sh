#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the package checks (lintian, man-db, systemd,
# systemd-nspawn), the line captures (tshark), the soak's plot (gnuplot) and the demonstration
# need, skipping those already present.
# Usage: tools/install-deps.sh [--cross]   (--cross adds the AArch64 tool chain, qemu-user to run its
# tests, busybox, whose shell the boot script is checked with, and for the emulated
# board qemu-system-arm, cpio and dpkg's arm64 architecture, from which testbed/board/image.sh
# downloads the board's kernel and busybox)
# Needs root only to install: as another user it installs through sudo, and says so when it cannot.
# The list is Debian 12's (bookworm) names; elsewhere it warns and tries.
set -euo pipefail
if ! command -v dpkg-query >/dev/null; then
    echo "install-deps.sh: no dpkg here; the build machine must be Debian 12 (bookworm)" >&2
    exit 1
fi
release=$(. /etc/os-release 2>/dev/null && echo "${VERSION_CODENAME:-}" || true)
[ "$release" = bookworm ] ||
    echo "install-deps.sh: warning: made for Debian 12 (bookworm), this is ${release:-unknown}" >&2
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
# Called before anything that needs root: as another user, sudo must exist, or nothing can be done.
need_root() {
    [ ${#as_root[@]} -eq 0 ] && return 0
    command -v sudo >/dev/null && return 0
    echo "install-deps.sh: $* needs root, and there is no sudo: run tools/install-deps.sh as root" >&2
    exit 1
}
update=0
packages=(cmake ninja-build g++ make pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev
          clang libclang-rt-14-dev net-tools psmisc iproute2 util-linux procps iputils-ping
          python3 clang-format lintian man-db systemd systemd-container tshark gnuplot-nox ifupdown)
if [ "${1:-}" = "--cross" ]; then
    packages+=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user busybox qemu-system-arm
               cpio)
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        need_root "adding the dpkg architecture arm64"
        echo "adding dpkg architecture arm64"
        "${as_root[@]}" dpkg --add-architecture arm64
        update=1
    fi
fi
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] || need_root "installing ${missing[*]}"
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
