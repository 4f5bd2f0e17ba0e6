#!/usr/bin/env bash
# Builds each configuration once and runs its tests:
#   build       RelWithDebInfo, every test
#   build-tsan  ThreadSanitizer, the engine's tests and the waveform's (label "engine")
#   build-asan  AddressSanitizer + UndefinedBehaviorSanitizer, every test
set -uo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
export QT_QPA_PLATFORM=offscreen
export XDG_RUNTIME_DIR=${XDG_RUNTIME_DIR:-$(mktemp -d)}
chmod 700 "$XDG_RUNTIME_DIR" 2>/dev/null || true
export CCACHE_DIR=${CCACHE_DIR:-$HOME/.cache/ccache}

status=0
summary=()

configure_and_build() {  # dir, extra cmake args...; $TARGETS limits what is built
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null || return 1
  local targets=()
  for t in ${TARGETS:-}; do targets+=(--target "$t"); done
  cmake --build "$dir" -j "$jobs" "${targets[@]}" || return 1
}

total_passed=0
total_failed=0

# One ctest run; adds its counts to the totals and its line to the summary.
ctest_part() {  # name, dir, ctest args...; $RUN_PREFIX runs before ctest
  local name=$1 dir=$2; shift 2
  local out
  out=$(cd "$dir" && ${RUN_PREFIX:-} ctest --output-on-failure --timeout 300 "$@" 2>&1)
  local rc=$?
  echo "$out" | tail -n 40
  local line
  line=$(echo "$out" | grep -E 'tests passed|tests failed' | tail -n1)
  if [[ $line =~ ([0-9]+)\ tests\ failed\ out\ of\ ([0-9]+) ]]; then
    total_failed=$((total_failed + BASH_REMATCH[1]))
    total_passed=$((total_passed + BASH_REMATCH[2] - BASH_REMATCH[1]))
  fi
  [ -n "$line" ] && summary+=("$name: $line")
  if [ $rc -ne 0 ] && ! echo "$out" | grep -q 'No tests were found'; then status=1; fi
}

# The tests that start JACK servers run one at a time after the rest: two private
# servers at once see each other in the server list and in the default device.
run_suite() {  # name, dir, ctest args...
  local name=$1 dir=$2; shift 2
  echo "=== $name ==="
  ctest_part "$name" "$dir" -j "$jobs" -E Jack "$@"
  ctest_part "$name (JACK)" "$dir" -j 1 -R Jack "$@"
}

counts() {  # totals over every suite, as one closing line
  echo "$total_passed passed, $total_failed failed"
}

if configure_and_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo; then
  run_suite plain build
else
  echo "plain build failed"; status=1
fi

# setarch -R: ThreadSanitizer cannot map its shadow with the kernel's wide mmap randomisation.
# Only the engine's test binaries and the window's, for the waveform's worker.
if TARGETS="test_foundation test_audio test_effects test_surface" \
    configure_and_build build-tsan -DCMAKE_BUILD_TYPE=Debug -DSONTO_SANITIZE=thread -DSONTO_BUILD_BENCH=OFF; then
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp" RUN_PREFIX="setarch $(uname -m) -R" \
    run_suite tsan build-tsan -L engine
else
  echo "tsan build failed"; status=1
fi

if configure_and_build build-asan -DCMAKE_BUILD_TYPE=Debug "-DSONTO_SANITIZE=address;undefined" -DSONTO_BUILD_BENCH=OFF; then
  ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    run_suite asan+ubsan build-asan
else
  echo "asan build failed"; status=1
fi

# A bounded run of the workspace document reader's fuzzer, where clang is installed.
if command -v clang++ >/dev/null 2>&1; then
  echo "=== fuzz ==="
  if CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSONTO_FUZZ=ON \
       "-DSONTO_SANITIZE=address;undefined" -DSONTO_BUILD_TESTS=OFF -DSONTO_BUILD_BENCH=OFF >/dev/null &&
     cmake --build build-fuzz -j "$jobs" --target fuzz_document; then
    mkdir -p build-fuzz/corpus
    if build-fuzz/fuzz/fuzz_document -max_total_time=60 -max_len=65536 -detect_leaks=0 -dict=fuzz/document.dict \
         -artifact_prefix=build-fuzz/ \
         build-fuzz/corpus fuzz/corpus >build-fuzz/fuzz.log 2>&1; then
      summary+=("fuzz: $(grep -Eo 'Done [0-9]+ runs' build-fuzz/fuzz.log | tail -n1), no failure")
    else
      tail -n 40 build-fuzz/fuzz.log
      summary+=("fuzz: FAILED, see build-fuzz/fuzz.log")
      status=1
    fi
  else
    echo "fuzz build failed"; status=1
  fi
fi

printf '%s\n' "${summary[@]}"
counts
exit $status
