#!/usr/bin/env python3
"""Builds the hand-made fixtures of `mp4core extract`, atom by atom, with the
builder of tests/data/modern (build_fixtures.py).

  build_stream_fixtures.py DIR

- ipcm_fpcm.mp4: track 1 "ipcm" (24-bit big-endian mono, "pcmC" flags 0)
  holding the samples of pcm_variants.mov's track 5 ("in24" big-endian);
  track 2 "fpcm" (32-bit float little-endian mono, "pcmC" flags 1) holding
  those of its track 7 ("fl32" with "enda" 1). FFmpeg 5.1 reads neither
  format, so the extracted WAV files are held against FFmpeg's decode of
  those tracks.
- he_aac.mp4: the AAC frames (mono, 22050 Hz) of
  tests/data/modern/h264_rot90_sar_lang.mp4's track 2 behind
  AudioSpecificConfigs that signal HE-AAC explicitly: track 1 object type
  5 (SBR, 44100 Hz), track 2 object type 29 (SBR and PS), each with the
  core object type 2 at 22050 Hz. Debian's FFmpeg has no HE-AAC encoder, so
  the frames carry no SBR data: the ADTS stream of either track is the core
  stream, and decodes as the donor track does.
- amr.mp4: track 1 "samr" (AMR narrowband, 8000 Hz), 50 samples of one
  12.2 kbit/s frame; track 2 "sawb" (AMR wideband, 16000 Hz), 50 samples
  of one 23.85 kbit/s frame; every frame a storage-format header byte and
  seeded pseudo-random speech bits, the channel count 2 as 3GPP writers
  put it. Debian's FFmpeg has no AMR encoder, but decodes any bits of
  these modes, so the extracted storage-format files are held against
  FFmpeg's decode of the tracks. One frame a sample: FFmpeg 5.1 decodes
  only the first frame of a sample that holds several.
"""
import os
import random
import struct
import subprocess
import sys

sys.dont_write_bytecode = True  # nothing written beside the sources
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "modern"))
from build_fixtures import Donor, Movie, Track, box, full  # noqa: E402


def track_bytes(path, index, form):
    """All the bytes of a PCM track, as FFmpeg copies them out."""
    return subprocess.check_output(["ffmpeg", "-hide_banner", "-nostdin", "-v", "error", "-i", path,
                                    "-map", "0:a:%d" % index, "-c", "copy", "-f", form, "-"])


def pcm_track(tid, name, flags, bits, rate, data):
    """A mono PCM track of ISO/IEC 23003-5: sound entry version 0 and "pcmC"."""
    unit = bits // 8
    entry = box(name, bytes(6), struct.pack(">H", 1), bytes(8),
                struct.pack(">HHHHI", 1, bits, 0, 0, rate << 16),
                full("pcmC", 0, 0, struct.pack(">BB", flags, bits)))
    t = Track(tid)
    t.entry, t.timescale, t.handler, t.kind, t.codec = entry, rate, "soun", "audio", name
    t.samples = [data[i:i + unit] for i in range(0, len(data), unit)]
    t.durations = [1] * len(t.samples)
    t.offsets = [0] * len(t.samples)
    t.keys = [True] * len(t.samples)
    t.per_chunk = 80
    t.stream = {}
    return t


def descriptor(tag, body):
    return struct.pack(">BB", tag, len(body)) + body


def he_aac_track(tid, donor, object_type):
    """The donor's frames behind an "esds" whose AudioSpecificConfig signals
    HE-AAC: object type, core frequency index 7 (22050 Hz), one channel,
    extension index 4 (44100 Hz), core object type 2, three zero bits."""
    bits = (object_type << 20) | (7 << 16) | (1 << 12) | (4 << 8) | (2 << 3)
    asc = struct.pack(">I", bits << 7)[:4]
    config = descriptor(4, struct.pack(">BBBHII", 0x40, 0x15, 0, 0, 24000, 24000) +
                        descriptor(5, asc))
    esds = full("esds", 0, 0, descriptor(3, struct.pack(">HB", tid, 0) + config +
                                         descriptor(6, b"\x02")))
    t = Track(tid, donor)
    t.entry = struct.pack(">I", 36 + len(esds)) + donor.entry[4:36] + esds
    return t


def amr_track(tid, name, rate, mode, payload, frames_per_sample, count, seed):
    """AMR frames of one mode in a 3GPP sample entry: sound entry with "damr"
    (vendor, decoder version, the one mode in the mode set, mode change
    period, frames per sample)."""
    rng = random.Random(seed)
    damr = box("damr", b"mp4c", struct.pack(">BHBB", 0, 1 << mode, 0, frames_per_sample))
    entry = box(name, bytes(6), struct.pack(">H", 1), bytes(8),
                struct.pack(">HHHHI", 2, 16, 0, 0, rate << 16), damr)
    frame = rate // 50  # 20 ms
    t = Track(tid)
    t.entry, t.timescale, t.handler, t.kind, t.codec = entry, rate, "soun", "audio", name
    t.samples = [b"".join(bytes([mode << 3 | 4]) + bytes(rng.getrandbits(8) for _ in range(payload))
                          for _ in range(frames_per_sample)) for _ in range(count)]
    t.durations = [frame * frames_per_sample] * count
    t.offsets = [0] * count
    t.keys = [True] * count
    t.per_chunk = 10
    t.stream = {}
    return t


def main(directory):
    variants = os.path.join(directory, "pcm_variants.mov")
    movie = Movie([pcm_track(1, "ipcm", 0, 24, 8000, track_bytes(variants, 4, "s24be")),
                   pcm_track(2, "fpcm", 1, 32, 8000, track_bytes(variants, 6, "f32le"))])
    movie.write(os.path.join(directory, "ipcm_fpcm.mp4"))
    donor = Donor(os.path.join(directory, "..", "modern", "h264_rot90_sar_lang.mp4"), 2)
    movie = Movie([he_aac_track(1, donor, 5), he_aac_track(2, donor, 29)])
    movie.write(os.path.join(directory, "he_aac.mp4"))
    movie = Movie([amr_track(1, "samr", 8000, 7, 31, 1, 50, 1),
                   amr_track(2, "sawb", 16000, 8, 60, 1, 50, 2)])
    movie.write(os.path.join(directory, "amr.mp4"))


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else HERE)
