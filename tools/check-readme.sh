#!/usr/bin/env bash
# Runs the README's shell blocks where they can run, so that its commands cannot drift from the
# tools. Every ```sh block follows a marker (an HTML comment, invisible on the rendered page) that
# says where it runs:
#   <!-- check: host -->          on this machine, from the top of the tree, as root; $ROOTFS names
#                                 an empty scratch folder standing in for a board's root file system
#   <!-- check: pair -->          on bridge a of two daemons joined by the emulated line, each in
#                                 namespaces of its own (testbed/e2e-harness.sh, testbed/nsrun):
#                                 a's uart2eth0 10.77.0.1/24 and shaped, the far end b 10.77.0.2/24,
#                                 a's output seen as /var/log/serialtoeth.log, the build's programs
#                                 first on PATH, from a scratch folder
#   <!-- check: sdrun -->         in a throwaway systemd container (testbed/sdrun), from a folder
#                                 holding this machine's package (build/default); /dev/ttyAMA0 is
#                                 one side of the emulated line, whose other side is a daemon at
#                                 10.77.0.2/24 in namespaces of its own
#   <!-- check: skip: REASON -->  not run; the reason is printed
# A block with several places ("pair sdrun") runs in each. Options follow a ';':
#   needs PATH                    run only when PATH (from the top of the tree) exists, else skip
#   stops after N s               runs until stopped: interrupted with SIGINT after N seconds, and
#                                 passes when it then exits with status 0
# The blocks of one place run in the README's order, each in a new `bash -e` (without pipefail, as
# a user types them), and share that place's state: a package installed in one block is there in
# the next. A failing block is named by its line and first command; the others still run, and the
# script exits 1 at the end. A sh block without a marker, or a marker without a block, is an error.
#
# Usage: tools/check-readme.sh [--list] [--readme FILE] [PLACE...]   (places: host pair sdrun, all
#        by default; as root; after `cmake --preset default && cmake --build --preset default`)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
self=$root/tools/check-readme.sh

