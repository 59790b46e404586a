#!/usr/bin/env bash
# The exported binary interface of libzorv_foundation and libzorv_debug,
# against the baselines checked in beside this script.
#
#   abi/check.sh [--update] [preset ...]      (presets: abi, abi-arm32)
#
# Builds the libraries with the given presets (default: both), describes each
# with abidw and compares it with abi/x86_64/<library>.abi (preset abi) or
# abi/arm32/<library>.abi (preset abi-arm32). Any difference fails: a removed
# or changed symbol or type breaks programs built against an older release,
# and an intended addition is recorded by running with --update and
# committing the new baselines together with the change that made it.
set -euo pipefail
cd "$(dirname "$0")/.."

update=0
if [ "${1:-}" = "--update" ]; then update=1; shift; fi
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(abi abi-arm32)

status=0
for preset in "${presets[@]}"; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  case "$preset" in
    abi) target=x86_64 ;;
    abi-arm32) target=arm32 ;;
    *) echo "abi: unknown preset $preset" >&2; exit 2 ;;
  esac
  mkdir -p "abi/$target"
  for lib in src/libzorv_foundation debug/libzorv_debug; do
    name=$(basename "$lib")
    current=$(mktemp)
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs \
          --headers-dir include --drop-private-types \
          "build/$preset/$lib.so.1" --out-file "$current"
    baseline="abi/$target/$name.abi"
    if [ "$update" = 1 ]; then
      mv "$current" "$baseline"
      chmod 644 "$baseline"
      echo "abi: wrote $baseline"
      continue
    fi
    if [ ! -f "$baseline" ]; then
      echo "abi: no baseline $baseline (run abi/check.sh --update)"
      status=1
      continue
    fi
    if abidiff --suppressions abi/suppressions.ini "$baseline" "$current" > "$current.diff"; then
      echo "abi: $name ($target) unchanged"
    else
      echo "abi: $name ($target) differs from $baseline:"
      cat "$current.diff"
      status=1
    fi
    rm -f "$current" "$current.diff"
  done
done
exit $status
