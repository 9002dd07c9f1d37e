#!/usr/bin/env bash
# Runs ctest in each build directory given and ends with one summary line over all of them.
set -uo pipefail
passed=0; failed=0; status=0
for dir in "$@"; do
  echo "== tests in $dir"
  out=$(ctest --test-dir "$dir" --output-on-failure -j2 2>&1); rc=$?
  echo "$out"
  line=$(echo "$out" | grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' | tail -1)
  if [ -z "$line" ]; then status=1; failed=$((failed + 1)); continue; fi
  total=$(echo "$line" | sed -E 's/.*out of ([0-9]+).*/\1/')
  bad=$(echo "$line" | sed -E 's/.*, ([0-9]+) tests failed.*/\1/')
  passed=$((passed + total - bad)); failed=$((failed + bad))
  [ $rc -eq 0 ] || status=1
done
echo "ctest: $passed passed, $failed failed"
exit $status
