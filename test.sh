#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests: a release build, one with the
# address and undefined-behaviour sanitizers, the concurrent tests with the thread sanitizer, and a
# build for 32-bit ARM, whose tests run through QEMU, under the undefined-behaviour sanitizer too; what
# the two machines make of a card is compared. While tests run, the next builds are made: tests wait more
# than they work. The end says where the time went.
#   ./test.sh            all of it, and scripts/lint
#   ./test.sh PRESET...  only these of: release asan tsan armhf-ubsan, and two that are only run when
#                        they are named: armhf-asan, ARM with the address sanitizer as well, which
#                        takes twice as long, and fuzz, the fuzz targets, a minute each
set -euo pipefail
cd "$(dirname "$0")"
. scripts/packages.sh

jobs=$(nproc)
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan tsan armhf-ubsan)
for preset in "${presets[@]}"; do
  case "$preset" in
    release | asan | tsan | armhf-ubsan | armhf-asan | fuzz) ;;
    *) echo "usage: ./test.sh [release] [asan] [tsan] [armhf-ubsan] [armhf-asan] [fuzz]" >&2; exit 2 ;;
  esac
done

step() { printf '\n== %s (%d s)\n' "$*" "$SECONDS"; }

step "Packages"
packages=("${build_packages[@]}" "${run_packages[@]}" "${test_packages[@]}" "${arm_packages[@]}")
[[ " ${presets[*]} " != *" asan "* ]] || packages+=("${sanitizer_packages[@]}")
[[ " ${presets[*]} " != *" fuzz "* ]] || packages+=("${fuzz_packages[@]}")
[ $# -gt 0 ] || packages+=("${lint_packages[@]}")
scripts/install-packages "${packages[@]}"
if [[ " ${presets[*]} " == *" release "* ]]; then
  scripts/install-packages "${browser_packages[@]}" ||
    echo "No browser can be installed here: the tests of the page are skipped."
  tests/page/axe build/axe || echo "axe-core cannot be fetched here: the page's accessibility is not checked."
  tests/fleet/duckdb build/duckdb || echo "DuckDB cannot be fetched here: the indexes of a fleet are not asked."
fi

# Where a version manager's script stands in front of Python, it starts ten programs first, each time, and
# hundreds of scripts begin with Python: this finds the same one at once.
python=$(python3 -c 'import sys; print(sys.executable)')
[ -z "$python" ] || PATH=${python%/*}:$PATH

work=$(mktemp -d)
linting=''  # process of what runs beside the first build
building=''  # process of the builds that run beside the tests
comparing=''  # process of what compares the machines beside the tests of the last build
finish() {
  local process
  for process in $linting $building $comparing; do
    { kill -- "-$process" && wait "$process"; } 2>/dev/null || true
  done
  rm -rf "$work"
}
trap finish EXIT

# timed NAME COMMAND...: notes the seconds it took, and the processors', in $work/NAME.
timed() {
  local TIMEFORMAT='%R %U %S' file=$work/$1 code=0
  shift
  { time { "$@" 2>&3 || code=$?; } } 3>&2 2>"$file"
  return $code
}

# Beside a build, which leaves a processor idle now and then. Locks are looked at where clang builds all.
begin_lint() {
  set -m
  { timed lint nice scripts/lint --but-locks; } >"$work/lint.out" 2>&1 &
  linting=$!
  set +m
}

end_lint() {
  [ -n "$linting" ] || return 0
  step "Lint"
  local code=0
  wait "$linting" || code=$?
  linting=''
  cat "$work/lint.out"
  return $code
}

# Each build is tested in another time zone, one of them with half an hour of summer time.
declare -A zones=([release]='LHST-10:30LHDT-11,M10.1.0,M4.1.0' [asan]='NST3:30NDT,M3.2.0,M11.1.0'
  [tsan]='UTC0' [armhf-ubsan]='XYZ-02:00' [armhf-asan]='XYZ-02:00')
# clang's reports name lines without LLVM's own tool for it.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:allow_addr2line=1
export UBSAN_OPTIONS=print_stacktrace=1:allow_addr2line=1
export TSAN_OPTIONS=halt_on_error=1

# Only what uses threads or several processes gains from the thread sanitizer.
concurrent=(fat mesg chunk dblog recorder)
# The tests of the libraries; the tool's own are about the tool, not about the machine.
emulated=(base fat mesg db chunk manager dblog api recorder)

# together PRESET: whether a build compiles several test sources as one.
together() { sed -n 's/^TARN_TESTS_TOGETHER:BOOL=//p' "build/$1/CMakeCache.txt"; }

build() {
  local preset=$1 targets=() options=(-DTARN_TEST_OBJECTS=)
  case "$preset" in
    fuzz) targets=(--target fuzz_targets) ;;
    tsan) targets=(--target tarn-server dbsetup "${concurrent[@]/#/test_}") ;;
    armhf-*) targets=(--target tarn tarn-server dbsetup target_life "${emulated[@]/#/test_}") ;;
  esac
  # The tests' own code is compiled once for this machine.
  if [[ $preset = [at]san && " ${presets[*]} " == *" release "* ]]; then
    options=(-DTARN_TEST_OBJECTS="$PWD/build/release" "-DTARN_TESTS_TOGETHER=$(together release)")
  elif [ ! -e "build/$preset/CMakeCache.txt" ]; then
    # Faster for all of them, slower for the one that is changed: for a tree that nobody works in.
    options+=(-DTARN_TESTS_TOGETHER=ON)
  fi
  cmake --preset "$preset" "${options[@]}" >/dev/null &&
    nice -n 19 cmake --build --preset "$preset" -j "$jobs" "${targets[@]}"
}

# More at a time than there are processors.
run_tests() {
  local preset=$1 select=()
  case "$preset" in
    fuzz) tests/fuzz/run --seconds 60 && tests/fuzz/coverage; return ;;
    tsan) select=(-L "^($(IFS='|'; echo "${concurrent[*]}"))\$") ;;
    armhf-*) select=(-LE '^programs$') ;;
  esac
  rm -f "build/$preset/Testing/Temporary/LastTestsFailed.log"
  TZ=${zones[$preset]} ctest --test-dir "build/$preset" -j "$((3 * jobs))" --output-on-failure \
    --no-tests=error "${select[@]}"
}

# only_clocks FAILED: whether each test in that list of CTest's holds the product to a time (label "clock").
only_clocks() {
  local clocks
  clocks=$(ctest --test-dir "build/$tested" -N -L '^clock$' | sed -n 's/^ *Test *#[0-9]*: //p')
  [ -s "$1" ] && ! cut -d: -f2 "$1" | grep -vxFf <(echo "$clocks") >/dev/null
}

# That something takes too long is only proven on a machine that does nothing else: such tests, and no
# others, are asked again, alone, before their failure counts. Their bounds are the same.
ask_clocks_alone() {
  local logs=build/$tested/Testing/Temporary code=0
  only_clocks "$logs/LastTestsFailed.log" || return 1
  step "Tests of $tested that took too long beside others, alone"
  cp "$logs/LastTest.log" "$work/first.log"
  [ -z "$building" ] || kill -STOP -- "-$building" 2>/dev/null || true
  TZ=${zones[$tested]} ctest --test-dir "build/$tested" --rerun-failed -j 1 --output-on-failure \
    --no-tests=error || code=$?
  [ -z "$building" ] || kill -CONT -- "-$building" 2>/dev/null || true
  cat "$logs/LastTest.log" >>"$work/first.log"
  cp "$work/first.log" "$logs/LastTest.log"
  return $code
}

# The builds behind the first one, one after the other.
begin_builds() {
  set -m
  {
    for preset in "${presets[@]:1}"; do
      code=0
      timed "$preset.build" build "$preset" >"$work/$preset.log" 2>&1 || code=$?
      echo "$code" >"$work/code"
      mv "$work/code" "$work/$preset.built"
      [ "$code" = 0 ] || break
    done
  } &
  building=$!
  set +m
}

end_build() {
  step "Build $1"
  while [ ! -e "$work/$1.built" ]; do
    # It may just have come to its end, with a result.
    kill -0 "$building" 2>/dev/null || [ -e "$work/$1.built" ] || return 1
    sleep 0.2
  done
  cat "$work/$1.log"
  return "$(cat "$work/$1.built")"
}

# What the two machines make of a card, beside the tests of one of them.
begin_comparison() {
  set -m
  if [ -x build/release/bin/target_life ]; then
    tests/target/run "$PWD" build/release "build/$1"
  else
    echo "skipped: no release build to compare with"
  fi >"$work/machines.out" 2>&1 &
  comparing=$!
  set +m
}

end_comparison() {
  step "The same card on both machines"
  local code=0
  wait "$comparing" || code=$?
  comparing=''
  cat "$work/machines.out"
  return $code
}

test_build() {
  tested=$1
  step "Test $tested"
  local code=0
  [[ $tested != armhf-* ]] || begin_comparison "$tested"
  timed "$tested.test" run_tests "$tested" || code=$?
  if [ $code != 0 ] && [ "$tested" != fuzz ] && ask_clocks_alone; then code=0; fi
  if [ "$tested" != fuzz ]; then
    echo "Skipped of $tested, with the reason:"
    grep -h '^SKIPPED ' "build/$tested/Testing/Temporary/LastTest.log" || echo "none"
    [ "$tested" != armhf-asan ] || echo "The leak checker cannot run at all under the emulator."
  fi
  [ $code = 0 ] || echo "Tests of $tested failed."
  [ -z "$comparing" ] || end_comparison || code=$?
  return $code
}

# A row of the table: wall and processor seconds of a preset's build, of its tests, and what the test
# cases used of the processors (what runs apart is not counted by who started it).
row() {
  local preset=$1 log=build/$1/Testing/Temporary/LastTest.log build test
  read -r -a build <"$work/$preset.build"
  read -r -a test <"$work/$preset.test"
  [ -e "$log" ] || log=/dev/null
  awk -v name="$preset" -v wall="${build[0]}" -v used="$(awk "BEGIN { print ${build[1]} + ${build[2]} }")" \
    -v tests="${test[0]}" '
    match($0, /, processor [0-9.]+ s\)$/) { processor += substr($0, RSTART + 12) }
    /^[0-9]+ passed, [0-9]+ failed, [0-9]+ skipped$/ { passed += $1; skipped += $5 }
    END { printf "%-12s %6.0f %10.0f %8.0f %10.0f   %d passed, %d skipped\n", name, wall, used, tests, processor, passed, skipped }
    ' "$log"
}

where_the_time_went() {
  local preset
  printf '%-12s %6s %10s %8s %10s   %s\n' '' build processor tests processor 'test cases'
  [ ! -e "$work/lint" ] || awk '{ printf "%-12s %6.0f %10.0f\n", "lint", $1, $2 + $3 }' "$work/lint"
  for preset in "${presets[@]}"; do row "$preset"; done
  echo "The longest test cases:"
  for preset in "${presets[@]}"; do
    sed -n "s/^passed \([^ ]*\) (\([0-9.]*\) s, processor \([0-9.]*\) s)\$/\2 s, processor \3 s: $preset \1/p" \
      "build/$preset/Testing/Temporary/LastTest.log" 2>/dev/null || true
  done | sort -rn | sed -n 1,12p
}

[ $# -gt 0 ] || begin_lint
step "Build ${presets[0]}"
timed "${presets[0]}.build" build "${presets[0]}"
end_lint
begin_builds
test_build "${presets[0]}"
for preset in "${presets[@]:1}"; do
  end_build "$preset"
  test_build "$preset"
done
building=''
step "Where the time went, in seconds (tests run beside the builds below them)"
where_the_time_went
step "All passed"
