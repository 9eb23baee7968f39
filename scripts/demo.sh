#!/usr/bin/env bash
# Builds the library and the brackvista tool in build/, then runs the demo:
# a built-in HDR scene bracketed, merged and tone-mapped into ./brackvista-demo/.
# Extra arguments go to the demo (e.g. a folder of brackets).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh build -DBV_BUILD_CLI=ON
tool=build/tools/brackvista/brackvista
if [ ! -x "$tool" ]; then
  echo "demo.sh: $tool was not built (is libopenimageio-dev installed? run scripts/install-deps.sh)" >&2
  exit 1
fi
"$tool" demo "$@"
