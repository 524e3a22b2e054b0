#!/usr/bin/env bash
# Installs what is missing, builds with every warning an error and runs the whole suite and
# the Python module's tests, runs the concurrency tests under ThreadSanitizer, then builds
# and runs the C++ suite with AddressSanitizer + UndefinedBehaviorSanitizer, then builds the
# fuzz targets with clang and libFuzzer and runs each over its seed corpus and for a few
# seconds of fuzzing (10 per target; the environment variable KX_FUZZ_SECONDS changes it).
# The last line printed is CTest's summary of the last suite that ran.
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

# The Python module's tests (pytest, Debian's interpreter) against the module of this build.
run_python_tests() {
  local dir=$1
  echo "== Running the Python tests in $dir"
  PYTHONPATH="$dir/python" KXBVH_TOOL="$dir/tools/kxbvh/kxbvh" KXBVH_REFERENCE="$dir/python/kxbvhReference" \
    /usr/bin/python3 -m pytest -p no:cacheprovider -q tests/python 2>&1 | tee "$dir/pytest.log"
  local status=${PIPESTATUS[0]}
  if [ "$status" -ne 0 ]; then
    summary="Python tests: $(grep -E '[0-9]+ (passed|failed|error)' "$dir/pytest.log" | tail -n 1)"
  fi
  return "$status"
}

# Only the programs that run threads, built and run under ThreadSanitizer.
run_thread_sanitizer() {
  local dir=build-tsan
  echo "== Configuring and building the concurrency tests in $dir"
  cmake -S . -B "$dir" -DKX_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKX_TSAN=ON \
    -DKX_BUILD_BENCH=OFF -DKX_BUILD_TOOLS=OFF -DKX_BUILD_PYTHON=OFF &&
    cmake --build "$dir" -j "$jobs" --target kxConcurrencyTests || return 100
  # GCC's ThreadSanitizer cannot always place its shadow memory under the address
  # randomisation of recent kernels; switched off where the system lets us.
  local norandom=()
  if setarch "$(uname -m)" -R true 2>/dev/null; then
    norandom=(setarch "$(uname -m)" -R)
  fi
  echo "== Running the concurrency tests in $dir"
  TSAN_OPTIONS=halt_on_error=1 "${norandom[@]}" ctest --test-dir "$dir" -L concurrency --output-on-failure \
    -j "$jobs" 2>&1 | tee "$dir/ctest.log"
  local status=${PIPESTATUS[0]}
  summary=$(grep -E '^[0-9]+% tests passed' "$dir/ctest.log" | tail -n 1)
  return "$status"
}

summary="0% tests passed: the build failed"

if ! configure_and_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKX_BUILD_PYTHON=ON; then
  echo "$summary"
  exit 1
fi
if ! run_suite build; then
  echo "$summary"
  exit 1
fi
if ! run_python_tests build; then
  echo "$summary"
  exit 1
fi

run_thread_sanitizer
case $? in
  0) ;;
  100) echo "0% tests passed: the ThreadSanitizer build failed"; exit 1 ;;
  *) echo "$summary"; exit 1 ;;
esac

if ! configure_and_build build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKX_SANITIZE=ON -DKX_BUILD_BENCH=OFF \
  -DKX_BUILD_PYTHON=OFF; then
  echo "0% tests passed: the sanitizer build failed"
  exit 1
fi
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
if ! run_suite build-asan; then
  echo "$summary"
  exit 1
fi

echo "== Configuring and building build-fuzz"
if ! { CC=clang CXX=clang++ cmake -S . -B build-fuzz -DKX_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
         -DKX_BUILD_FUZZ=ON -DKX_BUILD_TESTS=OFF -DKX_BUILD_BENCH=OFF -DKX_BUILD_PYTHON=OFF -DKX_FUZZ_SECONDS="${KX_FUZZ_SECONDS:-10}" &&
       cmake --build build-fuzz -j "$jobs" --target kxFuzzTargets; }; then
  echo "0% tests passed: the fuzz build failed"
  exit 1
fi
run_suite build-fuzz
status=$?
echo "$summary"
exit "$status"
