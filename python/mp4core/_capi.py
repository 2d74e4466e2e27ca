"""The library's C interface as ctypes sees it: records, prototypes, the
result check and the diagnostics sink. Nothing here interprets a file."""
from __future__ import annotations

import ctypes
import logging
import os
from ctypes import (CFUNCTYPE, POINTER, Structure, c_char, c_char_p, c_int, c_int32, c_int64,
                    c_uint8, c_uint16, c_uint32, c_uint64, c_void_p)

import numpy as np

# MP4FileOpenEx, MP4FileNewEx, MP4FindSample and MP4WriteInfo flags.
OPEN_MODERN = 1
NEW_FRAGMENTED, NEW_PROGRESSIVE, NEW_FASTSTART = 1, 4, 8
FIND_KEY, FIND_PRESENTATION = 1, 2
SAMPLE_KEY = 1
TABLE_KEYFRAMES = 1
# MP4ReadSampleInto and MP4ReadSamples: the buffer can't hold the sample.
TOO_SMALL = -91
# MP4NextInFileOrder: every sample has been stepped over.
END_OF_FILE_ORDER = 0


class TrackInfo(Structure):
    _fields_ = [("TrackId", c_uint32), ("TrackType", c_int32), ("Handler", c_char * 4),
                ("Format", c_char * 4), ("SampleCount", c_uint32), ("Timescale", c_uint32),
                ("Duration", c_uint64), ("Width", c_uint32), ("Height", c_uint32),
                ("Rotation", c_uint32), ("PixelAspectH", c_uint32), ("PixelAspectV", c_uint32),
                ("SampleRate", c_uint32), ("Channels", c_uint32), ("Language", c_char * 4),
                ("Encrypted", c_uint8), ("Pad", c_uint8 * 3), ("Scheme", c_char * 4),
                ("EditMediaTime", c_int64), ("EditDelay", c_uint64), ("FragmentCount", c_uint32),
                ("EntryCount", c_uint32), ("HeaderDuration", c_uint64), ("Flags", c_uint32),
                ("Reserved", c_uint32 * 3)]


class SampleInfo(Structure):
    _fields_ = [("FileOffset", c_uint64), ("DecodeTime", c_uint64), ("CompositionOffset", c_int32),
                ("Size", c_uint32), ("IsKeyFrame", c_uint8), ("Pad", c_uint8),
                ("DescriptionIndex", c_uint16), ("Duration", c_uint32)]


class TrackSpec(Structure):
    _fields_ = [("TrackType", c_uint32), ("Handler", c_char * 4), ("Format", c_char * 4),
                ("Timescale", c_uint32), ("Width", c_uint32), ("Height", c_uint32),
                ("SampleRate", c_uint32), ("Channels", c_uint32), ("BitsPerSample", c_uint32),
                ("ObjectType", c_uint32), ("Config", c_void_p), ("ConfigSize", c_uint32),
                ("Language", c_char * 4), ("Rotation", c_uint32), ("PixelAspectH", c_uint32),
                ("PixelAspectV", c_uint32), ("MediaStart", c_uint32), ("Reserved", c_uint32 * 6)]


class WriteInfo(Structure):
    _fields_ = [("DecodeTime", c_uint64), ("CompositionOffset", c_int32), ("Duration", c_uint32),
                ("Size", c_uint32), ("Flags", c_uint32), ("DescriptionIndex", c_uint32),
                ("Reserved", c_uint32 * 3)]


# MP4SampleInfo as a numpy record, without its pad byte: an array of it is
# the caller's array that MP4GetSampleInfos and MP4ReadSamples fill.
INDEX_DTYPE = np.dtype({
    "names": ["offset", "dts", "cts_offset", "duration", "size", "key", "entry"],
    "formats": ["<u8", "<u8", "<i4", "<u4", "<u4", "?", "<u2"],
    "offsets": [SampleInfo.FileOffset.offset, SampleInfo.DecodeTime.offset,
                SampleInfo.CompositionOffset.offset, SampleInfo.Duration.offset,
                SampleInfo.Size.offset, SampleInfo.IsKeyFrame.offset,
                SampleInfo.DescriptionIndex.offset],
    "itemsize": ctypes.sizeof(SampleInfo)})

Handle = c_void_p
Sink = CFUNCTYPE(None, c_int, c_char_p, c_void_p)
u32p, u64p = POINTER(c_uint32), POINTER(c_uint64)

