#!/usr/bin/env bash
# Builds the Python module kxbvh in Release for Debian's own interpreter, /usr/bin/python3
# (not whatever `python3` a version manager puts first on PATH), and installs it into that
# interpreter's site-packages with the shared libraries it needs beside it. Afterwards
# `/usr/bin/python3 -c "import kxbvh"` works from any folder.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kx_install_deps

python=/usr/bin/python3
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi

cmake -S . -B build-python -DCMAKE_BUILD_TYPE=Release -DKX_BUILD_TESTS=OFF -DKX_BUILD_BENCH=OFF \
  -DKX_BUILD_PYTHON=ON -DPython_EXECUTABLE="$python" >/dev/null
cmake --build build-python --target _kxbvh kxbvhReference kxOpen3DRayMask -j "$(nproc)"
$sudo cmake --install build-python --component python
cd /
"$python" -c "import kxbvh; print('kxbvh', kxbvh.__version__, 'is installed in', kxbvh.__path__[0])"
