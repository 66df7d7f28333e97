#!/usr/bin/env bash
# Bit-error benchmark: what a noisy line lets through to the application. The serial frame has no
# checksum, so every bit error reaches the network stack; TCP's 16-bit sum catches most, and the
# rest reach the application as corrupted data. Two bridges over the emulated line, bit errors at
# a given rate both ways, a bulk TCP transfer a -> b of a deterministic stream that the receiver
# checks byte by byte (tcp_blast check). Reports what arrived, what TCP's checksum rejected, and the
# corrupted segments that reached the application, with MB per corrupted segment.
# Usage (as root, from a build tree):
#   bench/ber_bench.sh [--build DIR] [--ber P] [--mb N] [--rate BYTES_PER_S] [--seed N]
#   --build  build tree (default build/default)
#   --ber    probability that a bit on the line flips, each direction (default 1e-5)
#   --mb     megabytes (10^6 bytes) to send (default 100: a few minutes at the default rate)
#   --rate   emulated line rate in bytes/s each way (default 1000000; the board's line is 57600:
#            the rate changes how long a run takes, not what one bit error does)
#   --seed   seed of the line's bit errors (default 1)
# Runs itself through testbed/nsrun, so everything it makes vanishes with its namespaces. The bit
# errors are placed by a seeded generator, but which bytes they hit depends on TCP's timing, so
# two runs with one seed differ in detail; the counts are samples of a rare event, so the report
# gives each rate with a 95% interval.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build/default ber=1e-5 mb=100 rate=1000000 seed=1
args=("$@")
while [ $# -gt 0 ]; do
    case $1 in
        --build) build=$2; shift ;;
        --ber) ber=$2; shift ;;
        --mb) mb=$2; shift ;;
        --rate) rate=$2; shift ;;
        --seed) seed=$2; shift ;;
        *) echo "usage: $0 [--build DIR] [--ber P] [--mb N] [--rate BYTES_PER_S] [--seed N]" >&2
           exit 2 ;;
    esac
    shift
done
source "$here/bench/bench-common.sh"

bytes=$(awk -v m="$mb" 'BEGIN{printf "%.0f", m*1e6}')
# Room for the retransmissions that a noisy line costs: five times the bare line time, plus set-up.
timeout=$(awk -v b="$bytes" -v r="$rate" 'BEGIN{printf "%.0f", 5*b/r + 120}')

# Counters of a namespace's IP and TCP: "Proto Name value" lines.
snmp() {
    h_exec "$1" cat /proc/net/snmp | awk '
        $1 in head { split(head[$1], name); for (i = 2; i <= NF; i++) print $1, name[i], $i
                     delete head[$1]; next }
        { head[$1] = $0 }'
}
counter() { awk -v k="$2" '$1" "$2==k{print $3}' "$1"; }
line_stat() { sed -n "s/^line_emu $1: .* $2 \([0-9]*\).*/\1/p" "$H_DIR/line.err" | tail -n 1; }

# The line starts clean so that address resolution does not have to fight the noise.
h_pair --rate "$rate" --seed "$seed"
h_exec a ping -c 3 -i 0.2 -q 10.99.0.2 >/dev/null
mtu=$(h_exec a ip -o link show uart2eth0 | sed -n 's/.* mtu \([0-9]*\).*/\1/p')
echo "SerialToEth bit-error benchmark: line_emu --rate $rate --ber $ber --seed $seed, MTU $mtu," \
     "TCP bulk a -> b of $bytes bytes"
h_line_cmd stats
snmp a >"$H_DIR/a0.snmp"
snmp b >"$H_DIR/b0.snmp"
h_line_cmd "ber $ber"

port=5301
h_exec b "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" check $port "$timeout" >"$H_DIR/recv.txt" &
rpid=$!
sleep 0.3
status=0
h_exec a "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" send 10.99.0.2 $port "$bytes" "$timeout" \
    >"$H_DIR/send.txt" || status=$?
wait $rpid || status=$?
h_line_cmd clear
snmp a >"$H_DIR/a1.snmp"
snmp b >"$H_DIR/b1.snmp"
h_line_cmd stats
sleep 0.3

