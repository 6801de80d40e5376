#!/usr/bin/env bash
# Builds both architectures and runs the whole test suite under Wine: the
# x86_64 build natively, the i686 build under the 32-bit emulation, which is
# set up first when it is missing.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/build.sh"
"$root/scripts/setup-i386.sh"
status=0
for arch in x86_64 i686; do
  echo "=== tests of build/$arch"
  (cd "$root/build/$arch" && ctest -j2 --output-on-failure "$@") || status=1
done
exit $status
