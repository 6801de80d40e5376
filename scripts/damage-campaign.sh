#!/usr/bin/env bash
# A long campaign of damaged store files: every operation of the store on
# each, in batches (a batch that crashes or hangs is reported with its
# seeds and the campaign goes on).
#   scripts/damage-campaign.sh [files] [first seed] [batch] [arch]
# Defaults: 10000 files from seed 0, 500 a batch, x86_64. Builds first.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
files="${1:-10000}" first="${2:-0}" batch="${3:-500}" arch="${4:-x86_64}"
build="$root/build/$arch"
run="$root/scripts/wine-run.sh"
[ "$arch" = i686 ] && run="$root/scripts/wine32-run.sh"   # under the 32-bit emulation
cmake --build "$build" -j2 --target SafetyTest >/dev/null || exit 1
export WINEPREFIX="$build/wineprefix-safety"
log="$build/testfiles/damage-campaign.log"
mkdir -p "$build/testfiles"
: >"$log"
done_files=0 faulty=0 failed_batches=0
start=$(date +%s)
for ((seed = first; seed < first + files; seed += batch)); do
  n=$((first + files - seed < batch ? first + files - seed : batch))
  out="$(cd "$build" && SAFETY_DAMAGE_FIRST=$seed SAFETY_DAMAGE_COUNT=$n \
         timeout 1800 "$run" ./SafetyTest.exe --gtest_filter=DamagedFiles.* 2>&1)"
  rc=$?
  echo "$out" >>"$log"
  summary="$(grep '^damaged files:' <<<"$out")"
  if [ "$rc" -ne 0 ] || [ -z "$summary" ]; then
    failed_batches=$((failed_batches + 1))
    echo "seeds $seed..$((seed + n - 1)): exit $rc"
    grep -E 'seed [0-9]+ \(' <<<"$out" | head -5
    grep '^file ' <<<"$out" | tail -n 1 | sed 's/^/last begun: /'
  fi
  done_files=$((done_files + n))
  f="$(sed -n 's/.*, \([0-9]*\) with faults.*/\1/p' <<<"$summary")"
  faulty=$((faulty + ${f:-0}))
  echo "$done_files files done, $faulty with faults, $failed_batches batches failed ($(( $(date +%s) - start )) s)"
done
echo "campaign: $done_files damaged files from seed $first on $arch: $faulty with faults," \
     "$failed_batches failed batches, $(( $(date +%s) - start )) s; log $log"
[ "$faulty" -eq 0 ] && [ "$failed_batches" -eq 0 ]
