"""Reading: a file's tracks, their index, their samples, in bulk."""
from __future__ import annotations

import ctypes
import math
import os
from ctypes import byref, c_uint32, c_uint64, c_void_p
from typing import Iterator, List, NamedTuple, Optional, Tuple, Union

import numpy as np

from . import _capi
from ._capi import INDEX_DTYPE, Error, check, lib

PathLike = Union[str, bytes, os.PathLike]
_KINDS = {1: "video", 2: "audio", 3: "hint", 4: "od", 5: "scene"}
_RESTART = 0xFFFFFFFF  # MP4NextInFileOrder: a track index that restarts the cursor


class Sample(NamedTuple):
    """One sample of a track: its number (from 0), decoding and presentation
    time and duration in track ticks, sync flag and bytes."""
    number: int
    dts: int
    pts: int
    duration: int
    key: bool
    data: bytes


class Packet(NamedTuple):
    """One sample of any track, as :meth:`File.packets` gives them."""
    track_id: int
    number: int
    dts: int
    pts: int
    duration: int
    key: bool
    data: bytes


class Batch(NamedTuple):
    """Samples read with one call: ``data`` holds their bytes back to back,
    ``index`` describes each (as :meth:`Track.index` does)."""
    data: np.ndarray
    index: np.ndarray

    @property
    def starts(self) -> np.ndarray:
        """Where each sample's bytes start in ``data``."""
        ends = np.cumsum(self.index["size"], dtype=np.uint64)
        return ends - self.index["size"]

    def sample(self, i: int) -> bytes:
        """The bytes of the batch's i-th sample."""
        start = int(self.starts[i])
        return self.data[start:start + int(self.index["size"][i])].tobytes()


class _Buffer:
    """A byte buffer that the library reads into, grown on demand."""

    def __init__(self, size: int = 1 << 20) -> None:
        self.grow(size)

    def grow(self, size: int) -> None:
        self.array = np.empty(size, np.uint8)
        self.address, self.size, self.view = self.array.ctypes.data, size, memoryview(self.array)


