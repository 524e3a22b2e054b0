#!/usr/bin/env bash
# Installs what is missing, builds kxbvh in Release and shows what the library does on the
# built-in scene (about a million triangles): a picture, kxbvh-demo.png in the repository's
# top folder, and the figures of the hierarchy.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kx_install_deps

cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DKX_BUILD_TESTS=OFF -DKX_BUILD_BENCH=OFF >/dev/null
cmake --build build-release --target kxbvh -j "$(nproc)"

kxbvh=build-release/tools/kxbvh/kxbvh
echo
"$kxbvh" --version
echo
"$kxbvh" render -o kxbvh-demo.png
echo
"$kxbvh" info
