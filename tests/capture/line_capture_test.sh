#!/usr/bin/env bash
# Line capture: a crafted stream of good and bad frames comes out of serialtoeth-capture as the
# packets, payloads and drop reasons the daemon's extractor gives it, as tshark reads them.
host=1 source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
command -v tshark >/dev/null || fail "tshark is missing (tools/install-deps.sh)"
read -r -a run <<<"${S2E_EMULATOR:-}"
cap=("${run[@]}" "$S2E_CAPTURE")

bytes() { printf "$(sed -E 's/([0-9a-f]{2}) ?/\\x\1/g' <<<"$1")"; }     # "7e ff" -> 2 bytes
fill() { head -c "$1" /dev/zero | tr '\0' "\\$(printf %03o "0x${2:-41}")"; } # N bytes, default 41
eth='02 00 00 00 00 02 02 00 00 00 00 01 88 b5' # to, from, a local experimental type
# Row: the line's bytes | packets as "interface|length|first bytes after the Ethernet header or
# of the dropped bytes|comment", ";" between packets. Interface 0 delivers, 1 drops.
rows=(
    "fill 20 55|1|20|5555555555555555|dropped: 20 bytes of noise without a start flag"
    "bytes '7e ff ff ff ff $eth 5e 7d 5e 5d 5d 7d 5e 41 7e'|0|19|7e5e5d7d41|"
    "bytes '7e ff ff ff ff 01 02 03 04 05 7e'|1|11|7effffffff010203|dropped: payload of 5 bytes after unstuffing, below the 12-byte minimum"
    "bytes '7e ff ff ff ff 01 02 03 04 7e'|1|10|7effffffff010203|dropped: frame of 10 bytes with its flags, below the 11-byte minimum"
    "bytes '7e 5e 5e 5e 5e 5e 5e 5e 5e 5e 7e'|1|11|7e5e5e5e5e5e5e5e|dropped: header cut short by escape bytes, no payload (12-byte minimum)"
    "bytes '7e ff ff ff ff 02 00 00 00 00 02 02 00 00 00 00 01 7e'|0|12||"
    "bytes '7e ff ff ff ff'; fill 3100; bytes 7e|1|3048|7effffffff414141|dropped: 3048 bytes after a start flag without an end flag, at the 3048-byte bound for an unterminated run;1|58|4141414141414141|dropped: 58 bytes of noise without a start flag"
    "bytes '7e ff ff ff ff $eth'; fill 50 00; bytes 7e|0|64|0000000000000000|"
    "bytes '7e ff ff ff ff $eth'; fill 3027; bytes 7e|0|3041|4141414141414141|"
    "bytes '7e ff ff ff ff'; fill 3042; bytes 7e|1|3048|7effffffff414141|dropped: frame of 3048 bytes with its flags, above the 3047-byte maximum"
    "bytes '7e ff ff 01 02'|1|5|7effff0102|not delivered: 5 bytes still held at the end of input, waiting for more"
)
expected=""
for row in "${rows[@]}"; do
    eval "${row%%|*}" >>"$work/line.bin"
    expected+="$(tr ';' '\n' <<<"${row#*|}")"$'\n'
done

# Standard output is not a terminal, so the pcapng goes there.
"${cap[@]}" "$work/line.bin" >"$work/line.pcapng"
got=$(tshark -r "$work/line.pcapng" -T fields -E separator='|' -e frame.interface_id -e frame.len \
    -e data.data -e frame.comment 2>/dev/null | awk -F'|' -v OFS='|' '{$3 = substr($3, 1, 16)} 1')
[ "$got" = "${expected%$'\n'}" ] || { diff <(echo "$expected") <(echo "$got"); fail packets; }

# The summary of the same bytes read from standard input.
sum=$("${cap[@]}" --summary - <"$work/line.bin")
[ "$sum" = "total stdin: delivered 4, dropped 5 (short 1, long 1, unterminated 1, payload 2), noise 78 bytes" ] ||
    fail "summary: $sum"
echo "PASS"
