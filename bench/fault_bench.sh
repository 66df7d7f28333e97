#!/usr/bin/env bash
# Fault benchmark: what the link does when the field goes wrong. Two bridges over the emulated
# 57600 bytes/s line (the board's UART driver: --rx-fifo 56 --rx-timeout 4), each started as on the
# board by the boot script and so under its supervisor (packaging/serialtoeth-supervise), a ping a -> b
# every 0.2 s for the whole run; then each fault in turn, with a TCP transfer a -> b (checked byte
# by byte) started 2 s before it. One row per fault: the daemons alive afterwards, seconds from the
# fault's end to the first ping reply, each daemon's CPU during the fault, resident memory and open
# descriptors before and after, the lines with "ERR" each daemon printed, and whether the transfer
# completed intact. The texts of those lines follow the table.
#
# Each side's supervisor gives a new uart2eth0 its address and a fixed hardware address after
# every start (S2E_ADDRESS, S2E_HWADDR), as it would on a board from its defaults file.
#
# Usage (as root, from a build tree):
#   bench/fault_bench.sh [--build DIR] [--flood S] [--quick] [--only NAME,...]
#   --flood  seconds of the random-byte flood and of each flood ping (default 60)
#   --quick  the same faults with 10-second floods: about 5 minutes instead of 8
#   --only   run only these faults (names as in the table's first column)
#   --keep   copy the ping log, the daemons' and the line's output into this directory at the end
# Runs itself through testbed/nsrun, so everything it makes vanishes with its namespaces.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build/default flood=60 only="" keep=""
args=("$@")
while [ $# -gt 0 ]; do
    case $1 in
        --build) build=$2; shift ;;
        --flood) flood=$2; shift ;;
        --quick) flood=10 ;;
        --only) only=$2; shift ;;
        --keep) keep=$2; shift ;;
        *) echo "usage: $0 [--build DIR] [--flood S] [--quick] [--only NAME,...] [--keep DIR]" >&2
           exit 2 ;;
    esac
    shift
done
source "$here/bench/bench-common.sh"
bg_pids=()
bench_teardown() {
    local p
    for p in "${bg_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    [ -z "$keep" ] || { mkdir -p "$keep" && cp "$H_DIR"/*.log "$H_DIR"/*.out "$H_DIR"/line.err "$keep"/; }
    h_teardown
}
trap bench_teardown EXIT

line_rate=57600
transfer_bytes=500000
now() { date +%s.%N; }
# Samples a process's CPU time until it ends, so that a daemon restarted during a fault still
# counts with what it used: "<cpu ns> <time>" in the file.
track_cpu() {
    local pid=$1 file=$2 v last=0
    while [ -d "/proc/$pid" ]; do
        v=$(cpu_ns "$pid")
        # A process that is ending loses its threads one by one, and one not yet reaped shows
        # none: a sum that fell is no figure, and the last one stands.
        [ "$v" -ge "$last" ] && [ "$v" -gt 0 ] || break
        last=$v
        echo "$v $(now)" >"$file.tmp" && mv "$file.tmp" "$file"
        sleep 0.2
    done
}
# Percent of a core that a process used during the fault from its CPU time $1 at the start and
# track_cpu's file $2: over the fault, or over the part of it that a daemon ended during it lived.
cpu_pct() {
    awk -v c0="$1" -v s="$t_start" -v e="$t_end" '{ d = ($2 < e ? $2 : e) - s
        if (d > 0.5) printf "%.2f", 100*($1 - c0)/1e9/d; else printf "-" }' "$2"
}
# Seconds from the fault's start (its /proc/uptime in up0) to the start of process $1.
clk_tck=$(getconf CLK_TCK)
started_after() {
    awk -v u="$up0" -v hz="$clk_tck" '{ sub(/.*\) /, ""); printf "%.1f", $20 / hz - u }' "/proc/$1/stat"
}
log_size() { stat -c %s "$(h_out "$1")"; }
# Each side's identity, as its defaults file would give it.
identity() {
    [ "$1" = a ] && echo "S2E_ADDRESS=10.99.0.1/24 S2E_HWADDR=02:53:32:45:00:01" ||
        echo "S2E_ADDRESS=10.99.0.2/24 S2E_HWADDR=02:53:32:45:00:02"
}
# The boot script as the administrator runs it in that side's namespaces.
s80() {
    # shellcheck disable=SC2046 # the identity's two words
    h_exec "$1" env S2E_DAEMON_BIN="$S2E_DAEMON" S2E_PIDFILE="$H_DIR/$1.pid" \
        S2E_LOGFILE="$(h_out "$1")" $(identity "$1") "$H_DIR/$1.S80serialtoeth" "$2"
}
# Waits until the side runs a daemon with uart2eth0 up and its address; sets H_DPID.
wait_side() {
    for _ in $(seq 300); do
        if h_find_daemon "$1" &&
            h_exec "$1" ip -4 -o addr show dev uart2eth0 2>/dev/null | grep inet >/dev/null; then
            return 0
        fi
        sleep 0.1
    done
    return 1
}
# Waits at most 15 s until side $1 runs a daemon other than pid $2; sets H_DPID.
wait_new_daemon() {
    for _ in $(seq 300); do
        h_find_daemon "$1" && [ "$(h_pid "$1")" != "$2" ] && return 0
        sleep 0.05
    done
    return 1
}

