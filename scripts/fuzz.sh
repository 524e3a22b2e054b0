#!/usr/bin/env bash
# Fuzzes the targets of fuzz/ one after the other with libFuzzer, SECONDS each (default
# 60), after building build-fuzz (clang; AddressSanitizer and UndefinedBehaviorSanitizer
# over the whole library) when needed.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]     e.g. scripts/fuzz.sh 600 kxFuzzRayCrossCheck
#
# Each target starts from its committed seed corpus (fuzz/corpus/<target>) and from what
# earlier runs found (build-fuzz/fuzz/work/<target>/corpus, never committed). An input
# that crashes, leaks, breaks a check, runs over 20 s or allocates more than 1 GB is
# written to build-fuzz/fuzz/work/<target>/ and the run fails (kxFuzzMeshReading lets
# memory run out, as fuzz/kxFuzzMeshReading.flags explains); replay it with
# build-fuzz/fuzz/<target> <file>.
set -uo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kx_install_deps || exit 1

seconds=${1:-60}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: scripts/fuzz.sh [SECONDS] [TARGET...]: SECONDS must be a positive whole number, not '$seconds'" >&2
  exit 2
fi
shift $(($# > 0 ? 1 : 0))
all=(kxFuzzArrayStreams kxFuzzBuildAndQuery kxFuzzRayCrossCheck kxFuzzTransformation kxFuzzMeshReading)
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=("${all[@]}")
fi
for t in "${targets[@]}"; do
  if [[ ! " ${all[*]} " =~ " $t " ]]; then
    echo "scripts/fuzz.sh: no fuzz target '$t'; the targets are ${all[*]}" >&2
    exit 2
  fi
done

if [ ! -f build-fuzz/CMakeCache.txt ]; then
  echo "== Configuring build-fuzz"
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKX_BUILD_FUZZ=ON \
    -DKX_BUILD_TESTS=OFF -DKX_BUILD_BENCH=OFF || exit 1
fi
echo "== Building ${targets[*]}"
cmake --build build-fuzz -j "$(nproc)" --target "${targets[@]}" || exit 1

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
failed=()
for t in "${targets[@]}"; do
  work=build-fuzz/fuzz/work/$t
  mkdir -p "$work/corpus"
  echo "== Fuzzing $t for $seconds s (log: $work/fuzz.log)"
  # Leaks inside libraries that a target drives but that are not ours are listed there.
  lsan=${LSAN_OPTIONS:-}
  if [ -f "fuzz/$t.supp" ]; then
    lsan="${lsan:+$lsan:}suppressions=$PWD/fuzz/$t.supp"
  fi
  # A target's own flags (fuzz/<target>.flags) say why it needs them.
  flags=()
  if [ -f "fuzz/$t.flags" ]; then
    read -r -a flags <<<"$(grep -v '^#' "fuzz/$t.flags" | tr '\n' ' ')"
  fi
  # kxbvh's reader sends standard error to /dev/null while assimp runs; -close_fd_mask=2
  # keeps libFuzzer's and the sanitizers' reports on a copy of it.
  LSAN_OPTIONS=$lsan build-fuzz/fuzz/"$t" -max_total_time="$seconds" -rss_limit_mb=2048 -malloc_limit_mb=1024 -timeout=20 \
    -close_fd_mask=2 "${flags[@]}" \
    -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" "fuzz/corpus/$t" >"$work/fuzz.log" 2>&1
  status=$?
  # A forked run counts its runs on its progress lines ("#445: cov: ...").
  runs=$( (grep -oE 'stat::number_of_executed_units: *[0-9]+' "$work/fuzz.log" || grep -oE '^#[0-9]+:' "$work/fuzz.log") |
    tail -n 1 | grep -oE '[0-9]+')
  inputs=$(find "$work/corpus" -type f | wc -l)
  if [ "$status" -eq 0 ]; then
    echo "   ok: ${runs:-?} runs, $inputs inputs of its own in the corpus"
  else
    failed+=("$t")
    echo "   FAILED (status $status):"
    grep -E 'ERROR|check failed|runtime error|Test unit written|SUMMARY' "$work/fuzz.log" | head -n 8 | sed 's/^/   /'
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing failed in ${failed[*]}"
  exit 1
fi
echo "fuzzing passed: ${targets[*]}"
