#!/bin/sh
# Non-blank lines of tests/ and fuzz/ against src/, include/ and tools/: the
# project keeps tests at most about 0.45 of the code. Binary test data (images,
# corpora) is left out by file(1).
cd "$(dirname "$0")/.." || exit 1
count() {
    find "$@" -type f -exec file {} + | grep -iE ':.*(text|source)' | cut -d: -f1 |
        xargs cat | grep -cv '^[[:space:]]*$'
}
tests=$(count tests fuzz)
code=$(count src include tools)
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests %d, code %d, ratio %.3f\n", t, c, t / c }'
