#!/usr/bin/env bash
# The main job: installs what it needs, builds the library in release form,
# installs it with its headers and example hosts into build/prefix, and runs
# the example hosts from there.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

cmake --preset release
cmake --build --preset release
cmake --install build/release --prefix "$PWD/build/prefix"

for example in poll_cancel event_loop "echo_server --demo"; do
  echo "== $example"
  "build/prefix/bin/"$example
done
