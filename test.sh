#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests: a release build, one with the
# address and undefined-behaviour sanitizers, and the concurrent tests with the thread sanitizer.
#   ./test.sh            all of it
#   ./test.sh PRESET...  only these of: release asan tsan
set -euo pipefail
cd "$(dirname "$0")"
. scripts/packages.sh

jobs=$(nproc)
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan tsan)
for preset in "${presets[@]}"; do
  case "$preset" in
    release | asan | tsan) ;;
    *) echo "usage: ./test.sh [release] [asan] [tsan]" >&2; exit 2 ;;
  esac
done

step() { printf '\n== %s (%d s)\n' "$*" "$SECONDS"; }

step "Packages"
scripts/install-packages "${build_packages[@]}" "${run_packages[@]}" "${test_packages[@]}"

# Most tests start processes of their own and wait for them; on a busy machine one may lose patience
# with another. What fails beside the others is run once more alone, and named.
run_tests() {
  local dir=$1
  shift
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --no-tests=error "$@" && return
  echo "These failed beside the others and must pass alone:"
  cat "$dir/Testing/Temporary/LastTestsFailed.log"
  ctest --test-dir "$dir" --rerun-failed --output-on-failure --no-tests=error
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1
for preset in "${presets[@]}"; do
  step "Build $preset"
  targets=() select=()
  # Only what uses threads or several processes gains from the thread sanitizer.
  if [ "$preset" = tsan ]; then
    concurrent=(fat mesg chunk dblog recorder)
    targets=(--target tarn-server dbsetup "${concurrent[@]/#/test_}")
    select=(-L "^($(IFS='|'; echo "${concurrent[*]}"))\$")
  fi
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs" "${targets[@]}"
  step "Test $preset"
  run_tests "build/$preset" "${select[@]}"
done
step "All passed"
