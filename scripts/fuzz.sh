#!/usr/bin/env bash
# Builds the libFuzzer targets with the fuzz preset (clang with
# AddressSanitizer and UndefinedBehaviorSanitizer) and runs each in turn.
#
#   scripts/fuzz.sh [seconds per target]     (default 30)
#
# New inputs collect in build/fuzz/corpus/<target>, so later runs go on from
# there; the starting inputs kept in fuzz/corpus/<target> are never written.
# A failing input is saved in build/fuzz/artifacts/ and the script exits
# non-zero.
set -euo pipefail

seconds="${1:-30}"
if ! [[ "$seconds" =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: $0 [seconds per target]" >&2
  exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
scripts/setup.sh clang libclang-rt-14-dev
cmake --preset fuzz
cmake --build --preset fuzz

build="$root/build/fuzz"
mkdir -p "$build/artifacts"
status=0
for target in fuzz_byte_find fuzz_array fuzz_mime_type fuzz_rfc1123_date fuzz_uri fuzz_http_chunk fuzz_http_header fuzz_http_range fuzz_http_server_request fuzz_http_client_response; do
  mkdir -p "$build/corpus/$target"
  echo "== $target: $seconds s"
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$target-" \
      "$build/corpus/$target" "$root/fuzz/corpus/$target"; then
    echo "== $target failed; the input is in $build/artifacts/" >&2
    status=1
  fi
done
exit "$status"