h_line_start --rx-fifo 56 --rx-timeout 4 --seed 11
S2E_ADDRESS=10.99.0.1/24 S2E_HWADDR=02:53:32:45:00:01 h_daemon_start a --pty "$H_PTY_A" --boot-script
S2E_ADDRESS=10.99.0.2/24 S2E_HWADDR=02:53:32:45:00:02 h_daemon_start b --pty "$H_PTY_B" --boot-script
wait_side a && wait_side b || h_die "the daemons did not come up"
h_exec a ping -c 3 -i 0.2 -W 2 -q 10.99.0.2 >/dev/null || h_die "no ping over the line"
h_exec a ping -D -O -i 0.2 -W 1 10.99.0.2 >"$H_DIR/ping.log" 2>&1 &
bg_pids+=($!)
echo "SerialToEth fault benchmark: line $line_rate bytes/s each way, receiving UART --rx-fifo 56" \
     "--rx-timeout 4, both daemons under the boot script and its supervisor, ping a -> b every 0.2 s," \
     "a TCP transfer a -> b of $transfer_bytes bytes around each fault, floods of $flood s"

# Crafted line bytes: over-long frames (4000 bytes between flags, and runs of 3500 bytes that
# the next frame's flag ends) and frames whose last byte before the end flag is the escape byte.
python3 - "$H_DIR/bad.bin" <<'EOF'
import random, sys
random.seed(5)
def body(n):
    return bytes(random.choice([b for b in range(256) if b not in (0x7E, 0x5E)]) for _ in range(n))
out = bytearray()
for i in range(20):
    out += b"\x7e\xff\xff\xff\xff" + body(4000) + b"\x7e"
    out += b"\x7e" + body(3500)
for i in range(200):
    out += b"\x7e\xff\xff\xff\xff" + body(58) + b"\x5e\x7e"
open(sys.argv[1], "wb").write(out)
EOF
bad_bytes=$(stat -c %s "$H_DIR/bad.bin")

