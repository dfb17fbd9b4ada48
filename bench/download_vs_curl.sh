#!/usr/bin/env bash
# A whole-book download through the engine against curl fetching the same chapter URLs four at a
# time, from the reference content server started here, in one run: the 60-chapter book, then
# the book of twenty ~10 MB chapters when the catalogue has it. Prints each side's throughput,
# CPU seconds and peak resident memory (medians of alternating runs), and the ratios.
# Usage: bench/download_vs_curl.sh [build-dir]   (needs download_bench and sonorell-content-server)
set -euo pipefail
build=${1:-build}
server_bin="$build/tools/content-server/sonorell-content-server"
bench_bin="$build/bench/download_bench"
work=$(mktemp -d)
trap 'kill "$server_pid" 2>/dev/null || true; rm -rf "$work"' EXIT

"$server_bin" --port 0 --data-dir "$work/server" >"$work/server.log" 2>&1 &
server_pid=$!
for _ in $(seq 600); do grep -q '^CA certificate:' "$work/server.log" 2>/dev/null && break; sleep 0.1; done
base=$(sed -n 's/^base URL: //p' "$work/server.log")
ca=$(sed -n 's/^CA certificate: //p' "$work/server.log")
[ -n "$base" ] || { cat "$work/server.log"; exit 1; }

measure() {  # prints "seconds cpu-seconds peak-kB" of the command
  # time(1) counts wall time in hundredths, too coarse for the small book's ~20 ms.
  local start end
  start=$(date +%s%N)
  /usr/bin/time -f "%U %S %M" -o "$work/time" "$@" >/dev/null 2>>"$work/stderr.log"
  end=$(date +%s%N)
  awk -v ns=$((end - start)) '{ printf "%.4f %.2f %s\n", ns / 1e9, $1 + $2, $3 }' "$work/time"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

run() {  # book ID
  local book=$1
  local playlist
  playlist=$(curl -sS --fail --cacert "$ca" -H 'Session-Key: bench' -H 'Content-Type: application/json' \
    -d '{"license_id": "bench"}' "$base/v4/audiobooks/$book/playlists") || return 0
  mapfile -t urls < <(grep -o '"url": *"[^"]*"' <<<"$playlist" | sed 's/.*"\(http[^"]*\)"/\1/')
  [ ${#urls[@]} -gt 0 ] || return 0
  local args=() i=0
  for url in "${urls[@]}"; do args+=(-o "$work/curl/f$i" "$url"); i=$((i + 1)); done
  # Alternating runs, each side's median: one run of the small book is over in tens of ms.
  : >"$work/curl.runs"; : >"$work/engine.runs"
  for _ in $(seq "$runs"); do
    rm -rf "$work/curl" "$work/lib"; mkdir -p "$work/curl" "$work/lib"
    measure curl -sS --fail --cacert "$ca" --parallel --parallel-max 4 "${args[@]}" >>"$work/curl.runs"
    SONORELL_LIBRARY_DIR="$work/lib" measure "$bench_bin" "$base" "$ca" "$book" >>"$work/engine.runs"
  done
  local c_s c_cpu c_kb o_s o_cpu o_kb
  c_s=$(cut -d' ' -f1 "$work/curl.runs" | median); c_cpu=$(cut -d' ' -f2 "$work/curl.runs" | median)
  c_kb=$(cut -d' ' -f3 "$work/curl.runs" | median)
  o_s=$(cut -d' ' -f1 "$work/engine.runs" | median); o_cpu=$(cut -d' ' -f2 "$work/engine.runs" | median)
  o_kb=$(cut -d' ' -f3 "$work/engine.runs" | median)
  local bytes
  bytes=$(cat "$work"/curl/f* | wc -c)
  local ours
  ours=$(find "$work/lib" -name '*_audio.mp3' -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }')
  [ "$ours" = "$bytes" ] || { echo "book $book: engine has $ours bytes, curl $bytes"; cat "$work/stderr.log"; exit 1; }
  awk -v n="$book" -v c="${#urls[@]}" -v b="$bytes" -v cs="$c_s" -v cc="$c_cpu" -v ck="$c_kb" \
      -v os="$o_s" -v oc="$o_cpu" -v ok="$o_kb" 'BEGIN {
    ct = b / cs / 1048576; ot = b / os / 1048576
    printf "book %s: %d chapters, %.1f MB\n", n, c, b / 1048576
    printf "  curl   : %7.1f MB/s  %6.3f s  cpu %5.2f s  peak RSS %6.1f MB\n", ct, cs, cc, ck / 1024
    printf "  engine : %7.1f MB/s  %6.3f s  cpu %5.2f s  peak RSS %6.1f MB\n", ot, os, oc, ok / 1024
    printf "  throughput ratio engine/curl: %.2f   cpu ratio engine/curl: %.2f\n", ot / ct, oc / (cc > 0 ? cc : 0.01)
  }'
}

runs=9
run 2001
runs=5
run 3001
