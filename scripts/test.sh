#!/usr/bin/env bash
# Installs what is missing, builds with every warning an error and runs the whole suite,
# then does the same with AddressSanitizer + UndefinedBehaviorSanitizer. The last line
# printed is CTest's summary of the last suite that ran.
set -uo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kx_install_deps || exit 1

jobs=$(nproc)

configure_and_build() {
  local dir=$1
  shift
  echo "== Configuring and building $dir"
  cmake -S . -B "$dir" -DKX_WERROR=ON "$@" && cmake --build "$dir" -j "$jobs"
}

run_suite() {
  local dir=$1
  echo "== Running the tests in $dir"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" 2>&1 | tee "$dir/ctest.log"
  local status=${PIPESTATUS[0]}
  summary=$(grep -E '^[0-9]+% tests passed' "$dir/ctest.log" | tail -n 1)
  return "$status"
}

summary="0% tests passed: the build failed"

if ! configure_and_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo; then
  echo "$summary"
  exit 1
fi
if ! run_suite build; then
  echo "$summary"
  exit 1
fi

if ! configure_and_build build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKX_SANITIZE=ON -DKX_BUILD_BENCH=OFF; then
  echo "0% tests passed: the sanitizer build failed"
  exit 1
fi
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite build-asan
status=$?
echo "$summary"
exit "$status"
