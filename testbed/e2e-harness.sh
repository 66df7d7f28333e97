#!/usr/bin/env bash
# End-to-end harness: runs SerialToEth daemons in fresh namespaces over the emulated serial line.
# Source it from a test (functions below) or run it: e2e-harness.sh demo [BYTES] | shell
# The demo leaves a capture of the line in $S2E_DEMO_PCAP (default: a new file in /tmp).
#
# Functions (state lives in $H_DIR, removed by h_teardown, which h_init arms on EXIT):
#   h_init                          make the state directory, arm the teardown
#   h_line_start [line_emu args]    start testbed/line_emu; sets H_PTY_A, H_PTY_B (slave paths)
#   h_line_cmd "COMMAND"            send a command to the emulator (ber, drop, garbage, inject,
#                                   flood, cut, mend, hangup, clear, stats: see line_emu.cpp)
#   h_daemon_start NAME [--pty PATH] [--no-serial] [--no-tun] [--boot-script]
#                                   start a daemon in new net, mount, IPC and PID namespaces; in
#                                   its mount namespace /dev is a tmpfs holding only null, zero,
#                                   random, urandom, tty, ptmx, pts, net/tun (unless --no-tun) and
#                                   zynq_uart0 -> PATH (unless --no-serial); IPv6 is off there,
#                                   and /run is a tmpfs of its own (the tap's socket, pid files).
#                                   Returns once the daemon has started its dispatcher thread.
#                                   --boot-script: started as on the board, by the boot script
#                                   (packaging/init.d/S80serialtoeth.in start) and so under its
#                                   supervisor (packaging/serialtoeth-supervise); its pid file is
#                                   $H_DIR/NAME.pid, as the namespace sees it, and /sys is that
#                                   network namespace's.
#   h_find_daemon NAME              find the daemon's pid again, after a restart; fails if none
#   h_exec NAME CMD...              run a command in the daemon's net, mount, IPC and PID namespaces
#   h_addr NAME CIDR                give uart2eth0 of that daemon an IPv4 address
#   h_pid NAME / h_alive NAME       the daemon's pid as seen here / whether it still runs
#   h_out NAME                      path of the daemon's captured stdout and stderr
#   h_check_reports                 fail if a sanitizer reported anything in the captured outputs
#   h_teardown                      stop everything this harness started, remove $H_DIR
# Environment: S2E_DAEMON (daemon binary), S2E_TESTBED_DIR (line_emu, tcp_blast, supervisor_emu),
# S2E_EMULATOR (prefix for the project's programs, e.g. qemu-aarch64; may be empty).
# Everything runs as root; nothing is created in the host's /dev or network configuration.

: "${S2E_DAEMON:?S2E_DAEMON must name the SerialToEth binary}"
: "${S2E_TESTBED_DIR:?S2E_TESTBED_DIR must name the build directory of testbed/}"
S2E_EMULATOR=${S2E_EMULATOR:-}
H_RUN=()
[ -n "$S2E_EMULATOR" ] && read -r -a H_RUN <<<"$S2E_EMULATOR"

declare -A H_OUTER=()  # NAME -> pid of the unshare process
declare -A H_SHELL=()  # NAME -> pid of the shell that is PID 1 of the daemon's PID namespace
declare -A H_DPID=()   # NAME -> pid of the daemon
H_LINE_PID=""
H_DIR=""

h_init() {
    H_DIR=$(mktemp -d /tmp/s2e-e2e.XXXXXX)
    trap h_teardown EXIT
    # Under set -e a failing command would end the run without a word; name it.
    trap 'echo "harness: failed at line $LINENO: $BASH_COMMAND" >&2' ERR
}

