#!/usr/bin/env bash
# Builds the project, then runs two bridges joined by the emulated 576000 baud serial line, each in
# namespaces of its own, and shows a ping and a bulk TCP transfer across them with their figures,
# then a noisy spell; the line's capture is left in build/default/serialtoeth-line.pcapng.
# Exits non-zero when anything fails, the transfer's checksums differing among them.
# Needs root (packages, namespaces): as another user it stops before doing anything.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "$(id -u)" -ne 0 ]; then
    echo "run-demo.sh needs root: it installs packages and runs the bridges in namespaces of" \
         "their own. Run it as root, or: sudo tools/run-demo.sh" >&2
    exit 1
fi
tools/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
export S2E_DAEMON=$PWD/build/default/app/SerialToEth
export S2E_TESTBED_DIR=$PWD/build/default/testbed
export S2E_EMULATOR=
export S2E_DEMO_PCAP=$PWD/build/default/serialtoeth-line.pcapng
testbed/nsrun testbed/e2e-harness.sh demo "${1:-500000}"
