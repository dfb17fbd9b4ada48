#!/usr/bin/env bash
# The transfer service against curl on loopback, in one run: one 256 MB file, then fifty 2 MB
# files (four at a time for both), from the reference content server started here. Prints each
# side's throughput, CPU seconds and peak resident memory, and the throughput ratio.
# Usage: bench/transfer_vs_curl.sh [build-dir]   (needs transfer_bench and sonorell-content-server)
set -euo pipefail
build=${1:-build}
server_bin="$build/tools/content-server/sonorell-content-server"
bench_bin="$build/bench/transfer_bench"
work=$(mktemp -d)
trap 'kill "$server_pid" 2>/dev/null || true; rm -rf "$work"' EXIT

"$server_bin" --port 0 --data-dir "$work/server" >"$work/server.log" 2>&1 &
server_pid=$!
for _ in $(seq 600); do grep -q '^CA certificate:' "$work/server.log" 2>/dev/null && break; sleep 0.1; done
base=$(sed -n 's/^base URL: //p' "$work/server.log")
ca=$(sed -n 's/^CA certificate: //p' "$work/server.log")
[ -n "$base" ] || { cat "$work/server.log"; exit 1; }

# Prints "seconds cpu-seconds peak-kB" of the command.
measure() {
  /usr/bin/time -f "%e %U %S %M" -o "$work/time" "$@" >/dev/null 2>>"$work/stderr.log"
  awk '{ printf "%s %.2f %s\n", $1, $2 + $3, $4 }' "$work/time"
}

run() {  # name, then URLs
  local name=$1; shift
  local bytes=0 url
  for url in "$@"; do bytes=$((bytes + ${url##*/})); done
  rm -rf "$work/curl" "$work/ours" "$work/lib"; mkdir -p "$work/curl" "$work/ours" "$work/lib"
  local args=() i=0
  for url in "$@"; do args+=(-o "$work/curl/f$i" "$url"); i=$((i + 1)); done
  read -r c_s c_cpu c_kb < <(measure curl -sS --fail --cacert "$ca" --parallel --parallel-max 4 "${args[@]}")
  read -r o_s o_cpu o_kb < <(SONORELL_LIBRARY_DIR="$work/lib" measure "$bench_bin" "$ca" "$work/ours" "$@")
  # Both sides must have fetched the same bytes.
  for i in $(seq 0 $(($# - 1))); do cmp -s "$work/curl/f$i" "$work/ours/f$i" || { echo "f$i differs"; cat "$work/stderr.log"; exit 1; }; done
  awk -v n="$name" -v b="$bytes" -v cs="$c_s" -v cc="$c_cpu" -v ck="$c_kb" \
      -v os="$o_s" -v oc="$o_cpu" -v ok="$o_kb" 'BEGIN {
    ct = b / cs / 1048576; ot = b / os / 1048576
    printf "%s (%.0f MB)\n", n, b / 1048576
    printf "  curl : %7.1f MB/s  %5.2f s  cpu %5.2f s  peak RSS %6.1f MB\n", ct, cs, cc, ck / 1024
    printf "  ours : %7.1f MB/s  %5.2f s  cpu %5.2f s  peak RSS %6.1f MB\n", ot, os, oc, ok / 1024
    printf "  throughput ratio ours/curl: %.2f\n", ot / ct
  }'
}

run "one 256 MB file" "$base/blob/268435456"
urls=()
for i in $(seq 0 49); do urls+=("$base/blob/$((2097152 + i))"); done
run "fifty 2 MB files" "${urls[@]}"
