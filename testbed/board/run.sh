#!/usr/bin/env bash
# The board, emulated whole: Debian's arm64 kernel on qemu-system-aarch64 (-M virt, Cortex-A53),
# busybox init, the daemon started at boot by its installed boot script, the board's UART a real
# PL011 under the kernel's serial driver, seen by the daemon as /dev/zynq_uart0.
#
#   testbed/board/run.sh [BYTES]   build, boot three boards and check them (exit 1 on any failure):
#       a and b   UART joined to UART (QEMU socket character devices): line settings read back
#                 with stty, addresses set through each console, ping and a TCP transfer of BYTES
#                 (default 100000) checked end to end, status record and monitor ticks read back
#                 with supervisor_emu, then on a: the boot script's restart, stop and start
#       c         UART on a pseudo-terminal that a daemon built for this machine (the end-to-end
#                 harness, in namespaces of its own) uses as its UART: ping both ways; on c,
#                 serialtoeth-capture --attach --summary shows noise written into that UART
#       all       power-off through busybox's rcK, which stops the daemon
#   testbed/board/run.sh boot      boot one board alone, check its UART settings, daemon and status
#                                record, power it off (the boot time of a single board)
#   testbed/board/run.sh shell     boot one board with its console on this terminal (Ctrl-A x ends
#                                the emulator); its UART is a pseudo-terminal QEMU names on start.
#                                The console's busybox shell ends, and init starts a new one, when
#                                one of its background jobs ends: start those with sh -c '... &'.
#
# Boot files come from testbed/board/image.sh (Debian's packages, cached in build/aarch64/board).
# The boards have no network device; everything runs in fresh namespaces (testbed/nsrun), and the
# consoles are FIFOs in a temporary directory, the UART link a TCP connection on the loopback of
# those namespaces.
# The emulated UART is not paced: QEMU moves bytes as fast as it runs, so the figures here are not
# line-rate figures (those come from testbed/line_emu, see tools/run-demo.sh).
set -euo pipefail
cd "$(dirname "$0")/../.."
board_dir=build/aarch64/board
qemu_base=(qemu-system-aarch64 -M virt -cpu cortex-a53 -m 256 -nodefaults -display none -no-reboot
           -kernel "$board_dir/Image" -initrd "$board_dir/initramfs.cpio.gz" -device virtio-serial-device)
kernel_args="console=hvc0 quiet panic=-1"

if [ "${S2E_BOARD_STAGE:-}" != run ]; then
    tools/install-deps.sh --cross
    cmake --preset aarch64 >/dev/null
    cmake --build --preset aarch64
    # The build machine's daemon for the mixed link, and the supervisor stand-in the harness runs.
    cmake --preset default >/dev/null
    cmake --build --preset default --target SerialToEth supervisor_emu
    testbed/board/image.sh build/aarch64 "$board_dir"
    if [ "${1:-}" = shell ]; then
        exec testbed/nsrun "${qemu_base[@]}" -append "$kernel_args" -chardev stdio,id=con,mux=on,signal=off -mon con \
            -device virtconsole,chardev=con -chardev pty,id=uart -serial chardev:uart
    fi
    # unshare ignores SIGTERM while it waits: the kill after the grace time ends the namespaces.
    exec env S2E_BOARD_STAGE=run timeout -k 10 600 testbed/nsrun "$0" "$@"
fi

