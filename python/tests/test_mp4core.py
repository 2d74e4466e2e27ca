# The package against FFmpeg's view of every fixture with a listing, a
# written file read back, the errors it raises and where diagnostics go.
import ctypes
import glob
import logging
import os
import pickle
import zlib

import numpy as np
import pytest

import mp4core

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "data")
LISTINGS = sorted(glob.glob(f"{DATA}/*.samples") + glob.glob(f"{DATA}/modern/*.samples"))
H264_AAC = f"{DATA}/modern/h264_aac.mp4"


def listed_tracks(path):
    """(track line, sample lines) of each track of a listing, split in words."""
    tracks = []
    for line in open(path):
        if line.startswith("track"):
            tracks.append((line.split(), []))
        elif line.strip() and not line.startswith("#"):
            tracks[-1][1].append(line.split())
    return tracks


def read_rows(track, modern, keys):
    """A track's samples in the listing's words; from the first sample that
    can't be read on, the result it gives."""
    rows, index = [], track.index()
    try:
        for s, i in zip(track.samples(batch=7), index):
            assert (s.dts, s.pts - s.dts, s.key) == (i["dts"], i["cts_offset"], i["key"])
            key = str(int(s.key)) if keys else "-"
            fields = [i["dts"], i["size"], i["offset"], key, i["cts_offset"]] if modern else [i["dts"], i["size"], key]
            rows.append([str(f) for f in fields] + [f"{zlib.crc32(s.data):08x}"])
    except mp4core.Error as e:
        rows += [["error", str(e.code)]] * (len(index) - len(rows))
    return rows


@pytest.mark.parametrize("listing", LISTINGS, ids=os.path.basename)
def test_index_and_samples_match_ffprobe(listing):
    with mp4core.open(listing[:-len(".samples")]) as f:
        for head, rows in listed_tracks(listing):
            track = f.track(int(head[1]))
            assert [track.timescale, track.sample_count] == [int(head[5]), int(head[7])]
            if rows[0][0] == "pcm":
                data = b"".join(s.data for s in track.samples())
                assert [track.index()["size"][0], len(data), zlib.crc32(data)] == \
                    [int(rows[0][1]), int(rows[0][2]), int(rows[0][3], 16)]
                continue
            # "keys vop": the flags of a file whose "stss" was taken out.
            keys = head[-1] != "vop"
            if not keys:
                rows = [r[:2] + ["-"] + r[3:] for r in rows]
            assert read_rows(track, len(head) == 8, keys) == rows


@pytest.mark.parametrize("copy", [True, False], ids=["add_track_from", "add_track"])
@pytest.mark.parametrize("form", [{}, {"faststart": True}, {"fragmented": True}], ids=str)
def test_created_file_reads_back_sample_for_sample(tmp_path, copy, form):
    out = tmp_path / "out.mp4"
    with mp4core.open(H264_AAC) as f, mp4core.create(out, **form) as w:
        ids = {t.id: w.add_track_from(t) if copy else w.add_track(
            t.codec, t.timescale, width=t.width, height=t.height, rate=t.rate,
            channels=t.channels, config=t.config, language=t.language) for t in f.tracks}
        offsets = []
        for p in f.packets(batch=5):
            offsets.append(f.track(p.track_id).index(p.number, 1)["offset"][0])
            w.write(ids[p.track_id], p.data, p.dts, p.pts - p.dts, p.duration, p.key)
        assert offsets == sorted(offsets) and len(offsets) == sum(t.sample_count for t in f.tracks)
    with mp4core.open(H264_AAC) as f, mp4core.open(out) as g:
        for a, b in zip(f.tracks, g.tracks, strict=True):
            assert (b.codec, b.config, b.width, b.rate) == (a.codec, a.config, a.width, a.rate)
            fields = ["dts", "cts_offset", "duration", "size", "key"]
            assert b.index()[fields].tolist() == a.index()[fields].tolist()
            batch = b.read_many()
            assert [batch.sample(i) for i in range(b.sample_count)] == [s.data for s in a.samples()]


# h264_aac.mp4's video: B-frames, the edit list starts at media time 512,
# key frames 0 and 12 (at 6144); at 1100 sample 3 is shown, 2 was decoded.
@pytest.mark.parametrize("when, key, presentation, number", [
    ({"ticks": 1100}, False, True, 3), ({"ticks": 1100}, False, False, 2),
    ({"seconds": 0.48}, True, True, 12), ({"seconds": 0.47}, True, True, 0),
])
def test_find(when, key, presentation, number):
    with mp4core.open(H264_AAC) as f:
        assert f.tracks[0].find(**when, key=key, presentation=presentation) == number


@pytest.mark.parametrize("act, call, code", [
    (lambda f: mp4core.open(f"{DATA}/missing.mp4"), "MP4FileOpenEx", -96),
    (lambda f: f.tracks[0].read(25), "MP4ReadSampleInto", -96),
    (lambda f: f.tracks[1].index(40, 10), "MP4GetSampleInfos", -96),
    # A track kept without tables, whose "stz2" claims 10^9 samples: no array is made.
    (lambda f: mp4core.open(f"{DATA}/modern/claims_stz2_count.mp4").tracks[0].index(), "MP4GetSampleInfos", -97),
    (lambda f: f.atom("moov//trak"), "MP4GetAtom", -98),
    (lambda f: mp4core.open(f"{DATA}/modern/frag_cut_in_data.mp4").tracks[0].read_many(), "MP4ReadSamples", -92),
    (lambda f: mp4core.create(f"{DATA}/missing/x.mp4"), "MP4FileNewEx", -99),
])
def test_errors_name_the_call_and_the_result(act, call, code):
    with mp4core.open(H264_AAC) as f, pytest.raises(mp4core.Error) as raised:
        act(f)
    again = pickle.loads(pickle.dumps(raised.value))
    assert (raised.value.call, raised.value.code, again.code, str(again)) == (call, code, code, str(raised.value))
    assert raised.value.text == mp4core.result_text(call, code) != mp4core.result_text("?", code)


def test_diagnostics_go_to_logging(caplog, capfd):
    # A classic call that prints: the summary of a file that is no MP4 file.
    summary = ctypes.create_string_buffer(1024)
    with caplog.at_level(logging.INFO, logger="mp4core"):
        mp4core._capi.lib.GetFileInfo(f"{DATA}/sample.m4v".encode(), summary)
    assert "There could be have illegal atoms!" in caplog.text
    assert capfd.readouterr().out == ""