# ---- Inside a place: `check-readme.sh --inside PLACE DIR` runs the blocks DIR/meta lists for it.
if [ "${1:-}" = --inside ]; then
    place=$2 dir=$3
    set +e
    name=$(cat "$dir/name")
    # Status 3: the failures are named in the output; anything else is the place's own.
    setup_failed() { echo "FAIL $name ($place): setting up the place: $*"; exit 3; }
    if [ "$place" != host ]; then
        # Sourced here, not in a function, whose locals its tables would become.
        export S2E_DAEMON=$root/build/default/app/SerialToEth
        export S2E_TESTBED_DIR=$root/build/default/testbed S2E_EMULATOR="" S2E_SOURCE_DIR=$root
        # shellcheck source=testbed/e2e-harness.sh
        . "$root/testbed/e2e-harness.sh"
        h_init # arms h_teardown on EXIT
        trap - ERR
        h_line_start || setup_failed "line emulator"
    fi
    limit=300
    cwd=$root
    runner=()
    case $place in
        host)
            limit=1800
            ROOTFS=$(mktemp -d /tmp/s2e-rootfs.XXXXXX)
            export ROOTFS
            trap 'rm -rf "$ROOTFS"' EXIT
            ;;
        pair)
            h_daemon_start a --pty "$H_PTY_A" && h_daemon_start b --pty "$H_PTY_B" ||
                setup_failed "daemons"
            h_addr a 10.77.0.1/24 && h_addr b 10.77.0.2/24 || setup_failed "addresses"
            # What every init system does after a start; a failure shows in the health check.
            h_exec a "$root/packaging/serialtoeth-shape" | sed 's/^/   setup: /'
            # The log where the init scripts keep it, in a's mount namespace only.
            h_exec a sh -c 'mount -t tmpfs -o size=8m s2e-log /var/log &&
                : >/var/log/serialtoeth.log && mount --bind "$1" /var/log/serialtoeth.log' \
                sh "$(h_out a)" || setup_failed "/var/log/serialtoeth.log"
            mkdir "$dir/bin-pair" "$dir/work-pair"
            ln -s "$S2E_DAEMON" "$root/build/default/capture/serialtoeth-capture" "$dir/bin-pair/"
            export PATH=$dir/bin-pair:$PATH
            runner=(h_exec a)
            cwd=$dir/work-pair # files the blocks write go there, and vanish with it
            ;;
        sdrun)
            # The board's own name for its UART, a device node as a board's is (the container's
            # /dev is its own); the packaging turns it into /dev/zynq_uart0. The line's side is
            # bound there: a pty's node made anew with mknod opens with EIO, as it is not the
            # devpts instance's own.
            : >/dev/ttyAMA0 && mount --bind "$H_PTY_A" /dev/ttyAMA0 || setup_failed "/dev/ttyAMA0"
            "$S2E_TESTBED_DIR/supervisor_emu" init >/dev/null || setup_failed "supervisor_emu init"
            h_daemon_start b --pty "$H_PTY_B" && h_addr b 10.77.0.2/24 || setup_failed "far end"
            cwd=$dir/pkg
            ;;
        *)
            echo "check-readme: unknown place $place" >&2
            exit 2
            ;;
    esac
    failed=0
    while IFS=$'\037' read -r id line where opts first; do
        [[ " $where " == *" $place "* ]] || continue
        needs=$(sed -n 's/.*needs \([^;]*\).*/\1/p' <<<"$opts")
        stop=$(sed -n 's/.*stops after \([0-9]*\) s.*/\1/p' <<<"$opts")
        if [ -n "$needs" ] && [ ! -e "$root/$needs" ]; then
            echo "SKIP $name:$line ($place): no $needs: $first"
            continue
        fi
        echo "---- $name:$line ($place): $first"
        if [ -n "$stop" ]; then
            timer=(timeout --preserve-status -s INT -k 10 "$stop")
        else
            timer=(timeout -k 10 "$limit")
        fi
        "${runner[@]}" bash -c 'cd "$1" && shift && exec "$@"' sh "$cwd" "${timer[@]}" \
            bash -e "$dir/$id.sh" 2>&1 | sed 's/^/    /'
        status=${PIPESTATUS[0]}
        if [ "$status" -ne 0 ]; then
            echo "FAIL $name:$line ($place): exit status $status: $first"
            failed=$((failed + 1))
        fi
    done <"$dir/meta"
    [ "$failed" -eq 0 ] || exit 3
    exit 0
fi

# ---- The outer run: find the blocks, then enter each place that has some.
readme=$root/README.md
list=0
places=()
while [ $# -gt 0 ]; do
    case $1 in
        --list) list=1 ;;
        --readme) readme=$(realpath "$2") && shift ;;
        host | pair | sdrun) places+=("$1") ;;
        *)
            echo "usage: tools/check-readme.sh [--list] [--readme FILE] [host|pair|sdrun]..." >&2
            exit 2
            ;;
    esac
    shift
