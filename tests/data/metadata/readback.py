#!/usr/bin/python3
# What exiftool (-n), mutagen and ffprobe read of a file's tags and
# chapters, one "TOOL KEY=VALUE" line each, sorted. Normalised once here:
# text as UTF-8 exactly, track and disc as N/M, images as their type and
# size, chapters as "START-END title" in seconds (ffprobe) or "START title"
# (exiftool, mutagen, which read "chpl" alone).
import json, subprocess, sys
from mutagen.mp4 import MP4

path = sys.argv[1]
lines = []
groups = ["-UserData:all", "-ItemList:all", "-Keys:all", "-iTunes:all", "-QuickTime:CreateDate", "-QuickTime:ModifyDate"]
exif = json.loads(subprocess.run(["exiftool", "-n", "-j", "-G1", "-a"] + groups + [path], capture_output=True, check=True).stdout)[0]
lines += ["exiftool %s=%s" % (k, v) for k, v in exif.items() if k != "SourceFile"]
f = MP4(path)
for key, values in (f.tags or {}).items():
    for v in values if isinstance(values, list) else [values]:
        if key == "covr":
            v = "%s %d bytes" % ("image/png" if v.imageformat == v.FORMAT_PNG else "image/jpeg", len(v))
        elif isinstance(v, tuple):
            v = "%d/%d" % v
        elif isinstance(v, bytes):
            v = v.decode("utf-8")
        lines.append("mutagen %s=%s" % (key, v))
lines += ["mutagen chapter=%.3f %s" % (c.start, c.title) for c in (f.chapters or [])]
probe = json.loads(subprocess.run(["ffprobe", "-v", "error", "-of", "json", "-show_entries",
                                   "format_tags:chapter=start_time,end_time:chapter_tags=title", path],
                                  capture_output=True, check=True).stdout)
lines += ["ffprobe %s=%s" % kv for kv in probe.get("format", {}).get("tags", {}).items()]
lines += ["ffprobe chapter=%s-%s %s" % (c["start_time"], c["end_time"], c.get("tags", {}).get("title", ""))
          for c in probe.get("chapters", [])]
print("\n".join(sorted(lines)))