_PROTOTYPES = {
    "MP4FileOpenEx": (c_int32, [POINTER(Handle), c_char_p, c_int32, c_uint32]),
    "MP4FileClose": (c_uint32, [POINTER(Handle)]),
    "MP4FileNewEx": (c_int32, [POINTER(Handle), c_char_p, c_uint32]),
    "MP4FileFlush": (c_int32, [Handle]),
    "MP4AddTrack": (c_int32, [Handle, POINTER(TrackSpec), u32p]),
    "MP4AddTrackFrom": (c_int32, [Handle, Handle, c_uint32, c_int32, u32p]),
    "MP4WriteSample": (c_int32, [Handle, c_uint32, POINTER(WriteInfo), c_void_p]),
    "MP4GetTrackCount": (c_int32, [Handle, u32p]),
    "MP4GetTrackInfo": (c_int32, [Handle, c_uint32, POINTER(TrackInfo)]),
    "MP4GetSampleInfos": (c_int32, [Handle, c_uint32, c_int32, c_uint32, c_uint32, c_void_p]),
    "MP4ReadSampleInto": (c_int32, [Handle, c_uint32, c_int32, c_uint32, c_void_p, c_uint32,
                                    POINTER(SampleInfo)]),
    "MP4ReadSamples": (c_int32, [Handle, c_uint32, c_int32, c_uint32, c_uint32, c_void_p, c_uint64,
                                 c_void_p, u32p]),
    "MP4NextInFileOrder": (c_int32, [Handle, u32p, u32p]),
    "MP4FindSample": (c_int32, [Handle, c_uint32, c_int32, c_uint64, c_uint32, u32p]),
    "MP4GetDecoderConfig": (c_int32, [Handle, c_uint32, c_int32, POINTER(c_void_p), u32p]),
    "MP4GetAtom": (c_int32, [Handle, c_char_p, POINTER(c_void_p), u64p]),
    "MP4freeData": (c_int32, [POINTER(c_void_p)]),
    "MP4ResultText": (c_char_p, [c_char_p, c_int32]),
    "MP4SetDiagnostics": (None, [Sink, c_void_p]),
}


def _load() -> ctypes.CDLL:
    # The library built with the package lies beside this file;
    # MP4CORE_LIBRARY names another build of it (a sanitizer build, say).
    path = os.environ.get("MP4CORE_LIBRARY") or os.path.join(os.path.dirname(__file__), "libmp4core.so.1")
    lib = ctypes.CDLL(path)
    for name, (restype, argtypes) in _PROTOTYPES.items():
        function = getattr(lib, name)
        function.restype, function.argtypes = restype, argtypes
    return lib


lib = _load()


class Error(Exception):
    """A call of the library failed.

    Attributes: ``call`` (the C function's name), ``code`` (its negative
    result) and ``text`` (what the result means for that call, from
    MP4ResultText)."""

    def __init__(self, call: str, code: int, detail: str = "") -> None:
        self.call, self.code, self.detail = call, code, detail
        self.text = result_text(call, code)
        super().__init__(f"{call} gave {code}: {self.text}" + (f" ({detail})" if detail else ""))

    def __reduce__(self):
        # Made again from its parts, so that it crosses processes (Dask).
        return Error, (self.call, self.code, self.detail)


def result_text(call: str, code: int) -> str:
    """The meaning of result ``code`` of the C function ``call``."""
    return lib.MP4ResultText(call.encode(), code).decode("utf-8", "replace")


def check(call: str, result: int, detail: str = "") -> int:
    """Raises Error unless result is 1; gives it back otherwise."""
    if result != 1:
        raise Error(call, result, detail)
    return result


def take_block(pointer: c_void_p, size: int) -> bytes:
    """The bytes of a block the library handed out, which is then freed."""
    try:
        return ctypes.string_at(pointer, size) if size else b""
    finally:
        lib.MP4freeData(ctypes.byref(pointer))


# Channel 1 is what the library would print on standard output, 2 its
# debug output.
log = logging.getLogger("mp4core")
_LEVELS = {1: logging.INFO, 2: logging.DEBUG}


def _forward(channel: int, text: bytes, _context: int) -> None:
    log.log(_LEVELS.get(channel, logging.INFO), "%s", text.decode("utf-8", "replace").rstrip("\n"))


# Kept here for as long as the module lives: the library holds its address.
_sink = Sink(_forward)
lib.MP4SetDiagnostics(_sink, None)
