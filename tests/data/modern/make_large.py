#!/usr/bin/env python3
"""Makes, at test time, the sparse MP4 files above 4 GiB that large.rows
describes, and their expected listings (README.md says what they hold).

  make_large.py DIR     writes DIR/large_co64.mp4 and DIR/large_frag.mp4
                        (about 5 GiB apparent size, some 20 KB on disk each)
                        with their .samples and .streams

Needs python3 only, and a file system with sparse files.
"""
import os
import sys

sys.dont_write_bytecode = True  # nothing written beside the sources
here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, here)
import build_fixtures  # noqa: E402

if __name__ == "__main__":
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    os.makedirs(sys.argv[1], exist_ok=True)
    build_fixtures.build(os.path.join(here, "large.rows"), sys.argv[1])
