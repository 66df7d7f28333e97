#!/usr/bin/env bash
# End-to-end benchmark: two bridges over the emulated 57600 bytes/s line. Reports bulk TCP goodput
# (bytes/s and share of the line), ping round trips against the time their bytes need on the line,
# and each daemon's CPU time per second, idle and under load.
# Usage (as root, from a build tree): bench/e2e_bench.sh [BUILD_DIR] [BYTES]
#   BUILD_DIR defaults to build/default; BYTES (TCP transfer) to 1000000.
# Runs itself through tools/nsrun, so everything it makes vanishes with its namespaces.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$here/build/default}" && pwd)
bytes=${2:-1000000}
if [ "${S2E_IN_NS:-}" != 1 ]; then
    exec "$here/tools/nsrun" "$0" "$build" "$bytes"
fi
export S2E_DAEMON=${S2E_DAEMON:-$build/app/SerialToEth}
export S2E_TOOLS_DIR=${S2E_TOOLS_DIR:-$build/tools}
export S2E_SOURCE_DIR=$here
source "$here/tools/e2e-harness.sh"
h_init

line_rate=57600
# Nanoseconds on a CPU, all threads of a process.
cpu_ns() {
    local pid=$1 t sum=0 v
    for t in /proc/"$pid"/task/*/schedstat; do
        read -r v _ <"$t" || continue
        sum=$((sum + v))
    done
    echo "$sum"
}
now_ns() { date +%s%N; }

# Bytes an echo frame with S data bytes takes on the line: flag, 4 header bytes, payload padded to 64,
# flag, plus one per 5E/7E in ping's data pattern (byte i of the data is i mod 256 after the 16-byte
# time stamp). Specials in the headers and time stamp are left out: a byte or two at most.
line_bytes() {
    local s=$1 n=$(($1 + 42)) i stuffed=0
    [ "$n" -lt 64 ] && n=64
    for ((i = 16; i < s; i++)); do
        case $((i % 256)) in 94 | 126) stuffed=$((stuffed + 1)) ;; esac
    done
    echo $((n + 6 + stuffed))
}

# The emulated line by itself first (its own relay, no bridges): the part of a round trip that
# the relay and the terminals add on top of the bit times, so the bridges' own share shows.
declare -A probe_over=()
"${H_RUN[@]}" "$S2E_TOOLS_DIR/line_emu" --info "$H_DIR/probe.info" 2>/dev/null &
probe_pid=$!
for i in $(seq 50); do [ -s "$H_DIR/probe.info" ] && break; sleep 0.1; done
pa_path=$(awk '$1=="a"{print $2}' "$H_DIR/probe.info")
pb_path=$(awk '$1=="b"{print $2}' "$H_DIR/probe.info")
for size in 56 1000; do
    lb=$(line_bytes "$size")
    r=$("${H_RUN[@]}" "$S2E_TOOLS_DIR/line_probe" "$pa_path" "$pb_path" "$lb" 30)
    probe_over[$size]=$(echo "$r" | sed -n 's/.*over_us=\([-0-9.]*\).*/\1/p')
done
kill -TERM "$probe_pid"
wait "$probe_pid" 2>/dev/null || true

h_pair
h_exec a ping -c 3 -i 0.2 -q 10.99.0.2 >/dev/null

echo "SerialToEth end-to-end benchmark: line $line_rate bytes/s each way (576000 baud 8N1)"
pa=$(h_pid a) pb=$(h_pid b)

t0=$(now_ns) a0=$(cpu_ns "$pa") b0=$(cpu_ns "$pb")
sleep 5
t1=$(now_ns) a1=$(cpu_ns "$pa") b1=$(cpu_ns "$pb")
awk -v a=$((a1 - a0)) -v b=$((b1 - b0)) -v t=$((t1 - t0)) \
    'BEGIN{printf "idle CPU:        a %.1f ms/s, b %.1f ms/s\n", a/t*1000, b/t*1000}'

for size in 56 1000; do
    frame=$((size + 8 + 20 + 14))
    lb=$(line_bytes "$size")
    out=$(h_exec a ping -c 40 -i 0.1 -s "$size" -q 10.99.0.2 | tail -n 2)
    loss=$(echo "$out" | grep -o '[0-9.]*% packet loss')
    rtt=$(echo "$out" | sed -n 's/.*= \([0-9.]*\)\/\([0-9.]*\)\/\([0-9.]*\)\/.*/\1 \2 \3/p')
    read -r mn av mx <<<"$rtt"
    awk -v s="$size" -v f="$frame" -v lb="$lb" -v r=$line_rate -v mn="$mn" -v av="$av" -v mx="$mx" \
        -v loss="$loss" -v po="${probe_over[$size]}" 'BEGIN{ line = 2*lb/r*1000; emu = 2*po/1000;
        printf "ping -s %-4d (%d-byte frames, %d bytes on the line each way): line time %.3f ms, " \
               "rtt min/avg/max %.3f/%.3f/%.3f ms, avg over line time %+.3f ms, %s\n",
               s, f, lb, line, mn, av, mx, av - line, loss;
        printf "    of which the emulated line itself (relay and terminals, both ways) %+.3f ms, " \
               "the two bridges %+.3f ms\n", emu, av - line - emu }'
done

port=5201
h_exec b "${H_RUN[@]}" "$S2E_TOOLS_DIR/tcp_blast" recv $port 300 >"$H_DIR/recv.txt" &
rpid=$!
sleep 0.3
t0=$(now_ns) a0=$(cpu_ns "$pa") b0=$(cpu_ns "$pb")
h_exec a "${H_RUN[@]}" "$S2E_TOOLS_DIR/tcp_blast" send 10.99.0.2 $port "$bytes" 300 >"$H_DIR/send.txt"
wait $rpid
t1=$(now_ns) a1=$(cpu_ns "$pa") b1=$(cpu_ns "$pb")
mtu=$(h_exec a cat /sys/class/net/uart2eth0/mtu 2>/dev/null || echo 1500)
rate=$(sed -n 's/.*rate=\([0-9]*\).*/\1/p' "$H_DIR/recv.txt")
srate=$(sed -n 's/.*rate=\([0-9]*\).*/\1/p' "$H_DIR/send.txt")
same=$([ "$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/send.txt")" = "$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/recv.txt")" ] && echo match || echo MISMATCH)
awk -v r="$rate" -v s="$srate" -v n="$bytes" -v lr=$line_rate -v ck="$same" -v mtu="$mtu" \
    'BEGIN{printf "TCP bulk a->b, %d bytes, MTU %s: goodput %.0f bytes/s = %.1f%% of %d " \
           "(whole connection incl. set-up and close: %.0f bytes/s = %.1f%%), checksum %s\n",
           n, mtu, r, 100*r/lr, lr, s, 100*s/lr, ck}'
awk -v a=$((a1 - a0)) -v b=$((b1 - b0)) -v t=$((t1 - t0)) \
    'BEGIN{printf "load CPU:        a (sender) %.1f ms/s, b (receiver) %.1f ms/s\n", a/t*1000, b/t*1000}'
grep -h "ERR" "$(h_out a)" "$(h_out b)" | sort | uniq -c | sed 's/^/daemon log: /' || true
h_line_cmd stats
sleep 0.2
