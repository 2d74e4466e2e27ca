"""Reads from Python: every sample's bytes of a one-hour H.264/AAC file
through Track.read_many, Track.samples and File.packets, against PyAV's
container.demux() with each packet's bytes touched; and Track.index() of a
track of a million samples.

    python bench/python/bench_read.py [DIR]    (default build/bench-python)

Makes its files in DIR the first time (FFmpeg: one minute of 320x240
H.264 at 25 pictures per second and 48 kHz stereo AAC, repeated to an hour
without re-encoding; the million-sample track written with mp4core), then
reports the best of three runs of each, the files read once before so
that all come from the page cache.
"""
import os
import subprocess
import sys
import time

import av
import numpy as np

import mp4core


def ffmpeg(*args):
    subprocess.run(["ffmpeg", "-hide_banner", "-nostdin", "-v", "error", "-y", *args], check=True)


def hour_file(folder):
    path = os.path.join(folder, "hour_h264_aac.mp4")
    if not os.path.exists(path):
        minute = os.path.join(folder, "minute.mp4")
        ffmpeg("-f", "lavfi", "-i", "testsrc=size=320x240:rate=25:duration=60",
               "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000:duration=60",
               "-c:v", "libx264", "-preset", "ultrafast", "-g", "50", "-pix_fmt", "yuv420p",
               "-c:a", "aac", "-b:a", "96k", "-ac", "2", minute)
        ffmpeg("-stream_loop", "59", "-i", minute, "-c", "copy", path + ".part.mp4")
        os.replace(path + ".part.mp4", path)
    return path


def million_file(folder, source):
    path = os.path.join(folder, "million.mp4")
    if not os.path.exists(path):
        with mp4core.open(source) as f, mp4core.create(path + ".part.mp4") as w:
            track = w.add_track_from(f.tracks[0])
            # Sizes that vary, as a real track's do ("stsz" with a size a
            # sample: the reader's heap bound follows the table's bytes).
            payloads = [b"\0\0\0\1\x09" + bytes(n) for n in range(7)]
            for n in range(1_000_000):
                w.write(track, payloads[n % 7], n * 512, key=n % 250 == 0)
        os.replace(path + ".part.mp4", path)
    return path


def best(run, repeat=3):
    """The shortest wall time and the shortest processor time of repeat
    runs (the second tells less of other jobs on the machine), and the
    result."""
    wall, cpu = [], []
    for _ in range(repeat):
        start, start_cpu = time.perf_counter(), time.process_time()
        result = run()
        wall.append(time.perf_counter() - start)
        cpu.append(time.process_time() - start_cpu)
    return min(wall), min(cpu), result


def pyav(path):
    size = count = 0
    with av.open(path) as container:
        for packet in container.demux():
            if packet.size:
                size += len(memoryview(packet))
                count += 1
    return count, size


def read_many(path, batch=4096):
    size = count = 0
    with mp4core.open(path) as f:
        for track in f.tracks:
            for first in range(0, track.sample_count, batch):
                data, index = track.read_many(first, min(batch, track.sample_count - first))
                size += len(data)
                count += len(index)
    return count, size


def samples(path):
    size = count = 0
    with mp4core.open(path) as f:
        for track in f.tracks:
            for s in track.samples():
                size += len(s.data)
                count += 1
    return count, size


def packets(path):
    size = count = 0
    with mp4core.open(path) as f:
        for p in f.packets():
            size += len(p.data)
            count += 1
    return count, size


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else "build/bench-python"
    os.makedirs(folder, exist_ok=True)
    hour = hour_file(folder)
    million = million_file(folder, hour)
    pyav(hour)
    base, base_cpu, (count, size) = best(lambda: pyav(hour))
    print(f"{hour}: {count} samples, {size / 1e6:.1f} MB (wall time; processor time)")
    print(f"  PyAV demux, bytes touched   {base:6.3f} s {base / count * 1e6:5.2f} us/sample;"
          f" {base_cpu:6.3f} s")
    for name, run in (("read_many (4096)", read_many), ("samples()", samples), ("packets()", packets)):
        seconds, cpu, got = best(lambda: run(hour))
        assert got == (count, size), (name, got)
        print(f"  {name:<27} {seconds:6.3f} s {seconds / count * 1e6:5.2f} us/sample {base / seconds:5.1f}x PyAV;"
              f" {cpu:6.3f} s {base_cpu / cpu:5.1f}x")
    with mp4core.open(million) as f:
        track = f.tracks[0]
        seconds, cpu, index = best(track.index, repeat=10)
        assert len(index) == 1_000_000 and index["key"].sum() == 4000
        print(f"{million}: index() of {len(index)} samples {seconds * 1e3:.1f} ms; {cpu * 1e3:.1f} ms")

if __name__ == "__main__":
    main()
