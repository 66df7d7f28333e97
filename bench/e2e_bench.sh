#!/usr/bin/env bash
# End-to-end benchmark: two bridges over the emulated 57600 bytes/s line. Reports each daemon's CPU
# time while idle and during a bulk TCP transfer, the transfer's goodput as a share of the line,
# ping round trips against the time their bytes need on the line, and whether a full-size frame
# made only of special bytes (twice its size once stuffed) is carried whole; then all of it in one
# table, every figure from this one run.
# Usage (as root, from a build tree): bench/e2e_bench.sh [BUILD_DIR] [BYTES]
#   BUILD_DIR defaults to build/default; BYTES (TCP transfer) to 1000000.
#   S2E_BENCH_UART: how the receiving UART hands bytes to its driver, as line_emu options. The
#   default is the board's UART driver (interrupt at 56 bytes in the receive FIFO, or after 40 bit
#   times of quiet line); "--rx-fifo 1" hands over every byte at once, about 10,000 chunks a second.
# Runs itself through testbed/nsrun, so everything it makes vanishes with its namespaces.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$here/build/default}" && pwd)
bytes=${2:-1000000}
args=("$build" "$bytes")
source "$here/bench/bench-common.sh"

line_rate=57600
# Times a process's threads were switched out, all threads: each sleep of a reader or the
# dispatcher ends in one, so the difference over an interval counts their wake-ups.
switches() {
    cat /proc/"$1"/task/*/status 2>/dev/null | awk '/^(non)?voluntary_ctxt_switches/{s += $2} END{print s + 0}'
}

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
uart=${S2E_BENCH_UART:---rx-fifo 56 --rx-timeout 4}
declare -A probe_over=()
# shellcheck disable=SC2086 # options, split on purpose
"${H_RUN[@]}" "$S2E_TESTBED_DIR/line_emu" --info "$H_DIR/probe.info" $uart 2>/dev/null &
probe_pid=$!
for i in $(seq 50); do [ -s "$H_DIR/probe.info" ] && break; sleep 0.1; done
pa_path=$(awk '$1=="a"{print $2}' "$H_DIR/probe.info")
pb_path=$(awk '$1=="b"{print $2}' "$H_DIR/probe.info")
for size in 56 1000; do
    lb=$(line_bytes "$size")
    r=$("${H_RUN[@]}" "$S2E_TESTBED_DIR/line_probe" "$pa_path" "$pb_path" "$lb" 30)
    probe_over[$size]=$(echo "$r" | sed -n 's/.*over_us=\([-0-9.]*\).*/\1/p')
done
kill -TERM "$probe_pid"
wait "$probe_pid" 2>/dev/null || true

# shellcheck disable=SC2086 # options, split on purpose
h_pair $uart
h_exec a ping -c 3 -i 0.2 -q 10.99.0.2 >/dev/null

echo "SerialToEth end-to-end benchmark: line $line_rate bytes/s each way (576000 baud 8N1), receiving UART: $uart"
pa=$(h_pid a) pb=$(h_pid b)

idle_s=10
t0=$(now_ns) a0=$(cpu_ns "$pa") b0=$(cpu_ns "$pb")
sleep "$idle_s"
t1=$(now_ns) a1=$(cpu_ns "$pa") b1=$(cpu_ns "$pb")
idle_a=$((a1 - a0)) idle_b=$((b1 - b0))
awk -v a=$idle_a -v b=$idle_b -v t=$((t1 - t0)) \
    'BEGIN{printf "idle CPU over %.1f s: a %.3f s, b %.3f s\n", t/1e9, a/1e9, b/1e9}'

for size in 56 1000; do
    frame=$((size + 8 + 20 + 14))
    lb=$(line_bytes "$size")
    out=$(h_exec a ping -c 40 -i 0.1 -s "$size" -q 10.99.0.2 | tail -n 2)
    loss=$(echo "$out" | grep -o '[0-9.]*% packet loss')
    rtt=$(echo "$out" | sed -n 's/.*= \([0-9.]*\)\/\([0-9.]*\)\/\([0-9.]*\)\/.*/\1 \2 \3/p')
    read -r mn av mx <<<"$rtt"
    [ "$size" = 56 ] && ping_min=$mn
    awk -v s="$size" -v f="$frame" -v lb="$lb" -v r=$line_rate -v mn="$mn" -v av="$av" -v mx="$mx" \
        -v loss="$loss" -v po="${probe_over[$size]}" 'BEGIN{ line = 2*lb/r*1000; emu = 2*po/1000;
        printf "ping -s %-4d (%d-byte frames, %d bytes on the line each way): line time %.3f ms, " \
               "rtt min/avg/max %.3f/%.3f/%.3f ms, avg over line time %+.3f ms, %s\n",
               s, f, lb, line, mn, av, mx, av - line, loss;
        printf "    of which the emulated line itself (relay and terminals, both ways) %+.3f ms, " \
               "the two bridges %+.3f ms\n", emu, av - line - emu }'
