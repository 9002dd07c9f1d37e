#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets: per target, a few inputs for each member.

A target's first decoded value picks its member, one byte when the table has at most 256
entries, so seed k of a target starts with byte k % members; the rest is seeded noise of a few
dozen to a few hundred bytes. Run from the repository root after adding a target or a member:
  fuzz/make_seeds.py NAME MEMBERS [SEEDS_PER_MEMBER]
"""
import random
import sys
from pathlib import Path


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    name, members = sys.argv[1], int(sys.argv[2])
    per = int(sys.argv[3]) if len(sys.argv) == 4 else 1
    out = Path(__file__).resolve().parent / "corpus" / name
    out.mkdir(parents=True, exist_ok=True)
    rng = random.Random(name)
    for k in range(members * per):
        body = bytes(rng.randrange(256) for _ in range(rng.choice((24, 48, 96, 200, 400))))
        (out / f"seed-{k:03d}").write_bytes(bytes([k % members]) + body)


if __name__ == "__main__":
    main()
