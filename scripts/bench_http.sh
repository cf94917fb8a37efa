#!/usr/bin/env bash
# HTTP server and client benchmarks against the peers a host would pick
# instead: wrk loads the example file server, nginx (one worker, access log
# off, sendfile on) and libmicrohttpd (its internal epoll thread) in turn,
# each server pinned to the first CPU and wrk to the second, so that all
# three are measured the same way in the same run. Then the client: 1,000
# sequential GETs of a 1 KB file from nginx, a new connection each, against
# libcurl with a fresh easy handle per request.
#
#   scripts/bench_http.sh [seconds per run]      (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-5}

scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target http_file_server mhd_file_server tn_bench >/dev/null

work=$(mktemp -d)
servers=()
cleanup() {
  for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/root" "$work/nginx"
head -c 1000 /dev/urandom >"$work/root/1k.bin"
head -c 1000000 /dev/urandom >"$work/root/1m.bin"
head -c 100000000 /dev/urandom >"$work/root/100m.bin"

cpus=$(nproc)
server_cpu=0
load_cpu=$((cpus > 1 ? 1 : 0))

# A port nothing answers on; the servers bind it moments later.
free_port() {
  local candidate
  while :; do
    candidate=$((20000 + RANDOM % 40000))
    (exec 3<>"/dev/tcp/127.0.0.1/$candidate") 2>/dev/null || { echo "$candidate"; return; }
  done
}

await_port() {
  for _ in $(seq 100); do
    if (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; then return 0; fi
    sleep 0.1
  done
  echo "bench_http: nothing listens on port $1" >&2
  exit 1
}

start_ours() {
  taskset -c "$server_cpu" build/release/examples/http_file_server --port "$1" --root "$work/root" \
    >"$work/ours.log" 2>&1 &
  servers+=($!)
}

start_nginx() {
  local user=""
  [ "$(id -u)" -eq 0 ] && user="user root;"
  cat >"$work/nginx/nginx.conf" <<EOF
$user
worker_processes 1;
daemon off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  keepalive_requests 1000000;
  client_body_temp_path $work/nginx;
  proxy_temp_path $work/nginx;
  fastcgi_temp_path $work/nginx;
  uwsgi_temp_path $work/nginx;
  scgi_temp_path $work/nginx;
  server { listen 127.0.0.1:$1; root $work/root; }
}
EOF
  taskset -c "$server_cpu" nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" 2>>"$work/nginx/error.log" &
  servers+=($!)
}

start_mhd() {
  taskset -c "$server_cpu" build/release/bench/mhd_file_server "$work/root" "$1" 100000 >"$work/mhd.log" 2>&1 &
  servers+=($!)
}

# wrk's summary in one figure: requests per second, or bytes per second.
measure() { # port file connections field
  taskset -c "$load_cpu" wrk -t1 -c"$3" -d"${seconds}s" "http://127.0.0.1:$1/$2" | awk -v field="$4" '
    function bytes(text,  n) {
      n = text + 0
      if (text ~ /KB$/) n *= 1024; else if (text ~ /MB$/) n *= 1048576; else if (text ~ /GB$/) n *= 1073741824
      return n
    }
    field == "rps" && /^Requests\/sec:/ { print $2 }
    field == "bps" && /^Transfer\/sec:/ { printf "%.3f\n", bytes($2) / 1e9 }'
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { print (b > 0 ? a / b : 0) }'; }

declare -A port result
port[ours]=$(free_port); start_ours "${port[ours]}"
port[nginx]=$(free_port); start_nginx "${port[nginx]}"
port[mhd]=$(free_port); start_mhd "${port[mhd]}"
for name in ours nginx mhd; do await_port "${port[$name]}"; done

runs=("1k.bin 1 rps" "1k.bin 50 rps" "1m.bin 1 bps" "1m.bin 8 bps" "100m.bin 1 bps" "100m.bin 8 bps")
echo "machine: $(nproc) CPUs, load $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-16s %12s %12s %12s %10s %10s\n' run ours nginx mhd ours/nginx ours/mhd
for run in "${runs[@]}"; do
  read -r file connections field <<<"$run"
  for name in ours nginx mhd; do
    result[$name]=$(measure "${port[$name]}" "$file" "$connections" "$field")
  done
  unit=$([ "$field" = rps ] && echo "req/s" || echo "GB/s")
  printf '%-16s %12s %12s %12s %10.2f %10.2f\n' "$file c$connections $unit" \
    "${result[ours]}" "${result[nginx]}" "${result[mhd]}" \
    "$(ratio "${result[ours]}" "${result[nginx]}")" "$(ratio "${result[ours]}" "${result[mhd]}")"
done

echo "== client: 1,000 sequential GETs of 1k.bin from nginx"
TN_BENCH_HTTP_URL="http://127.0.0.1:${port[nginx]}/1k.bin" \
  taskset -c "$load_cpu" build/release/bench/tn_bench --benchmark_filter='http_client' \
  --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