# Fails when a sanitizer reported anything in a daemon's or the emulator's output.
h_check_reports() {
    local f bad=0
    for f in "$H_DIR"/*.out "$H_DIR"/line.err; do
        [ -f "$f" ] || continue
        if grep -q "Sanitizer\|runtime error:" "$f"; then
            echo "sanitizer report in $f:" >&2
            grep -A30 "Sanitizer\|runtime error:" "$f" | head -60 >&2
            bad=1
        fi
    done
    return $bad
}

h_die() {
    echo "harness: $*" >&2
    exit 1
}

h_line_start() {
    "${H_RUN[@]}" "$S2E_TESTBED_DIR/line_emu" --info "$H_DIR/line.info" --control "$H_DIR/line.ctl" \
        "$@" 2>"$H_DIR/line.err" &
    H_LINE_PID=$!
    local i
    for i in $(seq 100); do
        [ -s "$H_DIR/line.info" ] && break
        sleep 0.1
    done
    [ -s "$H_DIR/line.info" ] || h_die "line emulator did not start"
    H_PTY_A=$(awk '$1=="a"{print $2}' "$H_DIR/line.info")
    H_PTY_B=$(awk '$1=="b"{print $2}' "$H_DIR/line.info")
}

h_line_cmd() { echo "$1" >"$H_DIR/line.ctl"; }

# Runs inside the new namespaces: builds the private /dev, switches IPv6 off, starts the daemon
# as a child (not PID 1, so default signal actions apply) and waits for it.
h_inner() {
    local pty=$1 tun=$2 stage=$3 boot=$4 out=$5
    shift 5
    set -e
    mount -t tmpfs -o mode=0755,size=1m s2e-dev "$stage"
    local n
    for n in null zero random urandom tty; do
        touch "$stage/$n"
        mount --bind "/dev/$n" "$stage/$n"
    done
    # The devpts instance's own ptmx: a bound /dev/ptmx no longer finds its pts after the move.
    ln -s pts/ptmx "$stage/ptmx"
    mkdir "$stage/pts" "$stage/net"
    mount --bind /dev/pts "$stage/pts"
    if [ "$tun" = 1 ]; then
        touch "$stage/net/tun"
        mount --bind /dev/net/tun "$stage/net/tun"
    fi
    [ -n "$pty" ] && ln -s "$pty" "$stage/zynq_uart0"
    mount --move "$stage" /dev
    mount -t tmpfs -o mode=0755,size=1m s2e-run /run
    ip link set lo up
    sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
    if [ -x "$S2E_TESTBED_DIR/supervisor_emu" ]; then
        "${H_RUN[@]}" "$S2E_TESTBED_DIR/supervisor_emu" init
    fi
    set +e
    cd /root 2>/dev/null || cd /
    if [ -n "$boot" ]; then
        mount -t sysfs s2e-sys /sys
        S2E_DAEMON_BIN=$S2E_DAEMON S2E_PIDFILE=$boot.pid S2E_LOGFILE=$out \
            "$boot.S80serialtoeth" start
        # This shell is the namespace's first process: it stays, and reaps what the script leaves.
        while :; do sleep 3600; done
    fi
    "${H_RUN[@]}" "$S2E_DAEMON" "$@" &
    wait $!
}

h_daemon_start() {
    local name=$1 pty="" tun=1 boot=""
    shift
    while [ $# -gt 0 ]; do
        case $1 in
            --pty) pty=$2; shift ;;
            --no-serial) pty="" ;;
            --no-tun) tun=0 ;;
            --boot-script)
                [ -z "$S2E_EMULATOR" ] || h_die "--boot-script runs the build machine's daemon only"
                boot=$H_DIR/$name
                # The script as installed, with the supervisor of the source tree.
                sed "s|@S2E_SUPERVISE_PATH@|$S2E_SOURCE_DIR/packaging/serialtoeth-supervise|" \
                    "$S2E_SOURCE_DIR/packaging/init.d/S80serialtoeth.in" >"$boot.S80serialtoeth"
                chmod 0755 "$boot.S80serialtoeth" ;;
            *) h_die "unknown option $1" ;;
        esac
        shift
    done
    local stage="$H_DIR/dev-$name" out="$H_DIR/$name.out"
    mkdir -p "$stage"
    : >"$out"  # appended to from here on, as the boot script appends to its log
    unshare --net --mount --ipc --pid --fork --kill-child --mount-proc --propagation private \
        bash -c "$(declare -f h_inner); H_RUN=(${H_RUN[*]}); S2E_TESTBED_DIR='$S2E_TESTBED_DIR';
                 S2E_DAEMON='$S2E_DAEMON'; S2E_SOURCE_DIR='${S2E_SOURCE_DIR:-}';
                 h_inner '$pty' $tun '$stage' '$boot' '$out'" >>"$out" 2>&1 &
    H_OUTER[$name]=$!
    local i shell="" daemon=""
    for i in $(seq 300); do
        shell=$(cat "/proc/${H_OUTER[$name]}/task/${H_OUTER[$name]}/children" 2>/dev/null || true)
        shell=${shell%% *}
        if [ -n "$shell" ] && [ -n "$boot" ]; then
            H_SHELL[$name]=$shell
            h_find_daemon "$name" && daemon=${H_DPID[$name]}
        elif [ -n "$shell" ]; then
            daemon=$(cat "/proc/$shell/task/$shell/children" 2>/dev/null || true)
            daemon=${daemon%% *}
        fi
        if [ -n "$daemon" ] && grep -q "circleDealThread startUp!" "$out" 2>/dev/null; then
            break
        fi
        kill -0 "${H_OUTER[$name]}" 2>/dev/null || break
        sleep 0.1
    done
    H_SHELL[$name]=$shell
    H_DPID[$name]=$daemon
    grep -q "circleDealThread startUp!" "$out" 2>/dev/null ||
        { cat "$out" >&2; h_die "daemon $name did not start"; }
}

# The daemon is the namespace's first process's child, or, when a boot script started it, the
# child of its supervisor, which that process has adopted.
h_find_daemon() {
    local p q
    for p in $(cat "/proc/${H_SHELL[$1]}/task/${H_SHELL[$1]}/children" 2>/dev/null); do
        for q in "$p" $(cat "/proc/$p/task/$p/children" 2>/dev/null); do
            if [ "$(cat "/proc/$q/comm" 2>/dev/null)" = SerialToEth ] &&
                ! grep -q '^State:[[:space:]]*Z' "/proc/$q/status" 2>/dev/null; then
                H_DPID[$1]=$q
                return 0
            fi
        done
    done
    return 1
}
h_pid() { echo "${H_DPID[$1]}"; }
h_out() { echo "$H_DIR/$1.out"; }
h_alive() { [ -n "${H_DPID[$1]}" ] && kill -0 "${H_DPID[$1]}" 2>/dev/null; }
h_exec() {
    local name=$1
    shift
    # The PID namespace too, so that /proc (the daemon's own mount) shows the command itself.
    # Entered through the namespace's first process, which outlives a restarted daemon.
    nsenter -t "${H_SHELL[$name]:-${H_DPID[$name]}}" --net --mount --ipc --pid -- "$@"
}
h_addr() { h_exec "$1" ip addr add "$2" dev uart2eth0; }

h_teardown() {
    local - name pid
    set +e  # teardown runs to the end, and never turns a passing run into a failing one
    for name in "${!H_OUTER[@]}"; do
        pid=${H_OUTER[$name]}
        # unshare --fork ignores SIGTERM while it waits; ending the namespace's first process
        # makes the kernel end every other process in it, and then unshare returns.
        [ -n "${H_SHELL[$name]:-}" ] && kill -KILL "${H_SHELL[$name]}" 2>/dev/null
        kill -KILL "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    H_OUTER=()
    H_SHELL=()
    if [ -n "$H_LINE_PID" ]; then
        kill -TERM "$H_LINE_PID" 2>/dev/null && wait "$H_LINE_PID" 2>/dev/null
        H_LINE_PID=""
    fi
    [ -n "$H_DIR" ] && rm -rf "$H_DIR"
    H_DIR=""
    return 0
}

# Two daemons joined by the line, 10.99.0.1/24 on "a" and 10.99.0.2/24 on "b".
h_pair() {
    h_line_start "$@"
    h_daemon_start a --pty "$H_PTY_A"
    h_daemon_start b --pty "$H_PTY_B"
    h_addr a 10.99.0.1/24
    h_addr b 10.99.0.2/24
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    set -euo pipefail
    case ${1:-} in
        demo)
            bytes=${2:-500000}
            pcap=${S2E_DEMO_PCAP:-$(mktemp --suffix=.pcapng /tmp/serialtoeth-line.XXXXXX)}
            h_init
            h_pair --pcap "$pcap" --summary
            echo "== bridge a started in its own namespaces; its output:"
            sed 's/^/   /' "$(h_out a)"
            echo "== a: uart2eth0 10.99.0.1/24, b: uart2eth0 10.99.0.2/24, joined by a line of" \
                 "57600 bytes/s each way"
            echo "== ping -c 5 10.99.0.2 from a (84-byte packets: 104 bytes on the line each way," \
                 "3.61 ms of line time per round trip)"
            h_exec a ping -c 1 -W 3 10.99.0.2 >/dev/null || true  # resolve addresses first
            h_exec a ping -c 5 -i 0.3 10.99.0.2 | tail -n 3
            echo "== TCP transfer of $bytes bytes from a to b"
            h_exec b "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" recv 5001 >"$H_DIR/recv.txt" &
            rpid=$!
            sleep 0.5
            h_exec a "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" send 10.99.0.2 5001 "$bytes" \
                >"$H_DIR/send.txt"
            wait $rpid
            echo "sender:   $(cat "$H_DIR/send.txt")"
            echo "receiver: $(cat "$H_DIR/recv.txt")"
            if [ "$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/send.txt")" = \
                 "$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/recv.txt")" ]; then
                echo "checksums match"
            else
                echo "CHECKSUM MISMATCH: the transfer did not arrive intact" >&2
                exit 1
            fi
            rate=$(sed -n 's/.*rate=\([0-9]*\).*/\1/p' "$H_DIR/recv.txt")
            pct=$(awk -v r="$rate" 'BEGIN{printf "%.1f", 100*r/57600}')
            echo "goodput $rate bytes/s = $pct% of the line's 57600 bytes/s" \
                 "(framing allows about 94.5%)"
            echo "== noise: bursts of garbage and bit errors on the line while a pings b"
            h_line_cmd "ber 3e-4"
            for i in 1 2 3; do
                h_line_cmd "garbage 400"
                h_exec a ping -c 3 -i 0.2 -W 1 10.99.0.2 >/dev/null 2>&1 || true
            done
            h_line_cmd "clear"
            sleep 1.2
            echo "what the receiving bridges saw, per second (line_emu --summary):"
            grep '^[0-9]' "$H_DIR/line.err" | tail -n 6 | sed 's/^/   /'
            # The packet list with the interface and the comment (the drop reason) as columns.
            cols='"No.","%m","Time","%t","Interface","%Cus:frame.interface_name","Length","%L",'
            cols+='"Info","%i","Comment","%Cus:frame.comment"'
            echo "== the end of the noisy spell in the line's capture: pings, and drops with reasons"
            tshark -r "$pcap" -o "gui.column.format:$cols" -Y 'icmp || frame.comment' 2>/dev/null |
                tail -n 12 | sed 's/^/   /' || true
            echo "== capture file: $pcap"
            echo "   tshark -r $pcap -o 'gui.column.format:$cols'"
            echo "   wireshark $pcap"
            ;;
        shell)
            h_init
            h_pair
            echo "daemons: a=$(h_pid a) b=$(h_pid b); e.g. nsenter -t $(h_pid a) -n -m -i ip addr"
            echo "line control: echo 'ber 1e-4' > $H_DIR/line.ctl; exit the shell to tear down"
            bash -i || true
            ;;
        *)
            echo "usage: $0 demo [BYTES] | shell" >&2
            exit 2
            ;;
    esac
fi
