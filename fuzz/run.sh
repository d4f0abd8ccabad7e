#!/usr/bin/env bash
# Builds the fuzz targets with clang under the address and undefined-behaviour sanitizers in
# ${FUZZ_BUILD_DIR:-build-fuzz} and runs each for ${FUZZ_SECONDS:-30} seconds, ${FUZZ_JOBS:-2}
# at a time, starting from its kept corpus (new inputs go to a scratch corpus in the build
# folder, never into the source tree). Targets may be named as arguments, else all run.
# Exits non-zero on any finding; the input that found it is left in <build>/findings/<target>/
# and belongs, once fixed, in fuzz/corpus/<target>/ as a regression input.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$here/build-fuzz}

if [ "${1:-}" = --one ]; then
  target=$2
  case $target in
    tar) dict=tar.dict ;;
    info | depstring | keyfile) dict=info.dict ;;
    *) dict=json.dict ;;
  esac
  mkdir -p "$build/scratch/$target" "$build/findings/$target" "$build/logs"
  # Writers sync what they replace: a root in memory keeps that from setting the pace.
  if [ -z "${TMPDIR:-}" ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi
  if "$build/fuzz/fuzz_$target" -max_total_time="${FUZZ_SECONDS:-30}" -rss_limit_mb=512 \
       -timeout=20 -print_final_stats=1 -dict="$here/fuzz/dict/$dict" \
       -artifact_prefix="$build/findings/$target/" \
       "$build/scratch/$target" "$here/fuzz/corpus/$target" >"$build/logs/$target.log" 2>&1; then
    result=ok
  else
    result=FINDING
  fi
  cov=$(grep -o 'cov: [0-9]*' "$build/logs/$target.log" | tail -1 || true)
  rate=$(grep -o 'average_exec_per_sec: *[0-9]*' "$build/logs/$target.log" | tail -1 || true)
  runs=$(grep -o 'number_of_executed_units: *[0-9]*' "$build/logs/$target.log" | tail -1 || true)
  echo "fuzz_$target: $result, ${cov:-cov: ?}, ${rate:-exec/s ?}, ${runs:-runs ?}"
  [ "$result" = ok ] || { tail -40 "$build/logs/$target.log"; exit 1; }
  exit 0
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(tar info depstring wizard privilege json keyfile)
fi
cmake -S "$here" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Fuzz \
  -DCMAKE_CXX_FLAGS="-O1 -gline-tables-only -fno-omit-frame-pointer \
-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined" \
  -DZARN_BUILD_FUZZ=ON -DZARN_BUILD_TESTS=OFF -DZARN_BUILD_BENCH=OFF >/dev/null
build_targets=()
for target in "${targets[@]}"; do build_targets+=(--target "fuzz_$target"); done
cmake --build "$build" -j "$(nproc)" "${build_targets[@]}"
printf '%s\n' "${targets[@]}" | xargs -P "${FUZZ_JOBS:-2}" -n 1 "$0" --one
