#!/usr/bin/env bash
# Two daemons joined by the emulated line: ping with no loss, a bulk TCP transfer whose checksum
# matches, and recovery after bursts of garbage and bit errors on the line.
set -euo pipefail
source "$S2E_SOURCE_DIR/tools/e2e-harness.sh"
h_init

fail() {
    echo "FAIL: $*" >&2
    for n in a b; do echo "--- daemon $n output (tail)" >&2; tail -n 20 "$(h_out $n)" >&2; done
    exit 1
}

transfer() {  # BYTES: a -> b, prints the receiver's line and checks it against the sender's
    local bytes=$1 port=$((5000 + RANDOM % 1000))
    h_exec b "${H_RUN[@]}" "$S2E_TOOLS_DIR/tcp_blast" recv "$port" 90 >"$H_DIR/recv.txt" &
    local rpid=$!
    sleep 0.3
    h_exec a "${H_RUN[@]}" "$S2E_TOOLS_DIR/tcp_blast" send 10.99.0.2 "$port" "$bytes" 90 \
        >"$H_DIR/send.txt" || fail "sender: $(cat "$H_DIR/send.txt")"
    wait "$rpid" || fail "receiver: $(cat "$H_DIR/recv.txt")"
    local sent got
    sent=$(grep -o 'bytes=[0-9]* fnv=[0-9a-f]*' "$H_DIR/send.txt")
    got=$(grep -o 'bytes=[0-9]* fnv=[0-9a-f]*' "$H_DIR/recv.txt")
    [ -n "$sent" ] && [ "$sent" = "$got" ] || fail "transfer mismatch: sent '$sent' received '$got'"
    echo "transfer: $got"
}

h_pair

# Address resolution and ICMP both ways, every packet answered.
out=$(h_exec a ping -c 20 -i 0.2 -W 3 10.99.0.2) || fail "ping a->b: $out"
echo "$out" | grep -q " 0% packet loss" || fail "ping a->b lost packets: $out"
out=$(h_exec b ping -c 5 -i 0.2 -W 3 10.99.0.1) || fail "ping b->a: $out"
echo "$out" | grep -q " 0% packet loss" || fail "ping b->a lost packets: $out"

transfer 400000

# Noise: garbage bursts both ways and bit errors, with traffic trying to get through meanwhile.
h_line_cmd "ber 0.001"
h_line_cmd "drop 0.001"
for i in 1 2 3; do
    h_line_cmd "garbage 3000"
    h_exec a ping -c 5 -i 0.2 -W 1 10.99.0.2 >/dev/null 2>&1 || true
done
h_line_cmd "garbage 20000 ab"
sleep 1
h_alive a || fail "daemon a died under noise"
h_alive b || fail "daemon b died under noise"

# Quiet line again: once the queued garbage has drained, the link carries traffic again.
h_line_cmd "clear"
ok=0
for i in $(seq 30); do
    if h_exec a ping -c 1 -W 1 10.99.0.2 >/dev/null 2>&1; then ok=1; break; fi
done
[ "$ok" = 1 ] || fail "no traffic after the noise stopped"
out=$(h_exec a ping -c 10 -i 0.2 -W 3 10.99.0.2) || fail "ping after noise: $out"
echo "$out" | grep -q " 0% packet loss" || fail "ping after noise lost packets: $out"
transfer 100000
h_alive a && h_alive b || fail "a daemon ended"
h_line_cmd "stats"
h_check_reports || fail "sanitizer report"
echo "PASS"
