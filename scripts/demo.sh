#!/usr/bin/env bash
# The main job: install what is missing, build, and run the engine's demo.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh default sonorell_cli
exec build/tools/sonorell demo "$@"
