#!/usr/bin/env bash
# The whole check: install what is missing, build, run every test and the install/package
# checks, then the tests under ASan+UBSan, the fuzz targets, then the tests under TSan.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
jobs=$(nproc)

run_ctest() {
  # Sanitizer runtimes need a fixed mmap layout on kernels with high ASLR entropy.
  local prefix=()
  if [ "$2" != default ] && command -v setarch >/dev/null; then prefix=(setarch "$(uname -m)" -R); fi
  "${prefix[@]}" ctest --test-dir "$1" --output-on-failure -j "$jobs" --timeout 300
}

echo "== build"
bash scripts/build.sh default
echo "== tests"
run_ctest build default

echo "== install, Debian package, host example, API reference, exported symbols"
bash scripts/check_install.sh build

echo "== build (ASan+UBSan)"
bash scripts/build.sh asan
echo "== tests (ASan+UBSan)"
# The end-to-end storms are smaller here: they look for sanitizer reports, not for rare timings.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  LSAN_OPTIONS=suppressions=$PWD/scripts/lsan.supp:print_suppressions=0 \
  SONORELL_E2E_FUZZ_CASES=200 SONORELL_STORM_KILLS=10 \
  run_ctest build-asan asan

echo "== fuzz (libFuzzer, ASan+UBSan)"
bash scripts/fuzz.sh

echo "== build (TSan)"
bash scripts/build.sh tsan
echo "== tests (TSan)"
# The suppressions name only libraries built without TSan (GLib, GStreamer, cpp-httplib...).
TSAN_OPTIONS=suppressions=$PWD/scripts/tsan.supp:halt_on_error=1:second_deadlock_stack=1:atexit_sleep_ms=0 \
  run_ctest build-tsan tsan
