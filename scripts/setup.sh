#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need. Idempotent: packages
# already present are skipped, and apt is not touched at all when nothing is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git ca-certificates clang-format
  libsqlite3-dev libcurl4-openssl-dev libssl-dev nlohmann-json3-dev
  libspdlog-dev libfmt-dev uuid-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-tools
  libcpp-httplib-dev libcli11-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  curl openssl ccache
  espeak-ng  # the reference server reads its demo book aloud with it
  clang libclang-rt-14-dev  # the fuzz targets (libFuzzer)
  iproute2  # the metered-network test's namespace
  pulseaudio pulseaudio-utils libpulse-dev dbus-daemon  # the audio session and MPRIS tests
  doxygen dpkg-dev  # the API reference and the Debian package
)

missing=()
for p in "${packages[@]}"; do
  if [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null)" != 'install ok installed' ]; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
