#!/usr/bin/env python3
"""Writes, at test time, the sparse files above 4 GiB of large.rows (README.md
says what they hold) and their listings: make_large.py DIR"""
import os
import sys

sys.dont_write_bytecode = True  # nothing written beside the sources
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import build_fixtures  # noqa: E402

if __name__ == "__main__":
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    os.makedirs(sys.argv[1], exist_ok=True)
    build_fixtures.build(os.path.join(os.path.dirname(os.path.abspath(__file__)), "large.rows"),
                         sys.argv[1])
