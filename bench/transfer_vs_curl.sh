#!/usr/bin/env bash
# The transfer service against curl on loopback: one 256 MB file, then fifty 2 MB files (four at
# a time for both), from the reference content server started here. Each case runs $RUNS times
# (default 5); which side goes first alternates from run to run, and dirty pages are synced
# before each side starts, so that neither inherits the other's writeback. Prints every run and
# then the medians: throughput, CPU seconds, peak resident memory, and the throughput ratio.
# Usage: bench/transfer_vs_curl.sh [build-dir]   (needs transfer_bench and sonorell-content-server)
set -euo pipefail
build=${1:-build}
runs=${RUNS:-5}
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
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"

# Prints "seconds cpu-seconds peak-kB" of the command (wall time to the microsecond: at
# 300 MB/s, time's own 10 ms steps would be over 1% of a run).
measure() {
  sync
  local start=$EPOCHREALTIME
  /usr/bin/time -f "%U %S %M" -o "$work/time" "$@" >/dev/null 2>>"$work/stderr.log"
  local end=$EPOCHREALTIME
  awk -v s="$start" -v e="$end" '{ printf "%.6f %.2f %s\n", e - s, $1 + $2, $3 }' "$work/time"
}

curl_side() {
  local args=() i=0 url
  for url in "$@"; do args+=(-o "$work/curl/f$i" "$url"); i=$((i + 1)); done
  measure curl -sS --fail --cacert "$ca" --parallel --parallel-max 4 "${args[@]}"
}

our_side() {
  SONORELL_LIBRARY_DIR="$work/lib" measure "$bench_bin" "$ca" "$work/ours" "$@"
}

run() {  # name, then URLs
  local name=$1; shift
  local bytes=0 url r
  for url in "$@"; do bytes=$((bytes + ${url##*/})); done
  : >"$work/rows"
  for r in $(seq "$runs"); do
    rm -rf "$work/curl" "$work/ours" "$work/lib"; mkdir -p "$work/curl" "$work/ours" "$work/lib"
    if [ $((r % 2)) -eq 1 ]; then
      read -r c_s c_cpu c_kb < <(curl_side "$@")
      read -r o_s o_cpu o_kb < <(our_side "$@")
    else
      read -r o_s o_cpu o_kb < <(our_side "$@")
      read -r c_s c_cpu c_kb < <(curl_side "$@")
    fi
    # Both sides must have fetched the same bytes.
    for i in $(seq 0 $(($# - 1))); do
      cmp -s "$work/curl/f$i" "$work/ours/f$i" || { echo "f$i differs"; cat "$work/stderr.log"; exit 1; }
    done
    echo "$c_s $c_cpu $c_kb $o_s $o_cpu $o_kb" >>"$work/rows"
  done
  awk -v n="$name" -v b="$bytes" '
    function median(a, k,   i, j, t) {  # sorts a[1..k] in place
      for (i = 2; i <= k; i++) for (j = i; j > 1 && a[j - 1] > a[j]; j--) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
      return k % 2 ? a[(k + 1) / 2] : (a[k / 2] + a[k / 2 + 1]) / 2
    }
    {
      k = NR
      ct[k] = b / $1 / 1048576; cc[k] = $2; cm[k] = $3 / 1024
      ot[k] = b / $4 / 1048576; oc[k] = $5; om[k] = $6 / 1024
      ratio[k] = ot[k] / ct[k]
      printf "  run %d (%s first): curl %7.1f MB/s, ours %7.1f MB/s, ratio %.2f\n", k, k % 2 ? "curl" : "ours", ct[k], ot[k], ratio[k]
    }
    END {
      printf "%s (%.0f MB), medians of %d runs\n", n, b / 1048576, k
      printf "  curl : %7.1f MB/s  cpu %5.2f s  peak RSS %6.1f MB\n", median(ct, k), median(cc, k), median(cm, k)
      printf "  ours : %7.1f MB/s  cpu %5.2f s  peak RSS %6.1f MB\n", median(ot, k), median(oc, k), median(om, k)
      printf "  throughput ratio ours/curl (median of %d runs): %.2f\n", k, median(ratio, k)
    }' "$work/rows"
}

run "one 256 MB file" "$base/blob/268435456"
urls=()
for i in $(seq 0 49); do urls+=("$base/blob/$((2097152 + i))"); done
run "fifty 2 MB files" "${urls[@]}"
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
