#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan+UBSan) and runs each one in turn for a
# bounded time on a scratch copy of its seed corpus, so the committed corpus never grows.
# Fails on the first crash, leak, sanitizer report, timeout or out-of-memory; the input
# that caused it is kept as fuzz-artifacts/<target>-crash-... in the build directory.
#   scripts/fuzz.sh                      30 s per target
#   scripts/fuzz.sh --seconds 600        10 minutes per target
#   scripts/fuzz.sh --seconds 60 text    one target (service_answer, keyed_archive, text,
#                                        server_request, dns_stub)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=30
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="${2:?--seconds needs a number}"; shift 2 ;;
    -h|--help) sed -n '2,10p' "$0"; exit 0 ;;
    -*) echo "usage: $0 [--seconds N] [target...]" >&2; exit 2 ;;
    *) targets+=("$1"); shift ;;
  esac
done
[ ${#targets[@]} -eq 0 ] && targets=(service_answer keyed_archive text server_request daemon_request dns_stub)

scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2

build=build/fuzz
artifacts="$build/fuzz-artifacts"
mkdir -p "$artifacts"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

export ASAN_OPTIONS="detect_leaks=1 ${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1 ${UBSAN_OPTIONS:-}"

for target in "${targets[@]}"; do
  binary="$build/fuzz/${target}_fuzzer"
  [ -x "$binary" ] || { echo "fuzz: no target named $target" >&2; exit 2; }
  corpus="$scratch/$target"
  mkdir -p "$corpus"
  cp fuzz/corpus/"$target"/* "$corpus"/
  echo "fuzz: $target for ${seconds} s"
  # One process (no -jobs): the run is a smoke test, and the machine may be shared.
  "$binary" "$corpus" -dict="fuzz/$target.dict" -max_total_time="$seconds" -max_len=4096 \
    -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$artifacts/$target-" 2>"$scratch/$target.log" || {
    tail -n 60 "$scratch/$target.log" >&2
    echo "fuzz: $target failed; input kept under $artifacts/" >&2
    exit 1
  }
  # Runs, executions, and the coverage (edges, features) reached at the end.
  grep -E '^Done' "$scratch/$target.log" || true
  grep -oE 'cov: [0-9]+ ft: [0-9]+' "$scratch/$target.log" | tail -n 1 || true
done
echo "fuzz: no crash, leak or sanitizer report"
