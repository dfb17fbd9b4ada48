#!/usr/bin/env bash
# What a host gets from a build: installs it into a temporary prefix, builds examples/host
# against the installed CMake package and, in one line, with pkg-config, and runs both against
# the reference content server (download a book, play a chapter to fakesink); builds the Debian
# package, shows its control fields and runs `sonorell version` from it unpacked; builds the API
# reference (a Doxygen warning fails it) and compares the exported symbols with the kept list.
#   scripts/check_install.sh <build dir>     (configured and built, e.g. build)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: $0 <build dir>}" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/sonorell-install.XXXXXX")
server_pid=""

cleanup() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

step() { printf '== %s (at %ds)\n' "$*" "$SECONDS"; }
fail() {
  printf 'check_install: %s\n' "$*" >&2
  exit 1
}
# Runs a command quietly; its output is shown only when it fails.
quiet() {
  local log=$work/quiet.log
  if ! "$@" >"$log" 2>&1; then
    cat "$log" >&2
    fail "failed: $*"
  fi
}

step "build: library, programs, API reference"
quiet cmake --build "$build" --target sonorell sonorell_cli sonorell-content-server docs
[ -f "$build/docs/html/index.html" ] || fail "no API reference in $build/docs/html"

step "install into a temporary prefix"
prefix=$work/prefix
quiet cmake --install "$build" --prefix "$prefix"
lib=$(find "$prefix" -name 'libsonorell.so.*.*.*' -print -quit)
[ -n "$lib" ] || fail "libsonorell.so.<version> not installed"
libdir=$(dirname "$lib")
for f in "$libdir/libsonorell.so" "$libdir/libsonorell.so.6" "$prefix/include/sonorell/sonorell.h" \
  "$prefix/bin/sonorell" "$prefix/bin/sonorell-content-server" \
  "$libdir/cmake/Sonorell/SonorellConfig.cmake" \
  "$libdir/cmake/Sonorell/SonorellConfigVersion.cmake" "$libdir/pkgconfig/sonorell.pc"; do
  [ -e "$f" ] || fail "not installed: ${f#"$prefix"/}"
done
soname=$(objdump -p "$lib" | awk '$1 == "SONAME" {print $2}')
[ "$soname" = libsonorell.so.6 ] || fail "SONAME is '$soname', not libsonorell.so.6"
# Hosts link the shared library only: nothing in the package may point at the build's internal
# archives or at the source and build trees.
if grep -nE 'sonorell_(platform|engine)|'"$root" "$libdir"/cmake/Sonorell/*.cmake "$libdir/pkgconfig/sonorell.pc"; then
  fail "the installed package refers to internal targets or to the source tree"
fi
echo "ok: $(basename "$lib") (SONAME $soname), headers, programs, CMake package, sonorell.pc"

step "examples/host with find_package(Sonorell)"
quiet cmake -S "$root/examples/host" -B "$work/host-cmake" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_PREFIX_PATH="$prefix"
quiet cmake --build "$work/host-cmake"

step "examples/host with pkg-config, in one line"
export PKG_CONFIG_PATH=$libdir/pkgconfig
version=$(pkg-config --modversion sonorell)
# shellcheck disable=SC2046  # the flags are meant to split into words
g++ -std=c++20 -O1 -Wall -Wextra -Werror "$root/examples/host/main.cc" \
  -o "$work/host-pkgconfig" $(pkg-config --cflags --libs sonorell)

step "reference content server"
"$prefix/bin/sonorell-content-server" --print-ready --port 0 >"$work/server.out" 2>"$work/server.err" &
server_pid=$!
# The first line on standard output is {"baseURL", "caCertificate", "dataDir"} once it listens.
for _ in $(seq 600); do
  grep -q '}' "$work/server.out" && break
  kill -0 "$server_pid" 2>/dev/null || { cat "$work/server.err" >&2; fail "the server exited"; }
  sleep 0.1
done
ready=$(head -n 1 "$work/server.out")
base_url=$(sed -n 's/.*"baseURL":"\([^"]*\)".*/\1/p' <<<"$ready")
ca_file=$(sed -n 's/.*"caCertificate":"\([^"]*\)".*/\1/p' <<<"$ready")
if [ -z "$base_url" ] || [ ! -f "$ca_file" ]; then fail "no ready line from the server: '$ready'"; fi
echo "ok: $base_url"

