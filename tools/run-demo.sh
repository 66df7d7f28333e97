#!/usr/bin/env bash
# Builds the project, then runs two bridges joined by the emulated 576000 baud serial line, each in
# namespaces of its own, and shows a ping and a bulk TCP transfer across them with their figures,
# then a noisy spell; the line's capture is left in build/default/serialtoeth-line.pcapng.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
export S2E_DAEMON=$PWD/build/default/app/SerialToEth
export S2E_TESTBED_DIR=$PWD/build/default/testbed
export S2E_EMULATOR=
export S2E_DEMO_PCAP=$PWD/build/default/serialtoeth-line.pcapng
testbed/nsrun testbed/e2e-harness.sh demo "${1:-500000}"
