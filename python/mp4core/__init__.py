"""mp4core: read, write and describe MP4 files from Python.

A thin layer over the C library ``libmp4core`` (carried inside this
package) through ctypes, with numpy arrays for the sample index::

    import mp4core
    with mp4core.open("movie.mp4") as f:
        video = f.tracks[0]
        print(video.codec, video.width, video.height, video.seconds)
        index = video.index()                  # every sample's description
        frame = video.read(video.find(seconds=10.0, key=True))

Reading: :func:`open` gives a :class:`File` with its :class:`Track` list;
a track gives its index (:meth:`Track.index`, a numpy array of
:data:`INDEX_DTYPE`), single samples (:meth:`Track.read`), runs of samples
read with one call (:meth:`Track.read_many`), every sample in turn
(:meth:`Track.samples`) and the sample at a time (:meth:`Track.find`);
:meth:`File.packets` gives the samples of all tracks in file order.

Writing: :func:`create` gives a :class:`Writer` that takes tracks
(:meth:`Writer.add_track`, :meth:`Writer.add_track_from`) and samples
(:meth:`Writer.write`).

Failures raise :class:`Error`, which names the C call, its result code and
what the code means. The library's diagnostics go to the ``logging`` logger
"mp4core" (INFO for what the C calls would print, DEBUG for their debug
output), never to standard output.
"""
from ._capi import INDEX_DTYPE, Error, result_text
from ._reader import Batch, File, Packet, Sample, Track, open
from ._writer import Writer, create

__version__ = "1.0.0"
__all__ = ["open", "create", "File", "Track", "Writer", "Sample", "Packet", "Batch", "Error",
           "INDEX_DTYPE", "result_text"]

# help() and tracebacks name the classes as the package offers them.
for _name in ("File", "Track", "Writer", "Sample", "Packet", "Batch", "Error", "open", "create",
              "result_text"):
    globals()[_name].__module__ = __name__
