#!/usr/bin/env bash
# Checks the shared library against the list of exported names derived from kvlcv.h:
# its dynamic symbols are exactly those names and their _arraddr cells, and every entry point's
# code is one indirect jump through its own cell.
set -euo pipefail
lib=$1
names=$2
want=$( (cat "$names"; sed 's/$/_arraddr/' "$names") | sort)
have=$(nm -D --defined-only "$lib" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort)
if [ "$want" != "$have" ]; then
  echo "dynamic symbols differ from the header's list (< header, > library):"
  diff <(echo "$want") <(echo "$have") || true
  exit 1
fi
bad=0
dis=$(mktemp)
trap 'rm -f "$dis"' EXIT
objdump -d --no-show-raw-insn "$lib" > "$dis"
while read -r n; do
  body=$(awk -v n="$n" '$0 ~ "<"n">:$" {on=1; next} on && NF==0 {exit} on {print}' "$dis")
  body=$(echo "$body" | grep -v 'nop' || true)  # alignment padding before the next entry
  count=$(echo "$body" | grep -c . || true)
  if [ "$count" -ne 1 ] || ! echo "$body" | grep -Eq "jmp +\*0x[0-9a-f]+\(%rip\) +# [0-9a-f]+ <${n}_arraddr>"; then
    echo "entry point $n is not a single jump through ${n}_arraddr:"; echo "$body"; bad=1
  fi
done < "$names"
[ $bad -eq 0 ] || exit 1
echo "abi: $(wc -l < "$names") entry points, each one jump through its cell; no other symbols"