done

# A 1514-byte frame of only 0x7E and one of only 0x5E, 3034 bytes each on the line: close to the
# longest run the extractor waits for, and in both directions of every stuffing rule.
special=$(h_exec b python3 -c '
import select, socket, time
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
s.bind(("uart2eth0", 0))
want = {b"\x7e" * 1514: "0x7E", b"\x5e" * 1514: "0x5E"}
got, end = set(), time.time() + 5
while len(got) < len(want) and time.time() < end:
    if select.select([s], [], [], 0.2)[0]:
        data, addr = s.recvfrom(9000)
        if addr[2] != socket.PACKET_OUTGOING and data in want: got.add(want[data])
print(" and ".join(sorted(got)) or "none")' &
    sleep 0.5
    h_exec a python3 -c '
import socket
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind(("uart2eth0", 0))
s.send(b"\x7e" * 1514)
s.send(b"\x5e" * 1514)'
    wait)
echo "1514-byte frames of one special byte carried whole: $special"

port=5201
# transfer TAG: the bulk TCP transfer a->b with a ping a->b every 0.5 s beside it (interactive
# traffic under load); sets rate_TAG, srate_TAG, same_TAG and the ping round trips in $H_DIR/TAG.rtt.
transfer() {
    local tag=$1
    port=$((port + 1))
    h_exec b "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" recv $port 300 >"$H_DIR/recv.$tag" &
    rpid=$!
    sleep 0.3
    # The ping ends when the transfer has: a flag file, as nsenter would not pass a signal on.
    rm -f "$H_DIR/stop"
    h_exec a sh -c "ping -i 0.5 10.99.0.2 >'$H_DIR/ping.$tag' 2>&1 & p=\$!
        while [ ! -e '$H_DIR/stop' ]; do sleep 0.1; done; kill -INT \$p; wait \$p" &
    ppid=$!
    sleep 0.2
    h_exec a "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" send 10.99.0.2 $port "$bytes" 300 \
        >"$H_DIR/send.$tag"
    wait $rpid
    touch "$H_DIR/stop"
    wait $ppid || true
    sed -n 's/.*time=\([0-9.]*\) ms.*/\1/p' "$H_DIR/ping.$tag" >"$H_DIR/$tag.rtt"
    printf -v "rate_$tag" '%s' "$(sed -n 's/.*rate=\([0-9]*\).*/\1/p' "$H_DIR/recv.$tag")"
    printf -v "srate_$tag" '%s' "$(sed -n 's/.*rate=\([0-9]*\).*/\1/p' "$H_DIR/send.$tag")"
    local a b
    a=$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/send.$tag") b=$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/recv.$tag")
    printf -v "same_$tag" '%s' "$([ -n "$a" ] && [ "$a" = "$b" ] && echo match || echo MISMATCH)"
    printf -v "sent_$tag" '%s' "$(sed -n 's/^\([0-9]*\) packets transmitted.*/\1/p' "$H_DIR/ping.$tag")"
}
# median, 95th percentile (nearest rank) and worst of the round trips in a file, in ms.
rtt_stats() {
    sort -n "$1" | awk '{v[NR] = $1} END {
        if (NR == 0) { print "- - -"; exit }
        m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
        p = int(0.95 * NR); if (p < 0.95 * NR) p++
        printf "%.1f %.1f %.1f\n", m, v[p], v[NR] }'
}
# The idle round trip as ping -s 56 has it, median of 20.
idle_rtt() {
    h_exec a ping -c 20 -i 0.1 10.99.0.2 | sed -n 's/.*time=\([0-9.]*\) ms.*/\1/p' >"$H_DIR/idle.$1"
    rtt_stats "$H_DIR/idle.$1" | cut -d' ' -f1
}

h_exec a nstat -n
t0=$(now_ns) a0=$(cpu_ns "$pa") b0=$(cpu_ns "$pb") sa0=$(switches "$pa") sb0=$(switches "$pb")
transfer plain
t1=$(now_ns) a1=$(cpu_ns "$pa") b1=$(cpu_ns "$pb") sa1=$(switches "$pa") sb1=$(switches "$pb")
rate=$rate_plain srate=$srate_plain same=$same_plain
mtu=$(h_exec a cat /sys/class/net/uart2eth0/mtu 2>/dev/null || echo 1500)
awk -v r="$rate" -v s="$srate" -v n="$bytes" -v lr=$line_rate -v ck="$same" -v mtu="$mtu" \
    'BEGIN{printf "TCP bulk a->b, %d bytes, MTU %s: goodput %.0f bytes/s = %.1f%% of %d " \
           "(whole connection incl. set-up and close: %.0f bytes/s = %.1f%%), checksum %s\n",
           n, mtu, r, 100*r/lr, lr, s, 100*s/lr, ck}'