# Each fault function runs the fault from its start to its end and sets t_start, t_end and note.
fault_cut() {
    t_start=$(now)
    h_line_cmd cut
    sleep 10
    h_line_cmd mend
    t_end=$(now)
    note="10 s, both directions"
}
fault_cut_ab() {
    t_start=$(now)
    h_line_cmd "cut ab"
    sleep 10
    h_line_cmd "mend ab"
    t_end=$(now)
    note="10 s, a -> b only"
}
fault_stop_far() {
    t_start=$(now)
    kill -STOP "$(h_pid b)"
    sleep 10
    kill -CONT "$(h_pid b)"
    t_end=$(now)
    note="SIGSTOP 10 s, SIGCONT"
}
fault_kill_far() {
    local old
    old=$(h_pid b)
    t_start=$(now)
    kill -KILL "$old"
    # The supervisor starts it again; the fault ends when the new daemon is up.
    wait_new_daemon b "$old"
    t_end=$(now)
    note="SIGKILL; supervisor restarted it after $(started_after "$(h_pid b)") s"
}
fault_flood() {
    t_start=$(now)
    h_line_cmd "flood $flood"
    sleep "$flood"
    t_end=$(now)
    note="$flood s of random bytes at the line rate, both directions"
}
fault_bad_frames() {
    t_start=$(now)
    h_line_cmd "inject $H_DIR/bad.bin"
    sleep "$(awk -v n="$bad_bytes" -v r=$line_rate 'BEGIN{printf "%.2f", n/r + 0.2}')"
    t_end=$(now)
    note="$bad_bytes bytes each way: 40 over-long, 200 ending in 5E"
}
flood_ping() {
    local size=$1
    t_start=$(now)
    h_exec a ping -f -q -s "$size" -w "$flood" 10.99.0.2 >"$H_DIR/fa.txt" 2>&1 &
    local pa=$!
    h_exec b ping -f -q -s "$size" -w "$flood" 10.99.0.1 >"$H_DIR/fb.txt" 2>&1 &
    local pb=$!
    wait "$pa" "$pb" || true
    t_end=$(now)
    note="a->b $(ping_counts "$H_DIR/fa.txt"); b->a $(ping_counts "$H_DIR/fb.txt")"
}
# "N sent, M back" from ping's summary in file $1.
ping_counts() {
    grep -o '[0-9]* packets transmitted, [0-9]* received' "$1" | awk '{print $1 " sent, " $4 " back"}'
}
fault_pingf_full() { flood_ping 1472; }
fault_pingf_min() { flood_ping 0; }
fault_iface_gone() {
    local old
    old=$(h_pid b)
    t_start=$(now)
    h_exec b ip link delete uart2eth0
    t_end=$t_start
    wait_new_daemon b "$old"
    note="b's uart2eth0 deleted; supervisor restarted b after $(started_after "$(h_pid b)") s"
}
fault_iface_gone_nowatch() {
    s80 b stop >/dev/null  # the daemon with it; started again alone, as without the supervisor
    h_exec b env S2E_PIDFILE="$H_DIR/b.pid" "$H_DIR/b.S80serialtoeth" status >/dev/null || true
    # Left to the namespace's first process, as the boot script leaves it to init.
    h_exec b sh -c "cd /root; $S2E_DAEMON >>$(h_out b) 2>&1 </dev/null &"
    # Its identity by hand, as nothing else gives it.
    h_exec b sh -c 'until ip link set dev uart2eth0 address 02:53:32:45:00:02 2>/dev/null; do sleep 0.1; done
        ip addr add 10.99.0.2/24 dev uart2eth0'
    wait_side b
    sleep 2
    base_b=$(cpu_ns "$(h_pid b)") rss_b0=$(rss_kb "$(h_pid b)") fds_b0=$(nfds "$(h_pid b)")
    t_start=$(now)
    h_exec b ip link delete uart2eth0
    sleep 10
    local gone
    # Replies to pings sent since the deletion.
    gone=$(awk -v s="$t_start" '/bytes from/ && match($0, /time=[0-9.]+/) {
               if (substr($1, 2) - substr($0, RSTART + 5, RLENGTH - 5) / 1000 >= s) n++ }
           END { print n + 0 }' "$H_DIR/ping.log")
    t_end=$(now)
    cpu_b_override=$(awk -v c="$(($(cpu_ns "$(h_pid b)") - base_b))" -v s="$t_start" -v e="$t_end" \
        'BEGIN{printf "%.1f", 100 * c / 1e9 / (e - s)}')
    kill -KILL "$(h_pid b)"
    s80 b start >/dev/null
    note="no supervisor: b alive, $gone replies in 10 s; then boot script start"
}
fault_uart_gone() {
    local old path
    old=$(h_pid b)
    t_start=$(now)
    h_line_cmd "hangup b"
    h_exec b rm -f /dev/zynq_uart0
    sleep 5
    path=$(awk '$1=="b"{print $2}' "$H_DIR/line.info")
    h_exec b ln -s "$path" /dev/zynq_uart0
    t_end=$(now)
    wait_new_daemon b "$old"
    note="b's UART hung up and its node gone 5 s, then a new one; supervisor restarted b $(awk -v a="$(started_after "$(h_pid b)")" 'BEGIN{printf "%.1f", a - 5}') s after"
}
ipc_id() { h_exec b "$S2E_TESTBED_DIR/supervisor_emu" status | grep -o "$1=[-0-9]*" | cut -d= -f2; }
fault_ipc_supervisor() {
    local id
    id=$(ipc_id supervisorQueueId)
    t_start=$(now)
    h_exec b ipcrm -q "$id"
    sleep 12
    t_end=$(now)
    note="b's supervisor queue ($id) removed, 12 s"
}
fault_ipc_monitor() {
    local id old
    id=$(ipc_id monitorQueueId) old=$(h_pid b)
    t_start=$(now)
    h_exec b ipcrm -q "$id"
    sleep 12
    t_end=$(now)
    h_find_daemon b || true
    note="b's monitor queue ($id) removed, 12 s$([ "$(h_pid b)" = "$old" ] ||
        echo "; supervisor restarted b after $(started_after "$(h_pid b)") s")"
}
fault_ipc_status() {
    t_start=$(now)
    h_exec b ipcrm -M 0x400007
    sleep 12
    t_end=$(now)
    note="b's status record removed, 12 s"
}
fault_root_ro() {
    t_start=$(now)
    h_exec b mount -o remount,bind,ro /root
    s80 b restart >/dev/null
    sleep 12
    h_exec b mount -o remount,bind,rw /root
    t_end=$(now)
    note="b restarted with /root read-only, 12 s"
}

