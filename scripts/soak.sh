#!/usr/bin/env bash
# The long soak of the example file server: 256 concurrent keep-alive
# clients, some of them malformed, stalled or slow, for the given number of
# seconds (default 300), under AddressSanitizer. The suite runs the same
# test for five seconds.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-300}

scripts/setup.sh
cmake --preset dev >/dev/null
cmake --build --preset dev --target test_http_soak http_file_server
TN_SOAK_SECONDS=$seconds build/dev/tests/peer/test_http_soak
