#!/usr/bin/env bash
# Builds and runs the whole test suite: a release build, then the same tests
# under AddressSanitizer + UndefinedBehaviorSanitizer, then the threaded
# tests under ThreadSanitizer. Set BV_QUICK=1 to run the release build only.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

echo "== release build"
scripts/build.sh build
(cd build && ctest --output-on-failure -j "$jobs")

if [ "${BV_QUICK:-0}" = "1" ]; then exit 0; fi

echo "== ASan + UBSan build"
scripts/build.sh build-asan -DBV_SANITIZE=address,undefined -DBV_BUILD_CLI=OFF
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --output-on-failure -j "$jobs" -E '_slow$')

echo "== ThreadSanitizer build"
scripts/build.sh build-tsan -DBV_SANITIZE=thread -DBV_BUILD_CLI=OFF
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1 \
  ctest --output-on-failure -j "$jobs" -E '_slow$|^replay_|exported_symbols')