delta() { echo $(($(counter "$H_DIR/${1}1.snmp" "$2") - $(counter "$H_DIR/${1}0.snmp" "$2"))); }
for dir in ab ba; do
    c0=$(sed -n "s/^line_emu $dir: carried \([0-9]*\) flipped-bits \([0-9]*\).*/\1 \2/p" \
        "$H_DIR/line.err" | head -n 1)
    c1=$(sed -n "s/^line_emu $dir: carried \([0-9]*\) flipped-bits \([0-9]*\).*/\1 \2/p" \
        "$H_DIR/line.err" | tail -n 1)
    read -r car0 flip0 <<<"$c0"
    read -r car1 flip1 <<<"$c1"
    awk -v d="$dir" -v c=$((car1 - car0)) -v f=$((flip1 - flip0)) -v o="$(line_stat "$dir" overrun)" \
        'BEGIN{printf "line %s: %d bytes carried, %d bits flipped (%.2e per bit), %s bytes lost " \
               "to receiver overrun (whole run)\n", d, c, f, c ? f/(8*c) : 0, o}'
done

recv_line=$(grep '^bytes=' "$H_DIR/recv.txt" || true)
got=$(sed -n 's/^bytes=\([0-9]*\).*/\1/p' <<<"$recv_line")
secs=$(sed -n 's/.*seconds=\([0-9.]*\).*/\1/p' <<<"$recv_line")
goodput=$(sed -n 's/.*rate=\([0-9]*\).*/\1/p' <<<"$recv_line")
read -r cbytes cbits csegs < <(sed -n \
    's/^corrupt_bytes=\([0-9]*\) corrupt_bits=\([0-9]*\) corrupt_segments=\([0-9]*\)/\1 \2 \3/p' \
    "$H_DIR/recv.txt")
echo "receiver: ${got:-0} of $bytes bytes in ${secs:-?} s (goodput ${goodput:-?} bytes/s," \
     "$(awk -v g="${goodput:-0}" -v r="$rate" 'BEGIN{printf "%.1f", 100*g/r}')% of the line)"
echo "b's stack (the receiver of the data): $(delta b "Tcp: InSegs") TCP segments in," \
     "$(delta b "Tcp: InCsumErrors") rejected by TCP's checksum," \
     "$(delta b "Ip: InHdrErrors") IP headers rejected;" \
     "a's stack (the receiver of the ACKs): $(delta a "Tcp: InCsumErrors") rejected by TCP's checksum"
echo "a's stack: $(delta a "Tcp: RetransSegs") TCP segments retransmitted"
grep '^corrupt offset=' "$H_DIR/recv.txt" | sed 's/^/  /' || true
# Exact 95% interval of a Poisson count k (by bisection on its distribution), turned into MB per
# corrupted segment.
awk -v k="${csegs:-0}" -v cb="${cbytes:-0}" -v cbits="${cbits:-0}" -v n="${got:-0}" '
    function cdf(j, m,   i, t, s) { if (j < 0) return 0; t = exp(-m); s = t
                                    for (i = 1; i <= j; i++) { t *= m / i; s += t }; return s }
    # The mean m at which P(X <= j) = p; P(X <= j) falls as m grows.
    function solve(j, p,   a, b, m, i) { a = 0; b = 10 * (j + 5)
                                          for (i = 0; i < 100; i++) { m = (a + b) / 2
                                              if (cdf(j, m) > p) a = m; else b = m }
                                          return m }
    BEGIN {
        lo = k > 0 ? solve(k - 1, 0.975) : 0
        hi = solve(k, 0.025)
        mb = n / 1e6
        printf "corrupted data reaching the application: %d segments (%d bytes, %d bits)\n", k, cb,
               cbits
        if (k > 0)
            printf "MB per corrupted segment: %.1f (95%% interval %.1f to %.1f)\n", mb/k, mb/hi,
                   mb/lo
        else
            printf "MB per corrupted segment: more than %.1f (95%% bound; none in %.1f MB)\n",
                   mb/hi, mb
    }'
# A loaded machine can starve a bridge's threads: what that lost shows here, summed per message.
for name in a b; do
    { grep -h "ERR" "$(h_out "$name")" || true; } | awk -v d="$name" '
        match($0, /[0-9]+ bytes/) { n = substr($0, RSTART, RLENGTH - 6) + 0
                                    key = substr($0, 1, RSTART - 1) "N" substr($0, RSTART + RLENGTH - 6)
                                    count[key]++; sum[key] += n; next }
        { count[$0]++ }
        END { for (k in count) printf "daemon %s log: %d x \"%s\"%s\n", d, count[k], k,
                                      k in sum ? sprintf(", %d bytes in all", sum[k]) : "" }'
done
[ "$status" = 0 ] || echo "transfer incomplete (exit status $status)"
exit "$status"
