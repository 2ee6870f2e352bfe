#!/usr/bin/env bash
# The main job: builds the SDK and the tools, then runs the end-to-end demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_BENCH=OFF >/dev/null
cmake --build --preset release -j2
build/release/tools/qel-httpdns-version
