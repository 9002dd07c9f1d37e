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
# One pass over the disassembly of the span holding the entry points (the exported code symbols;
# the last one gets 64 bytes): a symbol's body runs from its "<name>:" line to the next blank
# line or symbol. Nop lines are the alignment padding before the next entry and do not count.
span=$(nm -D --defined-only "$lib" | awk '$2 == "T" {print $1}' | sort | sed -n '1p;$p')
start=0x$(echo "$span" | head -1)
stop=$(printf '0x%x' $(( 0x$(echo "$span" | tail -1) + 64 )))
objdump -d --no-show-raw-insn --start-address="$start" --stop-address="$stop" "$lib" |
  awk -v list="$names" '
  function finish() {
    if (cur == "") return
    if (count != 1 || !jump) {
      printf "entry point %s is not a single jump through %s_arraddr:\n%s", cur, cur, body
      bad = 1
    }
    cur = ""
  }
  BEGIN {
    while ((getline n < list) > 0) if (n != "") { want[n] = 1; total++ }
    close(list)
  }
  /^[0-9a-f]+ <[^>]+>:$/ {
    finish()
    n = $2; sub(/^</, "", n); sub(/>:$/, "", n)
    if (n in want) { cur = n; seen[n] = 1; count = 0; jump = 0; body = "" }
    next
  }
  cur == "" { next }
  NF == 0 { finish(); next }
  /\t([a-z0-9]+ )*nop|\txchg +%ax,%ax$/ { next }
  {
    count++; body = body $0 "\n"
    if ($0 ~ ("jmp +\\*0x[0-9a-f]+\\(%rip\\) +# [0-9a-f]+ <" cur "_arraddr>$")) jump = 1
  }
  END {
    finish()
    for (n in want) {
      if (!(n in seen)) { printf "entry point %s is not in the disassembly\n", n; bad = 1 }
    }
    if (bad) exit 1
    printf "abi: %d entry points, each one jump through its cell; no other symbols\n", total
  }'