class Track:
    """A track of an open file, as MP4GetTrackInfo describes it.

    Attributes: ``id`` (the "tkhd" track ID), ``position`` (its place in
    ``file.tracks``), ``kind`` ("video", "audio", "hint", "od", "scene" or
    "other"), ``handler`` ("vide", "soun", "text", ...), ``codec`` (the
    sample entry's format: "avc1", "hvc1", "mp4a", "Opus", ...),
    ``width``, ``height``, ``rotation`` (0, 90, 180, 270) and
    ``pixel_aspect`` of video, ``rate`` and ``channels`` of audio,
    ``timescale`` (ticks a second, the unit of every time), ``sample_count``,
    ``duration`` (ticks, the sum of the sample durations) and ``seconds``,
    ``language`` (three letters), ``encrypted``, ``edit`` (the edit list's
    media time, -1 without one, and its leading delay in ticks),
    ``fragments`` (its track fragments) and ``config`` (the decoder
    configuration)."""

    def __init__(self, file: "File", index: int, info: _capi.TrackInfo) -> None:
        self.file, self.position = file, index
        self.id, self.type = info.TrackId, info.TrackType
        self.kind = _KINDS.get(info.TrackType, "other")
        self.handler = info.Handler.decode("latin-1")
        self.codec = info.Format.decode("latin-1")
        self.width, self.height, self.rotation = info.Width, info.Height, info.Rotation
        self.pixel_aspect = (info.PixelAspectH, info.PixelAspectV)
        self.rate, self.channels = info.SampleRate, info.Channels
        self.timescale, self.sample_count = info.Timescale, info.SampleCount
        self.duration = info.Duration
        self.seconds = info.Duration / info.Timescale if info.Timescale else 0.0
        self.language = info.Language.split(b"\0")[0].decode("latin-1")
        self.encrypted = bool(info.Encrypted)
        self.edit = (info.EditMediaTime, info.EditDelay)  # media time (-1: no edit list), delay
        self.fragments = info.FragmentCount
        self._config: Optional[bytes] = None

    def __repr__(self) -> str:
        shape = f"{self.width}x{self.height}" if self.kind == "video" else f"{self.rate} Hz {self.channels} ch"
        return (f"<mp4core.Track {self.id} {self.kind} {self.codec} {shape}, "
                f"{self.sample_count} samples, {self.seconds:.3f} s>")

    @property
    def config(self) -> Optional[bytes]:
        """The decoder configuration of the first sample entry ("avcC",
        "hvcC", the AudioSpecificConfig, ...); None when it has none."""
        if self._config is None:
            data, size = c_void_p(), c_uint32()
            result = lib.MP4GetDecoderConfig(self.file._handle, self.id, self.type, byref(data), byref(size))
            if result == -97:
                return None
            check("MP4GetDecoderConfig", result)
            self._config = _capi.take_block(data, size.value)
        return self._config

    def _span(self, first: int, count: Optional[int]) -> int:
        if count is None:
            count = max(self.sample_count - first, 0)
        if first < 0 or count < 0:
            raise ValueError("first and count can't be negative")
        return count

    def index(self, first: int = 0, count: Optional[int] = None) -> np.ndarray:
        """The descriptions of samples ``first`` to ``first + count - 1`` (all
        by default) in one call, as a numpy array of ``INDEX_DTYPE``: file
        ``offset``, ``dts``, ``cts_offset`` (presentation less decoding
        time), ``duration`` (ticks), ``size``, ``key`` (sync sample) and
        ``entry`` (its sample entry, from 1)."""
        count = self._span(first, count)
        # A call for no samples first: a track kept without its tables
        # reports the count its header claims, which may be any number.
        check("MP4GetSampleInfos", lib.MP4GetSampleInfos(self.file._handle, self.id, self.type, first, 0, None))
        infos = np.empty(count, INDEX_DTYPE)
        if count:
            check("MP4GetSampleInfos", lib.MP4GetSampleInfos(
                self.file._handle, self.id, self.type, first, count, infos.ctypes.data))
        return infos

    def read(self, number: int) -> bytes:
        """The bytes of sample ``number``."""
        buffer, info = self.file._buffer, _capi.SampleInfo()
        while True:
            result = lib.MP4ReadSampleInto(self.file._handle, self.id, self.type, number,
                                           buffer.address, min(buffer.size, 0xFFFFFFFF), byref(info))
            if result != _capi.TOO_SMALL:
                check("MP4ReadSampleInto", result)
                return bytes(buffer.view[:info.Size])
            buffer.grow(info.Size)

    def read_many(self, first: int = 0, count: Optional[int] = None) -> Batch:
        """Samples ``first`` to ``first + count - 1`` (all by default) read
        with one call into one buffer: a :class:`Batch`."""
        index = self.index(first, count)
        data = np.empty(int(index["size"].sum()), np.uint8)
        done, read, offset = c_uint32(), 0, 0
        # One call reads them all, but one the file can't give whole ends the
        # run before it: the call for the rest reports it.
        while read < len(index):
            check("MP4ReadSamples", lib.MP4ReadSamples(
                self.file._handle, self.id, self.type, first + read, len(index) - read,
                data.ctypes.data + offset, len(data) - offset, index[read:].ctypes.data, byref(done)),
                f"track {self.id}, sample {first + read}")
            offset += int(index["size"][read:read + done.value].sum())
            read += done.value
        return Batch(data, index)

    def samples(self, first: int = 0, count: Optional[int] = None, batch: int = 512) -> Iterator[Sample]:
        """Every sample from ``first`` on (``count`` of them, all by default)
        in decoding order, read ``batch`` at a time underneath."""
        batches = self.file._batches(self, first, self._span(first, count), batch, self.file._buffer)
        for first, rows, view in batches:
            offset = 0
            for number, dts, cts, duration, key, size in zip(
                    range(first, first + len(rows)), rows["dts"].tolist(), rows["cts_offset"].tolist(),
                    rows["duration"].tolist(), rows["key"].tolist(), rows["size"].tolist()):
                yield Sample(number, dts, dts + cts, duration, key, bytes(view[offset:offset + size]))
                offset += size

    def find(self, seconds: Optional[float] = None, *, ticks: Optional[int] = None,
             key: bool = False, presentation: bool = True) -> int:
        """The number of the sample at a time given in ``seconds`` or
        ``ticks``: on the presentation timeline with the edit list applied
        (``presentation``), the sample shown at that time; else the last
        sample decoded at or before it. With ``key`` the last sync sample at
        or before that one."""
        if (seconds is None) == (ticks is None):
            raise ValueError("give seconds or ticks")
        if ticks is None:
            # Floors, but a time a hair below a tick (0.04 s * 12800) is that tick.
            ticks = math.floor(seconds * self.timescale + 1e-6)
        flags = (_capi.FIND_KEY if key else 0) | (_capi.FIND_PRESENTATION if presentation else 0)
        number = c_uint32()
        check("MP4FindSample", lib.MP4FindSample(self.file._handle, self.id, self.type, max(ticks, 0),
                                                 flags, byref(number)))
        return number.value


