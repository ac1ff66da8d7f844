#!/usr/bin/env bash
# The main job on a fresh machine: installs, builds, and stores and retrieves attachments
# with vmattach in a throw-away data folder, on the embedded defaults.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)"
