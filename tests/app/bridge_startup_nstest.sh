#!/usr/bin/env bash
# Start-up with parts of the platform missing: no serial node, no TAP driver, neither. The daemon
# prints what it must, reaches its endless sleep and stays up without spinning or flooding.
set -euo pipefail
source "$S2E_SOURCE_DIR/tools/e2e-harness.sh"
h_init

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

expect_text() {  # NAME TEXT: the daemon's output holds TEXT exactly (may contain \r)
    grep -qF -- "$2" "$(h_out "$1")" || { cat -A "$(h_out "$1")" >&2; fail "$1: missing '$2'"; }
}

# The main thread ends in its endless sleep: it waits in the kernel, it does not run.
expect_parked() {
    local pid
    pid=$(h_pid "$1")
    sleep 2
    h_alive "$1" || { cat "$(h_out "$1")" >&2; fail "$1: daemon ended"; }
    [ -z "$S2E_EMULATOR" ] || return 0  # under an emulator the main thread is the emulator's
    grep -q '^State:.*S (sleeping)' "/proc/$pid/task/$pid/status" || fail "$1: main thread not asleep"
}

h_line_start

# No serial node: the port fails to open, start-up goes on, and the reader's failed reads are
# paced (the driver prints one line per failed read, so a spinning reader floods the output).
h_daemon_start noserial --no-serial
expect_text noserial "SerialToEth::run!"
expect_text noserial "CommPortDriver::open /dev/zynq_uart0 fail"
expect_text noserial "Rs232 open error"
expect_text noserial "-->> >> >>-- uart0 baud rate is 576000 20220218!"
expect_text noserial "circleDealThread startUp!"
expect_parked noserial
before=$(stat -c %s "$(h_out noserial)")
sleep 3
after=$(stat -c %s "$(h_out noserial)")
# The daemon's stdout is block-buffered, so only a bound is meaningful: a reader retrying without
# pause writes megabytes in this time, a paced one a few dozen lines.
[ $((after - before)) -lt 16384 ] || fail "noserial: $((after - before)) bytes in 3 s, reader not paced"
h_exec noserial ip link show uart2eth0 | grep -q "[<,]UP[,>]" || fail "noserial: interface not up"

# No TAP driver: the exact report (with its carriage return), then the serial side opens normally.
h_daemon_start notun --no-tun --pty "$H_PTY_A"
expect_text notun $'ERR: fail to open tun_alloc\r'
# No interface, so reading its hardware address fails with the system's reason.
expect_text notun "ERR(SerialToEth::getMac): No such device"
expect_text notun "Rs232 open ok"
expect_text notun "circleDealThread startUp!"
expect_parked notun

# Neither.
h_daemon_start nothing --no-tun --no-serial
expect_text nothing $'ERR: fail to open tun_alloc\r'
expect_text nothing "Rs232 open error"
expect_parked nothing

h_alive noserial && h_alive notun && h_alive nothing || fail "a daemon ended"
h_check_reports || fail "sanitizer report"
echo "PASS"
