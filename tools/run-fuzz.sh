#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time from its seed corpus;
# prints each target's final coverage line ("cov:" edges, "ft:" features) and executions a second.
# Usage: tools/run-fuzz.sh [seconds-per-target]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-45}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
shopt -s nullglob
targets=(fuzz/*_fuzz.cpp)
[ ${#targets[@]} -gt 0 ] || { echo "no fuzz targets"; exit 0; }
for src in "${targets[@]}"; do
    name=$(basename "$src" .cpp)
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    mkdir "$work/corpus"
    [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$work/corpus/"
    echo "fuzzing $name for ${seconds}s"
    if ! (cd "$work" && "$OLDPWD/build/fuzz/fuzz/$name" -max_total_time="$seconds" \
        -print_final_stats=1 -artifact_prefix="$work/" corpus >log 2>&1); then
        tail -n 30 "$work/log"
        echo "fuzz target $name failed; artifacts:" && ls "$work"
        exit 1
    fi
    grep -E '^#[0-9]+[[:space:]]+DONE|^stat::average_exec_per_sec' "$work/log"
    rm -rf "$work"
done
