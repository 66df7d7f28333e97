#!/usr/bin/env bash
# Soak: two bridges over the emulated 57600 bytes/s line with bit errors both ways, TCP transfers
# a -> b back to back (each checked byte by byte by the receiver), a ping a -> b every second, and
# each daemon's resident memory, open descriptors and CPU sampled at a fixed interval into a CSV,
# plotted into a PNG beside it with gnuplot. A leak shows as a slope in the plot; a corrupted or
# stalled transfer, a lost ping run or an "ERR:" report shows in the summary at the end.
# Usage (as root, from a build tree):
#   bench/soak.sh [--build DIR] [--duration S] [--ber P] [--bytes N] [--sample S] [--out DIR]
#   --duration  seconds of load (default 3600)
#   --ber       bit error rate of the line, each direction (default 1e-6)
#   --bytes     bytes per TCP transfer (default 2000000, about 40 s on the line)
#   --sample    seconds between samples (default 60)
#   --out       directory for soak.csv, soak.png and soak.txt (default BUILD/soak)
# Runs itself through testbed/nsrun, so everything it makes vanishes with its namespaces.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build/default duration=3600 ber=1e-6 bytes=2000000 sample=60 out=""
args=("$@")
while [ $# -gt 0 ]; do
    case $1 in
        --build) build=$2; shift ;;
        --duration) duration=$2; shift ;;
        --ber) ber=$2; shift ;;
        --bytes) bytes=$2; shift ;;
        --sample) sample=$2; shift ;;
        --out) out=$2; shift ;;
        *) echo "usage: $0 [--build DIR] [--duration S] [--ber P] [--bytes N] [--sample S]" \
                "[--out DIR]" >&2
           exit 2 ;;
    esac
    shift
done
source "$here/bench/bench-common.sh"
out=${out:-$build/soak}
mkdir -p "$out"
out=$(cd "$out" && pwd)

# The board's UART driver (interrupt at 56 bytes in the receive FIFO or after 40 bit times of
# quiet). The line starts clean so that address resolution does not have to fight the noise.
h_pair --seed 7 --rx-fifo 56 --rx-timeout 4
h_exec a ping -c 3 -i 0.2 -q 10.99.0.2 >/dev/null
h_line_cmd "ber $ber"
pa=$(h_pid a) pb=$(h_pid b)
echo "SerialToEth soak: $duration s, line_emu ber $ber both ways, TCP transfers of $bytes bytes" \
     "a -> b back to back, ping a -> b every second, samples every $sample s into $out/soak.csv"

# Transfers back to back until the stop file appears; one line per transfer in transfers.log:
# "intact", "corrupt N" or "incomplete" (transfer_verdict).
stop=$H_DIR/stop
timeout=$(awk -v b="$bytes" 'BEGIN{printf "%.0f", 5*b/57600 + 120}')
(
    port=6000
    while [ ! -e "$stop" ]; do
        port=$((port + 1))
        h_exec b "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" check $port "$timeout" \
            >"$H_DIR/recv.txt" 2>&1 &
        rpid=$!
        sleep 0.3
        ok=0
        h_exec a "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" send 10.99.0.2 $port "$bytes" \
            "$timeout" >"$H_DIR/send.txt" 2>&1 || ok=1
        wait $rpid || ok=1
        transfer_verdict "$H_DIR/recv.txt" $ok >>"$H_DIR/transfers.log"
    done
) &
blast_pid=$!
# The loop and the ping end before the harness tears the daemons down, also on a failure.
soak_teardown() {
    kill "$blast_pid" "$ping_pid" 2>/dev/null || true  # mostly ended by then
    wait "$blast_pid" "$ping_pid" 2>/dev/null || true
    h_teardown
}
trap soak_teardown EXIT
h_exec a ping -i 1 -w "$duration" -W 2 10.99.0.2 >"$H_DIR/ping.txt" 2>&1 &
ping_pid=$!