# A first transfer, so that what a daemon touches once (its buffers, the rings) is resident
# before the first row's figures.
h_exec b "$S2E_TESTBED_DIR/tcp_blast" recv 6999 60 >/dev/null 2>&1 &
rpid=$!
sleep 0.3
h_exec a "$S2E_TESTBED_DIR/tcp_blast" send 10.99.0.2 6999 200000 60 >/dev/null 2>&1 || true
wait "$rpid" || true

faults=(cut cut_ab stop_far kill_far flood bad_frames pingf_full pingf_min iface_gone
        iface_gone_nowatch uart_gone ipc_supervisor ipc_monitor ipc_status root_ro)
rows=$H_DIR/rows.txt errs=$H_DIR/errs.txt
: >"$rows"
: >"$errs"
port=7000
for fault in "${faults[@]}"; do
    if [ -n "$only" ] && [[ ",$only," != *",$fault,"* ]]; then continue; fi
    wait_side a && wait_side b || h_die "a side is down before $fault"
    sleep 1
    pa=$(h_pid a) pb=$(h_pid b)
    rss_a0=$(rss_kb "$pa") fds_a0=$(nfds "$pa") rss_b0=$(rss_kb "$pb") fds_b0=$(nfds "$pb")
    size_a0=$(log_size a) size_b0=$(log_size b)
    port=$((port + 1))
    h_exec b "$S2E_TESTBED_DIR/tcp_blast" check $port 600 >"$H_DIR/recv.txt" 2>&1 &
    rpid=$!
    sleep 0.3
    h_exec a "$S2E_TESTBED_DIR/tcp_blast" send 10.99.0.2 $port $transfer_bytes 600 \
        >"$H_DIR/send.txt" 2>&1 &
    spid=$!
    sleep 2
    cpu_b_override=""
    ca0=$(cpu_ns "$pa") cb0=$(cpu_ns "$pb")
    track_cpu "$pa" "$H_DIR/cpu.a" &
    ta=$!
    track_cpu "$pb" "$H_DIR/cpu.b" &
    tb=$!
    up0=$(cut -d' ' -f1 /proc/uptime)
    "fault_$fault"
    kill "$ta" "$tb" 2>/dev/null || true
    wait "$ta" "$tb" 2>/dev/null || true
    cpu_a=$(cpu_pct "$ca0" "$H_DIR/cpu.a") cpu_b=$(cpu_pct "$cb0" "$H_DIR/cpu.b")
    [ -z "$cpu_b_override" ] || cpu_b=$cpu_b_override
    # The first reply after the fault's end to a ping sent after its start (ping -D stamps each
    # reply with its arrival; arrival less round trip is the sending): a reply to a ping that
    # waited out the fault counts, one that only queued behind the transfer before it does not.
    reply=""
    for _ in $(seq 600); do
        reply=$(awk -v s="$t_start" -v e="$t_end" '/bytes from/ && match($0, /time=[0-9.]+/) {
                    t = substr($1, 2) + 0; sent = t - substr($0, RSTART + 5, RLENGTH - 5) / 1000
                    if (t >= e && sent >= s) { printf "%.2f", t - e; exit } }' "$H_DIR/ping.log")
        [ -n "$reply" ] && break
        sleep 0.1
    done
    ok=0
    wait "$spid" || ok=1
    wait "$rpid" 2>/dev/null || ok=1
    tcp=$(transfer_verdict "$H_DIR/recv.txt" $ok)
    wait_side a && wait_side b || true
    sleep 1
    alive="a b"
    h_alive a || alive=${alive/a/-}
    h_alive b || alive=${alive/b/-}
    [ "$(h_pid a)" = "$pa" ] || alive="$alive, a new"
    [ "$(h_pid b)" = "$pb" ] || alive="$alive, b new"
    qa=$(h_pid a) qb=$(h_pid b)
    err_a=$(tail -c +$((size_a0 + 1)) "$(h_out a)" | grep -c ERR || true)
    err_b=$(tail -c +$((size_b0 + 1)) "$(h_out b)" | grep -c ERR || true)
    for side in a b; do
        [ $side = a ] && s0=$size_a0 || s0=$size_b0
        tail -c +$((s0 + 1)) "$(h_out $side)" | err_texts | awk -v f="$fault" -v d=$side '{ n = $1; $1 = ""; printf "%s, %s: %d x%s\n", f, d, n, $0 }' >>"$errs" || true
    done
    printf '| %s | %s | %s | %s / %s | %s→%s / %s→%s | %s→%s / %s→%s | %s / %s | %s | %s |\n' \
        "${fault//_/-}" "$alive" "${reply:-none in 60 s}" "$cpu_a" "$cpu_b" \
        "$rss_a0" "$(rss_kb "$qa")" "$rss_b0" "$(rss_kb "$qb")" \
        "$fds_a0" "$(nfds "$qa")" "$fds_b0" "$(nfds "$qb")" "$err_a" "$err_b" "$tcp" "$note" |
        tee -a "$rows"
done

echo
echo "| fault | daemons after | first reply after the end (s) | CPU % of a core during, a / b | RSS KiB before→after, a / b | open fds before→after, a / b | lines with ERR, a / b | TCP $transfer_bytes bytes | what happened |"
echo "|---|---|--:|--:|--:|--:|--:|---|---|"
cat "$rows"
echo
echo "Lines with ERR (numbers as N):"
if [ -s "$errs" ]; then sed 's/^/  /' "$errs"; else echo "  none"; fi
total=$(grep -c 'bytes from' "$H_DIR/ping.log" || true)
echo "ping a -> b every 0.2 s over the whole run: $total replies"