load_a=$((a1 - a0)) load_b=$((b1 - b0)) load_t=$((t1 - t0))
awk -v a=$load_a -v b=$load_b -v t=$load_t \
    'BEGIN{printf "transfer CPU over %.1f s: a (sender) %.3f s, b (receiver) %.3f s\n", t/1e9, a/1e9, b/1e9}'
grep -h "ERR" "$(h_out a)" "$(h_out b)" | sort | uniq -c | sed 's/^/daemon log: /' || true
# Retransmissions and bytes lost on the line explain a goodput below the framing's ceiling.
retrans=$(h_exec a nstat | awk '/RetransSegs|TCPTimeouts/{printf "%s %s ", $1, $2}')
echo "TCP on a during the transfer: ${retrans:-no retransmissions, no time-outs}"
h_line_cmd stats
sleep 0.2
sed -n 's/^line_emu \(..\): carried \([0-9]*\).*overrun \([0-9]*\).*/line \1 over the whole run: carried \2 bytes, lost to overrun \3/p' \
    "$H_DIR/line.err" | tail -n 2


# The same transfer once more with both daemons' egress shaped by the installed shaping script, as
# the boot script, the init script and the unit apply it (S2E_SHAPE_RATE etc. pass through).
idle_plain=$(idle_rtt plain)
shaped_by=$(h_exec a sh "$here/packaging/serialtoeth-shape")
h_exec b sh "$here/packaging/serialtoeth-shape" >/dev/null
echo "shaping: $shaped_by"
idle_shaped=$(idle_rtt shaped)
transfer shaped
qdisc=$(h_exec a tc qdisc show dev uart2eth0 | awk 'NR == 1 || /fq_codel/ {print $2}' | paste -sd+)
h_exec a tc -s qdisc show dev uart2eth0 | sed 's/^/  a: /'
read -r pm_plain p95_plain pw_plain <<<"$(rtt_stats "$H_DIR/plain.rtt")"
read -r pm_shaped p95_shaped pw_shaped <<<"$(rtt_stats "$H_DIR/shaped.rtt")"

echo
awk -v ia=$idle_a -v ib=$idle_b -v is=$idle_s -v la=$load_a -v lb=$load_b -v lt=$load_t \
    -v n="$bytes" -v r="$rate" -v lr=$line_rate -v pm="$ping_min" -v sp="$special" -v ck="$same" \
    -v sa=$((sa1 - sa0)) -v sb=$((sb1 - sb0)) 'BEGIN{
    f = "| %-47s | %14s | %14s |\n"
    printf f, "per daemon, this run", "a (sender)", "b (receiver)"
    printf "|%s|%s|%s|\n", "-------------------------------------------------", \
           "---------------:", "---------------:"
    printf f, sprintf("CPU idle, %d s", is), sprintf("%.3f s", ia/1e9), sprintf("%.3f s", ib/1e9)
    printf f, sprintf("CPU during the %d-byte transfer (%.1f s)", n, lt/1e9),
           sprintf("%.3f s", la/1e9), sprintf("%.3f s", lb/1e9)
    printf f, "thread wake-ups during the transfer", sa, sb
    g = sprintf("%.3f", r/lr)
    printf f, sprintf("goodput a->b, fraction of %d B/s (checksum %s)", lr, ck), g, g
    printf f, "ping -s 56 a->b, round trip minimum", pm " ms", pm " ms"
    printf f, "1514-byte frames of only 0x7E, only 0x5E", "", sp == "0x5E and 0x7E" ? "both whole" : "LOST: " sp
    }'

echo
f='| %-55s | %14s | %14s |\n'
# shellcheck disable=SC2059 # the format is the table's
{
    printf "$f" "$bytes-byte TCP transfer a->b, ping a->b every 0.5 s" "unshaped" "shaped: $qdisc"
    printf '|%s|%s|%s|\n' "---------------------------------------------------------" \
        "---------------:" "---------------:"
    printf "$f" "goodput, fraction of $line_rate B/s (checksum $same_plain, $same_shaped)" \
        "$(awk -v r="$rate_plain" -v l=$line_rate 'BEGIN{printf "%.3f", r/l}')" \
        "$(awk -v r="$rate_shaped" -v l=$line_rate 'BEGIN{printf "%.3f", r/l}')"
    printf "$f" "ping during the transfer: median" "$pm_plain ms" "$pm_shaped ms"
    printf "$f" "ping during the transfer: 95th percentile" "$p95_plain ms" "$p95_shaped ms"
    printf "$f" "ping during the transfer: worst" "$pw_plain ms" "$pw_shaped ms"
    printf "$f" "pings answered during the transfer" \
        "$(wc -l <"$H_DIR/plain.rtt")/$sent_plain" "$(wc -l <"$H_DIR/shaped.rtt")/$sent_shaped"
    printf "$f" "ping idle, median of 20" "$idle_plain ms" "$idle_shaped ms"
}
