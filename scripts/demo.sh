#!/usr/bin/env bash
# Installs what is missing, builds kxbvh in Release and runs it on its built-in scene.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kx_install_deps

cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DKX_BUILD_TESTS=OFF -DKX_BUILD_BENCH=OFF >/dev/null
cmake --build build-release --target kxbvh -j "$(nproc)"

kxbvh=build-release/tools/kxbvh/kxbvh
"$kxbvh" --version
"$kxbvh" --help
