"""Indexes a folder of MP4 files into a CSV, one row per track: kind, codec,
picture or sound, duration, sample count, key-frame interval and bit rate.

The files are described in parallel by Dask workers: a local cluster of
--workers processes by default, or the cluster whose scheduler --scheduler
names (tcp://host:8786), whose workers must have mp4core installed and see
the files at the same paths.

    python index_folder.py FOLDER [-o index.csv] [--workers 2] [--scheduler ADDRESS]
"""
import argparse
import csv
import os
import sys

import numpy as np
from dask.distributed import Client, LocalCluster

import mp4core

SUFFIXES = (".mp4", ".m4a", ".m4v", ".mov", ".3gp")
COLUMNS = ["file", "track", "kind", "codec", "width", "height", "rate", "channels", "samples",
           "seconds", "key_interval_s", "bit_rate", "error"]


def describe(path):
    """The rows of one file; a file the library refuses gives one row with
    the error."""
    try:
        with mp4core.open(path) as f:
            return [describe_track(path, t) for t in f.tracks]
    except mp4core.Error as e:
        return [{"file": path, "error": str(e)}]


def describe_track(path, track):
    row = {"file": path, "track": track.id, "kind": track.kind, "codec": track.codec,
           "width": track.width, "height": track.height, "rate": track.rate,
           "channels": track.channels, "samples": track.sample_count,
           "seconds": round(track.seconds, 3)}
    try:
        index = track.index()
    except mp4core.Error as e:
        return dict(row, error=str(e))
    keys = index["dts"][index["key"]]
    if track.kind == "video" and len(keys) > 1 and track.timescale:
        row["key_interval_s"] = round(float(np.diff(keys).mean()) / track.timescale, 3)
    if track.seconds > 0:
        row["bit_rate"] = int(index["size"].sum(dtype=np.uint64) * 8 / track.seconds)
    return row


def index_files(client, paths):
    """Every file's rows, described on the cluster's workers."""
    return [row for rows in client.gather(client.map(describe, paths)) for row in rows]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("folder")
    parser.add_argument("-o", "--output", default="index.csv")
    parser.add_argument("--workers", type=int, default=2, help="local worker processes")
    parser.add_argument("--scheduler", help="address of a Dask scheduler to use instead")
    args = parser.parse_args()

    paths = sorted(os.path.join(root, name) for root, _, names in os.walk(args.folder)
                   for name in names if name.lower().endswith(SUFFIXES))
    if args.scheduler:
        with Client(args.scheduler) as client:
            rows = index_files(client, paths)
    else:
        with LocalCluster(n_workers=args.workers, threads_per_worker=1,
                          dashboard_address=None) as cluster, Client(cluster) as client:
            rows = index_files(client, paths)

    with open(args.output, "w", newline="") as out:
        writer = csv.DictWriter(out, COLUMNS)
        writer.writeheader()
        writer.writerows(rows)
    failed = sum(1 for row in rows if row.get("error"))
    print(f"{len(paths)} files, {len(rows)} rows ({failed} with an error) in {args.output}")
    return 0 if paths else 1


if __name__ == "__main__":
    sys.exit(main())
