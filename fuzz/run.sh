#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a bounded time, each over its
# seed corpus (fuzz/corpus/NAME, plus the test fixtures where it reads files).
# Usage: fuzz/run.sh BUILD_DIR SECONDS
set -euo pipefail
build=$1
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
status=0
. "$here/limits.sh"
for target in "$build"/fuzz/*_fuzz; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  work=$(mktemp -d)
  seeds=()
  [ -d "$here/corpus/$name" ] && seeds+=("$here/corpus/$name")
  echo "-- $name"
  if ! "$target" -max_total_time="$seconds" -rss_limit_mb=2048 $(memory_limits "$name") -timeout=10 \
      -artifact_prefix="$work/" "$work" "${seeds[@]}" >"$work/log" 2>&1; then
    echo "FAILED: $name"; tail -n 60 "$work/log"; status=1
  else
    grep -E '^#[0-9]+.*DONE' "$work/log" | tail -n 1 || tail -n 1 "$work/log"
  fi
  rm -rf "$work"
done
exit $status
