#!/usr/bin/env bash
# Builds the library and the brackvista tool in build/, then runs the demo:
# a built-in HDR scene bracketed, merged and tone-mapped into ./brackvista-demo/.
# Extra arguments go to the demo (e.g. a folder of brackets).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# Only the tool and the library it links: the tests are scripts/test.sh's job.
cmake --build build -j "$(nproc)" --target brackvista
tool=build/tools/brackvista/brackvista
if [ ! -x "$tool" ]; then
  echo "demo.sh: $tool was not built (is libopenimageio-dev installed? run scripts/install-deps.sh)" >&2
  exit 1
fi
"$tool" demo "$@"