csv=$out/soak.csv
echo "minute,a_rss_kb,a_fds,a_cpu_pct,b_rss_kb,b_fds,b_cpu_pct,transfers_ok,transfers_bad" >"$csv"
sample_row() {
    local m=$1 t a b ok bad
    t=$(now_ns) a=$(cpu_ns "$pa") b=$(cpu_ns "$pb")
    ok=$(grep -c '^intact' "$H_DIR/transfers.log" 2>/dev/null || true)
    bad=$(grep -vc '^intact' "$H_DIR/transfers.log" 2>/dev/null || true)
    awk -v m="$m" -v ra="$(rss_kb "$pa")" -v fa="$(nfds "$pa")" -v rb="$(rss_kb "$pb")" \
        -v fb="$(nfds "$pb")" -v da=$((a - last_a)) -v db=$((b - last_b)) -v dt=$((t - last_t)) \
        -v ok="${ok:-0}" -v bad="${bad:-0}" \
        'BEGIN{printf "%.2f,%d,%d,%.3f,%d,%d,%.3f,%d,%d\n", m, ra, fa, 100*da/dt, rb, fb,
               100*db/dt, ok, bad}' >>"$csv"
    last_t=$t last_a=$a last_b=$b
}
start=$(now_ns)
last_t=$start last_a=$(cpu_ns "$pa") last_b=$(cpu_ns "$pb")
# The first row: memory and descriptors after start-up, CPU of the first moments.
sleep 1
sample_row 0
elapsed=0
while [ "$elapsed" -lt "$duration" ]; do
    next=$((elapsed + sample))
    [ "$next" -gt "$duration" ] && next=$duration
    sleep "$(awk -v s="$start" -v n="$next" -v t="$(now_ns)" 'BEGIN{d = n - (t - s)/1e9;
                                                                print (d > 0 ? d : 0)}')"
    elapsed=$next
    h_alive a && h_alive b || { echo "a daemon ended at $elapsed s" >&2; break; }
    sample_row "$(awk -v e="$elapsed" 'BEGIN{print e/60}')"
done
touch "$stop"
# The transfer under way finishes (at most its time-out) so that every transfer is counted whole.
wait "$blast_pid" || true
wait "$ping_pid" || true

png=$out/soak.png
gnuplot <<EOF
set terminal pngcairo size 900,700 font ",9" noenhanced
set output "$png"
set datafile separator ","
set key bottom right
set multiplot layout 3,1 title "SerialToEth soak: $duration s, bit error rate $ber, TCP transfers a -> b back to back"
set xlabel "minutes"
set ylabel "RSS (KiB)"
set yrange [0:*]
plot "$csv" using 1:2 with linespoints title "a", "" using 1:5 with linespoints title "b"
set ylabel "open descriptors"
plot "$csv" using 1:3 with linespoints title "a", "" using 1:6 with linespoints title "b"
set ylabel "CPU (% of a core)"
plot "$csv" using 1:4 with linespoints title "a", "" using 1:7 with linespoints title "b"
unset multiplot
EOF

{
    echo "SerialToEth soak: $duration s, line_emu ber $ber both ways, TCP transfers of $bytes" \
         "bytes a -> b back to back, ping a -> b every second"
    awk -F, 'NR == 2 { a0 = $2; af0 = $3; b0 = $5; bf0 = $6 }
             NR > 1 { al = $2; afl = $3; bl = $6 + 0; bll = $5; if ($2 > amax) amax = $2
                      if ($5 > bmax) bmax = $5; ca += $4; cb += $7; n++ }
             NR > 2 { if ($4 > cma) cma = $4; if ($7 > cmb) cmb = $7 }
             END { printf "RSS KiB first/last/max: a %d/%d/%d, b %d/%d/%d\n", a0, al, amax, b0,
                          bll, bmax
                   printf "open descriptors first/last: a %d/%d, b %d/%d\n", af0, afl, bf0, bl
                   printf "CPU %% of a core, mean/max of the samples: a %.2f/%.2f, b %.2f/%.2f\n",
                          ca/n, cma, cb/n, cmb }' "$csv"
    awk '{ n++; if ($1 == "intact") ok++; else if ($1 == "corrupt") { c++; segs += $2 } else inc++ }
         END { printf "TCP transfers: %d, intact %d, corrupted %d (%d segments), incomplete %d\n",
                      n, ok, c, segs, inc }' "$H_DIR/transfers.log"
    tail -n 2 "$H_DIR/ping.txt" | head -n 1 | sed 's/^/ping: /'
    h_line_cmd stats
    sleep 0.3
    grep '^line_emu' "$H_DIR/line.err" | tail -n 2 |
        sed 's/^line_emu \(..\): carried \([0-9]*\) flipped-bits \([0-9]*\).*/line \1: \2 bytes carried, \3 bits flipped/'
    for name in a b; do
        n=$(grep -c "ERR" "$(h_out "$name")" || true)
        echo "daemon $name: $n \"ERR\" lines; alive: $(h_alive "$name" && echo yes || echo NO)"
        err_texts <"$(h_out "$name")" | sed 's/^/    /' || true
    done
    echo "CSV: $csv"
    echo "plot: $png"
} | tee "$out/soak.txt"