run_host() {
  local name=$1
  shift
  echo "-- $name"
  SONORELL_AUDIO_SINK="fakesink sync=true" timeout 300 "$@" --api "$base_url" --ca "$ca_file" \
    --session-key example-session --license-id example-license --book 1001 \
    --library "$work/library-$name" || fail "the host built with $name failed"
}
step "run both hosts: download book 1001, play its first chapter"
run_host cmake "$work/host-cmake/sonorell-host-example"
# pkg-config gives no run path; the loader is told where the installed library is.
LD_LIBRARY_PATH=$libdir run_host pkg-config "$work/host-pkgconfig"

step "Debian package"
quiet cpack --config "$build/CPackConfig.cmake" -B "$work/deb"
deb=$(find "$work/deb" -maxdepth 1 -name 'sonorell_*.deb' -print -quit)
[ -n "$deb" ] || fail "cpack made no sonorell_*.deb"
dpkg-deb --info "$deb"
depends=$(dpkg-deb --field "$deb" Depends)
# dpkg-shlibdeps must have found the engine's shared libraries.
for dep in libc6 libstdc++6 libcurl4 libsqlite3-0 libgstreamer1.0-0 gstreamer1.0-plugins-good; do
  grep -q "\b$dep\b" <<<"$depends" || fail "Depends lacks $dep: $depends"
done
dpkg-deb --contents "$deb" >"$work/contents"
for f in 'bin/sonorell' 'bin/sonorell-content-server' 'include/sonorell/facade\.h' \
  'lib/[^ ]*/libsonorell\.so\.6' 'lib/[^ ]*/cmake/Sonorell/SonorellConfig\.cmake' \
  'lib/[^ ]*/pkgconfig/sonorell\.pc'; do
  grep -qE " \./usr/$f( |$)" "$work/contents" || fail "the package lacks /usr/$f"
done
# As on a fresh machine: apt resolves every dependency from the archive, starting from an
# empty package database (a simulation; nothing is installed). Needs apt's package lists.
if compgen -G '/var/lib/apt/lists/*_Packages*' >/dev/null; then
  : >"$work/empty-status"
  (cd "$(dirname "$deb")" && apt-get install --simulate --no-install-recommends \
    -o Dir::State::status="$work/empty-status" "./$(basename "$deb")") >"$work/apt.log" 2>&1 ||
    { cat "$work/apt.log" >&2; fail "apt cannot resolve the package's dependencies"; }
  echo "ok: apt installs it on an empty system with $(grep -c '^Inst' "$work/apt.log") packages"
else
  echo "skipped: no apt package lists here to resolve the dependencies against"
fi
dpkg -x "$deb" "$work/root"
# The program finds the unpacked library through its relative run path.
# (grep -q on a pipe would end ldd early with SIGPIPE, which pipefail counts as a failure)
libs=$(ldd "$work/root/usr/bin/sonorell")
grep -q "libsonorell.so.6 => $work/root/" <<<"$libs" ||
  fail "the unpacked sonorell does not load the unpacked libsonorell"
packaged=$("$work/root/usr/bin/sonorell" version)
[ "$packaged" = "$version" ] || fail "the packaged sonorell says '$packaged', sonorell.pc '$version'"
echo "ok: $(basename "$deb"): sonorell version $packaged"

step "exported symbols"
bash "$root/scripts/check_exports.sh" "$build/src/libsonorell.so"

echo "check_install: all passed in ${SECONDS}s"
