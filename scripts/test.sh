#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
#   scripts/test.sh            debug build
#   scripts/test.sh --asan     AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh --tsan     ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."

preset=debug
case "${1:-}" in
  "") ;;
  --asan) preset=asan ;;
  --tsan) preset=tsan ;;
  *) echo "usage: $0 [--asan|--tsan]" >&2; exit 2 ;;
esac

scripts/setup.sh
cmake --preset "$preset" -DQEL_BUILD_BENCH=OFF >/dev/null
cmake --build --preset "$preset" -j2
if [ "$preset" = tsan ]; then
  # TSan's shadow memory cannot cope with the high mmap randomisation of newer kernels.
  if [ "$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)" -gt 28 ]; then
    sysctl -qw vm.mmap_rnd_bits=28 2>/dev/null || true
  fi
  # A forked child of a threaded process starts threads of its own (the fork test): TSan
  # allows it only when told to.
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 die_after_fork=0 ${TSAN_OPTIONS:-}"
fi
export ASAN_OPTIONS="detect_leaks=1 ${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1 ${UBSAN_OPTIONS:-}"
ctest --preset "$preset" -j2
