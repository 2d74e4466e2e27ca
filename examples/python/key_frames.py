"""Random access to key frames, as a training loop that samples still
pictures from a set of videos reads them: the key frames of every video
track are listed once from the index (no sample is read for that), then
each step draws a batch of (file, time) pairs and reads the key frame
shown at or before each time.

    python key_frames.py FILE... [--steps 100] [--batch 16] [--seed 0]

A real loop hands each frame, with the track's decoder configuration
(track.config), to a decoder; this one counts the bytes.
"""
import argparse
import random
import sys
import time

import numpy as np

import mp4core


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("files", nargs="+")
    parser.add_argument("--steps", type=int, default=100)
    parser.add_argument("--batch", type=int, default=16)
    parser.add_argument("--seed", type=int, default=0)
    args = parser.parse_args()

    # Files stay open for the whole loop: each open reads the index once.
    videos = []
    for path in args.files:
        f = mp4core.open(path)
        for track in f.tracks:
            if track.kind == "video" and track.sample_count:
                keys = np.flatnonzero(track.index()["key"])
                videos.append((track, keys))
                print(f"{path}: track {track.id} {track.codec} {track.width}x{track.height}, "
                      f"{len(keys)} key frames in {track.seconds:.1f} s")
    if not videos:
        print("no video track")
        return 1

    rng = random.Random(args.seed)
    frames = size = 0
    start = time.perf_counter()
    for _ in range(args.steps):
        batch = []
        for _ in range(args.batch):
            track, keys = rng.choice(videos)
            # The key frame before a random time; keys[...] lists them all
            # for loops that draw from the list instead.
            number = track.find(seconds=rng.uniform(0, track.seconds), key=True)
            batch.append(track.read(number))
        frames += len(batch)
        size += sum(len(b) for b in batch)
    elapsed = time.perf_counter() - start
    print(f"{frames} key frames, {size} bytes in {elapsed:.3f} s "
          f"({frames / elapsed:.0f} frames/s)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
