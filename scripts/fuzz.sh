#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, ASan and UBSan in build-fuzz and
# runs each for a bounded time: scripts/fuzz.sh [seconds-per-target] [name...]
# (names as in fuzz/fuzz_<name>.cpp; default all). New inputs go to
# build-fuzz/corpus/<name>/, crashes to fuzz/artifacts/; the seed corpora in
# fuzz/corpus/ are only read.
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-60}
shift || true
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for f in fuzz/fuzz_*.cpp; do n=$(basename "$f" .cpp); names+=("${n#fuzz_}"); done
fi

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBV_FUZZ=ON -DBV_SANITIZE=address,undefined \
  -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link -DBV_BUILD_CLI=OFF >/dev/null
targets=()
for n in "${names[@]}"; do targets+=("fuzz_$n"); done
cmake --build build-fuzz -j 2 --target "${targets[@]}"

mkdir -p fuzz/artifacts
status=0
for n in "${names[@]}"; do
  exe=$(find build-fuzz -type f -name "fuzz_$n" -perm -u+x | head -1)
  work=build-fuzz/corpus/$n
  mkdir -p "$work"
  echo "== fuzz_$n for ${secs}s"
  if ! ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
      "$exe" "$work" "fuzz/corpus/$n" -max_total_time="$secs" -timeout=10 \
      -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="fuzz/artifacts/$n-" \
      2>"build-fuzz/$n.log"; then
    echo "   FAILED: see build-fuzz/$n.log and fuzz/artifacts/"
    status=1
  fi
  grep -E "^stat::number_of_executed_units|^stat::peak_rss_mb|^#[0-9]+ *DONE" "build-fuzz/$n.log" | sed 's/^/   /' || true
done
exit $status
