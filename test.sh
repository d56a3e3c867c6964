#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests: a release build, one with the
# address and undefined-behaviour sanitizers, the concurrent tests with the thread sanitizer, and a
# build for 32-bit ARM, whose tests run through QEMU, under sanitizers too; what the two machines
# make of a card is compared.
#   ./test.sh            all of it, scripts/lint first
#   ./test.sh PRESET...  only these of: release asan tsan armhf-asan, and fuzz, which is only run when
#                        it is named: the fuzz targets, some seconds each
set -euo pipefail
cd "$(dirname "$0")"
. scripts/packages.sh

jobs=$(nproc)
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan tsan armhf-asan)
for preset in "${presets[@]}"; do
  case "$preset" in
    release | asan | tsan | armhf-asan | fuzz) ;;
    *) echo "usage: ./test.sh [release] [asan] [tsan] [armhf-asan] [fuzz]" >&2; exit 2 ;;
  esac
done

step() { printf '\n== %s (%d s)\n' "$*" "$SECONDS"; }

step "Packages"
packages=("${build_packages[@]}" "${run_packages[@]}" "${test_packages[@]}" "${arm_packages[@]}")
[[ " ${presets[*]} " != *" fuzz "* ]] || packages+=("${fuzz_packages[@]}")
[ $# -gt 0 ] || packages+=("${lint_packages[@]}")
scripts/install-packages "${packages[@]}"

[ $# -gt 0 ] || { step "Lint"; scripts/lint; }

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

# Each build is tested in another time zone, one of them with half an hour of summer time.
declare -A zones=([release]='LHST-10:30LHDT-11,M10.1.0,M4.1.0' [asan]='NST3:30NDT,M3.2.0,M11.1.0'
  [tsan]='UTC0' [armhf-asan]='XYZ-02:00')
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1
for preset in "${presets[@]}"; do
  step "Build $preset"
  targets=() select=()
  # Only what uses threads or several processes gains from the thread sanitizer.
  if [ "$preset" = tsan ]; then
    concurrent=(fat mesg chunk dblog recorder)
    targets=(--target tarn-server dbsetup "${concurrent[@]/#/test_}")
    select=(-L "^($(IFS='|'; echo "${concurrent[*]}"))\$"
      # Long ones of a single thread.
      -E '^recorder\.(CardCheck|RecoveryCut|LogWriterPowerCut|LogLayout)|^dblog\.ReplayFaults\.APassing')
  fi
  # The tests of the libraries; the tool's own are about the tool, not about the machine.
  if [ "$preset" = armhf-asan ]; then
    folders=(base fat mesg db chunk manager dblog api recorder)
    targets=(--target tarn tarn-server dbsetup target_life "${folders[@]/#/test_}")
    select=(-LE '^programs$')
  fi
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs" "${targets[@]}"
  step "Test $preset"
  if [ "$preset" = fuzz ]; then
    tests/fuzz/run --seconds 8
    continue
  fi
  TZ=${zones[$preset]} run_tests "build/$preset" "${select[@]}"
  if [ "$preset" = armhf-asan ]; then
    echo "Skipped under the emulator, with the reason (its leak checker cannot run at all):"
    grep -h '^SKIPPED ' build/armhf-asan/Testing/Temporary/LastTest.log || echo "none"
    step "The same card on both machines"
    if [ -x build/release/bin/target_life ]; then
      tests/target/run "$PWD" build/release build/armhf-asan
    else
      echo "skipped: no release build to compare with"
    fi
  fi
done
step "All passed"
