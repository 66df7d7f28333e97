#!/usr/bin/env bash
# Tap benchmark: what the daemon's tap costs and whether its view agrees with the line. Two bridges
# over the emulated line, a bulk TCP transfer a->b per run; per run the goodput and each daemon's
# CPU time during the transfer:
#   base      a daemon without the tap (--base), for comparison
#   nobody    this tree's daemons, no reader attached
#   attached  a reader (serialtoeth-capture --attach -w FILE) on each daemon
#   stopped   the same readers stopped with SIGSTOP for the transfer: the bridge goes on, the
#             readers lose records, counted by the daemons and shown as gaps once continued
# in rounds that alternate the two trees, so that the machine's load falls on both alike. Then
# agreement: a noisy transfer (bit errors, bursts of garbage) with a capture attached to b, against
# the line emulator's own capture of the line a->b: delivered frames, drops by reason, noise.
# Usage (as root): bench/tap_bench.sh [--base DAEMON] [--rounds N] [BUILD_DIR] [BYTES]
#   BUILD_DIR defaults to build/default, BYTES (per transfer) to 500000, N to 3. Without --base the
#   base runs are left out. The receiving UART is the board's (S2E_BENCH_UART as in e2e_bench.sh).
# Runs itself through testbed/nsrun, so everything it makes vanishes with its namespaces.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck disable=SC2034 # read by bench-common.sh, which runs this again with them in the namespaces
args=("$@")
base="" rounds=3
while [ $# -gt 0 ]; do
    case $1 in
        --base) base=$(realpath "$2"); shift 2 ;;
        --rounds) rounds=$2; shift 2 ;;
        *) break ;;
    esac
done
case $rounds in '' | *[!0-9]* | 0) echo "tap_bench: --rounds takes a positive number" >&2; exit 2 ;; esac
build=$(cd "${1:-$here/build/default}" && pwd)
bytes=${2:-500000}
source "$here/bench/bench-common.sh"
capture=$build/capture/serialtoeth-capture
tap_daemon=$S2E_DAEMON
uart=${S2E_BENCH_UART:---rx-fifo 56 --rx-timeout 4}
line_rate=57600
load() { cut -d' ' -f1-3 /proc/loadavg; }
echo "SerialToEth tap benchmark: $bytes-byte TCP transfers a->b over the emulated line" \
    "($line_rate bytes/s each way, receiving UART: $uart), $rounds rounds; load average at start: $(load)"

