#!/usr/bin/env bash
# serialtoeth-capture --attach on daemons in namespaces: a noisy line against the line emulator's
# own capture of it; readers refused (not root, one too many); a stopped reader's losses shown as a
# gap while the bridge goes on; tshark through the extcap; the daemon's own UART refused as a source.
source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
rmdir "$work" # the harness keeps its state in $H_DIR, removed by its own exit trap
source "$S2E_SOURCE_DIR/testbed/e2e-harness.sh"
h_init
command -v tshark >/dev/null || fail "tshark is missing (tools/install-deps.sh)"
read -r -a cap <<<"${S2E_EMULATOR:-} $S2E_CAPTURE"
# attach_b FILE: b's line into FILE in the background ($job) once attached; $reader: the capture.
attach_b() {
    h_exec b "${cap[@]}" --attach -w "$1" 2>>"$H_DIR/readers.out" & job=$!
    wait_until 10 test -s "$1" || fail "reader for $1 did not attach"
    reader=$(leaf $job)
}
leaf() { local p=$1 c; while c=$(cat "/proc/$p/task/$p/children" 2>/dev/null) && [ -n "$c" ]; do p=${c%% *}; done; echo "$p"; }
packets() { # FILE INTERFACE-REGEX: length, MD5 and comment of each packet but noise and held bytes
    tshark -r "$1" -o frame.generate_md5_hash:TRUE -Y "frame.interface_name matches \"$2\"" -T fields \
        -E separator='|' -e frame.len -e frame.md5_hash -e frame.comment 2>/dev/null | grep -v '|dropped: [0-9]* bytes of noise\||not delivered:'
}
noise() { tshark -r "$1" -Y "frame.interface_name matches \"$2\" && frame.comment contains \"noise\"" -T fields -e frame.len 2>/dev/null | awk '{n += $1} END {print n + 0}'; }
ping_b() { h_exec a ping -c "$1" -i 0.1 -W 1 10.99.0.2 >/dev/null 2>&1 || true; }

h_pair --pcap "$H_DIR/line.pcapng"
# Agreement: b's own view of what it received against the emulator's view of the line a->b, over
# noise, crafted frames of two drop reasons, garbage and bit errors.
attach_b "$H_DIR/b.pcapng"
{ head -c 300 /dev/zero | tr '\0' A; printf '\x7e\x7e\xff\xff\xff\xff\x01\x02\x03\x04\x7e\x7e\xff\xff\xff\xff\x01\x02\x03\x04\x05\x7e'; } >"$H_DIR/bad"
ping_b 3 && h_line_cmd "inject $H_DIR/bad ab" && sleep 0.3 && h_line_cmd "garbage 500 ab" && h_line_cmd "ber 5e-4 ab"
ping_b 20 && h_line_cmd clear && ping_b 3 && sleep 0.5
kill -TERM "$reader" && wait "$job"
emu=$(packets "$H_DIR/line.pcapng" '^a->b') got=$(packets "$H_DIR/b.pcapng" '^uart rx')
[ "$got" = "$emu" ] || { diff <(echo "$emu") <(echo "$got") >&2; fail "attached capture differs from the line's"; }
for reason in "below the 11-byte minimum" "below the 12-byte minimum"; do
    grep -q "$reason" <<<"$got" || fail "no drop '$reason' in the attached capture"
done
[ "$(grep -c '|$' <<<"$got")" -ge 20 ] || fail "fewer than 20 delivered frames: $got"
[ "$(noise "$H_DIR/b.pcapng" '^uart rx')" = "$(noise "$H_DIR/line.pcapng" '^a->b')" ] || fail "noise differs"
[ "$(noise "$H_DIR/b.pcapng" '^uart rx')" -ge 300 ] || fail "noise not seen"

# Only root attaches: the directory keeps others out, and the daemon checks who connects.
for refusal in "Permission denied (only root may attach)" "the daemon refuses: only root may attach"; do
    out=$(h_exec b timeout 5 setpriv --reuid nobody --regid nogroup --clear-groups "${cap[@]}" --attach --summary 2>&1) &&
        fail "nobody attached"
    grep -q "$refusal" <<<"$out" || fail "nobody: $out"
    h_exec b chmod 0755 /run/serialtoeth && h_exec b chmod 0666 /run/serialtoeth/tap # opened up for the second
done

# Four readers, then a fifth is refused; the first, stopped, loses records while a transfer goes on.
# (nsenter stops itself with the reader, and continues it when continued.)
readers=() jobs=()
for i in 1 2 3 4; do
    attach_b "$H_DIR/r$i.pcapng" && readers+=("$reader") jobs+=("$job")
done
out=$(h_exec b timeout 5 "${cap[@]}" --attach --summary 2>&1) && fail "a fifth reader attached"
grep -q "refuses: 4 readers are attached already" <<<"$out" || fail "fifth reader: $out"
kill -STOP "${readers[0]}"
h_exec b "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" recv 5001 60 >"$H_DIR/recv" & sleep 0.3
h_exec a "${H_RUN[@]}" "$S2E_TESTBED_DIR/tcp_blast" send 10.99.0.2 5001 300000 60 >"$H_DIR/send" || fail "transfer"
wait $!
[ "$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/send")" = "$(grep -o 'fnv=[0-9a-f]*' "$H_DIR/recv")" ] ||
    fail "transfer beside a stopped reader: $(cat "$H_DIR/send" "$H_DIR/recv")"
kill -CONT "$(ps -o ppid= -p "${readers[0]}" | tr -d ' ')" && ping_b 5
kill -TERM "${readers[@]}" && wait "${jobs[@]}"
[ "$(tshark -r "$H_DIR/r1.pcapng" -Y 'frame.comment contains "gap: the tap lost"' 2>/dev/null | wc -l)" -ge 1 ] ||
    fail "the stopped reader's capture shows no gap"

# Wireshark's route: tshark finds the extcap in its folder (a tmpfs here) and captures through it.
ext=$(compgen -G '/usr/lib/*/wireshark/extcap') || fail "no extcap folder of Wireshark's"
printf '#!/bin/sh\nexec %s "$@"\n' "${cap[*]}" >"$H_DIR/extcap"
h_exec b sh -c "mount -t tmpfs s2e-extcap $ext && install -m 0755 $H_DIR/extcap $ext/serialtoeth-capture &&
    tshark -D 2>/dev/null >$H_DIR/list && tshark -i serialtoeth -a duration:4 -w $H_DIR/t.pcapng >/dev/null 2>&1" &
sleep 2 && ping_b 3 && h_line_cmd "inject $H_DIR/bad ab"
wait $! || fail "tshark through the extcap"
grep -q '^[0-9]*\. serialtoeth (SerialToEth serial line' "$H_DIR/list" || fail "tshark -D: $(cat "$H_DIR/list")"
names=$(tshark -r "$H_DIR/t.pcapng" -T fields -e frame.interface_name -e frame.comment 2>/dev/null | sort -u)
grep -q $'^uart rx dropped\tdropped: frame of 10 bytes' <<<"$names" || fail "no drop on uart rx dropped: $names"

# The daemon's own UART is not read behind its back, whatever its name.
out=$(h_exec a timeout 5 "${cap[@]}" -w /dev/null "$H_PTY_A" 2>&1) && fail "capture opened the daemon's UART"
grep -q "is /dev/zynq_uart0, the UART of SerialToEth.*Use --attach" <<<"$out" || fail "own UART: $out"
h_check_reports || fail "sanitizer report"
echo "PASS"
