#!/usr/bin/env python3
"""Derives the entry layer from the public header.

Every line of include/kvlcv.h that starts with KVL_API is one exported function. From that list
this script writes, into the build tree:
  entries.S      one entry point per name: a single indirect jmp through <name>_arraddr, a cell
                 in .data initialised to impl_<name> (filled by the loader's relocation)
  impl_decls.h   hidden extern "C" declarations of every impl_<name> with the header's parameters
  kvlcv.map      the linker version script: entry points and cells global, all else local
  abi_names.inc  KVL_ABI_NAME(name) per exported function, for tests
  abi_names.txt  the names, one per line, for scripts
"""
import re
import sys
from pathlib import Path

PROTO = re.compile(r"^KVL_API\s+(?P<ret>.+?)\s*\b(?P<name>kvl\w+)\s*\((?P<args>.*)\)\s*;\s*$")


def parse(header):
    protos = []
    for lineno, line in enumerate(Path(header).read_text().splitlines(), 1):
        if not line.startswith("KVL_API"):
            continue
        m = PROTO.match(line)
        if not m:
            sys.exit(f"{header}:{lineno}: an exported prototype must stand on one line: {line}")
        protos.append((m["ret"], m["name"], m["args"]))
    names = [p[1] for p in protos]
    dupes = {n for n in names if names.count(n) > 1}
    if dupes:
        sys.exit(f"{header}: declared twice: {', '.join(sorted(dupes))}")
    return protos


def write_if_changed(path, text):
    path = Path(path)
    if not path.exists() or path.read_text() != text:
        path.write_text(text)


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: gen_abi.py include/kvlcv.h OUTDIR")
    protos = parse(sys.argv[1])
    out = Path(sys.argv[2])
    out.mkdir(parents=True, exist_ok=True)

    s = ["# Generated from kvlcv.h: entry points jumping through their pointer cells.", "\t.text"]
    for _, name, _ in protos:
        s += [f"\t.p2align 4", f"\t.globl {name}", f"\t.type {name}, @function", f"{name}:",
              f"\tjmp *.Lcell_{name}(%rip)", f"\t.size {name}, .-{name}"]
    s += ["\t.data", "\t.p2align 3"]
    for _, name, _ in protos:
        s += [f"\t.globl {name}_arraddr", f"\t.type {name}_arraddr, @object",
              f"\t.size {name}_arraddr, 8", f"{name}_arraddr:", f".Lcell_{name}:",
              f"\t.quad impl_{name}"]
    s += ['\t.section .note.GNU-stack,"",@progbits', ""]
    write_if_changed(out / "entries.S", "\n".join(s))

    d = ["// Generated from kvlcv.h: the implementations behind the entry points.", "#pragma once",
         '#include "kvlcv.h"', 'extern "C" {']
    for ret, name, args in protos:
        d.append(f'__attribute__((visibility("hidden"))) {ret} impl_{name}({args});')
    d += ["}", ""]
    write_if_changed(out / "impl_decls.h", "\n".join(d))

    m = ["KVLCV_8 {", "  global:"]
    for _, name, _ in protos:
        m.append(f"    {name}; {name}_arraddr;")
    m += ["  local: *;", "};", ""]
    write_if_changed(out / "kvlcv.map", "\n".join(m))

    write_if_changed(out / "abi_names.inc",
                     "".join(f"KVL_ABI_NAME({name})\n" for _, name, _ in protos))
    write_if_changed(out / "abi_names.txt", "".join(f"{name}\n" for _, name, _ in protos))


if __name__ == "__main__":
    main()
