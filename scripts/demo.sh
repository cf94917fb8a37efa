#!/usr/bin/env bash
# The main job: installs what it needs, builds the library in release form,
# installs it with its headers and example hosts into build/prefix, and runs
# the example hosts from there, the last one a fetch with http_get of a file
# that http_file_server serves.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

cmake --preset release
cmake --build --preset release
cmake --install build/release --prefix "$PWD/build/prefix"

for example in poll_cancel event_loop "echo_server --demo" "http_file_server --demo"; do
  echo "== $example"
  "build/prefix/bin/"$example
done

echo "== http_get from http_file_server"
scripts/fetch_demo.sh build/prefix/bin
