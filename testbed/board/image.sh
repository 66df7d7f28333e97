#!/usr/bin/env bash
# Builds the emulated board's boot files from Debian's arm64 packages and the AArch64 build:
#   OUT/Image                    Debian's arm64 kernel (linux-image-*-arm64), a link into OUT/kernel
#   OUT/initramfs.cpio.gz        busybox-static, the modules the board loads, the tool chain's
#                                C and C++ run-time libraries, the daemon and its boot script as
#                                `cmake --install` lays them out, testbed/board/rootfs/ (init, inittab, rcS,
#                                rcK, board set-up) and the board-side test tools
# Usage: testbed/board/image.sh BUILD_DIR OUT_DIR      (BUILD_DIR: the built aarch64 preset)
# The .debs are fetched with `apt-get download` into OUT/debs once and taken from there afterwards;
# delete that folder to fetch the current ones again. Needs the arm64 architecture in dpkg's list
# (tools/install-deps.sh --cross adds it).
set -euo pipefail
build=$(realpath "${1:?usage: board-image.sh BUILD_DIR OUT_DIR}")
out=$(realpath -m "${2:?usage: board-image.sh BUILD_DIR OUT_DIR}")
src=$(realpath "$(dirname "$0")/../..")
sysroot=/usr/aarch64-linux-gnu
# The modules the board loads itself (tun), those the emulated console needs and the queue
# disciplines and classifier the shaping of uart2eth0 may ask for, which the kernel loads on tc's
# demand (Debian's kernel has fq_codel built in, its default).
modules=(tun virtio_mmio virtio_console sch_cake sch_htb sch_tbf cls_u32)
# Board-side tools: the supervisor stand-in reads the status record, tcp_blast moves bulk data.
tools=(supervisor_emu tcp_blast)
# busybox has no tc: iproute2's, with the libraries it needs that the tool chain does not have.
tc_debs=(iproute2 libbpf1 libelf1 libmnl0 libbsd0 libmd0 libcap2 libxtables12 zlib1g libzstd1)

