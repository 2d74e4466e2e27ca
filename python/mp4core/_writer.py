"""Writing: tracks of any format and their samples into a new file."""
from __future__ import annotations

import ctypes
import os
from ctypes import byref, c_uint32
from typing import Optional, Tuple, Union

import numpy as np

from . import _capi
from ._capi import check, lib
from ._reader import PathLike, Track


SampleData = Union[bytes, bytearray, memoryview, np.ndarray]


def _address(data: SampleData) -> Tuple[object, int]:
    """Something ctypes passes as a pointer to data's bytes, and their count."""
    if isinstance(data, bytes):
        return data, len(data)
    array = np.frombuffer(data, np.uint8) if not isinstance(data, np.ndarray) else data
    if not array.flags.c_contiguous:
        array = np.ascontiguousarray(array)
    return ctypes.c_void_p(array.ctypes.data), array.nbytes


class Writer:
    """A file being written (from :func:`create`). Add the tracks, then the
    samples; the file is finished when the ``with`` block ends (or at
    :meth:`close`)."""

    def __init__(self, path: PathLike, fragmented: bool = False, faststart: bool = False) -> None:
        if fragmented and faststart:
            raise ValueError("a fragmented file has no faststart form")
        self.path = os.fsdecode(path)
        flags = _capi.NEW_FRAGMENTED if fragmented else _capi.NEW_PROGRESSIVE | (
            _capi.NEW_FASTSTART if faststart else 0)
        self._h = _capi.Handle()
        check("MP4FileNewEx", lib.MP4FileNewEx(byref(self._h), os.fsencode(path), flags), self.path)
        self._info = _capi.WriteInfo()

    def __enter__(self) -> "Writer":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_h", None):
            self.close()

    def close(self) -> None:
        """Writes the index and finishes the file; a second close does nothing."""
        if self._h:
            handle, self._h = self._h, _capi.Handle()
            check("MP4FileFlush", lib.MP4FileFlush(handle), self.path)

    @property
    def _handle(self) -> _capi.Handle:
        if not self._h:
            raise ValueError("the file is finished")
        return self._h

    def add_track(self, codec: str, timescale: int, *, width: int = 0, height: int = 0,
                  rate: int = 0, channels: int = 0, config: Optional[bytes] = None, bits: int = 0,
                  object_type: int = 0, handler: Optional[str] = None, language: str = "und",
                  rotation: int = 0, pixel_aspect: Tuple[int, int] = (0, 0),
                  media_start: int = 0) -> int:
        """Adds a track of sample entry ``codec`` ("avc1", "hvc1", "mp4a",
        "Opus", ...) and gives its ID. A video track has a picture size
        (``width``, ``height``), an audio track a ``rate`` and ``channels``;
        a track of another kind names its ``handler`` ("text", ...).
        ``config`` is the decoder configuration as :attr:`Track.config`
        gives it; ``bits`` the bits of a PCM sample; ``media_start`` the
        ticks decoded but not presented at the start (an encoder delay)."""
        entry = _capi.TrackSpec()
        entry.TrackType = 0 if handler else 1 if width or height else 2
        entry.Handler = (handler or "").encode("latin-1")
        entry.Format = codec.encode("latin-1")
        entry.Timescale, entry.Width, entry.Height = timescale, width, height
        entry.SampleRate, entry.Channels, entry.BitsPerSample = rate, channels, bits
        entry.ObjectType, entry.Rotation, entry.MediaStart = object_type, rotation, media_start
        entry.PixelAspectH, entry.PixelAspectV = pixel_aspect
        entry.Language = language.encode("latin-1")
        entry.Config = ctypes.cast(ctypes.c_char_p(config), ctypes.c_void_p) if config else None
        entry.ConfigSize = len(config or b"")
        track_id = c_uint32()
        check("MP4AddTrack", lib.MP4AddTrack(self._handle, byref(entry), byref(track_id)), codec)
        return track_id.value

    def add_track_from(self, track: Track) -> int:
        """Adds a track that copies the description of a track of an open
        file (every sample entry, handler, language, matrix, edit list) and
        gives its ID; its samples follow with :meth:`write`."""
        track_id = c_uint32()
        check("MP4AddTrackFrom", lib.MP4AddTrackFrom(self._handle, track.file._handle, track.id,
                                                     track.type, byref(track_id)))
        return track_id.value

    def write(self, track_id: int, data: SampleData, dts: int, cts_offset: int = 0, duration: int = 0,
              key: bool = False) -> None:
        """Adds one sample to a track: its bytes (bytes, bytearray, memoryview
        or a numpy array), decoding time in track ticks, presentation less
        decoding time, duration (0: up to the next sample's decoding time)
        and sync flag."""
        pointer, size = _address(data)
        info = self._info
        info.DecodeTime, info.CompositionOffset, info.Duration = dts, cts_offset, duration
        info.Size, info.Flags = size, _capi.SAMPLE_KEY if key else 0
        check("MP4WriteSample", lib.MP4WriteSample(self._handle, track_id, byref(info), pointer),
              f"track {track_id}")


def create(path: PathLike, fragmented: bool = False, faststart: bool = False) -> Writer:
    """Creates (or empties) an MP4 file to write: progressive by default
    (the index at the end), with ``faststart`` the index in front, or
    ``fragmented`` (written as it comes, in fragments that survive a
    crash)."""
    return Writer(path, fragmented, faststart)