# pair DAEMON [--pcap]: a fresh pair of bridges (and state directory) with that daemon, their
# addresses known to each other; --pcap: the line emulator captures the line into
# $H_DIR/line.pcapng, and nothing has crossed it yet.
pair() {
    h_teardown
    h_init
    S2E_DAEMON=$1
    local opts=()
    [ "${2:-}" != --pcap ] || opts=(--pcap "$H_DIR/line.pcapng")
    # shellcheck disable=SC2086 # options, split on purpose
    h_pair $uart "${opts[@]}"
    [ ${#opts[@]} -gt 0 ] || h_exec a ping -c 3 -i 0.2 -q 10.99.0.2 >/dev/null
}
# attach NAME FILE: a reader on that daemon writing FILE, the background job $job; its own pid
# (the capture, the last of the job's descendants) in $reader.
attach() {
    h_exec "$1" "${H_RUN[@]}" "$capture" --attach -w "$2" 2>>"$H_DIR/readers.out" &
    job=$!
    local c
    for _ in $(seq 100); do [ -s "$2" ] && break; sleep 0.1; done
    [ -s "$2" ] || h_die "reader on $1 did not attach"
    reader=$job
    while c=$(cat "/proc/$reader/task/$reader/children" 2>/dev/null) && [ -n "$c" ]; do reader=${c%% *}; done
}
# transfer TAG: the bulk transfer; adds "TAG goodput cpu_a cpu_b nanoseconds" to $runs.
port=5300
transfer() {
    local tag=$1 pa pb t0 a0 b0 t1 a1 b1 rate
    port=$((port + 1))
    pa=$(h_pid a) pb=$(h_pid b)
    h_exec b "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" recv $port 130 >"$H_DIR/recv.$tag" &
    local rpid=$!
    sleep 0.3
    t0=$(now_ns) a0=$(cpu_ns "$pa") b0=$(cpu_ns "$pb")
    local sent=0
    h_exec a "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" send 10.99.0.2 $port "$bytes" 120 \
        >"$H_DIR/send.$tag" || sent=$?
    wait $rpid || true
    t1=$(now_ns) a1=$(cpu_ns "$pa") b1=$(cpu_ns "$pb")
    rate=$(sed -n 's/.*rate=\([0-9]*\).*/\1/p' "$H_DIR/recv.$tag")
    [ "$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/send.$tag")" = "$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/recv.$tag")" ] ||
        rate="CORRUPT"
    [ "$sent" = 0 ] || rate="INCOMPLETE"
    runs+="$tag $rate $((a1 - a0)) $((b1 - b0)) $((t1 - t0))"$'\n'
}
# The bytes a capture's gap records say were lost, both directions.
gap_bytes() {
    tshark -r "$1" -T fields -e frame.comment 2>/dev/null |
        sed -n 's/^gap: the tap lost \([0-9]*\) bytes.*/\1/p' | awk '{n += $1} END {print n + 0}'
}

runs=""
for round in $(seq "$rounds"); do
    trees=(tap)
    if [ -n "$base" ]; then
        # The base first in odd rounds, last in even ones.
        if [ $((round % 2)) = 1 ]; then trees=(base tap); else trees=(tap base); fi
    fi
    for tree in "${trees[@]}"; do
        if [ "$tree" = base ]; then
            pair "$base"
            transfer base
            runs+="rss base $(rss_kb "$(h_pid b)")"$'\n'
            continue
        fi
        pair "$tap_daemon"
        transfer nobody
        runs+="rss nobody $(rss_kb "$(h_pid b)")"$'\n'
        attach a "$H_DIR/a.pcapng" && ra=$reader ja=$job
        attach b "$H_DIR/b.pcapng" && rb=$reader jb=$job
        r0=$(($(cpu_ns "$ra") + $(cpu_ns "$rb")))
        transfer attached
        runs+="readers $(($(cpu_ns "$ra") + $(cpu_ns "$rb") - r0))"$'\n'
        runs+="rss attached $(rss_kb "$(h_pid b)")"$'\n'
        kill -TERM "$ra" "$rb"
        wait "$ja" "$jb" || true
        attach a "$H_DIR/sa.pcapng" && ra=$reader ja=$job
        attach b "$H_DIR/sb.pcapng" && rb=$reader jb=$job
        # nsenter stops itself with its child, and continues it when continued.
        pa=$(ps -o ppid= -p "$ra" | tr -d ' ') pb=$(ps -o ppid= -p "$rb" | tr -d ' ')
        kill -STOP "$ra" "$rb"
        transfer stopped
        kill -CONT "$pa" "$pb"
        h_exec a ping -c 5 -i 0.2 -q 10.99.0.2 >/dev/null # traffic, so that the gaps go out
        sleep 1
        kill -TERM "$ra" "$rb"
        wait "$ja" "$jb" || true
        runs+="lost $(gap_bytes "$H_DIR/sa.pcapng") $(gap_bytes "$H_DIR/sb.pcapng")"$'\n'
    done
    echo "round $round (tag, goodput in bytes/s, CPU of a and b in ns, nanoseconds; bytes lost a, b):"
    tail -n $((${#trees[@]} == 2 ? 9 : 7)) <<<"${runs%$'\n'}" | sed 's/^/  /'
done

echo
echo "load average at the end of the runs: $(load)"
f='| %-34s | %-26s | %-26s | %-26s |\n'
# shellcheck disable=SC2059 # the format is the table's
printf "$f" "per $bytes-byte transfer a->b" "goodput, fraction of line" "CPU a (sender), % of core" \
    "CPU b (receiver), % of core"
printf '|%s|%s|%s|%s|\n' "------------------------------------" "----------------------------:" \
    "----------------------------:" "----------------------------:"
declare -A names=([base]="without the tap (base)" [nobody]="tap, nobody attached"
    [attached]="tap, a reader on each" [stopped]="tap, both readers stopped")
for tag in base nobody attached stopped; do
    grep -q "^$tag " <<<"$runs" || continue
    awk -v tag="$tag" -v name="${names[$tag]}" -v lr=$line_rate -v f="$f" '$1 == tag {
        n++; g[n] = $2 / lr; a[n] = 100 * $3 / $5; b[n] = 100 * $4 / $5 }
        function span(v, digits,   i, lo, hi, s) {
            lo = hi = v[1]; s = 0
            for (i = 1; i <= n; i++) { s += v[i]; if (v[i] < lo) lo = v[i]; if (v[i] > hi) hi = v[i] }
            return sprintf("%." digits "f (%." digits "f-%." digits "f)", s / n, lo, hi) }
        END { printf f, name " (" n " runs)", span(g, 3), span(a, 2), span(b, 2) }' <<<"$runs"
done
echo "(mean, and lowest-highest, over the runs; CPU: all threads of the daemon over the transfer)"
awk '$1 == "readers" {s += $2; n++} END {if (n) printf "readers'"'"' own CPU during an attached transfer: %.3f s (both, mean of %d)\n", s / n / 1e9, n}' <<<"$runs"
awk '$1 == "rss" {s[$2] += $3; n[$2]++} END {printf "resident memory of b after the transfer (KiB, mean):"
    for (t in s) printf " %s %d", t, s[t] / n[t]; print ""}' <<<"$runs"
awk '$1 == "lost" {printf "stopped readers: the daemons counted %d bytes (a) and %d bytes (b) lost, shown as gaps\n", $2, $3}' <<<"$runs"

# Agreement on a noisy line: b's attached view of what it received against the emulator's view.
pair "$tap_daemon" --pcap
attach b "$H_DIR/view.pcapng" && rb=$reader jb=$job
# Besides random garbage and bit errors, one frame for each reason the extractor drops bytes for:
# noise, too short, a short payload, too long (d = 3047) and unterminated (3100 bytes).
A() { head -c "$1" /dev/zero | tr '\0' A; }
{ A 300; printf '\x7e\x7e\xff\xff\xff\xff\x01\x02\x03\x04\x7e\x7e\xff\xff\xff\xff\x01\x02\x03\x04\x05\x7e'
  printf '\x7e'; A 3046; printf '\x7e\x7e'; A 3100; printf '\x7e'; } >"$H_DIR/crafted"
h_line_cmd "ber 1e-5 ab"
(for n in 300 4000 300 4000; do
    sleep 1.5 && h_line_cmd "garbage $n ab" && sleep 1.5 && h_line_cmd "inject $H_DIR/crafted ab"
done) &
noise_job=$!
transfer noisy
wait $noise_job
h_line_cmd clear
h_exec a ping -c 3 -i 0.2 -q 10.99.0.2 >/dev/null || true
sleep 0.5
kill -TERM "$rb"
wait "$jb" || true
sleep 0.5
# Per interface kind: delivered frames (with an MD5 of each), drops by reason, noise, gaps.
view_of() { # FILE REGEX
    tshark -r "$1" -o frame.generate_md5_hash:TRUE -Y "frame.interface_name matches \"$2\"" -T fields \
        -E separator='|' -e frame.md5_hash -e frame.len -e frame.comment 2>/dev/null |
        grep -v '|not delivered: ' || true
}
view_of "$H_DIR/line.pcapng" '^a->b' >"$H_DIR/emu.txt"
view_of "$H_DIR/view.pcapng" '^uart rx' >"$H_DIR/tap.txt"
summarise() {
    awk -F'|' '$3 == "" {d++; next} $3 ~ /noise/ {noise += $2; next} $3 ~ /^gap:/ {gap++; next}
        {r = $3; sub(/ of [0-9]+ bytes/, "", r); sub(/: [0-9]+ bytes/, ":", r); c[r]++}
        END {printf "delivered %d, noise %d bytes, gaps %d\n", d, noise, gap
             for (r in c) printf "  %5d  %s\n", c[r], r | "sort -k2"}' "$1"
}
echo
echo "agreement, noisy transfer a->b (ber 1e-5, bursts of garbage, 4 crafted runs of every drop reason): $(tail -n 1 <<<"${runs%$'\n'}" | cut -d' ' -f2) bytes/s"
echo "line emulator's capture of a->b:"
summarise "$H_DIR/emu.txt" | sed 's/^/  /'
echo "capture attached to b (uart rx):"
summarise "$H_DIR/tap.txt" | sed 's/^/  /'
if grep -q '|gap: ' "$H_DIR/tap.txt"; then
    echo "the attached capture had gaps: the lists are compared only where they agree on the rest"
fi
# What only the daemon knows (its own discards and failed writes), noise (joined into packets as
# it arrives) and what gaps cut are left out of the comparison.
extractor() { grep -v '|dropped: [0-9]* bytes of noise\||gap: \||not known: \||not written: \||not sent: \||discarded by the daemon: ' "$1" || true; }
if cmp -s <(extractor "$H_DIR/emu.txt") <(extractor "$H_DIR/tap.txt"); then
    echo "delivered frames (MD5 and length each) and drops (length and reason each), in order: identical"
else
    echo "delivered frames and drops, in order: DIFFERENT (diff follows)"
    diff <(extractor "$H_DIR/emu.txt") <(extractor "$H_DIR/tap.txt") | head -20 || true
fi
