#!/usr/bin/env python3
"""Derives the Python package's low-level signature table from the public headers.

Reads the one-line KVL_API declarations of include/kvlcv.h (the same parser as the entry layer)
and the KVLCORE_API declarations of include/kvlcore.h, and writes OUTDIR/_abi.py: for every
exported function its return type and its parameters as (C type, name) pairs. The package turns
the table into ctypes prototypes when it loads, so a function is callable from Python as soon as
its declaration is in the header.
"""
import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from gen_abi import parse, write_if_changed  # noqa: E402

CORE = re.compile(r"^KVLCORE_API\s+(?P<ret>.+?)\s*\b(?P<name>\w+)\s*\((?P<args>.*)\)\s*;\s*$")
ENUM = re.compile(r"^\s*(?P<name>kvl\w+)\s*=\s*(?P<value>-?\d+),?\s*(?:/\*(?P<doc>.*?)\*/)?\s*$",
                  re.M)
INLINE_ENUM = re.compile(r"^enum \{(.*)\};", re.M)
PARAM = re.compile(r"^(?P<type>.*?[\s*])(?P<name>\w+)$")


def params(args):
    args = args.strip()
    if args in ("", "void"):
        return ()
    out = []
    for a in args.split(","):
        # An array parameter (`const Kvl8u newVal[3]`) is passed as a pointer.
        a = re.sub(r"\s*(\w+)\s*\[\s*\d*\s*\]$", r"* \1", a.strip())
        m = PARAM.match(a)
        if not m:
            sys.exit(f"cannot split parameter: {a!r}")
        out.append((" ".join(m["type"].replace("*", " * ").split()).replace(" *", "*"),
                    m["name"]))
    return tuple(out)


def declarations(cv_header, core_header):
    """(kvlcv.h's, kvlcore.h's) exported functions as (return type, name, parameters)."""
    cv = [(ret.strip(), name, params(args)) for ret, name, args in parse(cv_header)]
    core = []
    for line in Path(core_header).read_text().splitlines():
        m = CORE.match(line)
        if m:
            core.append((m["ret"].strip(), m["name"], params(m["args"])))
    return cv, core


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: gen_py.py include/kvlcv.h include/kvlcore.h OUTDIR")
    cv, core = declarations(sys.argv[1], sys.argv[2])
    lines = ['"""Generated from kvlcv.h and kvlcore.h: return type and parameters of every',
             'exported function. Do not edit."""', "", "FUNCTIONS = {"]
    for ret, name, ps in cv:
        lines.append(f"    {name!r}: ({ret!r}, {ps!r}),")
    lines += ["}", "", "CORE_FUNCTIONS = {"]
    for ret, name, ps in core:
        lines.append(f"    {name!r}: ({ret!r}, {ps!r}),")
    lines += ["}", "", "# Enumerators of the headers: name -> (value, comment)", "CONSTANTS = {"]
    for h in sys.argv[1:3]:
        for m in ENUM.finditer(Path(h).read_text()):
            lines.append(f"    {m['name']!r}: ({int(m['value'])}, {(m['doc'] or '').strip()!r}),")
        for m in INLINE_ENUM.finditer(Path(h).read_text()):
            for name, value in re.findall(r"(kvl\w+)\s*=\s*(-?\d+)", m[1]):
                lines.append(f"    {name!r}: ({int(value)}, ''),")
    lines += ["}", ""]
    out = Path(sys.argv[3])
    out.mkdir(parents=True, exist_ok=True)
    write_if_changed(out / "_abi.py", "\n".join(lines))


if __name__ == "__main__":
    main()
