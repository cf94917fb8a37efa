#!/usr/bin/env bash
# Serves a directory with http_file_server on a free loopback port, fetches
# a file from it with http_get, and compares the bytes with cmp.
#   scripts/fetch_demo.sh BIN_DIR     BIN_DIR holds both example hosts
set -euo pipefail
bin=${1:?usage: fetch_demo.sh BIN_DIR}

work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null && wait "$server" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

mkdir "$work/root"
head -c 1000000 /dev/urandom >"$work/root/sample.bin"
mkfifo "$work/port"
"$bin/http_file_server" --port 0 --root "$work/root" --max-seconds 60 >"$work/port" 2>"$work/server.log" &
server=$!
# The first line names the port; the server is listening once it is out.
read -r -t 20 line <"$work/port"
port=${line##* }
echo "http_file_server: $line"

"$bin/http_get" -o "$work/fetched.bin" "http://127.0.0.1:$port/sample.bin"
cmp "$work/root/sample.bin" "$work/fetched.bin"
echo "http_get: fetched sample.bin, $(stat -c %s "$work/fetched.bin") bytes, identical"