done
[ ${#places[@]} -gt 0 ] || places=(host pair sdrun)

dir=$(mktemp -d /tmp/s2e-readme.XXXXXX)
trap 'rm -rf "$dir"' EXIT
# meta: one line per block, fields separated by US (\037, as tabs would merge when one is empty):
# id, line of its fence, places, options, first command.
awk -v dir="$dir" '
    function fail(msg) { printf "%s:%d: %s\n", FILENAME, FNR, msg > "/dev/stderr"; bad = 1 }
    inblock && /^```[ \t]*$/ {
        close(file)
        printf "%03d\037%d\037%s\037%s\037%s\n", n, start, where, opts, first > (dir "/meta")
        inblock = 0
        next
    }
    inblock {
        print > file
        if (first == "" && $0 !~ /^[ \t]*(#.*)?$/) {
            first = $0
            sub(/^[ \t]+/, "", first)
            sub(/[ \t][ \t]+#.*$/, "", first) # its comment
        }
        next
    }
    /^```sh[ \t]*$/ {
        if (marker == "") fail("a sh block without a check marker")
        n++
        file = sprintf("%s/%03d.sh", dir, n)
        inblock = 1; start = FNR; first = ""
        says = marker; marker = ""
        sub(/^<!-- check:[ \t]*/, "", says); sub(/[ \t]*-->[ \t]*$/, "", says)
        where = says; opts = ""
        cut = index(says, ";")
        if (says !~ /^skip/ && cut) {
            where = substr(says, 1, cut - 1)
            opts = substr(says, cut + 1)
        }
        gsub(/^[ \t]+|[ \t]+$/, "", where)
        if (where !~ /^skip/) {
            k = split(where, w, /[ \t]+/)
            for (i = 1; i <= k; i++) if (w[i] !~ /^(host|pair|sdrun)$/) fail("unknown place " w[i])
        }
        next
    }
    marker != "" { fail("check marker not followed by a sh block"); marker = "" }
    /^<!-- check:.*-->[ \t]*$/ { marker = $0; next }
    END { if (inblock) fail("sh block not closed"); exit bad }
' "$readme" || { echo "check-readme: $readme: fix the markers above" >&2; exit 1; }
touch "$dir/meta"
name=$(basename "$readme")
echo "$name" >"$dir/name"

if [ "$list" = 1 ]; then
    awk -F'\037' -v f="$name" '{ printf "%s:%-4d %-12s %-24s %s\n", f, $2, $3, $4, $5 }' \
        "$dir/meta"
    exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
    echo "check-readme.sh needs root: the README's commands run as root, in namespaces and" \
         "containers of their own. Run it as root, or: sudo tools/check-readme.sh" >&2
    exit 1
fi
if [ ! -x "$root/build/default/app/SerialToEth" ]; then
    echo "check-readme: build first: cmake --preset default && cmake --build --preset default" >&2
    exit 1
fi

# Every line of the places' output goes to the terminal and to a log, whose verdicts end the run.
{
    awk -F'\037' -v f="$name" '$3 ~ /^skip/ {
        r = $3
        sub(/^skip:?[ \t]*/, "", r)
        printf "SKIP %s:%d: %s (%s)\n", f, $2, $5, r
    }' "$dir/meta"
    for place in "${places[@]}"; do
        awk -F'\037' -v p="$place" '(" " $3 " ") ~ (" " p " ") { found = 1 } END { exit !found }' \
            "$dir/meta" || continue
        echo "==== README blocks in: $place"
        rc=0
        case $place in
            host) bash "$self" --inside host "$dir" || rc=$? ;;
            pair) "$root/testbed/nsrun" bash "$self" --inside pair "$dir" || rc=$? ;;
            sdrun)
                mkdir -p "$dir/pkg"
                if ! cpack -G DEB --config "$root/build/default/CPackConfig.cmake" \
                    -B "$dir/pkg" >"$dir/cpack.log" 2>&1; then
                    cat "$dir/cpack.log"
                    echo "FAIL (sdrun): the package could not be built"
                    continue
                fi
                rm -rf "$dir/pkg/_CPack_Packages"
                # The tree too: the container's /tmp is its own, and a clone may live there.
                "$root/testbed/sdrun" --bind-ro "$dir" --bind-ro "$root" \
                    bash "$self" --inside sdrun "$dir" || rc=$?
                ;;
        esac
        [ "$rc" -eq 0 ] || [ "$rc" -eq 3 ] || echo "FAIL ($place): ended with status $rc"
    done
} 2>&1 | tee "$dir/log"
echo "==== README blocks: $(grep -c '^---- ' "$dir/log") run," \
     "$(grep -c "^FAIL $name:" "$dir/log") failed, $(grep -c '^SKIP ' "$dir/log") skipped"
if grep -q '^FAIL' "$dir/log"; then
    grep '^FAIL' "$dir/log"
    exit 1
fi
