#!/usr/bin/env bash
# Configures and builds both architectures: build/x86_64 and build/i686.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
# A rebuild of unchanged sources comes from the compiler cache.
export CCACHE_BASEDIR="$root" CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
for arch in x86_64 i686; do
  cmake -S "$root" -B "$root/build/$arch" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-$arch.cmake" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$root/build/$arch" -j"$(nproc)"
done
