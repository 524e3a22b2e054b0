# Sourced by the other scripts: installs the Debian packages the build and the tests need, only those
# that are missing.
kx_packages=(
  g++ cmake make pkg-config git
  libgtest-dev libbenchmark-dev
  libwildmagic-dev
  libcli11-dev libassimp-dev nlohmann-json3-dev libstb-dev
  libembree-dev
  assimp-testmodels
  clang libfuzzer-14-dev
  python3-dev python3-numpy pybind11-dev python3-pybind11 python3-pytest
)

kx_install_deps() {
  local missing=()
  local p
  for p in "${kx_packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return 0
  fi
  echo "== Installing ${missing[*]}"
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
  fi
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y "${missing[@]}"
}