mkdir -p "$out/debs"
debs() { compgen -G "$out/debs/$1" >/dev/null; }
have_tc_debs() { local d; for d in "${tc_debs[@]}"; do debs "${d}_*_arm64.deb" || return 1; done; }
if ! debs 'linux-image-*_arm64.deb' || ! debs 'busybox-static_*_arm64.deb' || ! have_tc_debs; then
    # The meta package names the current kernel package; a fresh arm64 architecture has no
    # package lists yet.
    kernel_pkg() { apt-cache depends linux-image-arm64:arm64 2>/dev/null |
        awk '$1 == "Depends:" && $2 ~ /^linux-image-/ {print $2; exit}'; }
    pkg=$(kernel_pkg)
    if [ -z "$pkg" ]; then
        as_root=()
        [ "$(id -u)" -eq 0 ] || as_root=(sudo)
        "${as_root[@]}" apt-get update -qq
        pkg=$(kernel_pkg)
    fi
    [ -n "$pkg" ] || { echo "board-image: no arm64 kernel package known to apt" >&2; exit 1; }
    echo "board-image: downloading $pkg, busybox-static:arm64 and tc (iproute2:arm64) into $out/debs"
    (cd "$out/debs" && rm -f ./*.deb &&
        apt-get download -q -o APT::Sandbox::User=root "$pkg" busybox-static:arm64 \
            "${tc_debs[@]/%/:arm64}")
fi
kernel_deb=$(compgen -G "$out/debs/linux-image-*_arm64.deb" | head -n 1)
busybox_deb=$(compgen -G "$out/debs/busybox-static_*_arm64.deb" | head -n 1)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The kernel and the modules the board loads, with the modules those depend on, taken from the
# package once (unpacking it is the slow part) and kept in OUT/kernel.
kcache=$out/kernel
stamp="$(basename "$kernel_deb") ${modules[*]}"
if [ "$(cat "$kcache/.from" 2>/dev/null)" != "$stamp" ]; then
    rm -rf "$kcache"
    mkdir -p "$kcache"
    patterns=('./boot/vmlinuz-*')
    want=("${modules[@]}")
    declare -A seen=()
    while [ ${#want[@]} -gt 0 ]; do
        for m in "${want[@]}"; do
            seen[$m]=1
            patterns+=("./lib/modules/*/${m//_/[_-]}.ko")
        done
        dpkg-deb --fsys-tarfile "$kernel_deb" | tar -x -C "$kcache" --wildcards "${patterns[@]}"
        want=()
        for f in $(find "$kcache/lib/modules" -name '*.ko'); do
            for dep in $(strings "$f" | sed -n 's/^depends=//p' | tr ',' ' '); do
                [ -n "${seen[$dep]:-}" ] || want+=("$dep")
            done
        done
    done
    echo "$stamp" >"$kcache/.from"
fi
kver=$(basename "$(compgen -G "$kcache/lib/modules/*" | head -n 1)")
ln -sf "kernel/boot/vmlinuz-$kver" "$out/Image"

root=$work/root
mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,lib,etc,proc,sys,dev,tmp,root,var/run,var/log}

# busybox and its applet links (its own list, so the board has exactly what this build offers).
dpkg-deb --fsys-tarfile "$busybox_deb" | tar -xO ./bin/busybox >"$root/bin/busybox"
chmod 755 "$root/bin/busybox"
qemu-aarch64 "$root/bin/busybox" --list-full | while read -r applet; do
    [ "$applet" = bin/busybox ] || ln -sf /bin/busybox "$root/$applet"
done

# The installed layout of the real board: daemon, boot script and whatever else the project
# installs. Only the pieces the project's install rules put there.
DESTDIR=$root cmake --install "$build" --strip >"$work/install.log" ||
    { cat "$work/install.log" >&2; exit 1; }
for t in "${tools[@]}"; do
    aarch64-linux-gnu-strip -o "$root/usr/bin/$t" "$build/testbed/$t"
done
cp -a "$src/testbed/board/rootfs/." "$root/"
# tc from iproute2; its libraries are found below like the others', in the unpacked packages.
debroot=$work/debroot
for d in "${tc_debs[@]}"; do dpkg-deb -x "$(compgen -G "$out/debs/${d}_*_arm64.deb" | head -n 1)" "$debroot"; done
rm -f "$root/sbin/tc"
aarch64-linux-gnu-strip -o "$root/sbin/tc" "$debroot/sbin/tc"

# Run-time libraries: every library the board's programs need, found in the cross sysroot and
# followed to the libraries those need in turn.
needed() { aarch64-linux-gnu-readelf -d "$1" 2>/dev/null |
    sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }
queue=("$root/usr/sbin/SerialToEth" "$root/sbin/tc")
for t in "${tools[@]}"; do queue+=("$root/usr/bin/$t"); done
declare -A have=()
while [ ${#queue[@]} -gt 0 ]; do
    f=${queue[0]}
    queue=("${queue[@]:1}")
    for lib in $(needed "$f"); do
        [ -n "${have[$lib]:-}" ] && continue
        from=""
        for d in "$sysroot/lib" "$debroot/lib/aarch64-linux-gnu" "$debroot/usr/lib/aarch64-linux-gnu"; do
            [ -e "$d/$lib" ] && from=$d/$lib && break
        done
        [ -n "$from" ] || { echo "board-image: $lib in neither $sysroot/lib nor ${tc_debs[*]}" >&2; exit 1; }
        have[$lib]=1
        cp -L "$from" "$root/lib/$lib"
        queue+=("$root/lib/$lib")
    done
done
interp=$(aarch64-linux-gnu-readelf -l "$root/usr/sbin/SerialToEth" |
    sed -n 's/.*Requesting program interpreter: \(.*\)\]/\1/p')
mkdir -p "$root$(dirname "$interp")"
cp -L "$sysroot/lib/$(basename "$interp")" "$root$interp"

# The package ships no modules.dep: busybox's depmod writes one for the board's modprobe.
mkdir -p "$root/lib/modules"
cp -a "$kcache/lib/modules/$kver" "$root/lib/modules/"
qemu-aarch64 "$root/bin/busybox" depmod -b "$root" "$kver"

(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) | gzip -1 \
    >"$out/initramfs.cpio.gz"
echo "board-image: kernel $kver ($(basename "$kernel_deb")), initramfs" \
     "$(du -k "$out/initramfs.cpio.gz" | cut -f1) KiB with modules" \
     "$(cd "$root/lib/modules/$kver" && find . -name '*.ko' -printf '%f ')"