# ---- From here on: inside fresh namespaces (no route to anything outside them).
bytes=${1:-100000}
uart_port=5570 # the a-b link, on the loopback of these namespaces
export S2E_DAEMON=$PWD/build/default/app/SerialToEth
export S2E_TESTBED_DIR=$PWD/build/default/testbed
export S2E_EMULATOR=
# shellcheck source=testbed/e2e-harness.sh
. testbed/e2e-harness.sh
h_init
dir=$H_DIR
declare -A QPID=() CON=() BOOTED=() MARK=()
cleanup() {
    local - name
    set +e # a board that ended by itself cannot be killed: the rest must still happen
    for name in "${!QPID[@]}"; do kill -KILL "${QPID[$name]}" 2>/dev/null; done
    # The consoles of the last run stay for a look afterwards.
    rm -rf "$board_dir/last-run"
    mkdir -p "$board_dir/last-run"
    cp "$dir"/*.log "$dir"/*.qemu "$board_dir/last-run/" 2>/dev/null
    h_teardown
}
trap cleanup EXIT
t0=$(date +%s.%N)
elapsed() { awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN{printf "%.1f", b - a}'; }

passed=0
failed=0
check() { # check TEXT COMMAND...: runs the command, counts and prints the outcome
    local text=$1
    shift
    if "$@"; then
        echo "  ok    $text"
        passed=$((passed + 1))
    else
        echo "  FAIL  $text"
        failed=$((failed + 1))
    fi
}

summary() {
    echo "== board checks: $(elapsed "$t0") s"
    echo "board: $passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}

# board_start NAME UART-CHARDEV-OPTIONS [ADDRESS HWADDR]: boots a board whose console is the FIFO
# pair $dir/NAME.con.{in,out} (read into $dir/NAME.log) and whose PL011 is the given character
# device; uart2eth0 gets the address (/24) and hardware address from the board's ifupdown stanza.
board_start() {
    local name=$1 uart=$2 fd
    mkfifo "$dir/$name.con.in" "$dir/$name.con.out"
    "${qemu_base[@]}" -append "$kernel_args${3:+ board.addr=$3 board.hw=$4}" -chardev "pipe,id=con,path=$dir/$name.con" -device virtconsole,chardev=con \
        -chardev "$uart,id=uart" -serial chardev:uart >"$dir/$name.qemu" 2>&1 &
    QPID[$name]=$!
    cat "$dir/$name.con.out" >"$dir/$name.log" &
    exec {fd}<>"$dir/$name.con.in"
    CON[$name]=$fd
    echo 0 >"$dir/$name.seq"
}

log_of() { tr -d '\r' <"$dir/$1.log"; }

# boards_boot NAME...: waits until each board has run its boot scripts (60 s at most), then quiets
# its console; checks each, with the host's seconds since start and the guest's uptime.
boards_boot() {
    local name i up waiting=("$@") left
    for i in $(seq 1200); do
        left=()
        for name in "${waiting[@]}"; do
            up=$(log_of "$name" | sed -n 's/^board: boot scripts done at \([0-9.]*\) s$/\1/p')
            if [ -n "$up" ]; then
                BOOTED[$name]="host $(elapsed "$t0") s, guest uptime $up s"
            elif kill -0 "${QPID[$name]}" 2>/dev/null; then
                left+=("$name")
            fi
        done
        [ ${#left[@]} -gt 0 ] || break
        waiting=("${left[@]}")
        sleep 0.05
    done
    for name in "$@"; do
        check "$name: boots to the end of its boot scripts" board_booted "$name"
    done
    [ "$failed" -eq 0 ] || { summary; exit 1; }
}

board_booted() {
    local name=$1
    if [ -z "${BOOTED[$name]:-}" ]; then
        echo "  board $name did not finish booting (console: $board_dir/last-run/$name.log):"
        log_of "$name" | grep -v '^\[ *[0-9.]*\]  ' | tail -n 25 | sed 's/^/    /'
        sed 's/^/    /' "$dir/$name.qemu"
        return 1
    fi
    # A quiet console: no echo, no prompts, so that only the commands' output comes back.
    board_run "$name" 10 'stty -echo; PS1=; PS2=' >/dev/null
}

# board_run NAME TIMEOUT COMMAND: runs a shell command on the board's console; prints its output
# and returns its exit status (124 when it does not end within TIMEOUT seconds). The commands are
# numbered in a file, as callers run this in subshells ($(...)).
board_run() {
    local name=$1 limit=$2 cmd=$3 n end i
    # A console that let a command run out its time is not asked again: the rest of the run
    # would only wait out every other command's time too.
    if [ -e "$dir/$name.hung" ]; then
        echo "(console of $name does not answer)"
        return 124
    fi
    n=$(($(cat "$dir/$name.seq") + 1))
    echo "$n" >"$dir/$name.seq"
    printf 'echo @@B%d\n%s\necho "@@E%d rc=$?"\n' "$n" "$cmd" "$n" >&"${CON[$name]}"
    end=""
    for i in $(seq $((limit * 20))); do
        end=$(log_of "$name" | sed -n "s/^@@E$n rc=\([0-9]*\)\$/\1/p")
        [ -n "$end" ] && break
        sleep 0.05
    done
    log_of "$name" | awk -v b="@@B$n" -v e="@@E$n rc=" '$0 == b {on = 1; next}
        index($0, e) == 1 {exit} on'
    if [ -z "$end" ]; then
        echo "(no end within ${limit} s)"
        touch "$dir/$name.hung"
        return 124
    fi
    return "$end"
}

# Figures and checks pulled from command output.
field() { sed -n "s/.*\\b$1=\\([0-9a-fx]*\\).*/\\1/p" | head -n 1; }
ping_line() { grep -E 'packets transmitted|round-trip|rtt' | tr '\n' ' '; }
ping_all_back() { # "N packets transmitted, N (packets )received" with both counts equal to $2
    grep -Eq "^$2 packets transmitted, $2 (packets )?received" <<<"$1"
}

# stty -g prints c_iflag:c_oflag:c_cflag:c_lflag:c_cc[0]:c_cc[1]:... in hexadecimal.
line_settings_ok() {
    local -a f
    [[ $1 =~ ^[0-9a-f]+(:[0-9a-f]+)+$ ]] || return 1
    IFS=: read -r -a f <<<"$1"
    [ ${#f[@]} -gt 10 ] || return 1
    local iflag=$((16#${f[0]})) oflag=$((16#${f[1]})) cflag=$((16#${f[2]})) lflag=$((16#${f[3]}))
    local vtime=$((16#${f[9]})) vmin=$((16#${f[10]}))
    # B576000 (CBAUD|CBAUDEX bits 0x100f), CS8, CREAD; no CSTOPB, PARENB or CRTSCTS; no input
    # processing; no OPOST; no ISIG, ICANON, ECHO, ECHOE.
    [ $((cflag & 0x100f)) -eq $((0x1006)) ] && [ $((cflag & 0x30)) -eq $((0x30)) ] &&
        [ $((cflag & 0x80)) -ne 0 ] && [ $((cflag & 0x80000140)) -eq 0 ] &&
        [ "$iflag" -eq 0 ] && [ $((oflag & 1)) -eq 0 ] && [ $((lflag & 0x1b)) -eq 0 ] &&
        [ "$vmin" -eq 1 ] && [ "$vtime" -eq 10 ]
}

declare -A TICKS0=() UP0=()
# board_checks NAME: the UART's settings, the daemon under its boot script, its status record.
board_checks() {
    local name=$1 out g pid status
    echo "== board $name: booted (${BOOTED[$name]})"
    out=$(board_run "$name" 10 'readlink /dev/zynq_uart0; dmesg | grep -m 1 "ttyAMA0 at"') || true
    check "$name: /dev/zynq_uart0 is the kernel's PL011: $(tr '\n' ' ' <<<"$out" | sed 's/\[[ 0-9.]*\] //')" \
        eval '[ "$(head -n 1 <<<"$out")" = ttyAMA0 ] && grep -q "is a PL011" <<<"$out"'
    out=$(board_run "$name" 10 'stty -F /dev/zynq_uart0') || true
    echo "  stty -F /dev/zynq_uart0: $(head -n 1 <<<"$out")"
    g=$(board_run "$name" 10 'stty -g -F /dev/zynq_uart0') || true
    check "$name: line reads back 576000 baud" grep -q '^speed 576000 baud' <<<"$out"
    check "$name: raw 8N1, VMIN 1, VTIME 10 (stty -g $(cut -d: -f1-4 <<<"$g"):...)" \
        line_settings_ok "$g"
    out=$(board_run "$name" 10 '/etc/init.d/S80serialtoeth status; echo "exit $?"') || true
    check "$name: boot script status: $(head -n 1 <<<"$out")" grep -qx "exit 0" <<<"$out"
    check "$name: daemon log has \"Rs232 open ok\"" \
        board_run "$name" 10 'grep -q "^Rs232 open ok" /var/log/serialtoeth.log'
    pid=$(board_run "$name" 10 'cat /var/run/serialtoeth.pid') || true
    status=$(board_run "$name" 10 'supervisor_emu status') || true
    echo "  supervisor_emu status: $status"
    check "$name: status record names the daemon (pid $pid), state 0, monitor up, ticks >= 1" \
        eval '[ "$(field pid <<<"$status")" = "$pid" ] && [ "$(field state <<<"$status")" = 0 ] &&
              [ "$(field monitorUp <<<"$status")" = 1 ] && [ "$(field msgCount <<<"$status")" -ge 1 ]'
    TICKS0[$name]=$(field msgCount <<<"$status")
    out=$(board_run "$name" 10 '/sbin/tc qdisc show dev uart2eth0') || true
    check "$name: uart2eth0 shaped by the boot script: $(head -n 1 <<<"$out")" \
        grep -Eq '^qdisc cake [0-9a-f]+: root|^qdisc fq_codel [0-9a-f]+: parent 1:1 ' <<<"$out"
    UP0[$name]=$(board_run "$name" 10 'cut -d" " -f1 /proc/uptime') || true
}

# uart2eth0's IPv4 address and hardware address on board $1.
identity_of() {
    board_run "$1" 10 'ip -o -4 addr show dev uart2eth0 | awk "{print \$4}"; cat /sys/class/net/uart2eth0/address' |
        tr '\n' ' ' | sed 's/ $//'
}
has_identity() { [ "$(identity_of "$1")" = "$2 $3" ]; }
wait_identity() { # the supervisor gives it after its start check: up to 15 s
    local i
    for i in $(seq 30); do has_identity "$@" && return 0; sleep 0.5; done
    return 1
}

uart_counts() { board_run "$1" 10 'cat /proc/tty/driver/ttyAMA' | sed -n 's/.*\(tx:[0-9]* rx:[0-9]*\).*/\1/p'; }

# boards_finish NAME...: the status records once more, then power-off through rcK.
boards_finish() {
    local name status pid up ticks span code i tail
    echo "== status records again, then power-off through rcK"
    for name in "$@"; do
        status=$(board_run "$name" 10 'supervisor_emu status') || true
        pid=$(board_run "$name" 10 'cat /var/run/serialtoeth.pid') || true
        up=$(board_run "$name" 10 'cut -d" " -f1 /proc/uptime') || true
        ticks=$(field msgCount <<<"$status")
        span=$(awk -v a="${UP0[$name]}" -v b="$up" 'BEGIN{printf "%d", b - a}')
        echo "  $name: $status"
        # The monitor's timer ticks every 10 s: after 12 s at least one more tick must have come.
        check "$name: record names pid $pid; ticks ${TICKS0[$name]} -> $ticks over $span s" eval \
            '[ "$(field pid <<<"$status")" = "$pid" ] &&
             { [ "$span" -lt 12 ] || [ "${ticks:-0}" -gt "${TICKS0[$name]}" ]; }'
    done
    for name in "$@"; do
        MARK[$name]=$(log_of "$name" | wc -l)
        printf 'poweroff\n' >&"${CON[$name]}"
    done
    for name in "$@"; do
        code=0
        for i in $(seq 600); do kill -0 "${QPID[$name]}" 2>/dev/null || break; sleep 0.05; done
        if kill -0 "${QPID[$name]}" 2>/dev/null; then
            code=timeout
        else
            wait "${QPID[$name]}" || code=$?
        fi
        unset "QPID[$name]"
        tail=$(log_of "$name" | tail -n +"$((MARK[$name] + 1))")
        check "$name: power-off stops the daemon through rcK, emulator ends (status $code)" eval \
            '[ "$code" = 0 ] && grep -q "Stopping SerialToEth: OK" <<<"$tail" &&
             grep -q "board: boot scripts stopped" <<<"$tail"'
    done
}

if [ "${1:-}" = boot ]; then
    echo "== booting board a alone (UART unconnected)"
    board_start a null 10.77.0.1 02:53:32:45:00:0a
    boards_boot a
    board_checks a
    boards_finish a
    summary
    exit
fi

echo "== booting boards a, b (UART to UART) and c (UART to a pseudo-terminal) in parallel"
# TCP on this namespace's own loopback, not a UNIX socket: QEMU writes the UART's bytes one at a
# time and waits while the socket is full, and a UNIX socket charges each one-byte write a whole
# buffer's overhead, so it is full after a few hundred bytes; with both directions full both
# emulators wait on each other for ever. TCP joins small writes and holds plenty.
board_start a "socket,host=127.0.0.1,port=$uart_port,server=on,wait=off" 10.77.0.1 02:53:32:45:00:0a
for i in $(seq 100); do ss -Hltn "sport = :$uart_port" | grep -q . && break; sleep 0.05; done
board_start b "socket,host=127.0.0.1,port=$uart_port" 10.77.0.2 02:53:32:45:00:0b
board_start c pty 10.78.0.1 02:53:32:45:00:0c
boards_boot a b c
pty=$(sed -n 's/.*char device redirected to \(\/dev\/pts\/[0-9]*\) (label uart).*/\1/p' "$dir/c.qemu")
for name in a b c; do board_checks "$name"; done

echo "== a <-> b: addresses from the boards' ifupdown stanzas, 10.77.0.1/24 on a, 10.77.0.2/24 on b"
check "a: $(identity_of a)" has_identity a 10.77.0.1/24 02:53:32:45:00:0a
check "b: $(identity_of b)" has_identity b 10.77.0.2/24 02:53:32:45:00:0b
board_run a 10 'ping -c 1 -W 5 10.77.0.2' >/dev/null || true # resolve the address first
out=$(board_run a 30 'ping -c 10 -i 0.2 10.77.0.2') || true
echo "  ping a -> b: $(ping_line <<<"$out")"
check "ping a -> b: 10 of 10 back" ping_all_back "$out" 10
before_b=$(uart_counts b)
# The receiver is started by a shell of its own: the console's busybox shell ends when a job of
# its own ends while it waits for input.
board_run b 10 'sh -c "tcp_blast recv 5001 60 >/tmp/recv.txt 2>&1 &"' >/dev/null
sleep 0.5
send=$(board_run a 90 "tcp_blast send 10.77.0.2 5001 $bytes 60") || true
recv=$(board_run b 70 'n=0; while ! grep -q bytes= /tmp/recv.txt && [ $n -lt 600 ]; do
    sleep 0.1; n=$((n + 1)); done; cat /tmp/recv.txt') || true
echo "  TCP a -> b, sender:   $send"
echo "  TCP a -> b, receiver: $recv"
check "TCP a -> b: $bytes bytes arrive with the sender's checksum" eval \
    '[ "$(field bytes <<<"$recv")" = "$bytes" ] && [ -n "$(field fnv <<<"$send")" ] &&
     [ "$(field fnv <<<"$send")" = "$(field fnv <<<"$recv")" ]'
echo "  PL011 of b before and after: $before_b -> $(uart_counts b)"

# The emulated UART is not paced, so at the default rate the shaper never holds a queue here; at a
# deliberately low one (QEMU's PL011 moves about 20 KB/s here) it is the bottleneck, and a ping beside a TCP transfer waits for at most
# about one full-size frame's time there, not for the transfer's queue.
slow=8000
frame_ms=$((1520 * 1000 / slow))
echo "== a -> b shaped to $slow bytes/s (a full-size frame: $frame_ms ms), ping during a TCP transfer"
for name in a b; do
    out=$(board_run "$name" 20 "S2E_SHAPE_RATE=$slow /usr/lib/serialtoeth/serialtoeth-shape") || true
    check "$name: $out" grep -Eq 'egress shaped: (cake|htb .*fq_codel)' <<<"$out"
done
board_run b 10 'sh -c "tcp_blast recv 5002 60 >/tmp/recv2.txt 2>&1 &"' >/dev/null
sleep 0.5
board_run a 10 "sh -c \"tcp_blast send 10.77.0.2 5002 60000 60 >/tmp/send2.txt 2>&1 &\"" >/dev/null
sleep 1.5
out=$(board_run a 30 'ping -c 8 -i 0.5 10.77.0.2') || true
recv=$(board_run b 70 'n=0; while ! grep -q bytes= /tmp/recv2.txt && [ $n -lt 600 ]; do
    sleep 0.1; n=$((n + 1)); done; cat /tmp/recv2.txt') || true
rtts=$(sed -n 's/.*time=\([0-9.]*\) ms.*/\1/p' <<<"$out" | sort -n)
rtt_med=$(awk '{v[NR] = $1} END {print NR ? v[int((NR + 1) / 2)] : ""}' <<<"$rtts")
rtt_max=$(tail -n 1 <<<"$rtts")
echo "  TCP a -> b, receiver: $recv"
echo "  ping a -> b during it: $(ping_line <<<"$out")"
echo "  a: $(board_run a 10 '/sbin/tc -s qdisc show dev uart2eth0' | head -n 3 | tr -s ' \n' ' ')"
check "TCP a -> b at $slow bytes/s: 60000 bytes arrive, at most at the shaped rate" eval \
    '[ "$(field bytes <<<"$recv")" = 60000 ] && [ "$(field rate <<<"$recv")" -le "$slow" ]'
check "ping during it: 8 of 8 back, median $rtt_med ms and worst $rtt_max ms below 2 frames ($((2 * frame_ms)) ms)" eval \
    'ping_all_back "$out" 8 && awk -v m="$rtt_med" -v w="$rtt_max" -v f=$frame_ms "BEGIN{exit !(m < 2 * f && w < 2 * f)}"'

echo "== c <-> this machine's daemon (harness namespaces, UART $pty), 10.78.0.1/24 on c (its stanza)"
check "c: QEMU names the pseudo-terminal of its UART" [ -n "$pty" ]
h_daemon_start host --pty "$pty"
h_addr host 10.78.0.2/24
check "c: $(identity_of c)" has_identity c 10.78.0.1/24 02:53:32:45:00:0c
h_exec host ping -c 1 -W 5 10.78.0.1 >/dev/null || true
out=$(h_exec host ping -c 10 -i 0.2 10.78.0.1) || true
echo "  ping host -> c: $(ping_line <<<"$out")"
check "ping host -> c: 10 of 10 back" ping_all_back "$out" 10
out=$(board_run c 30 'ping -c 10 -i 0.2 10.78.0.2') || true
echo "  ping c -> host: $(ping_line <<<"$out")"
check "ping c -> host: 10 of 10 back" ping_all_back "$out" 10
echo "  PL011 of c: $(uart_counts c)"

echo "== a: the boot script's restart, stop and start"
old=$(board_run a 10 'cat /var/run/serialtoeth.pid') || true
out=$(board_run a 30 '/etc/init.d/S80serialtoeth restart') || true
echo "  restart: $(tr '\n' ' ' <<<"$out")"
new=$(board_run a 10 'cat /var/run/serialtoeth.pid') || true
shaped=$(board_run a 10 '/sbin/tc qdisc show dev uart2eth0') || true
check "restart: stopped and started again, new pid $new (was $old), shaped again" eval \
    'grep -q "Stopping SerialToEth: OK" <<<"$out" && grep -q "Starting SerialToEth: OK" <<<"$out" &&
     [ -n "$new" ] && [ "$new" != "$old" ] && grep -Eq "^qdisc (cake|htb) " <<<"$shaped"'
# The interface goes with the daemon that made it: the new one gets the stanza's identity again.
wait_identity a 10.77.0.1/24 02:53:32:45:00:0a || true
check "after restart: $(identity_of a)" has_identity a 10.77.0.1/24 02:53:32:45:00:0a
out=$(board_run a 30 'ping -c 3 -W 5 10.77.0.2') || true
check "after restart: ping a -> b, 3 of 3 back" ping_all_back "$out" 3
out=$(board_run a 30 '/etc/init.d/S80serialtoeth stop') || true
check "stop: $out" grep -q "Stopping SerialToEth: OK" <<<"$out"
# (A zombie does not run: busybox init may take a moment to reap it.)
out=$(board_run a 10 '/etc/init.d/S80serialtoeth status; echo "exit $?"
    for p in $(pidof SerialToEth); do grep -q "^State:.*Z" /proc/$p/status || echo $p; done') || true
check "after stop: status exits 3 and no SerialToEth runs" eval \
    'grep -qx "exit 3" <<<"$out" && ! grep -qE "^[0-9]+( |\$)" <<<"$out"'
out=$(board_run a 30 '/etc/init.d/S80serialtoeth start') || true
check "start: $out" grep -q "Starting SerialToEth: OK" <<<"$out"

echo "== a's daemon killed (SIGKILL) during a ping b -> a every 0.2 s: restarted by its supervisor"
wait_identity a 10.77.0.1/24 02:53:32:45:00:0a || true
neigh() { board_run b 10 'ip neigh show 10.77.0.1 dev uart2eth0' | sed -n 's/.*lladdr \([0-9a-f:]*\).*/\1/p'; }
board_run b 10 'ping -c 1 -W 5 10.77.0.1' >/dev/null || true
before=$(neigh) || true
board_run b 10 'sh -c "ping -c 80 -i 0.2 10.77.0.1 >/tmp/kill-ping.txt 2>&1 &"' >/dev/null
sleep 3
board_run a 10 'kill -KILL $(cat /var/run/serialtoeth.pid)' >/dev/null || true
sleep 14
out=$(board_run b 10 'cat /tmp/kill-ping.txt') || true
after=$(neigh) || true
# The longest run of pings without a reply, 0.2 s apart: about the time from the kill to the first
# reply after it.
lost=$(sed -n 's/.*seq=\([0-9]*\) .*/\1/p' <<<"$out" | awk 'NR > 1 && $1 - p - 1 > m {m = $1 - p - 1} {p = $1} END {print m + 0}')
check "first reply about $(awk -v n="$lost" 'BEGIN{printf "%.1f", (n + 1) * 0.2}') s after the kill ($lost pings lost, at most 5 s), b's neighbour entry for a $before -> $after" \
    eval '[ "$(grep -c "bytes from" <<<"$out")" -ge 40 ] && [ "$lost" -le 24 ] && [ -n "$before" ] &&
          [ "$before" = "$after" ]'

# board_tap_check NAME PTY PEER ADDRESS: serialtoeth-capture --attach --summary on the board while
# this machine writes 600 bytes of noise into its UART (through the pseudo-terminal whose other end
# QEMU holds) and PEER, the harness's daemon on that line, pings ADDRESS on it: the attached
# summary must count the noise and the delivered frames.
board_tap_check() {
    local name=$1 pty=$2 peer=$3 address=$4 out rx noise delivered
    echo "== $name: serialtoeth-capture --attach --summary, noise written into its UART, pings from $peer"
    (sleep 1.5 && head -c 600 /dev/zero | tr '\0' A >"$pty" &&
        h_exec "$peer" ping -c 5 -i 0.2 "$address" >/dev/null 2>&1) &
    out=$(board_run "$name" 20 'timeout 5 serialtoeth-capture --attach --summary') || true
    wait $! || true
    rx=$(grep '^total uart rx:' <<<"$out" || true)
    echo "  $(grep -c '^[0-9:]* uart rx:' <<<"$out" || true) lines per second, then: ${rx:-$out}"
    noise=$(sed -n 's/.* noise \([0-9]*\) bytes.*/\1/p' <<<"$rx")
    delivered=$(sed -n 's/.*: delivered \([0-9]*\),.*/\1/p' <<<"$rx")
    check "$name: the attached view shows the 600 bytes of noise (${noise:-none}) and the pings (${delivered:-none} delivered)" \
        eval '[ "${noise:-0}" -ge 600 ] && [ "${delivered:-0}" -ge 5 ]'
}
board_tap_check c "$pty" host 10.78.0.1

boards_finish a b c
summary
