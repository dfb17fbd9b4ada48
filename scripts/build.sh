#!/usr/bin/env bash
# Configures and builds one flavour: default (build/), asan (build-asan/, ASan+UBSan) or tsan
# (build-tsan/, every test binary under ThreadSanitizer). Extra arguments go to the build tool.
set -euo pipefail
cd "$(dirname "$0")/.."

flavour=${1:-default}
shift || true
case "$flavour" in
  default) dir=build; args=() ;;
  asan) dir=build-asan; args=(-DSONORELL_SANITIZE=asan -DSONORELL_BUILD_BENCH=OFF) ;;
  # The CLI is left out: no test runs it. The reference server is built regardless (the
  # server-backed tests link it).
  tsan) dir=build-tsan; args=(-DSONORELL_SANITIZE=tsan -DSONORELL_BUILD_BENCH=OFF
                             -DSONORELL_BUILD_TOOLS=OFF -DSONORELL_TEST_FILTER=) ;;
  *) echo "usage: $0 [default|asan|tsan]" >&2; exit 2 ;;
esac

jobs=${SONORELL_JOBS:-$(nproc)}
# A rebuild on the same machine recompiles only what changed.
if command -v ccache >/dev/null; then
  # Paths relative to the checkout, so build directories side by side share cached objects.
  export CCACHE_BASEDIR="$PWD"
  args+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${args[@]}" >/dev/null
# Extra arguments (target names, -k 0) are Ninja's; cmake --build itself takes no target names.
cmake --build "$dir" -j "$jobs" -- "$@"
