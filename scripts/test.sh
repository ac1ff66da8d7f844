#!/usr/bin/env bash
# Installs what the tests need, then builds and runs the whole suite under the default
# preset, AddressSanitizer with UndefinedBehaviorSanitizer, and ThreadSanitizer.
# VM_PRESETS="default" (say) runs a subset.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh test

presets=${VM_PRESETS:-"default asan tsan"}
jobs=$(nproc)
total_passed=0
total_failed=0
for preset in $presets; do
  echo "=== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j"$jobs"
  echo "=== $preset: test"
  # Tests labelled "slow" (huge files, long runs) run once, in the default preset only.
  label_filter=()
  [ "$preset" = default ] || label_filter=(-LE slow)
  # Each preset's tests get a temporary folder of their own, removed afterwards, so that
  # what the tests leave there (transfers they keep on purpose, killed processes' work
  # files) does not pile up in the machine's. Never across a mount a test left behind.
  test_tmp=$(mktemp -d)
  TMPDIR="$test_tmp" ctest --preset "$preset" -j"$jobs" "${label_filter[@]}" |
    tee "build/$preset/ctest.out"
  rm -rf --one-file-system "$test_tmp" || echo "test.sh: could not remove $test_tmp"
  summary=$(grep -E 'tests passed, [0-9]+ tests failed out of' "build/$preset/ctest.out" | tail -n 1)
  failed=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$summary")
  all=$(sed -E 's/.* tests failed out of ([0-9]+).*/\1/' <<<"$summary")
  total_passed=$((total_passed + all - failed))
  total_failed=$((total_failed + failed))
done

# Short runs of the fuzz targets (clang, ASan + UBSan) from their seed corpora: the
# archive reader, then the decryptor. New inputs go to a scratch folder, crashes to
# build/fuzz/. VM_FUZZ_SECONDS sets each run's length (0 skips them).
fuzz_seconds=${VM_FUZZ_SECONDS:-30}
if [ "$fuzz_seconds" -gt 0 ]; then
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz -j"$jobs" --target archive_reader_fuzzer decryptor_fuzzer
  fuzz_work=$(mktemp -d)
  trap 'rm -rf "$fuzz_work"' EXIT
  for target in archive_reader decryptor; do
    echo "=== fuzz: ${target}, ${fuzz_seconds}s"
    mkdir "$fuzz_work/$target"
    # The archive target unpacks into a scratch folder under TMPDIR; keep that inside
    # fuzz_work too.
    if ! TMPDIR="$fuzz_work" "build/fuzz/fuzz/${target}_fuzzer" -max_total_time="$fuzz_seconds" \
      -artifact_prefix=build/fuzz/ "$fuzz_work/$target" "fuzz/corpus/$target" \
      >"build/fuzz/$target.log" 2>&1; then
      cat "build/fuzz/$target.log"
      exit 1
    fi
    tail -n 1 "build/fuzz/$target.log"
  done
fi

# One closing line for the whole run: test executables across every preset.
echo "suite: $total_passed passed, $total_failed failed"
