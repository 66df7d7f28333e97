#!/usr/bin/env bash
# Sourced by the end-to-end benchmarks once they have read their options into $build (the build
# tree) and args (their own arguments). Outside testbed/nsrun's namespaces it runs the benchmark
# again inside them, so that everything it makes vanishes with them; inside, it loads the harness
# (testbed/e2e-harness.sh, state directory armed) and the measures of a daemon below.
# shellcheck disable=SC2154 # here, build and args: the benchmark's own
if [ "${S2E_IN_NS:-}" != 1 ]; then
    exec "$here/testbed/nsrun" "$0" "${args[@]}"
fi
build=$(cd "$build" && pwd)
export S2E_DAEMON=${S2E_DAEMON:-$build/app/SerialToEth}
export S2E_TESTBED_DIR=${S2E_TESTBED_DIR:-$build/testbed}
export S2E_SOURCE_DIR=$here
source "$here/testbed/e2e-harness.sh"
h_init

# Nanoseconds on a CPU, all threads of a process (0 once it has ended).
cpu_ns() {
    local pid=$1 t sum=0 v
    for t in /proc/"$pid"/task/*/schedstat; do
        read -r v _ 2>/dev/null <"$t" || continue
        sum=$((sum + v))
    done
    echo "$sum"
}
now_ns() { date +%s%N; }
rss_kb() { awk '/^VmRSS:/{print $2}' "/proc/$1/status" 2>/dev/null || echo "?"; }
nfds() { find "/proc/$1/fd" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l; }

# What a transfer checked by tcp_blast came to, from the receiver's output ($1) and whether both
# ends succeeded ($2, 0 if so): "intact", "corrupt N" (N segments reached the application
# damaged) or "incomplete".
transfer_verdict() {
    local segs
    segs=$(sed -n 's/.*corrupt_segments=\([0-9]*\).*/\1/p' "$1")
    if [ "$2" != 0 ]; then
        echo incomplete
    elif [ "${segs:-0}" != 0 ]; then
        echo "corrupt $segs"
    else
        echo intact
    fi
}
# The lines with "ERR" on standard input, one per text (numbers as N) with its count in front.
err_texts() { grep ERR | sed 's/[0-9][0-9]*/N/g' | sort | uniq -c; }
