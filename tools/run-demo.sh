#!/usr/bin/env bash
# Builds the daemon and runs it in private namespaces for a few seconds, showing its start-up output.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
tools/nsrun timeout --preserve-status -s TERM 5 build/default/app/SerialToEth || true
