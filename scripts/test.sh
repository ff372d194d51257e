#!/usr/bin/env bash
# Builds one preset and runs its whole test suite.
# Usage: scripts/test.sh [--preset release|debug|asan|tsan|clang] [-- CTEST-ARGUMENTS...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=release
while [ $# -gt 0 ]; do
  case "$1" in
    --preset) preset=${2:?"--preset needs a name"}; shift 2 ;;
    --) shift; break ;;
    *) echo "usage: scripts/test.sh [--preset PRESET] [-- CTEST-ARGUMENTS...]" >&2; exit 2 ;;
  esac
done

scripts/build.sh "$preset"
scripts/check-house.py
# A forced end leaves threads behind on purpose; whoever else forgets one ends by our own check.
# A sanitizer's finding ends the program that has it, and thereby the test.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:exitcode=99}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-"exitcode=99:second_deadlock_stack=1:report_thread_leaks=0:suppressions=$PWD/tests/tsan.supp"}
export LSAN_OPTIONS=${LSAN_OPTIONS:-"suppressions=$PWD/tests/lsan.supp"}
# Most of the time the tests wait: more of them than there are processors.
status=0
ctest --test-dir "build/$preset" --output-on-failure --parallel "${BRELIX_TEST_JOBS:-4}" "$@" ||
  status=$?
# What could not run here, and why: of CTest's own words one can only tell in which files.
grep ' \.\.\. skipped ' "build/$preset/Testing/Temporary/LastTest.log" || true
exit $status
