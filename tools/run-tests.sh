#!/usr/bin/env bash
# Builds and runs the whole test suite: the default build, the address+undefined and the thread
# sanitizer builds, the Debian package checks, the fuzz targets for a bounded time, the AArch64
# build under emulation with its package, and the README's commands (tools/check-readme.sh).
# Any failure fails the run. S2E_FUZZ_SECONDS sets the time per fuzz target (default 30; longer runs: tools/run-fuzz.sh SECONDS).
# Needs root (packages, namespaces, containers): as another user it stops before doing anything.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "$(id -u)" -ne 0 ]; then
    echo "run-tests.sh needs root: it installs packages, and its tests run in namespaces and" \
         "containers of their own. Run it as root, or: sudo tools/run-tests.sh" >&2
    exit 1
fi
tools/install-deps.sh --cross

start=$(date +%s)
stage() { printf '\n==== %s (%ds)\n' "$*" $(( $(date +%s) - start )); }

for preset in default asan tsan; do
    stage "build $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    stage "test $preset"
    ctest --preset "$preset"
done

stage "package checks (build machine's architecture)"
tools/check-package.sh build/default

stage "fuzz"
tools/run-fuzz.sh "${S2E_FUZZ_SECONDS:-30}"

if [ -x tools/run-cross-tests.sh ]; then
    stage "aarch64 under emulation"
    tools/run-cross-tests.sh
fi
# Last, when both builds and their packages exist: the README's commands, run where they can run.
stage "README commands (tools/check-readme.sh)"
tools/check-readme.sh

stage "all tests passed"
