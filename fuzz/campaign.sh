#!/usr/bin/env bash
# A long fuzz campaign: every target runs for SECONDS over its committed
# corpus, then the grown corpus is minimised back into fuzz/corpus/NAME.
# Crashes are kept under OUT_DIR/NAME/ for a regression test.
# Usage: fuzz/campaign.sh BUILD_DIR SECONDS OUT_DIR
set -euo pipefail
build=$1
seconds=$2
out=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$here/limits.sh"
mkdir -p "$out"
for target in "$build"/fuzz/*_fuzz; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  work="$out/$name"
  mkdir -p "$work/grown" "$work/crashes" "$here/corpus/$name"
  echo "-- $name: ${seconds}s"
  # -fork keeps going past a finding so one crash does not end the campaign.
  "$target" -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 \
    -max_total_time="$seconds" -rss_limit_mb=2048 $(memory_limits "$name") -timeout=10 \
    -artifact_prefix="$work/crashes/" "$work/grown" "$here/corpus/$name" \
    >"$work/log" 2>&1 || true
  grep -E '^#[0-9]+' "$work/log" | tail -n 1 || true
  # Minimise: keep only inputs that add coverage, in a fresh directory.
  rm -rf "$work/min" && mkdir -p "$work/min"
  "$target" -merge=1 -rss_limit_mb=2048 -timeout=10 "$work/min" \
    "$here/corpus/$name" "$work/grown" >"$work/merge.log" 2>&1 || true
  if [ -n "$(ls -A "$work/min")" ]; then
    rm -rf "$here/corpus/$name" && cp -r "$work/min" "$here/corpus/$name"
  fi
  echo "   corpus: $(ls "$here/corpus/$name" | wc -l) files;" \
       "findings: $(ls "$work/crashes" | wc -l)"
done
