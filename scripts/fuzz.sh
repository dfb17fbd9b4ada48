#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/: clang, ASan+UBSan, only the sources they reach) into
# build-fuzz/ and runs each over its seed corpus (fuzz/corpus/<target>/) for a fixed number of
# inputs. Usage: scripts/fuzz.sh [runs-per-target] (default 10000, what CI runs; -1 runs until
# stopped). Exits non-zero when any target crashed, leaked, hung or made a sanitizer report; the
# input that did it is kept in build-fuzz/artifacts/. New inputs worth keeping collect in
# build-fuzz/corpus/<target>/, so later runs start from them; the checked-in corpus is not touched.
# SONORELL_FUZZ_SEED fixes libFuzzer's random seed (0, the default, draws one and prints it);
# SONORELL_FUZZ_TARGETS limits the run to some targets ("metadata playlist"); SONORELL_FUZZ_ARGS
# adds libFuzzer options (e.g. "-max_total_time=600" with runs -1).
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-10000}
seed=${SONORELL_FUZZ_SEED:-0}
jobs=${SONORELL_JOBS:-$(nproc)}
dir=build-fuzz

args=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++)
if command -v ccache >/dev/null; then
  # Paths relative to the checkout, as for the other build directories.
  export CCACHE_BASEDIR="$PWD"
  args+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S fuzz -B "$dir" -G Ninja "${args[@]}" >/dev/null
cmake --build "$dir" -j "$jobs"

# Sanitizer runtimes need a fixed mmap layout on kernels with high ASLR entropy.
prefix=()
if command -v setarch >/dev/null; then prefix=(setarch "$(uname -m)" -R); fi
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

targets=${SONORELL_FUZZ_TARGETS:-$(cd fuzz/corpus && ls)}
mkdir -p "$dir/artifacts" "$dir/logs"
passed=0
failed=()
for name in $targets; do
  mkdir -p "$dir/corpus/$name"
  log="$dir/logs/$name.log"
  start=$SECONDS
  # The first directory receives new inputs; both are read at start.
  # shellcheck disable=SC2086 # SONORELL_FUZZ_ARGS is a list of options
  if "${prefix[@]}" "$dir/${name}_fuzzer" -runs="$runs" -seed="$seed" -timeout=30 \
      -rss_limit_mb=2048 -artifact_prefix="$dir/artifacts/$name-" ${SONORELL_FUZZ_ARGS:-} \
      "$dir/corpus/$name" "fuzz/corpus/$name" >"$log" 2>&1; then
    passed=$((passed + 1))
    echo "fuzz: $name: $(grep -o 'Done [0-9]* runs' "$log" | tail -1) in $((SECONDS - start)) s" \
      "($(grep -o 'INFO: Seed: [0-9]*' "$log" | head -1))"
  else
    failed+=("$name")
    echo "fuzz: $name FAILED after $((SECONDS - start)) s; the end of $log:"
    tail -n 60 "$log"
  fi
done

echo "fuzz: ${passed} passed, ${#failed[@]} failed"
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failing targets: ${failed[*]}; reproduce with $dir/<target>_fuzzer $dir/artifacts/<file>"
  exit 1
fi