class File:
    """An MP4 file open for reading (with the modern reader): use it in a
    ``with`` block, or close it. ``tracks`` lists its tracks in file order."""

    def __init__(self, path: PathLike) -> None:
        self.path = os.fsdecode(path)
        self._h = _capi.Handle()
        check("MP4FileOpenEx", lib.MP4FileOpenEx(byref(self._h), os.fsencode(path),
                                                _capi.TABLE_KEYFRAMES, _capi.OPEN_MODERN), self.path)
        self._buffer = _Buffer()
        count = c_uint32()
        check("MP4GetTrackCount", lib.MP4GetTrackCount(self._h, byref(count)))
        self.tracks: List[Track] = []
        for i in range(count.value):
            info = _capi.TrackInfo()
            check("MP4GetTrackInfo", lib.MP4GetTrackInfo(self._h, i, byref(info)))
            self.tracks.append(Track(self, i, info))

    @property
    def _handle(self) -> _capi.Handle:
        if not self._h:
            raise ValueError("the file is closed")
        return self._h

    def close(self) -> None:
        """Releases the handle; a second close does nothing."""
        lib.MP4FileClose(byref(self._h))

    def __enter__(self) -> "File":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_h", None):
            self.close()

    def __repr__(self) -> str:
        return f"<mp4core.File {self.path!r}, {len(self.tracks)} tracks>"

    def track(self, track_id: int) -> Track:
        """The track of that ID."""
        for t in self.tracks:
            if t.id == track_id:
                return t
        raise KeyError(f"no track {track_id}")

    def atom(self, path: str) -> Optional[bytes]:
        """The payload of the atom at ``path`` ("moov/trak[2]/tkhd", "*"
        for any name), behind its head; None when there is none."""
        data, size = c_void_p(), c_uint64()
        result = lib.MP4GetAtom(self._handle, path.encode("utf-8"), byref(data), byref(size))
        if result == -97:
            return None
        check("MP4GetAtom", result, path)
        return _capi.take_block(data, size.value)

    def packets(self, batch: int = 512) -> Iterator[Packet]:
        """Every sample of every track in the order of their offsets in the
        file (samples at one offset in track order), as a player or a
        remuxer reads them. Each track's samples are read ``batch`` at a
        time underneath, into a buffer of the track's own."""
        handle, step = self._handle, lib.MP4NextInFileOrder
        position, number = c_uint32(_RESTART), c_uint32()
        where, which = byref(position), byref(number)
        held: dict = {}  # track position -> its samples read ahead, as _read_ahead gives them
        while True:
            result = step(handle, where, which)
            if result == _capi.END_OF_FILE_ORDER:
                return
            check("MP4NextInFileOrder", result)
            n, ahead = number.value, held.get(position.value)
            if ahead is None or not ahead[0] <= n < ahead[0] + len(ahead[2]):
                ahead = held[position.value] = self._read_ahead(position.value, n, batch, ahead)
            first, track_id, dts, pts, durations, keys, ends, view, _ = ahead
            i = n - first
            start = ends[i - 1] if i else 0
            yield Packet(track_id, n, dts[i], pts[i], durations[i], keys[i], bytes(view[start:ends[i]]))

    def _read_ahead(self, position: int, first: int, batch: int, before: Optional[tuple]) -> tuple:
        """Up to batch samples of a track from first on, read into the
        buffer of an earlier read-ahead (or a new one): (first, track ID,
        lists of dts, pts, durations, keys and byte ends, the bytes)."""
        track = self.tracks[position]
        buffer = before[-1] if before else _Buffer(1 << 18)
        # One batch; a first sample that can't be read raises.
        _, rows, _ = next(self._batches(track, first, min(batch, track.sample_count - first), batch, buffer))
        dts = rows["dts"].astype(np.int64)
        return (first, track.id, dts.tolist(), (dts + rows["cts_offset"]).tolist(),
                rows["duration"].tolist(), rows["key"].tolist(),
                np.cumsum(rows["size"], dtype=np.int64).tolist(), buffer.view, buffer)

    def _batches(self, track: Track, first: int, count: int, batch: int, buffer: _Buffer
                 ) -> Iterator[Tuple[int, np.ndarray, memoryview]]:
        """Reads count samples of a track from first on into buffer, batch
        at a time: gives each batch's first sample number, descriptions and
        bytes (back to back). A sample that can't be read ends its batch,
        and raises Error when the next is asked for."""
        if batch < 1:
            raise ValueError("a batch holds a sample at least")
        handle, read, done = self._handle, lib.MP4ReadSamples, c_uint32()
        infos = np.empty(batch, INDEX_DTYPE)
        while count:
            n = min(count, batch)
            result = read(handle, track.id, track.type, first, n, buffer.address, buffer.size,
                          infos.ctypes.data, byref(done))
            if result == _capi.TOO_SMALL:
                buffer.grow(max(2 * buffer.size, int(infos[0]["size"])))
                continue
            if done.value:
                yield first, infos[:done.value], buffer.view
            check("MP4ReadSamples", result, f"track {track.id}, sample {first + done.value}")
            first, count = first + done.value, count - done.value


def open(path: PathLike) -> File:  # noqa: A001 - the package's idiom, as io.open
    """Opens an MP4 (or QuickTime, 3GP, fragmented MP4) file for reading."""
    return File(path)
